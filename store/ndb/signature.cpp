#include "store/ndb/signature.h"

#include "common/crc32.h"

namespace tarn::ndb {

uint32_t compute_crc(std::span<const std::byte> bytes) { return Crc32(bytes); }

uint16_t compute_signature(uint64_t address, uint64_t id) {
    const uint32_t value = static_cast<uint32_t>(address) ^ static_cast<uint32_t>(id);
    return static_cast<uint16_t>((value >> 16) ^ (value & 0xFFFF));
}

}  // namespace tarn::ndb
