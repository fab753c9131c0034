// Heap-on-node: the small-allocation heap every list, table and property context of the store lives
// in. Laid over one node's data; each data block of the node ("page") has its own map of allocations.
// Read-only and deliberately cache-free: every call re-reads what it needs from the node, whose blocks
// are cached beneath.
#ifndef TARN_STORE_LTP_HEAP_H_
#define TARN_STORE_LTP_HEAP_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "store/ndb/node.h"

namespace tarn::ltp {

using ndb::node;
using ndb::node_id;

// Bits 0-4 type (0), 5-15 allocation index counted from 1, 16-31 block index. 0 = no allocation.
using heap_id = uint32_t;
// A heap id when the low five bits are 0, else the id of a subnode of the heap's node.
using hnid = uint32_t;

inline constexpr uint8_t heap_sig = 0xEC;
inline constexpr uint8_t heap_sig_pc = 0xBC;
inline constexpr uint8_t heap_sig_tc = 0x7C;

inline bool is_subnode_id(hnid id) { return (id & 0x1F) != 0; }

class heap_impl;
using heap_ptr = std::shared_ptr<heap_impl>;

class heap_impl : public std::enable_shared_from_this<heap_impl> {
  public:
    // Checks the heap signature, then (with the second form) the client signature. Throws the node's
    // out-of-range errors for data shorter than the 12-byte header, sig_mismatch "invalid heap_sig" /
    // "invalid client_sig".
    static heap_ptr open(const node& n);
    static heap_ptr open(const node& n, uint8_t client_sig);

    // hidUserRoot, read afresh on each call (the signatures are not compared again).
    heap_id root_id() const;

    // Bytes of the allocation; 0 for id 0. Deliberately unchecked beyond the page map bounds: an
    // allocation index equal to the count is accepted, and an end below the start gives a size near
    // 4 GiB. The reads below refuse what would leave the block.
    uint32_t alloc_size(heap_id id) const;

    // Fills `buffer` from `offset` within the allocation; returns the bytes read. Throws
    // std::length_error for a buffer or offset past the allocation.
    size_t read_alloc(std::span<std::byte> buffer, heap_id id, size_t offset) const;

    // The whole allocation in a new buffer.
    std::vector<std::byte> read_whole(heap_id id) const;

    const node& get_node() const { return node_; }
    node& get_node() { return node_; }

  private:
    explicit heap_impl(const node& n) : node_(n) {}

    struct alloc_span {
        size_t block;
        uint32_t start;
        uint32_t size;
        // The leaf block that holds the allocation, borrowed from the node (null for id 0). One read of
        // a value asks for it several times; looking it up once spares the walk through the data tree.
        const ndb::external_block* page;
    };
    alloc_span locate(heap_id id) const;

    node node_;
};

}  // namespace tarn::ltp

#endif  // TARN_STORE_LTP_HEAP_H_
