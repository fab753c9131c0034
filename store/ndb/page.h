// Pages of the node and block B-trees: 512-byte units, each either a leaf of entries or an
// intermediate page of (key, child page) entries. Built by the database (database.h), which reads
// and checks them; immutable once built.
#ifndef TARN_STORE_NDB_PAGE_H_
#define TARN_STORE_NDB_PAGE_H_

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <unordered_set>
#include <utility>
#include <vector>

#include "store/ndb/btree.h"
#include "store/ndb/types.h"

namespace tarn::ndb {

class db_context;

// The addresses of the pages loaded under one top page. A page read by the database starts its own
// set; every child it loads shares it. A real tree reaches each page once, so an address met twice
// means pointers that loop or converge, which would otherwise make a walk read the same pages
// without end.
struct page_registry {
    std::unordered_set<uint64_t> addresses;
};

class page {
  public:
    page(const std::shared_ptr<db_context>& db, const page_info& info) : db_(db), info_(info) {}
    virtual ~page() = default;

    uint64_t get_page_id() const { return info_.id; }
    uint64_t get_address() const { return info_.address; }
    const page_info& get_page_info() const { return info_; }

  protected:
    // The database for the length of one operation. Throws std::bad_weak_ptr when it is gone.
    std::shared_ptr<db_context> get_db_ptr() const { return std::shared_ptr<db_context>(db_); }

  private:
    std::weak_ptr<db_context> db_;
    page_info info_;
};

template <typename K, typename V>
class bt_nonleaf_page;

template <typename K, typename V>
class bt_page : public page, public virtual btree_node<K, V> {
  public:
    bt_page(const std::shared_ptr<db_context>& db, const page_info& info)
        : page(db, info), registry_(std::make_shared<page_registry>()) {
        registry_->addresses.insert(info.address);
    }

  private:
    friend class bt_nonleaf_page<K, V>;
    std::shared_ptr<page_registry> registry_;
};

template <typename K, typename V>
class bt_leaf_page : public bt_page<K, V>,
                     public btree_node_leaf<K, V>,
                     public std::enable_shared_from_this<bt_leaf_page<K, V>> {
  public:
    bt_leaf_page(const std::shared_ptr<db_context>& db, const page_info& info,
                 std::vector<std::pair<K, V>> entries)
        : bt_page<K, V>(db, info), page_data_(std::move(entries)) {}

    const K& get_key(size_t position) const override { return page_data_.at(position).first; }
    const V& get_value(size_t position) const override { return page_data_.at(position).second; }
    size_t num_values() const override { return page_data_.size(); }
    int binary_search(const K& key) const override { return search_entries(page_data_, key); }
    const V* find(const K& key) const override { return find_in_entries(page_data_, key); }

  private:
    std::vector<std::pair<K, V>> page_data_;
};

// Reads the child page of a tree through the database (page.cpp): one overload per tree.
std::shared_ptr<bt_page<node_id, node_info>> read_child_page(db_context& db, const page_info& info,
                                                             const node_id*);
std::shared_ptr<bt_page<block_id, block_info>> read_child_page(db_context& db, const page_info& info,
                                                               const block_id*);

template <typename K, typename V>
class bt_nonleaf_page : public bt_page<K, V>,
                        public btree_node_nonleaf<K, V>,
                        public std::enable_shared_from_this<bt_nonleaf_page<K, V>> {
  public:
    bt_nonleaf_page(const std::shared_ptr<db_context>& db, const page_info& info, uint8_t level,
                    std::vector<std::pair<K, page_info>> entries)
        : bt_page<K, V>(db, info),
          level_(level),
          page_data_(std::move(entries)),
          child_pages_(page_data_.size()) {}

    const K& get_key(size_t position) const override { return page_data_.at(position).first; }
    size_t num_values() const override { return page_data_.size(); }
    int binary_search(const K& key) const override { return search_entries(page_data_, key); }
    uint8_t get_level() const { return level_; }
    const page_info& get_child_info(size_t position) const { return page_data_.at(position).second; }

    // Loads the child with the reader of this page's tree; its own cLevel decides what it is.
    const btree_node<K, V>* get_child(size_t position) const override {
        if (position >= page_data_.size()) throw std::out_of_range("index >= page_data.size()");
        if (!child_pages_[position]) {
            const page_info& child = page_data_[position].second;
            if (this->registry_->addresses.count(child.address) != 0)
                throw database_corrupt("b-tree page reached twice; the tree's pointers loop");
            auto db = this->get_db_ptr();
            auto loaded = read_child_page(*db, child, static_cast<const K*>(nullptr));
            // Registered only once read, so that a failed read can be retried with the same result.
            this->registry_->addresses.insert(child.address);
            loaded->registry_ = this->registry_;
            child_pages_[position] = std::move(loaded);
        }
        return child_pages_[position].get();
    }

  private:
    uint8_t level_;
    std::vector<std::pair<K, page_info>> page_data_;
    mutable std::vector<std::shared_ptr<bt_page<K, V>>> child_pages_;
};

using nbt_page = bt_page<node_id, node_info>;
using nbt_leaf_page = bt_leaf_page<node_id, node_info>;
using nbt_nonleaf_page = bt_nonleaf_page<node_id, node_info>;
using bbt_page = bt_page<block_id, block_info>;
using bbt_leaf_page = bt_leaf_page<block_id, block_info>;
using bbt_nonleaf_page = bt_nonleaf_page<block_id, block_info>;

// Every value of a tree in key order, e.g. `for (const node_info& n : page_range(db->read_nbt_root()))`.
template <typename K, typename V>
btree_range<K, V> page_range(std::shared_ptr<bt_page<K, V>> root) {
    return btree_range<K, V>(std::shared_ptr<const btree_node<K, V>>(std::move(root)));
}

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_PAGE_H_
