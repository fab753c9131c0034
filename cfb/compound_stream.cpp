#include "cfb/compound_stream.h"

#include <algorithm>
#include <cstring>

namespace tarn::cfb {

std::optional<CompoundStream> CompoundStream::open(const CompoundStorage& storage, std::string_view path) {
    if (!storage.is_open()) return std::nullopt;
    auto index = storage.directory().find_index(path);
    if (!index) return std::nullopt;
    return open(storage, *index);
}

std::optional<CompoundStream> CompoundStream::open(const CompoundStorage& storage, size_t index) {
    if (!storage.is_open() || index >= storage.directory().size()) return std::nullopt;
    CompoundStream stream(storage, index);
    const DirectoryEntry& e = stream.entry();
    stream.small_ = e.size < format::kMiniStreamCutoff;
    const SectorTable& table = stream.small_ ? storage.mini_fat() : storage.fat();
    if (!stream.cache_.allocate(kCacheSize) || !table.follow_chain(e.start_sector, stream.chain_))
        return std::nullopt;
    return stream;
}

uint64_t CompoundStream::capacity() const {
    const uint64_t block = small_ ? storage_->small_block_size() : storage_->big_block_size();
    // The chain is at most one entry per table word, so this product cannot overflow.
    return std::min<uint64_t>(chain_.size() * block, storage_->file_size());
}

size_t CompoundStream::read_cached(uint64_t offset, std::byte* out, size_t length, uint64_t window) {
    bool hit = offset >= cache_offset_ && offset - cache_offset_ <= cache_length_ &&
               length <= cache_length_ - (offset - cache_offset_);
    if (!hit) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(std::max<uint64_t>(window, length), kCacheSize));
        if (length > want) return storage_->read_at(offset, {out, length});
        cache_offset_ = offset;
        cache_length_ = storage_->read_at(offset, cache_.span().first(want));
    }
    uint64_t skip = offset - cache_offset_;
    size_t available = skip <= cache_length_ ? cache_length_ - static_cast<size_t>(skip) : 0;
    size_t n = std::min(length, available);
    std::memcpy(out, cache_.data() + skip, n);
    return n;
}

size_t CompoundStream::read(uint64_t position, void* buffer, size_t max_length) {
    if (buffer == nullptr || max_length == 0) return 0;
    const uint64_t size = this->size();
    if (position >= size) return 0;
    uint64_t length = std::min<uint64_t>(max_length, size - position);
    auto* out = static_cast<std::byte*>(buffer);
    const uint64_t big = storage_->big_block_size();
    const uint64_t block = small_ ? storage_->small_block_size() : big;
    std::span<const uint32_t> mini = storage_->mini_stream_chain();

    uint64_t index = position / block;
    uint64_t offset = position % block;
    uint64_t copied = 0;
    while (copied < length && index < chain_.size()) {
        uint64_t n = std::min(block - offset, length - copied);
        uint64_t run = 1;
        size_t got = 0;
        if (small_) {
            // A small block never straddles two big blocks: both sizes are powers of two and the
            // small one is not the larger.
            uint64_t in_mini = uint64_t{chain_[index]} * block + offset;
            uint64_t big_index = in_mini / big;
            if (big_index >= mini.size()) break;
            uint64_t within = in_mini % big;
            uint64_t at = (uint64_t{mini[big_index]} + 1) * big + within;
            got = read_cached(at, out + copied, static_cast<size_t>(n), big - within);
        } else {
            // Writers mostly lay a stream's sectors out one after another; such a run is read with one
            // kernel call instead of one per sector.
            while (index + run < chain_.size() && chain_[index + run] == chain_[index + run - 1] + 1u &&
                   n < length - copied) {
                n = std::min(n + block, length - copied);
                ++run;
            }
            uint64_t at = (uint64_t{chain_[index]} + 1) * big + offset;
            got = storage_->read_at(at, {out + copied, static_cast<size_t>(n)});
        }
        copied += got;
        // A block cut short by the end of the file ends the read: the bytes after it would not follow
        // on from the ones returned.
        if (got < n) break;
        offset = 0;
        index += run;
    }
    position_ = position + copied;
    return static_cast<size_t>(copied);
}

}  // namespace tarn::cfb
