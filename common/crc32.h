// The CRC-32 that both the PST store (header, pages, blocks) and compressed RTF carry: reflected,
// polynomial 0xEDB88320, starting from the value passed in (both formats start from 0) and with no
// final inversion.
#ifndef TARN_COMMON_CRC32_H_
#define TARN_COMMON_CRC32_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn {

extern const std::array<uint32_t, 256> kCrc32Table;

// One table step per byte, continuing from `crc`.
inline uint32_t Crc32(std::span<const std::byte> bytes, uint32_t crc = 0) {
    for (std::byte b : bytes) crc = kCrc32Table[(crc ^ std::to_integer<uint32_t>(b)) & 0xFF] ^ (crc >> 8);
    return crc;
}

}  // namespace tarn

#endif  // TARN_COMMON_CRC32_H_
