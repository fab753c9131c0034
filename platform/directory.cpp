#include "platform/directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

namespace tarn::platform {
namespace {

// The path as UTF-8, or nothing for a null or empty path, an unpaired surrogate or an embedded
// character that POSIX cannot take (U+0000 cannot occur: it ends the string).
std::optional<std::string> PathFromWide(const char16_t* path) {
    if (path == nullptr || path[0] == 0) return std::nullopt;
    std::string out;
    for (size_t i = 0; path[i] != 0; ++i) {
        char32_t c = path[i];
        if (c >= 0xD800 && c <= 0xDBFF) {
            const char32_t low = path[i + 1];
            if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
            ++i;
        } else if (c >= 0xDC00 && c <= 0xDFFF) {
            return std::nullopt;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace

bool CreateDirectoryW(const char16_t* path) {
    auto utf8 = PathFromWide(path);
    return utf8 && ::mkdir(utf8->c_str(), 0700) == 0;
}

bool RemoveDirectoryW(const char16_t* path) {
    auto utf8 = PathFromWide(path);
    return utf8 && ::rmdir(utf8->c_str()) == 0;
}

}  // namespace tarn::platform
