// The format's checksums: the header CRC and the signature of pages and blocks.
#ifndef TARN_STORE_NDB_SIGNATURE_H_
#define TARN_STORE_NDB_SIGNATURE_H_

#include <cstdint>
#include <span>

namespace tarn::ndb {

// The store's CRC-32: reflected, polynomial 0xEDB88320, starting at 0, no final inversion (so it
// differs from the zip CRC of the same bytes).
uint32_t compute_crc(std::span<const std::byte> bytes);

// A page's or block's wSig: the low 32 bits of address XOR id, folded to 16 bits.
uint16_t compute_signature(uint64_t address, uint64_t id);

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_SIGNATURE_H_
