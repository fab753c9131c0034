#include "store/ndb/encoding.h"

#include <array>
#include <cstring>

#include "common/little_endian.h"
#include "store/ndb/crypt_tables.h"
#include "store/ndb/format.h"

namespace tarn::ndb {
namespace {

using tables::kMpbbI;
using tables::kMpbbR;
using tables::kMpbbS;

// Every block of a store passes through here, so the byte table is looked up a pair at a time: half
// the lookups, and the reads and writes of the data in whole words. 128 KiB, built on first use from
// the byte table, so the published table stays the only source of the mapping.
using PairTable = std::array<uint16_t, 65536>;

const PairTable& PermutePairs() {
    static const PairTable pairs = [] {
        PairTable table{};
        for (size_t i = 0; i < table.size(); ++i)
            table[i] = static_cast<uint16_t>(kMpbbI[i & 0xFF] | (kMpbbI[i >> 8] << 8));
        return table;
    }();
    return pairs;
}

uint8_t Permute(std::byte b) { return kMpbbI[std::to_integer<uint8_t>(b)]; }

void DecodePermute(std::span<std::byte> bytes) {
    const PairTable& pairs = PermutePairs();
    std::byte* p = bytes.data();
    size_t left = bytes.size();
    for (; left >= 8; p += 8, left -= 8) {
        const uint64_t v = LoadLe64(p);
        const uint64_t decoded = uint64_t{pairs[v & 0xFFFF]} | uint64_t{pairs[(v >> 16) & 0xFFFF]} << 16 |
                                 uint64_t{pairs[(v >> 32) & 0xFFFF]} << 32 | uint64_t{pairs[v >> 48]} << 48;
        StoreLe<uint64_t>(p, decoded);
    }
    for (; left > 0; ++p, --left) *p = static_cast<std::byte>(Permute(*p));
}

// One byte of the cyclic method; `w` is the key plus the byte's position.
uint8_t Cyclic(uint8_t v, uint16_t w) {
    const auto low = static_cast<uint8_t>(w & 0xFF);
    const auto high = static_cast<uint8_t>(w >> 8);
    v = kMpbbR[static_cast<uint8_t>(v + low)];
    v = kMpbbS[static_cast<uint8_t>(v + high)];
    v = kMpbbI[static_cast<uint8_t>(v - high)];
    return static_cast<uint8_t>(v - low);
}

void DecodeCyclic(std::span<std::byte> bytes, uint64_t block_id) {
    const auto key = static_cast<uint32_t>(block_id);
    auto w = static_cast<uint16_t>((key ^ (key >> 16)) & 0xFFFF);
    std::byte* p = bytes.data();
    size_t left = bytes.size();
    // Eight bytes read before any is written: the lookups are independent of each other, and the
    // compiler need not assume that a write to the data changes the tables.
    for (; left >= 8; p += 8, left -= 8, w = static_cast<uint16_t>(w + 8)) {
        uint8_t in[8];
        std::memcpy(in, p, 8);
        uint8_t out[8];
        for (unsigned k = 0; k < 8; ++k) out[k] = Cyclic(in[k], static_cast<uint16_t>(w + k));
        std::memcpy(p, out, 8);
    }
    for (; left > 0; ++p, --left, ++w) *p = static_cast<std::byte>(Cyclic(std::to_integer<uint8_t>(*p), w));
}

}  // namespace

void decode_block_data(std::span<std::byte> bytes, uint8_t crypt_method, uint64_t block_id) {
    if (crypt_method == format::kCryptPermute) {
        DecodePermute(bytes);
    } else if (crypt_method == format::kCryptCyclic) {
        DecodeCyclic(bytes, block_id);
    }
    // Anything else (0, or a method such as 0x10 whose key we do not have) is passed through.
}

}  // namespace tarn::ndb
