#include "pst/render/iso2022jp.h"

#include <algorithm>
#include <string_view>

#include "platform/codepage.h"
#include "pst/render/jisx0208_table.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

constexpr char kEscape = 0x1B;
constexpr char16_t kReplacement = 0xFFFD;
constexpr size_t kGrowthStep = 1024;
// JIS X 0208 is decoded into UTF-16 in chunks of this many units on the stack; no cell of the table is
// a surrogate, so a chunk boundary never splits a character.
constexpr size_t kChunkUnits = 256;

enum class Mode { kAscii, kJisRoman, kJisX0208 };

// The mode an escape sequence at `at` selects, or false when `at` starts none of the four.
bool ReadEscape(std::string_view text, size_t at, Mode* mode) {
    if (text.size() - at < 3 || text[at] != kEscape) return false;
    const std::string_view sequence = text.substr(at + 1, 2);
    if (sequence == "(B") {
        *mode = Mode::kAscii;
    } else if (sequence == "(J") {
        *mode = Mode::kJisRoman;
    } else if (sequence == "$@" || sequence == "$B") {
        *mode = Mode::kJisX0208;
    } else {
        return false;
    }
    return true;
}

// JIS-Roman differs from ASCII in two places: the yen sign and the overline.
int32_t AppendJisRoman(std::string_view run, GrowBuffer& out) {
    for (const char byte : run) {
        int32_t status = kStatusOk;
        if (byte == '\\')
            // Deliberately the single byte A5 (the yen sign in Latin-1), not its UTF-8 form, although all
            // around it is UTF-8; kept as the system has it.
            status = out.AppendByte(0xA5);
        else if (byte == '~')
            status = out.Append("\xE2\x80\xBE");
        else
            status = out.AppendByte(static_cast<uint8_t>(byte));
        if (status != kStatusOk) return status;
    }
    return kStatusOk;
}

int32_t FlushUnits(const char16_t* units, size_t count, GrowBuffer& out) {
    if (count == 0) return kStatusOk;
    char bytes[kChunkUnits * 3];
    const int written = platform::WideCharToMultiByte(platform::kCpUtf8, 0, units, static_cast<int>(count),
                                                      bytes, sizeof bytes, nullptr, nullptr);
    if (written <= 0) return kStatusConversionFailed;
    return out.Append(bytes, static_cast<size_t>(written));
}

// One run of JIS X 0208 text, which holds no CR, LF or escape sequence.
int32_t AppendJisX0208(std::string_view run, GrowBuffer& out) {
    char16_t units[kChunkUnits];
    size_t count = 0;
    size_t at = 0;
    while (at < run.size()) {
        const auto first = static_cast<uint8_t>(run[at]);
        char16_t unit = kReplacement;
        if (first == 0x20 || first == 0x7F) {
            unit = first;
            ++at;
        } else if (first < 0x21 || first >= 0x80 || (first >= 0x29 && first <= 0x2F) || first >= 0x75) {
            // No row: 0x80 is as empty as the bytes around it.
            ++at;
        } else if (at + 1 == run.size()) {
            // A first byte that ends the run has no partner; the line break or escape behind it is
            // left to the next run.
            ++at;
        } else {
            const auto second = static_cast<uint8_t>(run[at + 1]);
            const JisRow& row = kJisX0208Rows[first - 0x21];
            if (second > 0x20 && static_cast<size_t>(second - 0x21) < row.length)
                unit = row.cells[second - 0x21];
            at += 2;
        }
        units[count++] = unit;
        if (count == kChunkUnits) {
            if (int32_t status = FlushUnits(units, count, out); status != kStatusOk) return status;
            count = 0;
        }
    }
    return FlushUnits(units, count, out);
}

// The end of the run of `mode` text that starts at `at`: the next escape sequence, or for JIS X 0208
// also the next line break.
size_t RunEnd(std::string_view text, size_t at, Mode mode) {
    Mode ignored;
    for (; at < text.size(); ++at) {
        if (text[at] == kEscape && ReadEscape(text, at, &ignored)) break;
        if (mode == Mode::kJisX0208 && (text[at] == '\r' || text[at] == '\n')) break;
    }
    return at;
}

int32_t Decode(std::string_view text, size_t first_escape, GrowBuffer& out) {
    if (int32_t status = out.Append(text.substr(0, first_escape)); status != kStatusOk) return status;
    Mode mode = Mode::kAscii;
    Mode before_kanji = Mode::kAscii;  // never kJisX0208, so a line break always leaves that mode
    size_t at = first_escape;
    while (at < text.size()) {
        Mode next;
        if (ReadEscape(text, at, &next)) {
            if (next == Mode::kJisX0208 && mode != Mode::kJisX0208) before_kanji = mode;
            mode = next;
            at += 3;
            continue;
        }
        const size_t end = RunEnd(text, at, mode);
        if (end == at) {  // a line break in JIS X 0208
            mode = before_kanji;
            continue;
        }
        const std::string_view run = text.substr(at, end - at);
        int32_t status = kStatusOk;
        if (mode == Mode::kJisX0208)
            status = AppendJisX0208(run, out);
        else if (mode == Mode::kJisRoman)
            status = AppendJisRoman(run, out);
        else
            status = out.Append(run);
        if (status != kStatusOk) return status;
        at = end;
    }
    return out.Terminate();
}

}  // namespace

int32_t DecodeIso2022Jp(CountedString* body, size_t start) {
    if (body == nullptr || body->data() == nullptr || body->size() == 0) return kStatusNullPointer;
    // A terminating NUL is not text: decoded in JIS X 0208 it would become U+FFFD.
    std::string_view text = body->text();
    start = std::min(start, text.size());

    // The declaration is rewritten first, in a copy, so that a failure further on leaves the body whole.
    GrowBuffer renamed;
    const size_t name = FindIgnoringCase(text, "iso-2022-jp", start);
    if (name != std::string_view::npos) {
        int32_t status = renamed.Init(text.size() + 1, 0);
        if (status == kStatusOk) status = renamed.Append(text.substr(0, name));
        if (status == kStatusOk) status = renamed.Append("UTF-8");
        if (status == kStatusOk) status = renamed.Append(text.substr(name + 11));
        if (status != kStatusOk) return status;
        text = renamed.view();
    }

    const size_t first_escape = text.find(kEscape, start);
    if (first_escape == std::string_view::npos) {
        if (name == std::string_view::npos) return kStatusOk;
        if (body->size() != body->TextLength()) {
            if (int32_t status = renamed.AppendByte(0); status != kStatusOk) return status;
        }
        renamed.MoveInto(*body);
        return kStatusOk;
    }
    GrowBuffer decoded;
    if (int32_t status = decoded.Init(text.size() + 1, kGrowthStep); status != kStatusOk) return status;
    if (int32_t status = Decode(text, first_escape, decoded); status != kStatusOk) return status;
    decoded.MoveInto(*body);
    return kStatusOk;
}

}  // namespace tarn
