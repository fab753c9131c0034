// Undoing the byte encoding of external data blocks (the header's bCryptMethod).
#ifndef TARN_STORE_NDB_ENCODING_H_
#define TARN_STORE_NDB_ENCODING_H_

#include <cstdint>
#include <span>

namespace tarn::ndb {

// Decodes `bytes` in place. Method 1 is the permutation, 2 the cyclic method keyed by the low 32 bits
// of the block id; 0 and any value we do not know leave the bytes as they are.
void decode_block_data(std::span<std::byte> bytes, uint8_t crypt_method, uint64_t block_id);

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_ENCODING_H_
