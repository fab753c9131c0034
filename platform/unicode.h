// UTF-8 and UTF-16 conversions for paths and text that our own tools and stand-ins handle (the filter's
// message text goes through the kernel's converter instead). Backed by ICU.
#ifndef TARN_PLATFORM_UNICODE_H_
#define TARN_PLATFORM_UNICODE_H_

#include <optional>
#include <string>
#include <string_view>

namespace tarn::platform {

// UTF-16 to UTF-8; nothing when the text holds an unpaired surrogate.
std::optional<std::string> Utf8FromUtf16(std::u16string_view text);

// UTF-8 to UTF-16; each ill-formed sequence becomes one U+FFFD, as Unicode recommends.
std::u16string Utf16FromUtf8(std::string_view text);

}  // namespace tarn::platform

#endif  // TARN_PLATFORM_UNICODE_H_
