#include "pst/render/rtf_fonts.h"

#include <cstdio>
#include <cstring>
#include <limits>

#include "kernel/tarnkrn.h"

namespace tarn {
namespace {

constexpr RtfCharset kCharsets[] = {
    {0, 1252, true},    {1, 0, false},      {2, 42, true},      {77, 10000, false}, {78, 10001, false},
    {79, 10003, false}, {80, 10008, false}, {81, 10002, false}, {82, 1361, false},  {83, 10005, false},
    {84, 10004, false}, {85, 10006, false}, {86, 10081, false}, {87, 10021, false}, {88, 10029, false},
    {89, 10007, false}, {128, 932, true},   {129, 949, true},   {130, 1361, true},  {134, 936, false},
    {136, 950, false},  {161, 1253, true},  {162, 1254, true},  {163, 1258, true},  {177, 1255, true},
    {178, 1256, true},  {179, 1256, false}, {180, 1256, false}, {181, 1255, false}, {186, 1257, true},
    {204, 1251, true},  {222, 874, true},   {238, 1250, true},  {254, 437, false},  {255, 850, false},
};

// The table text given to a body that has no font table of its own. The first byte is a form feed
// where "\f" was meant; readers and the header's insertion expect exactly these eight bytes, so the
// oddity is kept.
constexpr std::string_view kEmptyTableText(
    "\x0C"
    "onttbl}",
    8);

int32_t SaturatingIncrement(int32_t value) {
    return value == std::numeric_limits<int32_t>::max() ? value : value + 1;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads an optional minus sign and decimal digits at `p`; the value saturates at the limits of 32
// bits instead of overflowing. `p` ends behind the digits (or where it was, without any).
int32_t ReadNumber(const char*& p, const char* end, bool allow_sign) {
    const char* start = p;
    bool negative = false;
    if (allow_sign && p < end && *p == '-') {
        negative = true;
        ++p;
    }
    if (p == end || !IsDigit(*p)) {
        p = start;
        return 0;
    }
    // Accumulated as a magnitude in 64 bits, capped as soon as it passes 32.
    const int64_t limit = negative ? -int64_t{std::numeric_limits<int32_t>::min()}
                                   : int64_t{std::numeric_limits<int32_t>::max()};
    int64_t magnitude = 0;
    for (; p < end && IsDigit(*p); ++p) {
        magnitude = magnitude * 10 + (*p - '0');
        if (magnitude > limit) magnitude = limit;
    }
    return static_cast<int32_t>(negative ? -magnitude : magnitude);
}

bool StartsWith(const char* p, const char* end, std::string_view word) {
    return static_cast<size_t>(end - p) >= word.size() && std::memcmp(p, word.data(), word.size()) == 0;
}

// The entry being read between an entry group's braces.
struct PendingEntry {
    int32_t number = 0;
    uint32_t code_page = 0;
    int32_t charset = 0;
    std::string_view face;
    bool named = false;
};

}  // namespace

std::span<const RtfCharset> RtfCharsets() { return kCharsets; }

uint32_t CodePageOfCharset(int32_t charset) {
    for (const RtfCharset& row : kCharsets) {
        if (row.charset > charset) break;
        if (row.charset == charset) return row.code_page;
    }
    return 0;
}

RtfFontTable::RtfFontTable() { text.Init(0, 256); }

RtfFontTable::~RtfFontTable() { Clear(); }

void RtfFontTable::Clear() {
    for (size_t i = 0; i < count_; ++i) krnFree(entries_[i].face, __FILE__, __LINE__);
    krnFree(entries_, __FILE__, __LINE__);
    entries_ = nullptr;
    count_ = capacity_ = 0;
    next_font_number = 0;
    changed = false;
    text.Release();
}

int32_t RtfFontTable::Append(int32_t number, uint32_t code_page, int32_t charset, std::string_view face) {
    if (count_ == capacity_) {
        const size_t grown = capacity_ == 0 ? 8 : capacity_ * 2;
        void* moved = krnRealloc(entries_, grown * sizeof(RtfFont), __FILE__, __LINE__);
        if (moved == nullptr) return kStatusFailure;
        entries_ = static_cast<RtfFont*>(moved);
        capacity_ = grown;
    }
    char* copy = static_cast<char*>(krnAlloc(1, face.size() + 1, __FILE__, __LINE__));
    if (copy == nullptr) return kStatusFailure;
    if (!face.empty()) std::memcpy(copy, face.data(), face.size());
    copy[face.size()] = '\0';
    entries_[count_++] = RtfFont{number, code_page, charset, copy, face.size()};
    return kStatusOk;
}

int32_t ParseFontTable(RtfFontTable& table, const char*& position, const char* end) {
    table.Clear();
    if (position == nullptr || end == nullptr || end < position) return kStatusUnsupported;
    const char* p = position;
    // Depth 1 is the table's own group, 2 an entry, deeper a group inside an entry.
    size_t depth = 1;
    if (p < end && *p == '{') ++p;
    PendingEntry entry;
    int32_t status = kStatusUnsupported;  // until the closing brace is seen
    while (p < end) {
        const char c = *p;
        if (c == '{') {
            ++depth;
            if (depth == 2) entry = PendingEntry{};
            ++p;
        } else if (c == '}') {
            --depth;
            ++p;
            if (depth == 0) {
                status = kStatusOk;
                break;
            }
            if (depth == 1) {
                if (table.Append(entry.number, entry.code_page, entry.charset, entry.face) != kStatusOk) {
                    status = kStatusFailure;
                    break;
                }
                table.next_font_number = SaturatingIncrement(entry.number);
                entry = PendingEntry{};
            }
        } else if (c == '\\') {
            if (p + 1 == end) break;  // a control word cut off at the very end
            const char* word = p + 1;
            if (*word == 'f' && word + 1 < end && IsDigit(word[1])) {
                p = word + 1;
                entry.number = ReadNumber(p, end, false);
            } else if (StartsWith(word, end, "fcharset")) {
                p = word + 8;
                entry.charset = ReadNumber(p, end, true);
                entry.code_page = CodePageOfCharset(entry.charset);
            } else if (StartsWith(word, end, "fcpg")) {
                p = word + 4;
                entry.code_page = static_cast<uint32_t>(ReadNumber(p, end, true));
            } else {
                // Any other control word or symbol. The character behind the backslash is always
                // taken, so that an escaped brace or backslash is not read as structure.
                p = word + 1;
                while (p < end && *p != ' ' && *p != '\\' && *p != '{' && *p != '}') ++p;
            }
        } else if (depth == 2 && !entry.named && c != ' ' && c != ';' && c != '\r' && c != '\n') {
            const char* start = p;
            if (c == '"') {
                start = ++p;
                while (p < end && *p != '"') ++p;
                entry.face = std::string_view(start, static_cast<size_t>(p - start));
                if (p < end) ++p;
            } else {
                while (p < end && *p != '"' && *p != ';' && *p != '\\' && *p != '{' && *p != '}') ++p;
                entry.face = std::string_view(start, static_cast<size_t>(p - start));
            }
            entry.named = true;
        } else {
            ++p;
        }
    }
    if (status == kStatusOk) {
        const size_t length = static_cast<size_t>(p - position);
        if (table.text.Assign(position, length) != kStatusOk) status = table.text.status();
    }
    if (status != kStatusOk) {
        table.Clear();
        return status;
    }
    position = p;
    return kStatusOk;
}

const RtfFont* FontByNumber(const RtfFontTable& table, int32_t number) {
    for (const RtfFont& font : table.entries()) {
        if (font.number == number) return &font;
    }
    return nullptr;
}

int32_t AddFont(RtfFontTable& table, uint32_t code_page, int32_t charset, std::string_view family,
                std::string_view face) {
    GrowBuffer& text = table.text;
    if (text.length() == 0 && text.Assign(kEmptyTableText.data(), kEmptyTableText.size()) != kStatusOk) {
        return text.status();
    }
    const int32_t number = table.next_font_number;
    char head[64];
    const int head_length = std::snprintf(head, sizeof head, "{\\f%d \\%.*s \\fcharset%d ", number,
                                          static_cast<int>(family.size()), family.data(), charset);
    if (head_length < 0 || static_cast<size_t>(head_length) >= sizeof head) return kStatusFailure;
    // Written in front of the table's last byte, its closing brace.
    const std::byte last = text.data()[text.length() - 1];
    const size_t keep = text.length() - 1;
    text.Truncate(keep);
    if (text.Append(head, static_cast<size_t>(head_length)) != kStatusOk || text.Append(face) != kStatusOk ||
        text.Append("}") != kStatusOk || text.AppendByte(static_cast<uint8_t>(last)) != kStatusOk) {
        // Put the table text back as it was.
        text.Truncate(keep);
        text.AppendByte(static_cast<uint8_t>(last));
        return kStatusFailure;
    }
    if (table.Append(number, code_page, charset, face) != kStatusOk) {
        text.Truncate(keep);
        text.AppendByte(static_cast<uint8_t>(last));
        return kStatusFailure;
    }
    table.next_font_number = SaturatingIncrement(number);
    table.changed = true;
    return number;
}

int32_t FontForCodePage(RtfFontTable& table, uint32_t code_page) {
    for (const RtfFont& font : table.entries()) {
        if (font.code_page == code_page || (font.code_page == 0 && code_page == table.document_code_page)) {
            return font.number;
        }
    }
    for (const RtfCharset& row : kCharsets) {
        if (row.code_page != code_page) continue;
        switch (row.charset) {
            case 0:
            case 178:
            case 204:
            case 238:
                return AddFont(table, code_page, row.charset, "swiss", "Arial");
            case 2:
                return AddFont(table, code_page, row.charset, "nil", "Symbol");
            case 128:
                return AddFont(table, code_page, row.charset, "swiss", "MS Gothic");
            default:
                // Deliberately Batang for Greek, Turkish, Hebrew, Thai and the rest as well: the
                // charset number, not the face, tells a reader the code page of the bytes.
                return AddFont(table, code_page, row.charset, "swiss", "Batang");
        }
    }
    return kStatusBadArgument;
}

}  // namespace tarn
