#include "store/ndb/signature.h"

#include "store/ndb/crypt_tables.h"

namespace tarn::ndb {

uint32_t compute_crc(std::span<const std::byte> bytes) {
    uint32_t crc = 0;
    for (std::byte b : bytes)
        crc = tables::kCrcTable[(crc ^ std::to_integer<uint32_t>(b)) & 0xFF] ^ (crc >> 8);
    return crc;
}

uint16_t compute_signature(uint64_t address, uint64_t id) {
    const uint32_t value = static_cast<uint32_t>(address) ^ static_cast<uint32_t>(id);
    return static_cast<uint16_t>((value >> 16) ^ (value & 0xFFFF));
}

}  // namespace tarn::ndb
