// Nodes: the unit the layers above the node database work with. A node is a byte stream (its data
// tree) plus an optional private tree of subnodes, each again a node. Found by id in the node B-tree
// (db_context::lookup_node) or in a container's subnode tree (node::lookup).
#ifndef TARN_STORE_NDB_NODE_H_
#define TARN_STORE_NDB_NODE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>

#include "store/ndb/block.h"
#include "store/ndb/types.h"

namespace tarn::ndb {

class db_context;

// The shared state behind a node handle. Reads its data and subnode blocks on first use and keeps
// them; keeps its container (for a subnode) and the database alive.
class node_impl : public std::enable_shared_from_this<node_impl> {
  public:
    node_impl(const std::shared_ptr<db_context>& db, const node_info& info)
        : id_(info.id),
          original_data_id_(info.data_bid),
          original_sub_id_(info.sub_bid),
          original_parent_id_(info.parent_id),
          parent_id_(info.parent_id),
          db_(db) {}
    node_impl(const std::shared_ptr<node_impl>& container, const subnode_info& info)
        : id_(info.id),
          original_data_id_(info.data_bid),
          original_sub_id_(info.sub_bid),
          original_parent_id_(0),
          parent_id_(0),
          container_(container),
          db_(container->db_) {}
    // A copy shares what has been read so far and caches separately from then on.
    node_impl(const node_impl& other)
        : std::enable_shared_from_this<node_impl>(),
          id_(other.id_),
          original_data_id_(other.original_data_id_),
          original_sub_id_(other.original_sub_id_),
          original_parent_id_(other.original_parent_id_),
          data_(other.data_),
          subnode_(other.subnode_),
          parent_id_(other.parent_id_),
          container_(other.container_),
          db_(other.db_) {}
    node_impl& operator=(const node_impl&) = delete;

    node_id get_id() const { return id_; }
    block_id get_data_id() const { return original_data_id_; }
    block_id get_sub_id() const { return original_sub_id_; }
    node_id get_parent_id() const { return parent_id_; }
    bool is_subnode() const { return container_ != nullptr; }
    const std::shared_ptr<node_impl>& get_container() const { return container_; }
    const std::shared_ptr<db_context>& get_db() const { return db_; }

    size_t size() const { return ensure_data_block()->get_total_size(); }
    size_t get_page_count() const { return ensure_data_block()->get_page_count(); }
    size_t get_page_size(size_t page) const { return ensure_data_block()->get_page(page).get_total_size(); }

    size_t read(std::span<std::byte> buffer, size_t offset) const {
        return ensure_data_block()->read(buffer, offset);
    }
    size_t read(std::span<std::byte> buffer, size_t page, size_t offset) const;
    template <typename T>
    T read(size_t offset) const {
        return ensure_data_block()->template read<T>(offset);
    }
    template <typename T>
    T read(size_t page, size_t offset) const;
    // Up to `size` bytes from `offset`, clamped at the end: the reading behind the ones above.
    size_t read_raw(std::byte* destination, size_t size, size_t offset) const {
        return ensure_data_block()->read_raw(destination, size, offset);
    }

    const std::shared_ptr<data_block>& get_data_block() const { return ensure_data_block(); }
    const std::shared_ptr<subnode_block>& get_subnode_block() const { return ensure_sub_block(); }

    // The subnode with this id, from this node's own subnode tree. Requires that this object is held
    // by a shared pointer (std::bad_weak_ptr otherwise). Throws key_not_found<node_id>.
    std::shared_ptr<node_impl> lookup(node_id id) const;
    // As lookup, but null exactly where lookup throws key_not_found; any other failure throws as there.
    // For subnodes whose absence is normal (a message without attachments), which would otherwise cost
    // an exception per node.
    std::shared_ptr<node_impl> find(node_id id) const;

  private:
    const std::shared_ptr<data_block>& ensure_data_block() const;
    const std::shared_ptr<subnode_block>& ensure_sub_block() const;

    node_id id_;
    block_id original_data_id_;
    block_id original_sub_id_;
    node_id original_parent_id_;
    mutable std::shared_ptr<data_block> data_;
    mutable std::shared_ptr<subnode_block> subnode_;
    node_id parent_id_;
    std::shared_ptr<node_impl> container_;
    std::shared_ptr<db_context> db_;
};

// A handle to a node_impl. Copying a node copies the implementation record (see node_impl's copy).
class node {
  public:
    explicit node(std::shared_ptr<node_impl> impl) : impl_(std::move(impl)) {}
    node(const std::shared_ptr<db_context>& db, const node_info& info)
        : impl_(std::make_shared<node_impl>(db, info)) {}
    node(const node& other) : impl_(std::make_shared<node_impl>(*other.impl_)) {}
    node& operator=(const node& other) {
        if (this != &other) impl_ = std::make_shared<node_impl>(*other.impl_);
        return *this;
    }
    node(node&&) noexcept = default;
    node& operator=(node&&) noexcept = default;

    node_id get_id() const { return impl_->get_id(); }
    block_id get_data_id() const { return impl_->get_data_id(); }
    block_id get_sub_id() const { return impl_->get_sub_id(); }
    node_id get_parent_id() const { return impl_->get_parent_id(); }
    bool is_subnode() const { return impl_->is_subnode(); }

    size_t size() const { return impl_->size(); }
    size_t get_page_count() const { return impl_->get_page_count(); }
    size_t get_page_size(size_t page) const { return impl_->get_page_size(page); }
    size_t read(std::span<std::byte> buffer, size_t offset) const { return impl_->read(buffer, offset); }
    size_t read(std::span<std::byte> buffer, size_t page, size_t offset) const {
        return impl_->read(buffer, page, offset);
    }
    template <typename T>
    T read(size_t offset) const {
        return impl_->template read<T>(offset);
    }
    template <typename T>
    T read(size_t page, size_t offset) const {
        return impl_->template read<T>(page, offset);
    }
    size_t read_raw(std::byte* destination, size_t size, size_t offset) const {
        return impl_->read_raw(destination, size, offset);
    }

    node lookup(node_id id) const { return node(impl_->lookup(id)); }
    // The subnode with this id, or nothing where lookup would throw key_not_found.
    std::optional<node> find(node_id id) const {
        if (auto found = impl_->find(id)) return node(std::move(found));
        return std::nullopt;
    }
    const std::shared_ptr<data_block>& get_data_block() const { return impl_->get_data_block(); }
    const std::shared_ptr<subnode_block>& get_subnode_block() const { return impl_->get_subnode_block(); }
    // Every subnode entry of this node's own tree, in id order.
    btree_range<node_id, subnode_info> subnodes() const { return subnode_range(get_subnode_block()); }

    const std::shared_ptr<node_impl>& get_impl() const { return impl_; }

  private:
    std::shared_ptr<node_impl> impl_;
};

template <typename T>
T node_impl::read(size_t page, size_t offset) const {
    static_assert(std::is_integral_v<T>);
    const external_block& leaf = ensure_data_block()->get_page(page);
    if (offset >= leaf.get_total_size()) throw std::out_of_range("offset >= size()");
    if (sizeof(T) > leaf.get_total_size() - offset) throw std::out_of_range("sizeof(T) + offset >= size()");
    return leaf.template read<T>(offset);
}

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_NODE_H_
