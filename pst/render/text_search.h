// Searches over message text that compare ASCII letters without regard to case, as markup and MIME
// names are compared. Other bytes (UTF-8 and code-page text included) must match exactly.
#ifndef TARN_PST_RENDER_TEXT_SEARCH_H_
#define TARN_PST_RENDER_TEXT_SEARCH_H_

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace tarn {

constexpr char AsciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// The value of one hexadecimal digit in either case, or -1.
constexpr int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return AsciiLower(x) == AsciiLower(y); });
}

constexpr bool StartsIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && EqualsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

// The position of the first `needle` at or behind `from`, or npos.
constexpr size_t FindIgnoringCase(std::string_view text, std::string_view needle, size_t from = 0) {
    if (from > text.size()) return std::string_view::npos;
    const auto found =
        std::search(text.begin() + static_cast<std::ptrdiff_t>(from), text.end(), needle.begin(),
                    needle.end(), [](char x, char y) { return AsciiLower(x) == AsciiLower(y); });
    return found == text.end() && !needle.empty() ? std::string_view::npos
                                                  : static_cast<size_t>(found - text.begin());
}

}  // namespace tarn

#endif  // TARN_PST_RENDER_TEXT_SEARCH_H_
