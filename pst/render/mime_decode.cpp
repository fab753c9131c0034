#include "pst/render/mime_decode.h"

#include <algorithm>
#include <array>

#include "common/status.h"
#include "pst/render/charset.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

// The six-bit value of a base64 letter, -1 for "=", -2 for anything outside the alphabet.
constexpr std::array<int8_t, 256> kBase64Values = [] {
    std::array<int8_t, 256> values{};
    values.fill(-2);
    for (size_t i = 0; i < kBase64Alphabet.size(); ++i)
        values[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
    values['='] = -1;
    return values;
}();

// Fewer letters than this (after the bytes outside the alphabet are dropped) decode to nothing.
constexpr size_t kBase64MinimumLetters = 5;

bool HasEightBit(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

// Whether the contract converts a word's or a field's bytes from this set.
bool TableConverts(const CharsetCode& charset) {
    switch (charset.code) {
        case kCharsetIso2022Jp:
        case kCharsetLatin1:
        case kCharsetWindows:
        case kCharsetGb2312:
        case kCharsetBig5:
            return true;
        default:
            return false;
    }
}

// Appends `bytes` converted by the name of their set; false when no converter knows it (nothing appended).
bool AppendByName(std::string_view bytes, std::string_view name, GrowBuffer& out, int32_t* status) {
    const size_t before = out.length();
    *status = AppendNamedSetAsUtf8(bytes, name, &out);
    if (*status != kStatusConversionFailed) return true;
    out.Truncate(before);
    *status = kStatusOk;
    return false;
}

// Converts a decoded word's bytes to UTF-8 where its set is converted; the others are kept as they are,
// unless repairs are wanted, which convert a set beyond the table, or a code page without a converter
// (windows-31j), by the set's name.
int32_t AppendWordText(GrowBuffer& decoded, std::string_view name, GrowBuffer& out, Repairs* repairs) {
    if (decoded.length() == 0) return kStatusOk;
    CharsetCode charset = CharsetFromName(name);
    const bool repaired = repairs != nullptr && repairs->wanted();
    int32_t status = kStatusOk;
    if (!TableConverts(charset)) {
        if (repaired && charset.code == kCharsetOther && AppendByName(decoded.view(), name, out, &status)) {
            if (status == kStatusOk) repairs->Make(Repair::kCharsetNames);
            return status;
        }
        return out.Append(decoded.data(), decoded.length());
    }
    CountedString text;
    decoded.MoveInto(text);
    status = ConvertToUtf8(&text, &charset, true);
    // Memory running out ends the read; a set that cannot be converted leaves the text as it decoded.
    if (status == kStatusFailure) return status;
    if (status == kStatusConversionFailed && repaired && AppendByName(text.text(), name, out, &status)) {
        if (status == kStatusOk) repairs->Make(Repair::kCharsetNames);
        return status;
    }
    return out.Append(text.data(), text.TextLength());
}

}  // namespace

int32_t DecodeQuotedPrintable(std::string_view in, GrowBuffer* out, bool underscore_is_space,
                              Repairs* repairs) {
    if (out == nullptr) return kStatusNullPointer;
    // Never longer than its input.
    if (!out->Reserve(out->length() + in.size())) return out->status();
    size_t run = 0;  // start of the bytes not yet copied
    auto flush = [&](size_t end) { return out->Append(in.data() + run, end - run); };
    for (size_t i = 0; i < in.size(); ++i) {
        const char c = in[i];
        if (c == '_' && underscore_is_space) {
            if (const int32_t status = flush(i); status != kStatusOk) return status;
            if (const int32_t status = out->AppendByte(' '); status != kStatusOk) return status;
            run = i + 1;
            continue;
        }
        if (c != '=') continue;
        if (repairs != nullptr && repairs->wanted()) {
            // Mail saved on Unix systems ends its lines in LF alone.
            size_t end = i + 1;
            if (end < in.size() && in[end] == '\r') ++end;
            if (end < in.size() && in[end] == '\n' && in.substr(i + 1, end - i) != "\r\n") {
                if (const int32_t status = flush(i); status != kStatusOk) return status;
                repairs->Make(Repair::kLfLineEnds);
                i = end;
                run = i + 1;
                continue;
            }
        }
        if (in.size() - i < 3) continue;
        if (in[i + 1] == '\r' && in[i + 2] == '\n') {
            if (const int32_t status = flush(i); status != kStatusOk) return status;
            i += 2;
            run = i + 1;
            continue;
        }
        const int high = HexValue(in[i + 1]);
        const int low = HexValue(in[i + 2]);
        // An "=" with a single hex digit behind it is copied as one with none is: no byte is guessed.
        if (high < 0 || low < 0) continue;
        if (const int32_t status = flush(i); status != kStatusOk) return status;
        if (const int32_t status = out->AppendByte(static_cast<uint8_t>(high << 4 | low));
            status != kStatusOk)
            return status;
        i += 2;
        run = i + 1;
    }
    return flush(in.size());
}

int32_t DecodeBase64(std::string_view in, GrowBuffer* out) {
    if (out == nullptr) return kStatusBadArgument;
    size_t letters = 0;
    for (const char c : in)
        if (kBase64Values[static_cast<unsigned char>(c)] != -2) ++letters;
    if (letters < kBase64MinimumLetters) return kStatusOk;
    if (!out->Reserve(out->length() + letters / 4 * 3 + 3)) return out->status();

    uint32_t bits = 0;
    int count = 0;
    for (const char c : in) {
        const int value = kBase64Values[static_cast<unsigned char>(c)];
        if (value == -2) continue;
        if (value == -1) break;
        bits = bits << 6 | static_cast<uint32_t>(value);
        if (++count == 4) {
            const uint8_t bytes[] = {static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8),
                                     static_cast<uint8_t>(bits)};
            if (const int32_t status = out->Append(bytes, 3); status != kStatusOk) return status;
            bits = 0;
            count = 0;
        }
    }
    // A last group cut short by "=" or by the end: two letters hold one byte, three hold two.
    if (count >= 2) {
        bits <<= 6 * (4 - count);
        const uint8_t bytes[] = {static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8)};
        return out->Append(bytes, static_cast<size_t>(count - 1));
    }
    return kStatusOk;
}

bool FindHeaderField(std::string_view block, std::string_view name, std::string* value) {
    auto line_end = [&](size_t from) { return std::min(block.find('\n', from), block.size()); };
    for (size_t line = 0; line < block.size(); line = line_end(line) + 1) {
        if (!StartsIgnoringCase(block.substr(line), name)) continue;
        value->clear();
        size_t start = line + name.size();
        if (start < block.size() && block[start] == ' ') ++start;
        // The value's own line, then every line that begins with white space, each without its break.
        for (;;) {
            const size_t end = line_end(start);
            std::string_view piece = block.substr(start, end - start);
            if (!piece.empty() && piece.back() == '\r') piece.remove_suffix(1);
            value->append(piece);
            start = end + 1;
            if (start >= block.size() || (block[start] != ' ' && block[start] != '\t')) return true;
        }
    }
    return false;
}

int32_t DecodeEncodedWords(std::string_view value, GrowBuffer* out, Repairs* repairs,
                           std::string_view raw_set) {
    if (out == nullptr) return kStatusNullPointer;
    const bool repaired = repairs != nullptr && repairs->wanted();
    const bool raw_converted = repaired && !raw_set.empty();
    // Text between words, and the rest behind the last one; raw 8-bit bytes in it are read in `raw_set`.
    auto append_text = [&](std::string_view text) {
        if (!raw_converted || !HasEightBit(text)) return out->Append(text);
        int32_t status = kStatusOk;
        if (!AppendByName(text, raw_set, *out, &status)) return out->Append(text);
        if (status == kStatusOk && CharsetFromName(raw_set).code == kCharsetOther)
            repairs->Make(Repair::kCharsetNames);
        return status;
    };
    size_t at = 0;
    bool after_word = false;  // `at` is right behind a decoded word
    while (at < value.size()) {
        const size_t open = value.find("=?", at);
        if (open == std::string_view::npos) break;
        // "=?" charset "?" letter "?" text "?="
        const size_t charset_end = value.find('?', open + 2);
        const bool shaped = charset_end != std::string_view::npos && charset_end + 2 < value.size() &&
                            value[charset_end + 2] == '?';
        char letter = shaped ? value[charset_end + 1] : '\0';
        const bool lower = repaired && (letter == 'b' || letter == 'q');
        if (lower) letter = static_cast<char>(letter - 'a' + 'A');
        if (letter != 'B' && letter != 'Q') {
            // Not a word this reader decodes: the "=?" is text, and the search goes on behind it.
            if (const int32_t status = append_text(value.substr(at, open + 2 - at)); status != kStatusOk)
                return status;
            at = open + 2;
            after_word = false;
            continue;
        }
        const size_t close = value.find("?=", charset_end + 3);
        // No "?=" behind this word means none behind any later one either: the rest is text. Searching
        // again from every later "=?" would make a long unclosed value cost its length squared.
        if (close == std::string_view::npos) break;
        const std::string_view between = value.substr(at, open - at);
        if (repaired && after_word && !between.empty() &&
            between.find_first_not_of(" \t\r\n") == std::string_view::npos) {
            // Adjacent words are one text: the white space between them only folds the line.
            repairs->Make(Repair::kEncodedWordSpace);
        } else if (const int32_t status = append_text(between); status != kStatusOk) {
            return status;
        }
        if (lower) repairs->Make(Repair::kEncodedWordCase);
        const std::string_view text = value.substr(charset_end + 3, close - charset_end - 3);
        std::string_view name = value.substr(open + 2, charset_end - open - 2);
        // A language behind "*" (charset*language) is no part of the set's name.
        if (repaired) name = name.substr(0, name.find('*'));
        GrowBuffer decoded;
        int32_t status = decoded.Init(0, 0);
        if (status == kStatusOk)
            status =
                letter == 'B' ? DecodeBase64(text, &decoded) : DecodeQuotedPrintable(text, &decoded, true);
        const size_t before = out->length();
        if (status == kStatusOk) status = AppendWordText(decoded, name, *out, repairs);
        if (status != kStatusOk) return status;
        // The contract reads a decoded field once more in a text part's set; the repaired reading does not.
        if (raw_converted && TableConverts(CharsetFromName(raw_set)) &&
            HasEightBit(out->view().substr(before)))
            repairs->Make(Repair::kRawHeaderCharset);
        at = close + 2;
        after_word = true;
    }
    return append_text(value.substr(std::min(at, value.size())));
}

}  // namespace tarn
