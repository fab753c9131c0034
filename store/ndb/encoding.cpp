#include "store/ndb/encoding.h"

#include "store/ndb/crypt_tables.h"
#include "store/ndb/format.h"

namespace tarn::ndb {

void decode_block_data(std::span<std::byte> bytes, uint8_t crypt_method, uint64_t block_id) {
    using tables::kMpbbI;
    using tables::kMpbbR;
    using tables::kMpbbS;
    if (crypt_method == format::kCryptPermute) {
        for (std::byte& b : bytes) b = static_cast<std::byte>(kMpbbI[std::to_integer<uint8_t>(b)]);
    } else if (crypt_method == format::kCryptCyclic) {
        const auto key = static_cast<uint32_t>(block_id);
        auto w = static_cast<uint16_t>((key ^ (key >> 16)) & 0xFFFF);
        for (std::byte& b : bytes) {
            const auto low = static_cast<uint8_t>(w & 0xFF);
            const auto high = static_cast<uint8_t>(w >> 8);
            uint8_t v = std::to_integer<uint8_t>(b);
            v = kMpbbR[static_cast<uint8_t>(v + low)];
            v = kMpbbS[static_cast<uint8_t>(v + high)];
            v = kMpbbI[static_cast<uint8_t>(v - high)];
            b = static_cast<std::byte>(static_cast<uint8_t>(v - low));
            ++w;
        }
    }
    // Anything else (0, or a method such as 0x10 whose key we do not have) is passed through.
}

}  // namespace tarn::ndb
