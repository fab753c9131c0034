// Blocks: the units a node's data and subnode tree are stored in. A data tree is one external (leaf)
// block, or an extended block listing leaves (level 1), or one listing level-1 blocks (level 2); read
// through data_block it is one byte stream of known size. Subnode blocks hold a node's private tree
// of subnodes and share the B-tree interface of btree.h.
//
// Blocks are built by the database (database.h). They keep only a weak reference to it and lock it
// for each operation that loads a child.
#ifndef TARN_STORE_NDB_BLOCK_H_
#define TARN_STORE_NDB_BLOCK_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "common/little_endian.h"
#include "store/ndb/btree.h"
#include "store/ndb/types.h"

namespace tarn::ndb {

class db_context;
class external_block;

// Extended blocks one data tree may nest. Real stores use at most two (an XXBLOCK over XBLOCKs); a
// child's level is deliberately not compared with its parent's, so this count is what stops an
// extended block that lists itself, or a chain of them, before the reads recurse without end.
inline constexpr unsigned kMaxExtendedDepth = 2;

class block {
  public:
    block(const std::shared_ptr<db_context>& db, const block_info& info)
        : size_(info.size), id_(info.id), address_(info.address), db_(db) {}
    virtual ~block() = default;

    virtual bool is_internal() const = 0;

    uint16_t get_disk_size() const { return size_; }
    block_id get_id() const { return id_; }
    uint64_t get_address() const { return address_; }

  protected:
    // The database for the length of one operation. Throws std::bad_weak_ptr when it is gone.
    std::shared_ptr<db_context> get_db_ptr() const { return std::shared_ptr<db_context>(db_); }

    uint16_t size_;
    block_id id_;
    uint64_t address_;
    std::weak_ptr<db_context> db_;
};

class data_block : public block {
  public:
    data_block(const std::shared_ptr<db_context>& db, const block_info& info, uint32_t total_size)
        : block(db, info), total_size_(total_size) {}

    // Copies up to `size` bytes from `offset` of the stream; fewer near the end, none at or past it.
    virtual size_t read_raw(std::byte* destination, size_t size, size_t offset) const = 0;
    virtual size_t get_page_count() const = 0;
    // The leaf data block of that index (the unit a heap-on-node works in). Borrowed: valid as long as
    // this block, which keeps its children. Heap reads ask for it several times per value, so it is
    // handed out without touching a reference count.
    virtual const external_block& get_page(size_t index) const = 0;

    size_t get_total_size() const { return total_size_; }

    // Fills `buffer` from `offset`; returns the bytes read, fewer than asked near the end. An empty
    // buffer reads nothing. Throws std::out_of_range("offset >= size()") at or past the end.
    size_t read(std::span<std::byte> buffer, size_t offset) const {
        if (buffer.empty()) return 0;
        if (offset >= total_size_) throw std::out_of_range("offset >= size()");
        return read_raw(buffer.data(), buffer.size(), offset);
    }

    // One little-endian integer at `offset`. An exact fit at the end is read.
    template <typename T>
    T read(size_t offset) const {
        static_assert(std::is_integral_v<T>);
        if (offset >= total_size_) throw std::out_of_range("offset >= size()");
        if (sizeof(T) > total_size_ - offset) throw std::out_of_range("sizeof(T) + offset >= size()");
        std::byte bytes[sizeof(T)];
        if (read_raw(bytes, sizeof(T), offset) != sizeof(T))
            throw std::out_of_range("sizeof(T) + offset >= size()");
        return static_cast<T>(LoadLe<std::make_unsigned_t<T>>(bytes));
    }

  protected:
    uint32_t total_size_;
};

// A leaf data block: decoded bytes of one block.
class external_block : public data_block {
  public:
    external_block(const std::shared_ptr<db_context>& db, const block_info& info, size_t max_size,
                   uint32_t total_size, std::vector<std::byte> data)
        : data_block(db, info, total_size), max_size_(max_size), buffer_(std::move(data)) {}

    bool is_internal() const override { return false; }
    size_t read_raw(std::byte* destination, size_t size, size_t offset) const override;
    size_t get_page_count() const override { return 1; }
    const external_block& get_page(size_t index) const override;

    size_t get_max_size() const { return max_size_; }
    // The stored bytes. A block made in memory may hold fewer than its total size: the rest reads as
    // zeros, so a hole in a data tree (child id 0) reads as zeros rather than outside a buffer.
    std::span<const std::byte> data() const { return buffer_; }

  private:
    friend class data_block;
    size_t max_size_;
    std::vector<std::byte> buffer_;
};

// Block ids met under one top block (bit 0 ignored, as lookups ignore it), shared by the block and
// every child it loads, like page_registry (page.h) and for the same reason: a real data tree or
// subnode tree reaches each of its blocks once, so an id met twice means pointers that loop or repeat.
// Without it a few blocks that list each other many times could make one read load (and keep)
// gigabytes from a file of kilobytes.
struct block_registry {
    std::unordered_set<block_id> ids;
};

// An XBLOCK (level 1) or XXBLOCK (level 2): the ids of its children and the children loaded so far.
class extended_block : public data_block {
  public:
    // `child_max_total`: most bytes under one child; `child_max_pages`: leaf blocks under one child;
    // `depth`: extended blocks from the top of the tree down to this one (1 for the top).
    extended_block(const std::shared_ptr<db_context>& db, const block_info& info, uint8_t level,
                   uint32_t total_size, size_t child_max_total, size_t child_max_pages, size_t max_children,
                   std::vector<block_id> child_ids, unsigned depth = 1)
        : data_block(db, info, total_size),
          child_max_total_(child_max_total),
          child_max_pages_(child_max_pages),
          max_children_(max_children),
          level_(level),
          depth_(depth),
          block_ids_(std::move(child_ids)),
          m_child_blocks(block_ids_.size()),
          registry_(std::make_shared<block_registry>()) {
        if (info.id != 0) registry_->ids.insert(info.id & ~block_id{1});
    }
    extended_block(const extended_block&) = delete;
    extended_block& operator=(const extended_block&) = delete;

    bool is_internal() const override { return true; }
    size_t read_raw(std::byte* destination, size_t size, size_t offset) const override;
    size_t get_page_count() const override;
    const external_block& get_page(size_t index) const override;

    uint8_t get_level() const { return level_; }
    size_t num_children() const { return block_ids_.size(); }
    block_id get_child_id(size_t index) const { return block_ids_.at(index); }
    size_t get_max_size() const { return child_max_total_ * max_children_; }
    // The child at `index`, read on first use and kept. Throws std::out_of_range
    // ("index >= m_child_blocks.size()") past the last child id.
    const std::shared_ptr<data_block>& get_child_block(size_t index) const;

  private:
    friend class data_block;
    size_t child_max_total_;
    size_t child_max_pages_;
    size_t max_children_;
    uint8_t level_;
    unsigned depth_;
    std::vector<block_id> block_ids_;
    mutable std::vector<std::shared_ptr<data_block>> m_child_blocks;
    std::shared_ptr<block_registry> registry_;
};

// ---- Subnode blocks -----------------------------------------------------------------------------

class subnode_block : public block, public virtual btree_node<node_id, subnode_info> {
  public:
    subnode_block(const std::shared_ptr<db_context>& db, const block_info& info)
        : block(db, info), registry_(std::make_shared<block_registry>()) {
        if (info.id != 0) registry_->ids.insert(info.id & ~block_id{1});
    }
    bool is_internal() const override { return true; }

  private:
    friend class subnode_nonleaf_block;
    std::shared_ptr<block_registry> registry_;
};

class subnode_leaf_block : public subnode_block,
                           public btree_node_leaf<node_id, subnode_info>,
                           public std::enable_shared_from_this<subnode_leaf_block> {
  public:
    subnode_leaf_block(const std::shared_ptr<db_context>& db, const block_info& info,
                       std::vector<std::pair<node_id, subnode_info>> entries)
        : subnode_block(db, info), entries_(std::move(entries)) {}

    const node_id& get_key(size_t position) const override { return entries_.at(position).first; }
    const subnode_info& get_value(size_t position) const override { return entries_.at(position).second; }
    size_t num_values() const override { return entries_.size(); }
    int binary_search(const node_id& key) const override { return search_entries(entries_, key); }
    const subnode_info* find(const node_id& key) const override { return find_in_entries(entries_, key); }

  private:
    std::vector<std::pair<node_id, subnode_info>> entries_;
};

class subnode_nonleaf_block : public subnode_block,
                              public btree_node_nonleaf<node_id, subnode_info>,
                              public std::enable_shared_from_this<subnode_nonleaf_block> {
  public:
    subnode_nonleaf_block(const std::shared_ptr<db_context>& db, const block_info& info,
                          std::vector<std::pair<node_id, block_id>> entries)
        : subnode_block(db, info), entries_(std::move(entries)), child_blocks_(entries_.size()) {}

    const node_id& get_key(size_t position) const override { return entries_.at(position).first; }
    size_t num_values() const override { return entries_.size(); }
    int binary_search(const node_id& key) const override { return search_entries(entries_, key); }
    block_id get_child_id(size_t position) const { return entries_.at(position).second; }
    // Reads the child by id on first use; its own level decides what it is.
    const btree_node<node_id, subnode_info>* get_child(size_t position) const override;

  private:
    std::vector<std::pair<node_id, block_id>> entries_;
    mutable std::vector<std::shared_ptr<subnode_block>> child_blocks_;
};

// Every subnode of a tree in id order.
inline btree_range<node_id, subnode_info> subnode_range(std::shared_ptr<subnode_block> root) {
    return btree_range<node_id, subnode_info>(
        std::shared_ptr<const btree_node<node_id, subnode_info>>(std::move(root)));
}

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_BLOCK_H_
