#include "platform/unicode.h"

#include <unicode/ustring.h>

#include <limits>

namespace tarn::platform {

std::optional<std::string> Utf8FromUtf16(std::u16string_view text) {
    if (text.empty()) return std::string();
    if (text.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max() / 3)) return std::nullopt;
    std::string out(text.size() * 3, '\0');
    int32_t written = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &written, text.data(),
                static_cast<int32_t>(text.size()), &error);
    if (U_FAILURE(error)) return std::nullopt;
    out.resize(static_cast<size_t>(written));
    return out;
}

std::u16string Utf16FromUtf8(std::string_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return {};
    // One UTF-16 unit per byte at most.
    std::u16string out(text.size(), u'\0');
    int32_t written = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &written, text.data(),
                         static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &error);
    if (U_FAILURE(error)) return {};
    out.resize(static_cast<size_t>(written));
    return out;
}

}  // namespace tarn::platform
