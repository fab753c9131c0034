// The database handle of a PST store: opens the file, checks the header, picks the ANSI or Unicode
// layout, and hands out nodes, pages and blocks. Read-only: the few operations that make blocks act
// on in-memory objects and never write to the file.
//
// Not thread-safe: one database and everything read from it serve one thread at a time.
#ifndef TARN_STORE_NDB_DATABASE_H_
#define TARN_STORE_NDB_DATABASE_H_

#include <memory>
#include <string>

#include "store/ndb/block.h"
#include "store/ndb/errors.h"
#include "store/ndb/node.h"
#include "store/ndb/page.h"
#include "store/ndb/types.h"

namespace tarn::ndb {

using db_ptr = std::shared_ptr<db_context>;

// The operations in this order are the handle's whole interface. Block-reading operations take the
// database the new block keeps a weak reference to; the by-id forms look the block up in the block
// B-tree and pass the record to their by-record twin.
class db_context : public std::enable_shared_from_this<db_context> {
  public:
    virtual ~db_context() = default;

    virtual node lookup_node(node_id nid) = 0;
    virtual node_info lookup_node_info(node_id nid) = 0;
    // Id 0 gives an all-zero record without reading; otherwise bit 0 of the id is ignored.
    virtual block_info lookup_block_info(block_id bid) = 0;

    // The roots, read on first use and kept for the life of the database.
    virtual std::shared_ptr<bbt_page> read_bbt_root() = 0;
    virtual std::shared_ptr<nbt_page> read_nbt_root() = 0;
    virtual std::shared_ptr<bbt_page> read_bbt_page(const page_info& pi) = 0;
    virtual std::shared_ptr<nbt_page> read_nbt_page(const page_info& pi) = 0;
    virtual std::shared_ptr<nbt_leaf_page> read_nbt_leaf_page(const page_info& pi) = 0;
    virtual std::shared_ptr<bbt_leaf_page> read_bbt_leaf_page(const page_info& pi) = 0;
    virtual std::shared_ptr<nbt_nonleaf_page> read_nbt_nonleaf_page(const page_info& pi) = 0;
    virtual std::shared_ptr<bbt_nonleaf_page> read_bbt_nonleaf_page(const page_info& pi) = 0;

    // A data block, or, when the id names an internal block that is not an extended block, a
    // subnode block.
    virtual std::shared_ptr<block> read_block(const db_ptr& db, const block_info& bi) = 0;
    virtual std::shared_ptr<block> read_block(const db_ptr& db, block_id bid) = 0;
    virtual std::shared_ptr<data_block> read_data_block(const db_ptr& db, const block_info& bi) = 0;
    virtual std::shared_ptr<data_block> read_data_block(const db_ptr& db, block_id bid) = 0;
    virtual std::shared_ptr<extended_block> read_extended_block(const db_ptr& db, const block_info& bi) = 0;
    virtual std::shared_ptr<extended_block> read_extended_block(const db_ptr& db, block_id bid) = 0;
    virtual std::shared_ptr<external_block> read_external_block(const db_ptr& db, const block_info& bi) = 0;
    virtual std::shared_ptr<external_block> read_external_block(const db_ptr& db, block_id bid) = 0;
    virtual std::shared_ptr<subnode_block> read_subnode_block(const db_ptr& db, const block_info& bi) = 0;
    virtual std::shared_ptr<subnode_block> read_subnode_block(const db_ptr& db, block_id bid) = 0;
    virtual std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const db_ptr& db,
                                                                        const block_info& bi) = 0;
    virtual std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const db_ptr& db, block_id bid) = 0;
    virtual std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const db_ptr& db,
                                                                              const block_info& bi) = 0;
    virtual std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const db_ptr& db,
                                                                              block_id bid) = 0;

    // In-memory blocks (never written to the file).
    virtual std::shared_ptr<external_block> create_external_block(const db_ptr& db, size_t size) = 0;
    virtual std::shared_ptr<extended_block> create_extended_block(const db_ptr& db, size_t size) = 0;
    virtual std::shared_ptr<extended_block> create_extended_block(
        const db_ptr& db, const std::shared_ptr<extended_block>& child) = 0;
    virtual std::shared_ptr<extended_block> create_extended_block(
        const db_ptr& db, const std::shared_ptr<external_block>& child) = 0;

    // The next block id from the header's bidNextB, advanced in memory only. With `internal` the
    // old value is masked with 2 (see database.cpp).
    virtual block_id alloc_bid(bool internal) = 0;
};

// The header's fields as the file states them, read without the checks open_database makes, so that a
// header it refuses can still be shown. The version alone picks the layout. Throws the file reader's
// errors.
struct header_fields {
    bool unicode = false;
    uint16_t version = 0;
    uint32_t magic = 0;
    uint8_t crypt_method = 0;
    uint64_t file_eof = 0;
    uint64_t next_block_id = 0;
    page_info nbt_root, bbt_root;
};
header_fields read_header_fields(const std::u16string& path);

// Opens the store at `path` (ANSI first, Unicode when the ANSI header check says "Unexpected Database
// Format"). Throws the header's crc_fail, invalid_format, or the file reader's errors.
std::shared_ptr<db_context> open_database(const std::u16string& path);

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_DATABASE_H_
