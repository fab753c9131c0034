// An allocation table (the FAT over big blocks, or the mini FAT over the mini stream's small blocks):
// for each sector, the number of the sector that follows it in its chain.
#ifndef TARN_CFB_SECTOR_TABLE_H_
#define TARN_CFB_SECTOR_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <span>

#include "cfb/format.h"
#include "common/kernel_memory.h"

namespace tarn::cfb {

// The sector numbers of one chain, in order.
using SectorChain = KernelArray<uint32_t>;

class SectorTable {
  public:
    SectorTable() = default;

    // Loads one entry per little-endian 32-bit word of `bytes` (a trailing partial word is ignored).
    // `sector_limit` is how many sectors of this kind actually exist (in the file for the FAT, in the
    // mini stream for the mini FAT); chains stop at a sector beyond it. False when memory runs out.
    bool load(std::span<const std::byte> bytes, uint64_t block_size, uint64_t sector_limit);

    // The chain that starts at `start`. It ends at a special sector number, at a number the table or
    // the file does not hold, and at the first sector it has already visited, so a damaged table
    // cannot make it loop or grow beyond the table. False (and `chain` empty) when memory runs out.
    bool follow_chain(uint64_t start, SectorChain& chain) const;

    uint64_t block_size() const { return block_size_; }
    size_t entry_count() const { return entries_.size(); }
    uint64_t entry(size_t i) const { return entries_[i]; }

  private:
    // The special numbers (0xFFFFFFFC and up) are refused by value as well, for a table so large that
    // they would otherwise count as sectors.
    bool in_range(uint64_t sector) const {
        return sector < entries_.size() && sector < sector_limit_ && sector < format::kDifatSectorMark;
    }

    uint64_t block_size_ = 0;
    uint64_t sector_limit_ = 0;
    KernelArray<uint64_t> entries_;
};

}  // namespace tarn::cfb

#endif  // TARN_CFB_SECTOR_TABLE_H_
