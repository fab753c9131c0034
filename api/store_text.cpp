#include "api/store_text.h"

#include <ctime>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "common/little_endian.h"
#include "platform/codepage.h"
#include "platform/unicode.h"
#include "pst/message_model.h"
#include "pst/render/charset.h"

namespace tarn::api {
namespace {

constexpr uint64_t kFileTimeUnixEpoch = 0x019DB1DED53E8000;
constexpr int64_t kFileTimeTicksPerSecond = 10'000'000;
constexpr size_t kFileTimeBytes = 8;

// Null when the page has no converter; empty input gives empty output.
std::optional<std::u16string> Decode(uint32_t code_page, std::string_view bytes) {
    if (bytes.empty()) return std::u16string();
    const int length = static_cast<int>(bytes.size());
    const int units = tarn::platform::MultiByteToWideChar(code_page, 0, bytes.data(), length, nullptr, 0);
    if (units <= 0) return std::nullopt;
    std::u16string text(static_cast<size_t>(units), u'\0');
    if (tarn::platform::MultiByteToWideChar(code_page, 0, bytes.data(), length, text.data(), units) != units)
        return std::nullopt;
    return text;
}

// The text ends at its first NUL, as stored terminators are not part of it.
std::string DecodeBytes(std::string_view bytes, uint32_t code_page) {
    bytes = bytes.substr(0, bytes.find('\0'));
    std::optional<std::u16string> text = Decode(code_page, bytes);
    if (!text) text = Decode(kDefaultCodePage, bytes);
    return text ? Utf8Text(*text) : std::string();
}

std::string_view View(const std::vector<std::byte>& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::string Utf8Text(std::u16string_view text) {
    const size_t end = text.find(u'\0');
    if (end != std::u16string_view::npos) text = text.substr(0, end);
    return tarn::platform::Utf8FromUtf16(text).value_or(std::string());
}

uint32_t StringCodePage(const tarn::ltp::const_property_object& object) {
    for (const tarn::ltp::prop_id id : {kPropMessageCodePage, kPropInternetCodePage}) {
        if (object.prop_exists(id)) return tarn::StoredStringCodePage(object.get_value_4(id));
    }
    return kDefaultCodePage;
}

std::optional<std::string> ReadText(const tarn::ltp::const_property_object& object, tarn::ltp::prop_id id,
                                    uint32_t code_page) {
    if (!object.prop_exists(id)) return std::nullopt;
    if (object.get_prop_type(id) != tarn::ltp::kPropTypeString8) return Utf8Text(object.read_wstring(id));
    return DecodeBytes(View(object.get_value_variable(id)), code_page);
}

namespace {

bool EightBitSubject(const tarn::ltp::const_property_object& message) {
    return message.prop_exists(tarn::kPropSubject) &&
           message.get_prop_type(tarn::kPropSubject) == tarn::ltp::kPropTypeString8;
}

std::string EightBitSubjectText(const tarn::ltp::const_property_object& message, uint32_t code_page) {
    // The same marker rule as the filter's, on the bytes before they are decoded: a multi-byte page
    // would otherwise see the marker's length byte as the lead of a character.
    const std::vector<std::byte> bytes = message.get_value_variable(tarn::kPropSubject);
    std::string_view text = View(bytes);
    if (!text.empty() && text[0] == '\x01') {
        if (text.size() < 2) throw std::out_of_range("subject prefix marker without its length");
        text.remove_prefix(2);
    }
    return DecodeBytes(text, code_page);
}

}  // namespace

std::string SubjectText(const tarn::ltp::const_property_object& message, uint32_t code_page) {
    return EightBitSubject(message) ? EightBitSubjectText(message, code_page)
                                    : Utf8Text(tarn::ReadSubject(message));
}

std::string SubjectText(const tarn::ltp::const_property_object& message, uint32_t code_page,
                        std::u16string_view read) {
    return EightBitSubject(message) ? EightBitSubjectText(message, code_page) : Utf8Text(read);
}

std::optional<std::string> SentTimeUtc(const tarn::ltp::const_property_object& message) {
    if (!message.prop_exists(tarn::kPropSubmitTime)) return std::nullopt;
    const std::vector<std::byte> value = message.get_value_variable(tarn::kPropSubmitTime);
    if (value.size() != kFileTimeBytes) return std::nullopt;
    return FileTimeUtc(tarn::LoadLe64(value.data()));
}

std::string FileTimeUtc(uint64_t file_time) {
    // Whole seconds, rounded toward the past on both sides of 1970.
    int64_t seconds = 0;
    if (file_time >= kFileTimeUnixEpoch) {
        seconds = static_cast<int64_t>((file_time - kFileTimeUnixEpoch) / kFileTimeTicksPerSecond);
    } else {
        const uint64_t before = kFileTimeUnixEpoch - file_time;
        seconds = -static_cast<int64_t>((before + kFileTimeTicksPerSecond - 1) / kFileTimeTicksPerSecond);
    }
    const auto when = static_cast<std::time_t>(seconds);
    std::tm utc{};
    char text[64];
    if (gmtime_r(&when, &utc) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
        return std::string();
    return text;
}

}  // namespace tarn::api
