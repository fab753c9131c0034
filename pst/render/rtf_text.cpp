#include "pst/render/rtf_text.h"

#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

#include "common/kernel_memory.h"
#include "kernel/tarnkrn.h"
#include "platform/codepage.h"
#include "platform/font_coverage.h"
#include "platform/script_cmap.h"

namespace tarn {
namespace {

// Faces tried, in this order, for a run that no font of the table covers. "Symbol" is listed twice.
constexpr std::string_view kFallbackFaces[] = {"Arial", "Symbol", "MS Gothic", "Batang", "Gulim", "Symbol"};

constexpr int kMaxUnits = std::numeric_limits<int>::max();

bool IsAscii(char16_t unit) { return unit < 0x80; }

// Appends to the header buffer and keeps the first failure, so that the steps need not check each
// write and the caller gets the buffer's own status.
class RtfWriter {
  public:
    explicit RtfWriter(GrowBuffer* out, Repairs* repairs = nullptr) : out_(out), repairs_(repairs) {}

    void Put(std::string_view text) {
        if (status_ != kStatusOk) return;
        if (const int32_t status = out_->Append(text); status != kStatusOk) status_ = status;
    }

    // A byte as it is, or as "\'" and two lower-case hex digits where RTF would read it as structure
    // or it is not ASCII.
    void PutByte(uint8_t byte) {
        if (byte >= 32 && byte < 128 && byte != '{' && byte != '}' && byte != '\\') {
            const char c = static_cast<char>(byte);
            Put(std::string_view(&c, 1));
            return;
        }
        char escape[5];
        std::snprintf(escape, sizeof escape, "\\'%02x", byte);
        Put(std::string_view(escape, 4));
    }

    // A byte that a code page gave: below 128 as it is, above as "\'" and two hex digits. Deliberately
    // unescaped, as header text has always been written: a double-byte code page's trail byte can be a
    // backslash or a brace (Shift-JIS 0x83 0x5C is U+30BD), and it then reaches the document raw.
    // Repaired, such bytes are escaped like any other.
    void PutCodePageByte(uint8_t byte) {
        const bool structural = byte < 32 || byte == '{' || byte == '}' || byte == '\\';
        if (byte < 128 && !(structural && repairs_ != nullptr && repairs_->Make(Repair::kRtfHeaderEscape))) {
            const char c = static_cast<char>(byte);
            Put(std::string_view(&c, 1));
            return;
        }
        PutByte(byte);
    }

    // "\fN " when `font` is not the current font, which it then becomes.
    void SwitchFont(int32_t& current, int32_t font) {
        if (font == current) return;
        char word[24];
        const int length = std::snprintf(word, sizeof word, "\\f%d ", font);
        Put(std::string_view(word, static_cast<size_t>(length)));
        current = font;
    }

    void PutUnicode(char16_t unit) {
        char word[24];
        const int length =
            std::snprintf(word, sizeof word, "\\u%d ?", static_cast<int>(static_cast<int16_t>(unit)));
        Put(std::string_view(word, static_cast<size_t>(length)));
    }

    int32_t status() const { return status_; }

  private:
    GrowBuffer* out_;
    Repairs* repairs_;
    int32_t status_ = kStatusOk;
};

// The units of the current text, the one thing every step below reads.
struct Text {
    const char16_t* units;
    size_t count;
};

// Whether `code_page` holds text[start, end) exactly: converted without a default character and back to
// the same units. 1 yes, 0 no, -1 when memory runs out.
int32_t HoldsExactly(uint32_t code_page, const char16_t* units, size_t count) {
    if (count == 0) return kStatusOk;
    if (count > static_cast<size_t>(kMaxUnits)) return 0;
    const int n = static_cast<int>(count);
    const int needed = platform::WideCharToMultiByte(code_page, 0, units, n, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return 0;
    KernelArray<char> bytes;
    if (!bytes.allocate(static_cast<size_t>(needed))) return kStatusFailure;
    bool used_default = false;
    const int written =
        platform::WideCharToMultiByte(code_page, 0, units, n, bytes.data(), needed, nullptr, &used_default);
    if (written <= 0 || used_default) return 0;
    const int back = platform::MultiByteToWideChar(code_page, 0, bytes.data(), written, nullptr, 0);
    if (back != n) return 0;
    KernelArray<char16_t> round_trip;
    if (!round_trip.allocate(count)) return kStatusFailure;
    if (platform::MultiByteToWideChar(code_page, 0, bytes.data(), written, round_trip.data(), n) != n)
        return 0;
    return std::memcmp(round_trip.data(), units, count * sizeof(char16_t)) == 0 ? kStatusOk : 0;
}

// The first usable code page of the charset table that holds the units exactly, in *code_page (0 for
// none). 1, or -1 when memory runs out.
int32_t FindUsableCodePage(const char16_t* units, size_t count, uint32_t* code_page) {
    *code_page = 0;
    for (const RtfCharset& row : RtfCharsets()) {
        if (!row.usable) continue;
        const int32_t holds = HoldsExactly(row.code_page, units, count);
        if (holds < 0) return holds;
        if (holds == kStatusOk) {
            *code_page = row.code_page;
            return kStatusOk;
        }
    }
    return kStatusOk;
}

// Writes the ASCII units from `at` (up to a unit of 128 or more, or the end) in the base font; returns
// where it stopped.
size_t WriteAsciiRun(RtfWriter& writer, int32_t& current, int32_t base, Text text, size_t at) {
    size_t end = at;
    while (end < text.count && IsAscii(text.units[end])) ++end;
    if (end == at) return at;
    writer.SwitchFont(current, base);
    for (size_t i = at; i < end; ++i) writer.PutByte(static_cast<uint8_t>(text.units[i]));
    return end;
}

// Writes text[start, end) in `code_page`: its non-ASCII stretches in bytes of that code page behind a
// switch to a font for it, its ASCII stretches in the base font.
int32_t WriteCodePageRun(RtfWriter& writer, RtfFontTable& table, int32_t& current, int32_t base,
                         uint32_t code_page, Text text, size_t start, size_t end) {
    const int32_t font = FontForCodePage(table, code_page);
    if (font < 0) return font;
    size_t at = start;
    while (at < end && writer.status() == kStatusOk) {
        if (IsAscii(text.units[at])) {
            at = WriteAsciiRun(writer, current, base, Text{text.units, end}, at);
            continue;
        }
        size_t stop = at;
        while (stop < end && !IsAscii(text.units[stop])) ++stop;
        if (stop - at > static_cast<size_t>(kMaxUnits)) return kStatusBadArgument;
        const int n = static_cast<int>(stop - at);
        const int needed =
            platform::WideCharToMultiByte(code_page, 0, text.units + at, n, nullptr, 0, nullptr, nullptr);
        if (needed <= 0) return kStatusBadArgument;
        KernelArray<char> bytes;
        if (!bytes.allocate(static_cast<size_t>(needed))) return kStatusFailure;
        const int written = platform::WideCharToMultiByte(code_page, 0, text.units + at, n, bytes.data(),
                                                          needed, nullptr, nullptr);
        if (written <= 0) return kStatusBadArgument;
        writer.SwitchFont(current, font);
        for (int i = 0; i < written; ++i) writer.PutCodePageByte(static_cast<uint8_t>(bytes.data()[i]));
        at = stop;
    }
    return writer.status();
}

// The glyph test: a font of that face, selected into a screen device context, asked whether it has a
// glyph for every unit. 1 yes, 0 no, -1 when memory runs out.
int32_t FaceHasGlyphs(const RtfFontTable& table, std::string_view face, const char16_t* units, size_t count) {
    if (face.empty() || count > static_cast<size_t>(kMaxUnits)) return 0;
    KrnFontDescription description{};
    bool ascii = true;
    for (char c : face) ascii = ascii && static_cast<uint8_t>(c) < 0x80;
    if (ascii) {
        // Every face we add, and nearly every face a table names, is ASCII: the same in any code page
        // a document may declare, even one that has no converter here.
        for (size_t i = 0; i < face.size() && i < KRN_FACE_SIZE - 1; ++i) description.face_name[i] = face[i];
    } else {
        // Other names are bytes of the document's code page; a name that does not convert cannot be
        // asked about.
        const uint32_t code_page =
            table.document_code_page != 0 ? table.document_code_page : platform::kCpAcp;
        KernelArray<char16_t> wide;
        if (!wide.allocate(face.size())) return kStatusFailure;
        const int units_written =
            face.size() > static_cast<size_t>(kMaxUnits)
                ? 0
                : platform::MultiByteToWideChar(code_page, 0, face.data(), static_cast<int>(face.size()),
                                                wide.data(), static_cast<int>(face.size()));
        if (units_written <= 0) return 0;
        for (int i = 0; i < units_written && i < KRN_FACE_SIZE - 1; ++i)
            description.face_name[i] = wide.data()[i];
    }
    KernelArray<uint16_t> glyphs;
    if (!glyphs.allocate(count)) return kStatusFailure;
    krn_font font = krnCreateFont(&description);
    krn_dc dc = krnScreenDc();
    int32_t result = 0;
    if (font != nullptr && dc != nullptr) {
        krn_font previous = platform::SelectObject(dc, font);
        if (previous != nullptr) {
            platform::ScriptCache cache = nullptr;
            result = platform::ScriptGetCMap(dc, &cache, units, static_cast<int>(count), 0, glyphs.data()) ==
                             platform::kScriptOk
                         ? kStatusOk
                         : 0;
            platform::ScriptFreeCache(&cache);
            platform::SelectObject(dc, previous);
        }
    }
    if (dc != nullptr) krnReleaseScreenDc(dc);
    if (font != nullptr) krnDeleteFont(font);
    return result;
}

// The number of the first font whose glyphs cover the run, in *font (kNoFont for none): the table's
// named fonts first, then the fallback faces not already in the table; a fallback face that passes is
// added. 1, or a negative status.
int32_t FindCoveringFont(RtfFontTable& table, const char16_t* units, size_t count, int32_t* font) {
    *font = kNoFont;
    for (const RtfFont& entry : table.entries()) {
        if (entry.face_length == 0) continue;
        const int32_t passes = FaceHasGlyphs(table, entry.face_name(), units, count);
        if (passes < 0) return passes;
        if (passes == kStatusOk) {
            *font = entry.number;
            return kStatusOk;
        }
    }
    for (std::string_view face : kFallbackFaces) {
        bool in_table = false;
        for (const RtfFont& entry : table.entries())
            in_table = in_table || platform::SameFaceName(entry.face_name(), face);
        if (in_table) continue;
        const int32_t passes = FaceHasGlyphs(table, face, units, count);
        if (passes < 0) return passes;
        if (passes == kStatusOk) {
            const int32_t added = AddFont(table, 0, 0, "", face);
            if (added < 0) return added;
            *font = added;
            return kStatusOk;
        }
    }
    return kStatusOk;
}

// Where the script run that starts at `at` ends, by the kernel.
size_t RunEnd(Text text, size_t at) {
    const size_t left = text.count - at;
    const int32_t remaining = left > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(left);
    const char16_t* end = krnScriptRunEnd(text.units + at, remaining);
    // The kernel promises at least one unit; a run that came back empty would stall the walk.
    return end > text.units + at ? static_cast<size_t>(end - text.units) : at + 1;
}

// Steps 3.1 to 3.5: the text walked run by run.
int32_t WriteByRuns(RtfWriter& writer, RtfFontTable& table, int32_t& current, int32_t base, Text text) {
    size_t at = 0;
    while (writer.status() == kStatusOk) {
        at = WriteAsciiRun(writer, current, base, text, at);
        if (at >= text.count) break;
        const size_t run_end = RunEnd(text, at);
        uint32_t code_page = 0;
        if (const int32_t status = FindUsableCodePage(text.units + at, run_end - at, &code_page);
            status < 0) {
            return status;
        }
        if (code_page != 0) {
            // The stretch grows over ASCII and over the following runs that the same code page holds.
            size_t stretch_end = run_end;
            for (;;) {
                size_t next = stretch_end;
                while (next < text.count && IsAscii(text.units[next])) ++next;
                if (next >= text.count) break;
                const size_t next_end = RunEnd(text, next);
                const int32_t holds = HoldsExactly(code_page, text.units + next, next_end - next);
                if (holds < 0) return holds;
                if (holds != kStatusOk) break;
                stretch_end = next_end;
            }
            if (const int32_t status =
                    WriteCodePageRun(writer, table, current, base, code_page, text, at, stretch_end);
                status != kStatusOk) {
                return status;
            }
            at = stretch_end;
            continue;
        }
        int32_t font = kNoFont;
        if (const int32_t status = FindCoveringFont(table, text.units + at, run_end - at, &font);
            status < 0) {
            return status;
        }
        if (font != kNoFont) writer.SwitchFont(current, font);
        for (size_t i = at; i < run_end; ++i) writer.PutUnicode(text.units[i]);
        at = run_end;
    }
    return writer.status();
}

// Text for a body whose code page is UTF-8: ASCII as it is in the base font, and each stretch of other
// units as Unicode, in a font that covers it when there is one.
int32_t WriteUnicode(RtfWriter& writer, RtfFontTable& table, int32_t& current, int32_t base, Text text) {
    size_t at = 0;
    while (writer.status() == kStatusOk) {
        at = WriteAsciiRun(writer, current, base, text, at);
        if (at >= text.count) break;
        size_t end = at;
        while (end < text.count && !IsAscii(text.units[end])) ++end;
        int32_t font = kNoFont;
        if (const int32_t status = FindCoveringFont(table, text.units + at, end - at, &font); status < 0)
            return status;
        writer.SwitchFont(current, font != kNoFont ? font : base);
        for (size_t i = at; i < end; ++i) writer.PutUnicode(text.units[i]);
        at = end;
    }
    return writer.status();
}

}  // namespace

int32_t EncodeRtfUnicode(GrowBuffer* out, RtfFontTable& table, int32_t& current_font, const char16_t* units,
                         size_t count, Repairs* repairs) {
    if (out == nullptr || (units == nullptr && count != 0)) return kStatusNullPointer;
    // The text ends at a NUL unit, as the string it came from did.
    size_t length = 0;
    while (length < count && units[length] != 0) ++length;
    const Text text{units, length};

    // A body in UTF-8 has no font a reader would read code-page bytes in. Repaired, its header text is
    // Unicode, in a Western font where it is ASCII; the contract looks for a font of code page 65001,
    // finds none, and gives no header.
    const bool unicode = table.document_code_page == platform::kCpUtf8 && repairs != nullptr &&
                         repairs->Make(Repair::kRtfUnicodeHeader);
    if (current_font == kNoFont) {
        const int32_t font =
            FontForCodePage(table, unicode ? platform::kCpWestern : table.document_code_page);
        if (font < 0) return font;
        current_font = font;
    }
    const int32_t base = current_font;
    RtfWriter writer(out, repairs);

    // Text that is ASCII throughout (what is left before a NUL may be) needs no code page, and must not
    // add a font for one.
    bool ascii = true;
    for (size_t i = 0; ascii && i < text.count; ++i) ascii = IsAscii(text.units[i]);
    uint32_t code_page = 0;
    if (!ascii && !unicode) {
        if (const int32_t status = FindUsableCodePage(text.units, text.count, &code_page); status < 0) {
            return status;
        }
    }
    const int32_t status =
        code_page != 0 ? WriteCodePageRun(writer, table, current_font, base, code_page, text, 0, text.count)
        : unicode      ? WriteUnicode(writer, table, current_font, base, text)
                       : WriteByRuns(writer, table, current_font, base, text);
    if (status != kStatusOk) return status;
    writer.SwitchFont(current_font, base);
    return writer.status();
}

int32_t EncodeRtfText(RtfTextState& state, const char* utf8, size_t length) {
    if (state.out == nullptr || state.fonts == nullptr || (utf8 == nullptr && length != 0)) {
        return kStatusNullPointer;
    }
    RtfWriter writer(state.out);
    size_t at = 0;
    for (; at < length && static_cast<uint8_t>(utf8[at]) < 0x80; ++at) {
        writer.PutByte(static_cast<uint8_t>(utf8[at]));
    }
    if (writer.status() != kStatusOk || at == length) return writer.status();

    const size_t rest = length - at;
    if (rest > static_cast<size_t>(kMaxUnits)) return kStatusBadArgument;
    // A UTF-8 sequence never takes fewer bytes than the UTF-16 units it becomes.
    KernelArray<char16_t> wide;
    if (!wide.allocate(rest)) return kStatusFailure;
    const int units = platform::MultiByteToWideChar(platform::kCpUtf8, 0, utf8 + at, static_cast<int>(rest),
                                                    wide.data(), static_cast<int>(rest));
    if (units <= 0) return kStatusBadArgument;
    return EncodeRtfUnicode(state.out, *state.fonts, state.current_font, wide.data(),
                            static_cast<size_t>(units), state.repairs);
}

}  // namespace tarn
