// Builds compound files byte by byte for tests, from a tree of storages and streams, and records where
// everything went so that a test can damage exactly the byte it means to.
#ifndef TARN_TESTS_SUPPORT_CFB_WRITER_H_
#define TARN_TESTS_SUPPORT_CFB_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kernel/tarnkrn.h"

namespace tarn::test {

struct CfbNode {
    std::u16string name;
    bool storage = false;
    std::vector<uint8_t> data;      // a stream's bytes
    std::vector<CfbNode> children;  // a storage's contents, in any order

    static CfbNode Stream(std::u16string name, std::vector<uint8_t> data);
    static CfbNode Storage(std::u16string name, std::vector<CfbNode> children);
};

// `count` bytes that differ from stream to stream and from block to block (so a misplaced block shows).
std::vector<uint8_t> PatternBytes(size_t count, uint8_t seed);

enum class CfbSiblingOrder {
    kReader,     // shorter first, then byte order of the low bytes: what the reader searches by
    kUpperCase,  // shorter first, then upper-cased UTF-16 units, as other writers order them
};

struct CfbOptions {
    uint16_t sector_shift = 9;  // 9 and 12 are the real ones; any from 9 to 16 is written
    uint16_t mini_sector_shift = 6;
    uint32_t min_fat_sectors = 0;  // pads the FAT (more than 109 forces DIFAT sectors)
    CfbSiblingOrder order = CfbSiblingOrder::kReader;
};

struct CfbEntryInfo {
    std::u16string name;
    uint32_t index = 0;
    int32_t parent = -1;  // index of the storage that holds it; -1 for the root
    bool storage = false;
    uint32_t start = 0;  // first sector (small block for a stream in the mini stream)
    uint64_t size = 0;
    bool in_mini_stream = false;
    std::vector<uint32_t> chain;  // the sectors or small blocks of its data, in order
};

// What was written, and where.
struct CfbImage {
    std::vector<uint8_t> bytes;
    uint32_t sector_size = 0;
    uint32_t mini_sector_size = 0;
    std::vector<uint32_t> fat_sectors;
    std::vector<uint32_t> difat_sectors;
    std::vector<uint32_t> directory_sectors;
    std::vector<uint32_t> mini_fat_sectors;
    std::vector<uint32_t> mini_stream_sectors;
    std::vector<CfbEntryInfo> entries;  // by directory index; entry 0 is the root

    size_t SectorOffset(uint32_t sector) const { return (size_t{sector} + 1) * sector_size; }
    size_t EntryOffset(uint32_t index) const;
    // The entry whose chain of names from the root (each a UTF-16 name) is `path`; throws if none.
    const CfbEntryInfo& Find(const std::vector<std::u16string>& path) const;

    // Damage.
    void Put16(size_t offset, uint16_t value);
    void Put32(size_t offset, uint32_t value);
    void SetFatEntry(uint32_t sector, uint32_t next);
    void SetMiniFatEntry(uint32_t block, uint32_t next);
    // `field_offset` is one of the entry's offsets in cfb/format.h (a sibling, the child, start or size).
    void SetEntryField(uint32_t index, size_t field_offset, uint32_t value);
    void Truncate(size_t size) { bytes.resize(size); }
};

// `root` is the root storage; its name is written as given (normally u"Root Entry").
CfbImage BuildCfb(const CfbNode& root, const CfbOptions& options = {});

// A file on disk holding some bytes, opened through the kernel; closed and removed when it goes.
class KernelTempFile {
  public:
    explicit KernelTempFile(const std::vector<uint8_t>& bytes);
    ~KernelTempFile();
    KernelTempFile(const KernelTempFile&) = delete;
    KernelTempFile& operator=(const KernelTempFile&) = delete;
    krn_handle handle() const { return handle_; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    krn_handle handle_ = KRN_NO_HANDLE;
};

// Opens an existing file through the kernel (the caller closes the handle).
krn_handle OpenThroughKernel(const std::string& path);

}  // namespace tarn::test

#endif  // TARN_TESTS_SUPPORT_CFB_WRITER_H_
