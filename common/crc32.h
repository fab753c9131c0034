// The CRC-32 that both the PST store and compressed RTF use: reflected, polynomial 0xEDB88320, with the
// running value passed in (both formats start from 0) and no final inversion.
#ifndef TARN_COMMON_CRC32_H_
#define TARN_COMMON_CRC32_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn {

namespace crc32_detail {
constexpr std::array<uint32_t, 256> MakeTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? (c >> 1) ^ 0xEDB88320u : c >> 1;
        table[i] = c;
    }
    return table;
}
}  // namespace crc32_detail

inline constexpr std::array<uint32_t, 256> kCrc32Table = crc32_detail::MakeTable();

// One table step per byte, continuing from `crc`.
inline uint32_t Crc32(std::span<const std::byte> bytes, uint32_t crc = 0) {
    for (std::byte b : bytes) crc = kCrc32Table[(crc ^ std::to_integer<uint32_t>(b)) & 0xFF] ^ (crc >> 8);
    return crc;
}

}  // namespace tarn

#endif  // TARN_COMMON_CRC32_H_
