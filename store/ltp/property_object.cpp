#include "store/ltp/property_object.h"

#include "common/little_endian.h"
#include "store/ndb/errors.h"

namespace tarn::ltp {

std::u16string const_property_object::read_wstring(prop_id id) const {
    const std::vector<std::byte> bytes = get_value_variable(id);
    const prop_type type = get_prop_type(id);
    std::u16string text;
    if (type == kPropTypeString8) {
        text.reserve(bytes.size());
        for (std::byte b : bytes)
            text.push_back(static_cast<char16_t>(
                static_cast<int16_t>(static_cast<int8_t>(std::to_integer<uint8_t>(b)))));
        return text;
    }
    text.reserve(bytes.size() / 2);
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        text.push_back(static_cast<char16_t>(LoadLe16(bytes.data() + i)));
    return text;
}

uint64_t load_value_8(const std::vector<std::byte>& value) {
    if (value.size() < 8) throw ndb::database_corrupt("8-byte property value holds fewer than 8 bytes");
    return LoadLe64(value.data());
}

}  // namespace tarn::ltp
