#include "common/terminal_text.h"

#include <cstdio>

namespace tarn {
namespace {

void AppendHex(std::string& out, const char* format, unsigned value) {
    char escape[16];
    std::snprintf(escape, sizeof escape, format, value);
    out += escape;
}

}  // namespace

size_t Utf8Sequence(std::string_view text, char32_t* code_point) {
    if (text.empty()) return 0;
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        *code_point = lead;
        return 1;
    }
    // The lead byte gives the length and its payload; C0, C1 and F5-FF never lead.
    size_t length = 0;
    char32_t value = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
    } else {
        return 0;
    }
    if (text.size() < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) return 0;
        value = value << 6 | (next & 0x3F);
    }
    // Overlong forms, surrogates and values beyond Unicode are not well-formed.
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < kSmallest[length] || (value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF) return 0;
    *code_point = value;
    return length;
}

bool IsControlCharacter(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069);
}

void AppendTerminalText(std::string& out, std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        char32_t c = 0;
        const size_t length = Utf8Sequence(text.substr(at), &c);
        if (length == 0) {
            AppendHex(out, "\\x%02X", static_cast<unsigned char>(text[at]));
            ++at;
            continue;
        }
        if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x80 && IsControlCharacter(c)) {
            AppendHex(out, "\\x%02X", static_cast<unsigned>(c));
        } else if (IsControlCharacter(c)) {
            AppendHex(out, "\\u%04X", static_cast<unsigned>(c));
        } else {
            out.append(text.substr(at, length));
        }
        at += length;
    }
}

std::string TerminalText(std::string_view text) {
    std::string out;
    AppendTerminalText(out, text);
    return out;
}

std::string AsciiText(std::string_view text) {
    std::string out;
    for (const unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\')
            out += static_cast<char>(c);
        else
            AppendHex(out, "\\x%02X", c);
    }
    return out;
}

}  // namespace tarn
