// The 512-byte header at the start of a compound file.
#ifndef TARN_CFB_COMPOUND_HEADER_H_
#define TARN_CFB_COMPOUND_HEADER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "cfb/format.h"

namespace tarn::cfb {

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
    std::array<uint64_t, format::kHeaderDifatCount> difat{};
};

// Requires: `bytes` holds format::kHeaderSize bytes (what a short file did not supply reads as zero).
CompoundHeader parse_compound_header(std::span<const std::byte> bytes);

}  // namespace tarn::cfb

#endif  // TARN_CFB_COMPOUND_HEADER_H_
