#include "store/ndb/block.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "store/ndb/database.h"

namespace tarn::ndb {

// ---- external_block ------------------------------------------------------------------------------

size_t external_block::read_raw(std::byte* destination, size_t size, size_t offset) const {
    if (offset >= total_size_) return 0;
    size = std::min<size_t>(size, total_size_ - offset);
    // Stored bytes first; a block made in memory may store fewer than its total, the rest is zeros.
    const size_t stored = offset < buffer_.size() ? std::min(size, buffer_.size() - offset) : 0;
    if (stored != 0) std::memcpy(destination, buffer_.data() + offset, stored);
    if (stored < size) std::memset(destination + stored, 0, size - stored);
    return size;
}

size_t external_block::write_raw(const std::byte* source, size_t size, size_t offset,
                                 std::shared_ptr<data_block>& result) {
    auto target = writable(*this);
    result = target;
    if (offset >= target->total_size_) return 0;
    size = std::min<size_t>(size, target->total_size_ - offset);
    if (target->buffer_.size() < target->total_size_) target->buffer_.resize(target->total_size_);
    std::memcpy(target->buffer_.data() + offset, source, size);
    return size;
}

std::shared_ptr<external_block> external_block::get_page(size_t index) const {
    if (index > 0) throw std::out_of_range("index > 0");
    return std::const_pointer_cast<external_block>(shared_from_this());
}

size_t external_block::resize(size_t size, std::shared_ptr<data_block>& result) {
    auto target = writable(*this);
    const size_t kept = std::min(size, target->max_size_);
    target->buffer_.resize(kept);
    target->total_size_ = static_cast<uint32_t>(kept);
    if (size <= target->max_size_) {
        result = target;
        return size;
    }
    // Too large for one block: it becomes the first leaf of a new level-1 tree.
    auto db = get_db_ptr();
    auto parent = db->create_extended_block(db, target);
    return parent->resize(size, result);
}

// ---- extended_block ------------------------------------------------------------------------------

const std::shared_ptr<data_block>& extended_block::get_child_block(size_t index) const {
    if (index >= m_child_blocks.size()) throw std::out_of_range("index >= m_child_blocks.size()");
    std::shared_ptr<data_block>& slot = m_child_blocks[index];
    if (slot) return slot;

    auto db = get_db_ptr();
    const block_id id = block_ids_[index];
    if (id == 0) {
        // A hole: an empty child of the full child size, which reads as zeros.
        if (level_ == 1) {
            slot = db->create_external_block(db, child_max_total_);
        } else {
            slot = db->create_extended_block(db, child_max_total_);
        }
        return slot;
    }
    const block_id key = id & ~block_id{1};
    if (registry_->ids.count(key) != 0)
        throw database_corrupt("data tree lists a block twice; its pointers loop");
    // An internal id reads as another extended block; past the depth limit it is refused unread.
    if (is_internal_bid(id) && depth_ >= kMaxExtendedDepth)
        throw database_corrupt("extended blocks nest deeper than any data tree can");
    auto child = db->read_data_block(db, id);
    // Registered only once read, so that a failed read can be retried with the same result.
    registry_->ids.insert(key);
    if (auto* nested = dynamic_cast<extended_block*>(child.get())) {
        nested->depth_ = depth_ + 1;
        nested->registry_ = registry_;
    }
    slot = std::move(child);
    return slot;
}

void extended_block::adopt_child(size_t index, std::shared_ptr<data_block> child) {
    if (index >= m_child_blocks.size()) throw std::out_of_range("index >= m_child_blocks.size()");
    if (auto* nested = dynamic_cast<extended_block*>(child.get())) nested->depth_ = depth_ + 1;
    m_child_blocks[index] = std::move(child);
}

size_t extended_block::read_raw(std::byte* destination, size_t size, size_t offset) const {
    if (offset >= total_size_) return 0;
    size = std::min<size_t>(size, total_size_ - offset);
    size_t done = 0;
    while (done < size) {
        const size_t index = offset / child_max_total_;
        const size_t inner = offset % child_max_total_;
        const size_t got = get_child_block(index)->read_raw(destination + done, size - done, inner);
        // A child shorter than its share would give nothing at this offset and the loop would never
        // advance: the tree claims more data than its children hold.
        if (got == 0) throw database_corrupt("extended block child holds less data than its share");
        done += got;
        offset += got;
    }
    return done;
}

size_t extended_block::write_raw(const std::byte* source, size_t size, size_t offset,
                                 std::shared_ptr<data_block>& result) {
    auto target = writable(*this);
    result = target;
    if (offset >= target->total_size_) return 0;
    size = std::min<size_t>(size, target->total_size_ - offset);
    size_t done = 0;
    while (done < size) {
        const size_t index = offset / child_max_total_;
        const size_t inner = offset % child_max_total_;
        std::shared_ptr<data_block> updated;
        const size_t put =
            target->get_child_block(index)->write_raw(source + done, size - done, inner, updated);
        target->m_child_blocks[index] = std::move(updated);
        if (put == 0) throw database_corrupt("extended block child holds less data than its share");
        done += put;
        offset += put;
    }
    return done;
}

size_t extended_block::get_page_count() const {
    const size_t page_size = child_max_total_ / child_max_pages_;
    return (static_cast<size_t>(total_size_) + page_size - 1) / page_size;
}

std::shared_ptr<external_block> extended_block::get_page(size_t index) const {
    return get_child_block(index / child_max_pages_)->get_page(index % child_max_pages_);
}

size_t extended_block::resize(size_t size, std::shared_ptr<data_block>& result) {
    auto target = writable(*this);
    const size_t needed = std::min((size + child_max_total_ - 1) / child_max_total_, max_children_);
    if (needed >= 2) {
        const size_t old_count = target->block_ids_.size();
        target->block_ids_.resize(needed, 0);
        target->m_child_blocks.resize(needed);
        std::shared_ptr<data_block> updated;
        if (old_count >= 1 && old_count < needed) {
            // The old last child now sits in the middle: it must hold a full share.
            target->get_child_block(old_count - 1)->resize(child_max_total_, updated);
            target->m_child_blocks[old_count - 1] = std::move(updated);
        }
        // Capped at one share: past the most children, the growth goes to a new level instead.
        const size_t remainder = std::min(size - child_max_total_ * (needed - 1), child_max_total_);
        target->get_child_block(needed - 1)->resize(remainder, updated);
        target->m_child_blocks[needed - 1] = std::move(updated);
    }
    const size_t max_size = max_children_ * child_max_total_;
    if (size <= max_size && size <= std::numeric_limits<uint32_t>::max()) {
        target->total_size_ = static_cast<uint32_t>(size);
        result = target;
        return size;
    }
    target->total_size_ =
        static_cast<uint32_t>(std::min<size_t>(max_size, std::numeric_limits<uint32_t>::max()));
    // The total is 32 bits wide, so a level-2 tree also stops at 4 GiB.
    if (level_ != 1) throw can_not_resize("size > max_size");
    auto db = get_db_ptr();
    auto parent = db->create_extended_block(db, target);
    return parent->resize(size, result);
}

// ---- subnode_nonleaf_block -----------------------------------------------------------------------

const btree_node<node_id, subnode_info>* subnode_nonleaf_block::get_child(size_t position) const {
    if (position >= entries_.size()) throw std::out_of_range("index >= child_blocks.size()");
    if (!child_blocks_[position]) {
        // Bit 0 is ignored by the lookup, so it is ignored here too; id 0 reads nothing.
        const block_id id = entries_[position].second;
        const block_id key = id & ~block_id{1};
        if (key != 0 && registry_->ids.count(key) != 0)
            throw database_corrupt("subnode block reached twice; the tree's pointers loop");
        auto db = get_db_ptr();
        auto child = db->read_subnode_block(db, id);
        if (key != 0) registry_->ids.insert(key);
        child->registry_ = registry_;
        child_blocks_[position] = std::move(child);
    }
    return child_blocks_[position].get();
}

}  // namespace tarn::ndb
