#include "platform/directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "platform/unicode.h"

namespace tarn::platform {
namespace {

// The path as UTF-8, or nothing for a null or empty path or one with an unpaired surrogate (U+0000
// cannot occur: it ends the string).
std::optional<std::string> PathFromWide(const char16_t* path) {
    if (path == nullptr || path[0] == 0) return std::nullopt;
    return Utf8FromUtf16(path);
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
