// Identifiers and the records of the two B-trees and of subnode trees, as the store holds them in
// memory. Both layouts use these widths; ANSI values are zero-extended when read.
#ifndef TARN_STORE_NDB_TYPES_H_
#define TARN_STORE_NDB_TYPES_H_

#include <cstdint>

namespace tarn::ndb {

using node_id = uint32_t;
using block_id = uint64_t;

// Where a page lies: what a BREF of the file becomes.
struct page_info {
    uint64_t id = 0;
    uint64_t address = 0;
};

// A block B-tree entry.
struct block_info {
    block_id id = 0;
    uint64_t address = 0;
    uint16_t size = 0;  // cb: data bytes, without padding and trailer
    uint16_t ref_count = 0;
};

// A node B-tree entry.
struct node_info {
    node_id id = 0;
    block_id data_bid = 0;
    block_id sub_bid = 0;
    node_id parent_id = 0;
};

// A subnode tree entry.
struct subnode_info {
    node_id id = 0;
    block_id data_bid = 0;
    block_id sub_bid = 0;
};

// Bit 1 marks an internal block (extended or subnode block).
inline bool is_internal_bid(block_id id) { return (id & 2) != 0; }

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_TYPES_H_
