#include "store/ndb/node.h"

#include "store/ndb/database.h"

namespace tarn::ndb {

const std::shared_ptr<data_block>& node_impl::ensure_data_block() const {
    // By id: a data block id of 0 gives an empty external block without reading.
    if (!data_) data_ = db_->read_data_block(db_, original_data_id_);
    return data_;
}

const std::shared_ptr<subnode_block>& node_impl::ensure_sub_block() const {
    // By id: a subnode block id of 0 gives an empty leaf without reading.
    if (!subnode_) subnode_ = db_->read_subnode_block(db_, original_sub_id_);
    return subnode_;
}

size_t node_impl::read(std::span<std::byte> buffer, size_t page, size_t offset) const {
    const external_block& leaf = ensure_data_block()->get_page(page);
    if (buffer.empty()) return 0;
    if (offset >= leaf.get_total_size()) throw std::out_of_range("offset >= size()");
    return leaf.read_raw(buffer.data(), buffer.size(), offset);
}

std::shared_ptr<node_impl> node_impl::lookup(node_id id) const {
    ensure_sub_block();
    // Subnode ids are private to their container, so the new node keeps this one alive.
    auto self = std::const_pointer_cast<node_impl>(shared_from_this());
    const subnode_info& info = subnode_->lookup(id);
    return std::make_shared<node_impl>(self, info);
}

std::shared_ptr<node_impl> node_impl::find(node_id id) const {
    ensure_sub_block();
    auto self = std::const_pointer_cast<node_impl>(shared_from_this());
    const subnode_info* info = subnode_->find(id);
    if (info == nullptr) return nullptr;
    return std::make_shared<node_impl>(self, *info);
}

}  // namespace tarn::ndb
