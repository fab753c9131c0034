// The 512-byte header at the start of a compound file, and the sector numbers with a meaning of
// their own.
#ifndef TARN_CFB_COMPOUND_HEADER_H_
#define TARN_CFB_COMPOUND_HEADER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn::cfb {

inline constexpr size_t kHeaderSize = 512;
inline constexpr size_t kHeaderDifatCount = 109;
inline constexpr std::array<uint8_t, 8> kCompoundSignature = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};

// Sector numbers that end a chain instead of naming a sector.
inline constexpr uint64_t kEndOfChain = 0xFFFFFFFE;
inline constexpr uint64_t kFatSectorMark = 0xFFFFFFFD;
inline constexpr uint64_t kDifatSectorMark = 0xFFFFFFFC;
inline constexpr uint64_t kFreeSector = 0xFFFFFFFF;

// The only mini stream cutoff we accept; streams below it live in the mini stream.
inline constexpr uint64_t kMiniStreamCutoff = 4096;

// The header fields we read, each widened to 64 bits.
struct CompoundHeader {
    bool signature_ok = false;
    uint64_t sector_shift = 0;
    uint64_t mini_sector_shift = 0;
    uint64_t fat_sector_count = 0;
    uint64_t first_directory_sector = 0;
    uint64_t mini_stream_cutoff = 0;
    uint64_t first_mini_fat_sector = 0;
    uint64_t mini_fat_sector_count = 0;  // read, not relied on: the chain says how long the mini FAT is
    uint64_t first_difat_sector = 0;
    uint64_t difat_sector_count = 0;
    std::array<uint64_t, kHeaderDifatCount> difat{};
};

// Requires: `bytes` holds kHeaderSize bytes (what a short file did not supply reads as zero).
CompoundHeader parse_compound_header(std::span<const std::byte> bytes);

}  // namespace tarn::cfb

#endif  // TARN_CFB_COMPOUND_HEADER_H_
