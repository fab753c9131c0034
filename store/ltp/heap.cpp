#include "store/ltp/heap.h"

#include <stdexcept>

#include "common/little_endian.h"
#include "store/ndb/errors.h"

namespace tarn::ltp {
namespace {

constexpr size_t kHeapHeaderSize = 12;  // ibHnpm, bSig, bClientSig, hidUserRoot, rgbFillLevel
constexpr size_t kPageMapOffsets = 4;   // cAlloc and cFree come before rgibAlloc

struct heap_header {
    uint8_t sig;
    uint8_t client_sig;
    heap_id root;
};

// The 12-byte header at the start of the node's data. It is one fixed-size value of the whole
// stream, so data too short to hold it fails with the node's own messages for such a read.
heap_header read_header(const node& n) {
    const size_t size = n.size();
    if (size == 0) throw std::out_of_range("offset >= size()");
    if (size < kHeapHeaderSize) throw std::out_of_range("sizeof(T) + offset >= size()");
    std::byte bytes[kHeapHeaderSize];
    if (n.read_raw(bytes, kHeapHeaderSize, 0) != kHeapHeaderSize)
        throw std::out_of_range("sizeof(T) + offset >= size()");
    return {LoadLe8(bytes + 2), LoadLe8(bytes + 3), LoadLe32(bytes + 4)};
}

}  // namespace

heap_ptr heap_impl::open(const node& n) {
    heap_ptr heap(new heap_impl(n));
    const heap_header header = read_header(heap->node_);
    if (header.sig != heap_sig)
        throw ndb::sig_mismatch("invalid heap_sig", 0, heap->node_.get_id(), header.sig, heap_sig);
    return heap;
}

heap_ptr heap_impl::open(const node& n, uint8_t client_sig) {
    heap_ptr heap(new heap_impl(n));
    const heap_header header = read_header(heap->node_);
    // The heap signature first: a node that is no heap at all says so, whatever its client byte.
    if (header.sig != heap_sig)
        throw ndb::sig_mismatch("invalid heap_sig", 0, heap->node_.get_id(), header.sig, heap_sig);
    if (header.client_sig != client_sig)
        throw ndb::sig_mismatch("invalid client_sig", 0, heap->node_.get_id(), header.client_sig, client_sig);
    return heap;
}

heap_id heap_impl::root_id() const { return read_header(node_).root; }

heap_impl::alloc_span heap_impl::locate(heap_id id) const {
    const size_t block = id >> 16;
    const ndb::external_block& page = node_.get_data_block()->get_page(block);
    const uint16_t page_map_offset = page.read<uint16_t>(0);
    const size_t block_size = page.get_total_size();
    if (page_map_offset > block_size) throw std::length_error("page_map_offset > node size");

    // Only the words needed are read: cAlloc, then rgibAlloc[p] and rgibAlloc[p + 1]. A page map
    // that the block cuts short is damage; the checks below are ours and keep every read inside it.
    const size_t map_size = block_size - page_map_offset;
    std::byte word[4];
    if (map_size < 2) throw ndb::database_corrupt("heap page map is cut off by the end of its block");
    page.read_raw(word, 2, page_map_offset);
    const uint16_t num_allocs = LoadLe16(word);

    // Index 0 wraps to 2047 on purpose; a position equal to the count is deliberately accepted and
    // reads the word after rgibAlloc (still inside the block, or refused below).
    const uint32_t position = ((id >> 5) - 1) & 0x7FF;
    if (position > num_allocs) throw std::length_error("index > num_allocs");
    const size_t at = kPageMapOffsets + 2 * size_t{position};
    if (at + 4 > map_size) throw ndb::database_corrupt("heap page map ends before the allocation's offsets");
    page.read_raw(word, 4, page_map_offset + at);
    const uint32_t start = LoadLe16(word);
    const uint32_t end = LoadLe16(word + 2);
    return {block, start, end - start, &page};
}

uint32_t heap_impl::alloc_size(heap_id id) const {
    if (id == 0) return 0;
    return locate(id).size;
}

size_t heap_impl::read_alloc(std::span<std::byte> buffer, heap_id id, size_t offset) const {
    const alloc_span alloc = id == 0 ? alloc_span{0, 0, 0, nullptr} : locate(id);
    const size_t size = alloc.size;
    if (buffer.size() > size) throw std::length_error("buffer.size() > size()");
    if (offset > size) throw std::length_error("offset > size()");
    if (buffer.size() + offset > size) throw std::length_error("size + offset > size()");
    if (size == 0 || buffer.empty()) return 0;
    // An allocation whose end lies past its block, or below its start (a size near 4 GiB), passes
    // the checks above; the bytes wanted must still lie in the block.
    const size_t block_size = alloc.page->get_total_size();
    const size_t from = size_t{alloc.start} + offset;
    if (from > block_size || buffer.size() > block_size - from)
        throw ndb::database_corrupt("heap allocation runs past its block");
    return alloc.page->read_raw(buffer.data(), buffer.size(), from);
}

std::vector<std::byte> heap_impl::read_whole(heap_id id) const {
    if (id == 0) return {};
    const alloc_span alloc = locate(id);
    // Refused before allocating: a damaged map can claim almost 4 GiB for one allocation.
    const size_t block_size = alloc.page->get_total_size();
    if (alloc.start > block_size || alloc.size > block_size - alloc.start)
        throw ndb::database_corrupt("heap allocation runs past its block");
    std::vector<std::byte> result(alloc.size);
    // The same checks as read_alloc's for the whole allocation, which those above have made.
    if (!result.empty()) alloc.page->read_raw(result.data(), result.size(), alloc.start);
    return result;
}

}  // namespace tarn::ltp
