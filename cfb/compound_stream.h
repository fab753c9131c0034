// One stream of an open compound file, read at any position.
#ifndef TARN_CFB_COMPOUND_STREAM_H_
#define TARN_CFB_COMPOUND_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "cfb/compound_storage.h"
#include "common/kernel_memory.h"

namespace tarn::cfb {

class CompoundStream {
  public:
    // The stream at `path`, or none when the storage is not open, the path does not resolve or
    // memory runs out. A storage's path opens too (its size is normally 0). The storage must stay
    // open for as long as the stream is used.
    static std::optional<CompoundStream> open(const CompoundStorage& storage, std::string_view path);
    // The same for directory entry `index`; none when it is not below the directory's size.
    static std::optional<CompoundStream> open(const CompoundStorage& storage, size_t index);

    CompoundStream(CompoundStream&&) = default;
    CompoundStream& operator=(CompoundStream&&) = default;

    const DirectoryEntry& entry() const { return storage_->directory().entry(index_); }
    size_t index() const { return index_; }
    uint64_t size() const { return entry().size; }
    // The most bytes a read can yield: what the stream's chain of blocks spans, and never more than the
    // file holds. A size the directory states beyond this cannot be read, whatever it claims.
    uint64_t capacity() const;
    // Whether the data lives in small blocks of the mini stream (a size below 4096).
    bool in_mini_stream() const { return small_; }
    // The position after the last read.
    uint64_t position() const { return position_; }

    // Copies up to `max_length` bytes from `position` into `buffer` and returns how many were copied:
    // fewer at the end of the stream, and fewer where its chain or the file ends early. Nothing is
    // read into a null buffer.
    size_t read(uint64_t position, void* buffer, size_t max_length);

  private:
    CompoundStream(const CompoundStorage& storage, size_t index) : storage_(&storage), index_(index) {}

    // Copies `length` bytes at file offset `offset` through the cache; returns the bytes copied.
    size_t read_cached(uint64_t offset, std::byte* out, size_t length, uint64_t window);

    const CompoundStorage* storage_;
    size_t index_;
    uint64_t position_ = 0;
    bool small_ = false;
    SectorChain chain_;
    // Recently read file bytes: small blocks of one stream are usually neighbours in the mini stream,
    // so one kernel read serves several of them.
    KernelArray<std::byte> cache_;
    uint64_t cache_offset_ = 0;
    size_t cache_length_ = 0;

    static constexpr size_t kCacheSize = 4096;
};

}  // namespace tarn::cfb

#endif  // TARN_CFB_COMPOUND_STREAM_H_
