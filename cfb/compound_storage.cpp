#include "cfb/compound_storage.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "common/little_endian.h"

namespace tarn::cfb {

namespace {

// The format allows big blocks of 128 bytes to 1 GiB; anything else is not a layout we can address.
constexpr uint64_t kMinSectorShift = 7;
constexpr uint64_t kMaxSectorShift = 30;

// A set of sector numbers, for walks that must not visit a sector twice.
class SectorSet {
  public:
    bool allocate(uint64_t count) { return bits_.allocate(static_cast<size_t>((count + 7) / 8)); }
    // Returns false when `sector` was already in the set (or lies outside it), else adds it.
    bool insert(uint64_t sector) {
        if (sector / 8 >= bits_.size()) return false;
        uint8_t mask = static_cast<uint8_t>(1u << (sector % 8));
        if (bits_[sector / 8] & mask) return false;
        bits_[sector / 8] |= mask;
        return true;
    }

  private:
    KernelArray<uint8_t> bits_;
};

}  // namespace

bool CompoundStorage::open() {
    close();
    result_ = load();
    opened_ = result_ == OpenResult::Ok;
    if (!opened_) {
        OpenResult kept = result_;
        close();
        result_ = kept;
    }
    return opened_;
}

void CompoundStorage::close() {
    opened_ = false;
    fat_ = SectorTable();
    mini_fat_ = SectorTable();
    directory_ = DirectoryTree();
    fat_sectors_.reset();
    difat_sectors_.reset();
    mini_stream_.reset();
}

const DirectoryEntry* CompoundStorage::find_entry(std::string_view path) const {
    auto index = directory_.find_index(path);
    return index ? &directory_.entry(*index) : nullptr;
}

OpenResult CompoundStorage::load() {
    int64_t end = krnSeekFile(handle_, 0, 0, KRN_SEEK_END);
    if (end < 0) return OpenResult::OpenFailed;
    file_size_ = static_cast<uint64_t>(end);
    krnSeekFile(handle_, 0, 0, KRN_SEEK_START);

    // A file cut inside its header leaves the rest of the buffer zero; the checks below judge those
    // fields as read, and what follows reads only what the file holds.
    KernelArray<std::byte> header_bytes;
    if (!header_bytes.allocate(format::kHeaderSize)) return OpenResult::OpenFailed;
    read_at(0, header_bytes.span());
    header_ = parse_compound_header(header_bytes.span());
    if (!header_.signature_ok) return OpenResult::NotCompound;

    if (header_.mini_stream_cutoff != format::kMiniStreamCutoff || header_.fat_sector_count == 0 ||
        (header_.fat_sector_count < format::kHeaderDifatCount && header_.difat_sector_count != 0) ||
        header_.mini_sector_shift > header_.sector_shift || header_.sector_shift < kMinSectorShift ||
        header_.sector_shift > kMaxSectorShift)
        return OpenResult::BadCompound;

    const uint64_t block = big_block_size();
    const uint64_t file_sectors = file_size_ > block ? (file_size_ - block + block - 1) / block : 0;
    if (!load_fat_sector_list(file_sectors) || !load_fat(file_sectors) || !load_directory())
        return OpenResult::OpenFailed;

    // The mini stream starts at the root entry's start sector. An empty directory has no root: the
    // file opens with nothing in it, and every lookup fails.
    if (directory_.size() > 0 && !fat_.follow_chain(directory_.entry(0).start_sector, mini_stream_))
        return OpenResult::OpenFailed;

    return load_mini_fat() ? OpenResult::Ok : OpenResult::OpenFailed;
}

bool CompoundStorage::load_fat_sector_list(uint64_t file_sectors) {
    const uint64_t block = big_block_size();
    // The FAT's own sectors: up to 109 from the header, the rest from the DIFAT sectors, each of which
    // ends with the number of the next one. The header's counts are claims: the list holds at most one
    // FAT sector per sector of the file, which is also more than can matter (FAT sector i describes
    // sectors from i * block / 4 on, past the file's end once i reaches the file's sector count). FAT
    // sectors claimed beyond it, and those the DIFAT fails to name, read as free.
    const uint64_t fat_count = std::min(header_.fat_sector_count, file_sectors);
    if (!fat_sectors_.allocate(static_cast<size_t>(fat_count))) return false;
    size_t listed = 0;
    for (size_t i = 0; i < std::min<uint64_t>(fat_count, format::kHeaderDifatCount); ++i)
        fat_sectors_[listed++] = static_cast<uint32_t>(header_.difat[i]);
    if (header_.fat_sector_count > format::kHeaderDifatCount && header_.difat_sector_count != 0 &&
        listed < fat_count) {
        KernelArray<std::byte> difat_block;
        SectorSet seen;
        if (!difat_sectors_.allocate(
                static_cast<size_t>(std::min(header_.difat_sector_count, file_sectors))) ||
            !difat_block.allocate(static_cast<size_t>(block)) || !seen.allocate(file_sectors))
            return false;
        size_t difat_read = 0;
        uint64_t sector = header_.first_difat_sector;
        for (uint64_t k = 0; k < header_.difat_sector_count && listed < fat_count; ++k) {
            if (k > 0) {
                // The next DIFAT sector is the last number taken, which leaves the list again. With
                // nothing taken that step would read before the list: the one place this walk refuses.
                if (listed == 0) break;
                sector = fat_sectors_[--listed];
            }
            // A DIFAT chain that leaves the file or comes back to a sector it has read ends here, which
            // bounds the walk by the file whatever count the header claims.
            if (!sector_in_file(sector) || !seen.insert(sector)) break;
            difat_sectors_[difat_read++] = static_cast<uint32_t>(sector);
            std::memset(difat_block.data(), 0xFF, difat_block.size());
            read_at((sector + 1) * block, difat_block.span());
            for (size_t w = 0; w + 4 <= difat_block.size() && listed < fat_count; w += 4)
                fat_sectors_[listed++] = LoadLe32(difat_block.data() + w);
        }
        difat_sectors_.shrink(difat_read);
    }
    fat_sectors_.shrink(listed);
    return true;
}

// The FAT buffer starts as all free entries, so that a FAT sector outside the file, or the part
// of one cut off by the file's end, ends chains instead of pointing anywhere. Only the FAT sectors
// that describe sectors of the file are read: the entries of the others could never be followed.
bool CompoundStorage::load_fat(uint64_t file_sectors) {
    const uint64_t block = big_block_size();
    const size_t listed = fat_sectors_.size();
    const uint64_t entries_per_sector = block / 4;
    const auto describing = static_cast<size_t>(
        std::min<uint64_t>(listed, (file_sectors + entries_per_sector - 1) / entries_per_sector));
    KernelArray<std::byte> fat_bytes;
    if (!fat_bytes.allocate(static_cast<size_t>(describing * block))) return false;
    if (!fat_bytes.empty()) std::memset(fat_bytes.data(), 0xFF, fat_bytes.size());
    read_chain(fat_sectors_.span().first(describing), fat_bytes.span());
    // Chains stop at the first sector that starts past the end of the file: it has no bytes to
    // give, and stopping there keeps every chain no longer than the file.
    return fat_.load(fat_bytes.span(), block, file_sectors);
}

// The directory; its chain, like every chain, is no longer than the file.
bool CompoundStorage::load_directory() {
    const uint64_t block = big_block_size();
    SectorChain chain;
    if (!fat_.follow_chain(header_.first_directory_sector, chain)) return false;
    KernelArray<std::byte> bytes;
    if (!bytes.allocate(static_cast<size_t>(chain.size() * block))) return false;
    read_chain(chain.span(), bytes.span());
    return directory_.load(bytes.span());
}

// The mini FAT; small blocks exist only as far as the mini stream's chain reaches.
bool CompoundStorage::load_mini_fat() {
    const uint64_t block = big_block_size();
    SectorChain chain;
    if (!fat_.follow_chain(header_.first_mini_fat_sector, chain)) return false;
    KernelArray<std::byte> bytes;
    if (!bytes.allocate(static_cast<size_t>(chain.size() * block))) return false;
    if (!bytes.empty()) std::memset(bytes.data(), 0xFF, bytes.size());
    read_chain(chain.span(), bytes.span());
    uint64_t small_blocks = mini_stream_.size() * (block / small_block_size());
    return mini_fat_.load(bytes.span(), small_block_size(), small_blocks);
}

size_t CompoundStorage::read_at(uint64_t offset, std::span<std::byte> buffer) const {
    if (offset >= file_size_ || buffer.empty()) return 0;
    uint64_t count = std::min<uint64_t>(buffer.size(), file_size_ - offset);
    // The full 64-bit offset goes to the kernel, split into its two words.
    int64_t at = krnSeekFile(handle_, static_cast<int32_t>(static_cast<uint32_t>(offset)),
                             static_cast<int32_t>(static_cast<uint32_t>(offset >> 32)), KRN_SEEK_START);
    if (at < 0 || static_cast<uint64_t>(at) != offset) return 0;
    size_t done = 0;
    while (done < count) {
        auto chunk =
            static_cast<int32_t>(std::min<uint64_t>(count - done, std::numeric_limits<int32_t>::max()));
        int32_t got = krnReadFile(handle_, buffer.data() + done, chunk);
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    return done;
}

void CompoundStorage::read_chain(std::span<const uint32_t> chain, std::span<std::byte> buffer) const {
    const uint64_t block = big_block_size();
    for (size_t i = 0; i < chain.size(); ++i) {
        uint64_t at = i * block;
        if (at >= buffer.size()) break;
        if (!sector_in_file(chain[i])) continue;
        read_at((chain[i] + 1) * block, buffer.subspan(at, std::min<uint64_t>(block, buffer.size() - at)));
    }
}

bool CompoundStorage::sector_in_file(uint64_t sector) const {
    // sector < 2^32 and the block below 2^31, so the product cannot wrap.
    return sector < format::kDifatSectorMark && (sector + 1) * big_block_size() < file_size_;
}

}  // namespace tarn::cfb
