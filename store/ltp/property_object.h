// The one read interface for properties, whether they come from a property context (property_bag)
// or from a row of a table context (const_table_row), so that folder and message code reads both
// alike.
#ifndef TARN_STORE_LTP_PROPERTY_OBJECT_H_
#define TARN_STORE_LTP_PROPERTY_OBJECT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "store/ltp/bth.h"
#include "store/ltp/prop_stream.h"

namespace tarn::ltp {

inline constexpr prop_type kPropTypeString8 = 0x001E;
inline constexpr prop_type kPropTypeUnicode = 0x001F;

class const_property_object {
  public:
    virtual ~const_property_object() = default;

    // The ids present, in file order (a table row: the columns whose cell exists).
    virtual std::vector<prop_id> prop_list() const = 0;
    virtual prop_type get_prop_type(prop_id id) const = 0;
    // False iff the id is absent; damage still throws.
    virtual bool prop_exists(prop_id id) const = 0;
    // Byte size of a value held through an HNID.
    virtual uint32_t prop_size(prop_id id) const = 0;
    virtual hnid_stream_device open_prop_stream(prop_id id) const = 0;
    virtual uint8_t get_value_1(prop_id id) const = 0;
    virtual uint16_t get_value_2(prop_id id) const = 0;
    // The 4-byte value, or the HNID of a larger one.
    virtual uint32_t get_value_4(prop_id id) const = 0;
    virtual uint64_t get_value_8(prop_id id) const = 0;
    virtual std::vector<std::byte> get_value_variable(prop_id id) const = 0;

    // The property as UTF-16 text. An 8-bit string (type 0x001E) is widened byte by byte with sign
    // extension, so 0x80-0xFF become U+FF80-U+FFFF: no code page is applied here, on purpose (callers
    // that need the real characters read the bytes themselves). Anything else is taken as UTF-16LE,
    // an odd last byte dropped. Stored terminating zeros are kept.
    std::u16string read_wstring(prop_id id) const;
};

// The first 8 bytes of a value as a little-endian number. The value carries no length check of its
// own; ours refuses one shorter than 8 bytes instead of reading past it.
uint64_t load_value_8(const std::vector<std::byte>& value);

}  // namespace tarn::ltp

#endif  // TARN_STORE_LTP_PROPERTY_OBJECT_H_
