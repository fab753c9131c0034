#include "tools/tarnview/export_names.h"

#include <array>
#include <cctype>
#include <cstdint>

namespace tarnview {
namespace {

constexpr std::string_view kForbidden = "/\\:*?\"<>|";
constexpr std::array<std::string_view, 22> kDeviceNames = {
    "con",  "prn",  "aux",  "nul",  "com1", "com2", "com3", "com4", "com5", "com6", "com7",
    "com8", "com9", "lpt1", "lpt2", "lpt3", "lpt4", "lpt5", "lpt6", "lpt7", "lpt8", "lpt9"};

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// The length of the well-formed UTF-8 sequence at `text[at]` and its code point, or 0 when ill-formed.
size_t Sequence(std::string_view text, size_t at, uint32_t* code_point) {
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(at);
    size_t length = 0;
    uint32_t value = 0;
    uint32_t least = 0;
    if (lead < 0x80) {
        *code_point = lead;
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, value = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, value = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, value = lead & 0x07, least = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        value = (value << 6) | (byte(at + i) & 0x3F);
    }
    if (value < least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    *code_point = value;
    return length;
}

bool Trimmed(char c) { return c == ' ' || c == '.'; }

std::string TrimEnds(std::string text) {
    size_t begin = 0;
    while (begin < text.size() && Trimmed(text[begin])) ++begin;
    size_t end = text.size();
    while (end > begin && Trimmed(text[end - 1])) --end;
    return text.substr(begin, end - begin);
}

}  // namespace

std::string PortableName(std::string_view text, size_t max_bytes, std::string_view fallback) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        uint32_t code_point = 0;
        const size_t length = Sequence(text, at, &code_point);
        std::string_view piece = length == 0 ? "_" : text.substr(at, length);
        const bool control = code_point < 0x20 || (code_point >= 0x7F && code_point < 0xA0);
        if (length == 0 || control || (length == 1 && kForbidden.find(piece[0]) != std::string_view::npos))
            piece = "_";
        at += length == 0 ? 1 : length;
        // Trailing spaces and dots are dropped below, so the cut leaves room for nothing else.
        if (out.size() + piece.size() > max_bytes) break;
        out += piece;
    }
    out = TrimEnds(std::move(out));
    if (out.empty()) return std::string(fallback);
    const std::string stem = Lower(out.substr(0, out.find('.')));
    for (const std::string_view device : kDeviceNames) {
        if (stem == device) return "_" + out;
    }
    return out;
}

std::string NameRegistry::Claim(const std::string& dir, const std::string& name) {
    std::set<std::string>& taken = taken_[dir];
    if (taken.insert(Lower(name)).second) return name;
    // The extension is the part after the last dot that is not the first character.
    const size_t dot = name.rfind('.');
    const bool has_extension = dot != std::string::npos && dot > 0;
    const std::string stem = has_extension ? name.substr(0, dot) : name;
    const std::string extension = has_extension ? name.substr(dot) : "";
    for (size_t n = 2;; ++n) {
        std::string candidate = stem + " (" + std::to_string(n) + ")" + extension;
        if (taken.insert(Lower(candidate)).second) return candidate;
    }
}

}  // namespace tarnview
