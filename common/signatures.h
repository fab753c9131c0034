// The bytes that open each kind of file the filter reads. Named once here: the probe, the compound-file
// reader, the fixture writers and the tools all take them from this header.
#ifndef TARN_COMMON_SIGNATURES_H_
#define TARN_COMMON_SIGNATURES_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn {

// A PST store starts with "!BDN".
inline constexpr std::array<uint8_t, 4> kPstSignature = {'!', 'B', 'D', 'N'};
// A compound file (and so a message file) starts with these eight bytes.
inline constexpr std::array<uint8_t, 8> kCompoundSignature = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};

// The PST signature as the little-endian word a store header's first field holds.
inline constexpr uint32_t kPstSignatureWord = uint32_t{kPstSignature[0]} | uint32_t{kPstSignature[1]} << 8 |
                                              uint32_t{kPstSignature[2]} << 16 |
                                              uint32_t{kPstSignature[3]} << 24;

// Whether `bytes` begin with `signature` (false when they are shorter).
template <size_t N>
constexpr bool StartsWithSignature(std::span<const std::byte> bytes,
                                   const std::array<uint8_t, N>& signature) {
    if (bytes.size() < N) return false;
    for (size_t i = 0; i < N; ++i)
        if (std::to_integer<uint8_t>(bytes[i]) != signature[i]) return false;
    return true;
}

}  // namespace tarn

#endif  // TARN_COMMON_SIGNATURES_H_
