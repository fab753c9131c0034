// BTH: a sorted map kept in a heap-on-node. The index of a property context (property id to entry)
// and the row index of a table context (row id to row number). Nodes are read lazily and kept by
// their parents; only the root is read when the tree is opened.
//
// Every record is read with an 8-byte stride, whatever the key and value sizes. That is the rule of
// this reader and is kept on purpose: it matches the file for property-context leaves (2 + 6) and for
// 4-byte keys with 4-byte values or child ids, and differs from it for intermediate records of 2-byte
// keys and for leaves of 4-byte keys with 2-byte values.
#ifndef TARN_STORE_LTP_BTH_H_
#define TARN_STORE_LTP_BTH_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/little_endian.h"
#include "store/ltp/heap.h"
#include "store/ndb/btree.h"
#include "store/ndb/errors.h"

namespace tarn::ltp {

using ndb::btree_node;
using ndb::btree_node_leaf;
using ndb::btree_node_nonleaf;
using ndb::key_not_found;

using prop_id = uint16_t;
using prop_type = uint16_t;

// The value of a property-context record: 6 bytes on disk, type then value-or-HNID.
struct prop_entry {
    prop_type type = 0;
    hnid id = 0;
};

inline constexpr uint8_t bth_signature = 0xB5;
inline constexpr size_t kBthRecordStride = 8;
inline constexpr size_t kBthHeaderSize = 8;

// Sizes the header must declare for each value type, and how a value is taken from a record.
template <typename V>
struct bth_value;
template <>
struct bth_value<prop_entry> {
    static constexpr size_t disk_size = 6;
    static prop_entry load(const std::byte* p) { return {LoadLe16(p), LoadLe32(p + 2)}; }
};
template <>
struct bth_value<uint32_t> {
    static constexpr size_t disk_size = 4;
    static uint32_t load(const std::byte* p) { return LoadLe32(p); }
};
template <>
struct bth_value<uint16_t> {
    static constexpr size_t disk_size = 2;
    static uint16_t load(const std::byte* p) { return LoadLe16(p); }
};

template <typename K, typename V>
class bth_node : public virtual btree_node<K, V> {
  public:
    bth_node(heap_ptr heap, heap_id id, uint16_t level) : heap_(std::move(heap)), id_(id), level_(level) {}

    const heap_ptr& get_heap() const { return heap_; }
    heap_id get_id() const { return id_; }
    uint16_t get_level() const { return level_; }
    virtual bool is_leaf() const = 0;

  protected:
    // The whole allocation, cut into 8-byte records; a remainder shorter than a record is ignored.
    std::vector<std::byte> read_records(size_t& count) const {
        std::vector<std::byte> bytes = heap_->read_whole(id_);
        count = bytes.size() / kBthRecordStride;
        return bytes;
    }

    heap_ptr heap_;
    heap_id id_;
    uint16_t level_;
};

template <typename K, typename V>
class bth_leaf_node : public bth_node<K, V>, public btree_node_leaf<K, V> {
  public:
    // Id 0 is an empty leaf.
    bth_leaf_node(heap_ptr heap, heap_id id) : bth_node<K, V>(std::move(heap), id, 0) {
        if (id == 0) return;
        size_t count = 0;
        const std::vector<std::byte> bytes = this->read_records(count);
        records_.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const std::byte* record = bytes.data() + i * kBthRecordStride;
            // The value follows the key directly (a 2-byte value leaves the record's last 2 bytes unread).
            records_.emplace_back(LoadLe<K>(record), bth_value<V>::load(record + sizeof(K)));
        }
    }

    bool is_leaf() const override { return true; }
    const K& get_key(size_t position) const override { return records_.at(position).first; }
    const V& get_value(size_t position) const override { return records_.at(position).second; }
    size_t num_values() const override { return records_.size(); }
    // Every property a reader asks for is looked up here, most of them absent.
    int binary_search(const K& key) const override { return ndb::search_entries(records_, key); }
    const V* find(const K& key) const override { return ndb::find_in_entries(records_, key); }

  private:
    std::vector<std::pair<K, V>> records_;
};

template <typename K, typename V>
class bth_nonleaf_node : public bth_node<K, V>, public btree_node_nonleaf<K, V> {
  public:
    bth_nonleaf_node(heap_ptr heap, heap_id id, uint16_t level) : bth_node<K, V>(std::move(heap), id, level) {
        size_t count = 0;
        const std::vector<std::byte> bytes = id == 0 ? std::vector<std::byte>{} : this->read_records(count);
        children_.reserve(count);
        // The child id sits at offset 4 for both key widths: a 2-byte key is followed by 2 ignored bytes.
        for (size_t i = 0; i < count; ++i) {
            const std::byte* record = bytes.data() + i * kBthRecordStride;
            children_.emplace_back(LoadLe<K>(record), LoadLe32(record + 4));
        }
        cache_.resize(count);
    }

    bool is_leaf() const override { return false; }
    const K& get_key(size_t position) const override { return children_.at(position).first; }
    size_t num_values() const override { return children_.size(); }
    int binary_search(const K& key) const override { return ndb::search_entries(children_, key); }
    heap_id get_child_id(size_t position) const { return children_.at(position).second; }

    const btree_node<K, V>* get_child(size_t position) const override {
        return get_child_node(position).get();
    }

    // Opened on first use and kept: a leaf below level 1, otherwise an intermediate node one level down.
    const std::shared_ptr<bth_node<K, V>>& get_child_node(size_t position) const {
        std::shared_ptr<bth_node<K, V>>& slot = cache_.at(position);
        if (!slot) {
            const heap_id child = children_[position].second;
            if (this->level_ <= 1) {
                slot = std::make_shared<bth_leaf_node<K, V>>(this->heap_, child);
            } else {
                slot = std::make_shared<bth_nonleaf_node<K, V>>(this->heap_, child,
                                                                static_cast<uint16_t>(this->level_ - 1));
            }
        }
        return slot;
    }

  private:
    std::vector<std::pair<K, heap_id>> children_;
    mutable std::vector<std::shared_ptr<bth_node<K, V>>> cache_;
};

// Opens the BTH whose header is the allocation `id`. bIdxLevels 0 and 1 both give a leaf root, and
// higher values an intermediate root one level lower than the header says: the tree is read as
// max(1, bIdxLevels) tiers. Deliberate, and pinned by the tests; a store written with an intermediate
// level reads its root's child records as leaf records.
template <typename K, typename V>
std::shared_ptr<bth_node<K, V>> open_bth(const heap_ptr& heap, heap_id id) {
    std::byte header[kBthHeaderSize];
    heap->read_alloc(header, id, 0);
    const uint8_t type = LoadLe8(header);
    if (type != bth_signature) throw ndb::sig_mismatch("bth_signature expected", 0, id, type, bth_signature);
    if (LoadLe8(header + 1) != sizeof(K)) throw std::logic_error("invalid key size");
    if (LoadLe8(header + 2) != bth_value<V>::disk_size) throw std::logic_error("invalid entry size");
    const uint8_t levels = LoadLe8(header + 3);
    const heap_id root = LoadLe32(header + 4);
    if (levels <= 1) return std::make_shared<bth_leaf_node<K, V>>(heap, root);
    return std::make_shared<bth_nonleaf_node<K, V>>(heap, root, static_cast<uint16_t>(levels - 1));
}

}  // namespace tarn::ltp

#endif  // TARN_STORE_LTP_BTH_H_
