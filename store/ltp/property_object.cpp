#include "store/ltp/property_object.h"

#include "common/little_endian.h"
#include "store/ndb/errors.h"

namespace tarn::ltp {

std::u16string const_property_object::read_wstring(prop_id id) const {
    const std::vector<std::byte> bytes = get_value_variable(id);
    const prop_type type = get_prop_type(id);
    // Sized once and filled by index: every folder and message name passes through here.
    if (type == kPropTypeString8) {
        std::u16string text(bytes.size(), u'\0');
        for (size_t i = 0; i < bytes.size(); ++i)
            text[i] = static_cast<char16_t>(
                static_cast<int16_t>(static_cast<int8_t>(std::to_integer<uint8_t>(bytes[i]))));
        return text;
    }
    std::u16string text(bytes.size() / 2, u'\0');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char16_t>(LoadLe16(bytes.data() + 2 * i));
    return text;
}

uint64_t load_value_8(const std::vector<std::byte>& value) {
    if (value.size() < 8) throw ndb::database_corrupt("8-byte property value holds fewer than 8 bytes");
    return LoadLe64(value.data());
}

}  // namespace tarn::ltp
