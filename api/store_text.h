// A PST message's text as people read it: subject, sender and recipients in UTF-8 with 8-bit strings
// decoded in the message's own code page, and the sent time in UTC. The filter's documents read 8-bit
// strings otherwise (byte by byte); these helpers serve tarnview's lists and manifests only.
#ifndef TARN_API_STORE_TEXT_H_
#define TARN_API_STORE_TEXT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/codepage.h"
#include "store/ltp/property_object.h"

namespace tarn::api {

constexpr tarn::ltp::prop_id kPropMessageCodePage = 0x3FFD;
constexpr tarn::ltp::prop_id kPropInternetCodePage = 0x3FDE;
constexpr uint32_t kDefaultCodePage = tarn::platform::kCpWestern;

// The code page of the object's 8-bit strings: 0x3FFD, else 0x3FDE, else 1252; a 7-bit internet form
// (ISO-2022-JP, -KR, HZ, US-ASCII) stands for the Windows page of its script (932, 949, 936, 1252).
uint32_t StringCodePage(const tarn::ltp::const_property_object& object);

// The property as UTF-8, or nothing when it is absent. An 8-bit string is decoded with `code_page`
// (with 1252 when no converter knows that page); anything else is read as UTF-16. The text ends at its
// first NUL, as stored terminators are not part of it. Store errors propagate.
std::optional<std::string> ReadText(const tarn::ltp::const_property_object& object, tarn::ltp::prop_id id,
                                    uint32_t code_page);

// UTF-16 text as UTF-8, up to its first NUL; nothing that cannot be converted.
std::string Utf8Text(std::u16string_view text);

// The subject as the filter takes it ("No Subject" when absent, a prefix marker and its length dropped;
// one without its length throws std::out_of_range), in UTF-8.
std::string SubjectText(const tarn::ltp::const_property_object& message, uint32_t code_page);
// The same where the subject was read already: `read` is what tarn::ReadSubject gave for `message`.
std::string SubjectText(const tarn::ltp::const_property_object& message, uint32_t code_page,
                        std::u16string_view read);

// The client submit time (0x0039, an 8-byte Windows file time) as ISO 8601 in UTC,
// "2019-03-05T14:07:00Z", to the second; nothing when absent or not 8 bytes long.
std::optional<std::string> SentTimeUtc(const tarn::ltp::const_property_object& message);

// The same for a file time in hand.
std::string FileTimeUtc(uint64_t file_time);

}  // namespace tarn::api

#endif  // TARN_API_STORE_TEXT_H_
