#include "store/ltp/prop_stream.h"

#include <algorithm>
#include <span>
#include <vector>

#include "store/ndb/errors.h"

namespace tarn::ltp {
namespace {

// A value held in a subnode is read this many bytes at a time (a few leaf blocks).
constexpr size_t kValuePiece = 64 * 1024;

}  // namespace

uint64_t hnid_stream_device::size() const {
    // The heap's node keeps its blocks once read, so the answer cannot change; a failure is not
    // remembered and is met again on the next call.
    if (!size_) size_ = is_heap_ ? heap_->alloc_size(heap_id_) : node_->size();
    return *size_;
}

std::vector<std::byte> read_hnid_value(const heap_ptr& heap, hnid id) {
    if (is_subnode_id(id)) {
        const node sub = heap->get_node().lookup(id);
        // Grown piece by piece with what the reads give, not sized at once from the subnode's stated
        // total: the buffer stays within a piece (and the vector's doubling) of what was really read.
        const size_t size = sub.size();
        std::vector<std::byte> result;
        while (result.size() < size) {
            const size_t at = result.size();
            result.resize(at + std::min(size - at, kValuePiece));
            const size_t got = sub.read(std::span(result).subspan(at), at);
            if (got == 0) throw ndb::database_corrupt("subnode value ends before its stated size");
            result.resize(at + got);
        }
        return result;
    }
    return heap->read_whole(id);
}

uint64_t hnid_value_size(const heap_ptr& heap, hnid id) {
    if (is_subnode_id(id)) return heap->get_node().lookup(id).size();
    return heap->alloc_size(id);
}

hnid_stream_device open_hnid_stream(const heap_ptr& heap, hnid id) {
    if (id != 0 && is_subnode_id(id)) return hnid_stream_device(heap->get_node().lookup(id));
    return hnid_stream_device(heap, id);
}

std::streamsize hnid_stream_device::read(char* buffer, std::streamsize n) {
    if (is_heap_ && heap_id_ == 0) return -1;
    if (n <= 0) return 0;
    int64_t& position = is_heap_ ? pos_ : node_pos_;
    const uint64_t total = size();
    const uint64_t at = static_cast<uint64_t>(position);
    const uint64_t left = at >= total ? 0 : total - at;
    const size_t count = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(n), left));
    if (count == 0) return -1;
    std::span<std::byte> into(reinterpret_cast<std::byte*>(buffer), count);
    const size_t got = is_heap_ ? heap_->read_alloc(into, heap_id_, static_cast<size_t>(at))
                                : node_->read(into, static_cast<size_t>(at));
    if (got == 0) return -1;
    position += static_cast<int64_t>(got);
    return static_cast<std::streamsize>(got);
}

std::streampos hnid_stream_device::seek(boost::iostreams::stream_offset offset,
                                        std::ios_base::seekdir origin) {
    int64_t& position = is_heap_ ? pos_ : node_pos_;
    const int64_t total = static_cast<int64_t>(size());
    const int64_t base = origin == std::ios_base::beg ? 0 : origin == std::ios_base::end ? total : position;
    // Saturating: an offset near the 64-bit limits still clamps instead of wrapping.
    int64_t target;
    if (__builtin_add_overflow(base, static_cast<int64_t>(offset), &target)) target = offset < 0 ? 0 : total;
    position = std::clamp<int64_t>(target, 0, total);
    return std::streampos(position);
}

}  // namespace tarn::ltp
