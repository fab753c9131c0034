// A read-only compound file opened through a kernel file handle: the header, the FAT and mini FAT,
// the directory and the mini stream's chain, all read once when the storage is opened.
#ifndef TARN_CFB_COMPOUND_STORAGE_H_
#define TARN_CFB_COMPOUND_STORAGE_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "cfb/compound_header.h"
#include "cfb/directory_tree.h"
#include "cfb/sector_table.h"
#include "common/kernel_memory.h"
#include "kernel/tarnkrn.h"

namespace tarn::cfb {

enum class OpenResult : int32_t { Ok = 0, OpenFailed = 1, NotCompound = 2, BadCompound = 3 };

class CompoundStream;

class CompoundStorage {
  public:
    // The handle stays the caller's: it must outlive the storage and is never closed here.
    explicit CompoundStorage(krn_handle handle) : handle_(handle) {}
    CompoundStorage(const CompoundStorage&) = delete;
    CompoundStorage& operator=(const CompoundStorage&) = delete;
    ~CompoundStorage() { close(); }

    // Reads header, tables and directory. True iff result() is Ok. OpenFailed means the file could
    // not be measured or read or memory ran out; NotCompound a wrong signature; BadCompound a header
    // or layout we refuse. Calling it again re-reads the file.
    bool open();
    // Releases tables, directory and buffers; the storage is then unopened.
    void close();

    OpenResult result() const { return result_; }
    bool is_open() const { return opened_; }
    uint64_t file_size() const { return file_size_; }
    const CompoundHeader& header() const { return header_; }
    const DirectoryTree& directory() const { return directory_; }
    const SectorTable& fat() const { return fat_; }
    const SectorTable& mini_fat() const { return mini_fat_; }
    std::span<const uint32_t> fat_sectors() const { return fat_sectors_.span(); }
    std::span<const uint32_t> difat_sectors() const { return difat_sectors_.span(); }
    std::span<const uint32_t> mini_stream_chain() const { return mini_stream_.span(); }

    // The entry at "/"-separated `path`, or null. Valid until the storage is closed.
    const DirectoryEntry* find_entry(std::string_view path) const;

  private:
    friend class CompoundStream;

    OpenResult load();
    // The steps of load(), in order; each false when memory runs out. `file_sectors`: the big blocks
    // the file holds after its header.
    bool load_fat_sector_list(uint64_t file_sectors);  // the FAT's sectors, from the header and DIFAT
    bool load_fat(uint64_t file_sectors);
    bool load_directory();
    bool load_mini_fat();  // requires the mini stream's chain
    // Reads up to `buffer.size()` bytes at `offset`, cut at the end of the file. Returns the bytes
    // actually read; a failed seek or read counts as none.
    size_t read_at(uint64_t offset, std::span<std::byte> buffer) const;
    // Reads the big blocks of `chain` one after another into `buffer`, each cut at the end of the
    // file; what was not read is left as it was.
    void read_chain(std::span<const uint32_t> chain, std::span<std::byte> buffer) const;
    // Whether big block `sector` starts inside the file.
    bool sector_in_file(uint64_t sector) const;
    uint64_t big_block_size() const { return uint64_t{1} << header_.sector_shift; }
    uint64_t small_block_size() const { return uint64_t{1} << header_.mini_sector_shift; }

    krn_handle handle_;
    uint64_t file_size_ = 0;
    OpenResult result_ = OpenResult::OpenFailed;
    bool opened_ = false;
    CompoundHeader header_;
    SectorTable fat_;
    SectorTable mini_fat_;
    DirectoryTree directory_;
    SectorChain fat_sectors_;
    SectorChain difat_sectors_;
    SectorChain mini_stream_;
};

}  // namespace tarn::cfb

#endif  // TARN_CFB_COMPOUND_STORAGE_H_
