#include "store/ndb/block.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "common/little_endian.h"
#include "store/ndb/database.h"
#include "store/ndb/database_impl.h"
#include "store/ndb/encoding.h"
#include "store/ndb/format.h"
#include "store/ndb/signature.h"

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

const external_block& external_block::get_page(size_t index) const {
    if (index > 0) throw std::out_of_range("index > 0");
    return *this;
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

size_t extended_block::get_page_count() const {
    const size_t page_size = child_max_total_ / child_max_pages_;
    return (static_cast<size_t>(total_size_) + page_size - 1) / page_size;
}

const external_block& extended_block::get_page(size_t index) const {
    return get_child_block(index / child_max_pages_)->get_page(index % child_max_pages_);
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

// ---- Reading blocks ------------------------------------------------------------------------------

template <typename T>
std::vector<std::byte> database_impl<T>::read_block_data(const block_info& bi) {
    constexpr const auto& block = layout<T>::block;
    const size_t span = (static_cast<size_t>(bi.size) + block.trailer_size + format::kBlockAlignment - 1) &
                        ~(format::kBlockAlignment - 1);
    if (span > format::kMaxBlockSpan) throw unexpected_block("nonsensical block size");
    if (past_eof<T>(bi.address, span, file_eof()))
        throw unexpected_block("nonsensical block location; past eof");

    std::vector<std::byte> bytes(span);
    file_.read_at(bytes, bi.address);

    const size_t trailer = span - block.trailer_size;
    if (load_id<T>(bytes, trailer + block.trailer_id) != bi.id) throw unexpected_block("wrong block id");
    if (LoadLe16(bytes.data() + trailer + block.trailer_cb) != bi.size)
        throw unexpected_block("wrong block size");
    const uint16_t stored = LoadLe16(bytes.data() + trailer + block.trailer_signature);
    const uint16_t computed = compute_signature(bi.address, bi.id);
    if (stored != computed) throw sig_mismatch("block sig mismatch", bi.address, bi.id, computed, stored);
    // The trailer's CRC is deliberately not checked.
    return bytes;
}

template <typename T>
std::shared_ptr<block> database_impl<T>::read_block(const db_ptr& db, const block_info& bi) {
    try {
        return read_data_block(db, bi);
    } catch (const unexpected_block&) {
        return read_subnode_block(db, bi);
    }
}

template <typename T>
std::shared_ptr<data_block> database_impl<T>::read_data_block(const db_ptr& db, const block_info& bi) {
    if (is_internal_bid(bi.id)) {
        // A peek at the block type only; the block is read and checked in full below.
        std::vector<std::byte> head(layout<T>::block.trailer_size);
        file_.read_at(head, bi.address);
        if (byte_at(head, 0) != format::kBlockTypeExtended) throw unexpected_block("extended block expected");
        return read_extended_block(db, bi);
    }
    return read_external_block(db, bi);
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::read_extended_block(const db_ptr& db,
                                                                      const block_info& bi) {
    constexpr const auto& block = layout<T>::block;
    if (!is_internal_bid(bi.id)) throw unexpected_block("internal bid expected");
    const auto bytes = read_block_data(bi);

    const uint8_t level = byte_at(bytes, 1);
    const size_t count = LoadLe16(bytes.data() + 2);
    const uint32_t total = LoadLe32(bytes.data() + 4);
    // Deliberately stricter than the format: a child id of 0 is a hole that reads as zeros for its
    // whole share, so a few hundred bytes of extended blocks can describe gigabytes that no block
    // holds, and readers above size buffers, streams and row counts from this total. Real data is
    // stored, so no real tree is larger than its file.
    if (total > file_size()) throw database_corrupt("extended block claims more data than the file holds");
    // The ids must lie within the block's data; cEnt is otherwise not held to the children limit.
    if (bi.size < block.extended_header || count > (bi.size - block.extended_header) / sizeof(T))
        throw database_corrupt("extended block entry count exceeds the block");
    std::vector<block_id> ids;
    ids.reserve(count);
    for (size_t i = 0; i < count; ++i)
        ids.push_back(load_id<T>(bytes, block.extended_header + i * sizeof(T)));

    // Level 1 lists leaves; any other level is taken as level 2 (its value is not checked further).
    const size_t child_total = level == 1 ? block.max_data : block.max_level2_child;
    const size_t child_pages = level == 1 ? 1 : block.max_children;
    return std::make_shared<extended_block>(db, bi, level, total, child_total, child_pages,
                                            block.max_children, std::move(ids));
}

template <typename T>
std::shared_ptr<external_block> database_impl<T>::read_external_block(const db_ptr& db,
                                                                      const block_info& bi) {
    constexpr const auto& block = layout<T>::block;
    if (bi.id == 0)
        return std::make_shared<external_block>(db, bi, block.max_data, bi.size, std::vector<std::byte>{});
    if (is_internal_bid(bi.id)) throw unexpected_block("External BID expected");
    auto bytes = read_block_data(bi);
    bytes.resize(bi.size);
    decode_block_data(bytes, crypt_method(), bi.id);
    return std::make_shared<external_block>(db, bi, block.max_data, bi.size, std::move(bytes));
}

template <typename T>
std::shared_ptr<subnode_block> database_impl<T>::build_subnode_block(const db_ptr& db, const block_info& bi,
                                                                     const std::vector<std::byte>& bytes) {
    constexpr const auto& block = layout<T>::block;
    constexpr size_t w = sizeof(T);
    const uint8_t level = byte_at(bytes, 1);
    const size_t count = LoadLe16(bytes.data() + 2);
    const size_t entry_size = level == 0 ? block.subnode_leaf_entry : block.subnode_nonleaf_entry;
    if (bi.size < block.subnode_header || count > (bi.size - block.subnode_header) / entry_size)
        throw database_corrupt("subnode block entry count exceeds the block");

    if (level == 0) {
        std::vector<std::pair<node_id, subnode_info>> entries;
        entries.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const size_t at = block.subnode_header + i * entry_size;
            // A Unicode subnode id is 64 bits on disk; its low 32 bits are the id and the key.
            subnode_info info{static_cast<node_id>(load_id<T>(bytes, at)), load_id<T>(bytes, at + w),
                              load_id<T>(bytes, at + 2 * w)};
            entries.emplace_back(info.id, info);
        }
        return std::make_shared<subnode_leaf_block>(db, bi, std::move(entries));
    }
    std::vector<std::pair<node_id, block_id>> entries;
    entries.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const size_t at = block.subnode_header + i * entry_size;
        entries.emplace_back(static_cast<node_id>(load_id<T>(bytes, at)), load_id<T>(bytes, at + w));
    }
    return std::make_shared<subnode_nonleaf_block>(db, bi, std::move(entries));
}

template <typename T>
std::shared_ptr<subnode_block> database_impl<T>::read_subnode_block(const db_ptr& db, const block_info& bi) {
    if (bi.id == 0)
        return std::make_shared<subnode_leaf_block>(db, bi, std::vector<std::pair<node_id, subnode_info>>{});
    // Neither btype nor the internal bit of the id is checked: the level alone decides.
    return build_subnode_block(db, bi, read_block_data(bi));
}

template <typename T>
std::shared_ptr<subnode_leaf_block> database_impl<T>::read_subnode_leaf_block(const db_ptr& db,
                                                                              const block_info& bi) {
    const auto bytes = read_block_data(bi);
    if (byte_at(bytes, 1) != 0) throw unexpected_block("psub->level != 0");
    return std::dynamic_pointer_cast<subnode_leaf_block>(build_subnode_block(db, bi, bytes));
}

template <typename T>
std::shared_ptr<subnode_nonleaf_block> database_impl<T>::read_subnode_nonleaf_block(const db_ptr& db,
                                                                                    const block_info& bi) {
    const auto bytes = read_block_data(bi);
    // The message names the test the other way round; it is kept as it is.
    if (byte_at(bytes, 1) == 0) throw unexpected_block("psub->level == 1");
    return std::dynamic_pointer_cast<subnode_nonleaf_block>(build_subnode_block(db, bi, bytes));
}

// ---- Holes: in-memory blocks that read as zeros
// ------------------------------------------------------------------------

template <typename T>
std::shared_ptr<external_block> database_impl<T>::create_external_block(const db_ptr& db, size_t size) {
    const auto total = static_cast<uint32_t>(std::min<size_t>(size, std::numeric_limits<uint32_t>::max()));
    return std::make_shared<external_block>(db, block_info{}, layout<T>::block.max_data, total,
                                            std::vector<std::byte>{});
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::create_extended_block(const db_ptr& db, size_t size) {
    constexpr const auto& block = layout<T>::block;
    const bool level2 = size > block.max_level2_child;
    const size_t child_total = level2 ? block.max_level2_child : block.max_data;
    const size_t children = std::min((size + child_total - 1) / child_total, block.max_children);
    const auto total = static_cast<uint32_t>(std::min<size_t>(size, std::numeric_limits<uint32_t>::max()));
    // Every child id 0: each reads as a hole of zeros until written.
    return std::make_shared<extended_block>(db, block_info{}, level2 ? 2 : 1, total, child_total,
                                            level2 ? block.max_children : 1, block.max_children,
                                            std::vector<block_id>(children, 0));
}

// The block readers and makers of both layouts (the rest of the class is instantiated in
// database.cpp and page.cpp; the helpers above are instantiated by their callers here).
template std::shared_ptr<block> database_impl<uint32_t>::read_block(const db_ptr&, const block_info&);
template std::shared_ptr<data_block> database_impl<uint32_t>::read_data_block(const db_ptr&,
                                                                              const block_info&);
template std::shared_ptr<extended_block> database_impl<uint32_t>::read_extended_block(const db_ptr&,
                                                                                      const block_info&);
template std::shared_ptr<external_block> database_impl<uint32_t>::read_external_block(const db_ptr&,
                                                                                      const block_info&);
template std::shared_ptr<subnode_block> database_impl<uint32_t>::read_subnode_block(const db_ptr&,
                                                                                    const block_info&);
template std::shared_ptr<subnode_leaf_block> database_impl<uint32_t>::read_subnode_leaf_block(
    const db_ptr&, const block_info&);
template std::shared_ptr<subnode_nonleaf_block> database_impl<uint32_t>::read_subnode_nonleaf_block(
    const db_ptr&, const block_info&);
template std::shared_ptr<external_block> database_impl<uint32_t>::create_external_block(const db_ptr&,
                                                                                        size_t);
template std::shared_ptr<extended_block> database_impl<uint32_t>::create_extended_block(const db_ptr&,
                                                                                        size_t);
template std::shared_ptr<block> database_impl<uint64_t>::read_block(const db_ptr&, const block_info&);
template std::shared_ptr<data_block> database_impl<uint64_t>::read_data_block(const db_ptr&,
                                                                              const block_info&);
template std::shared_ptr<extended_block> database_impl<uint64_t>::read_extended_block(const db_ptr&,
                                                                                      const block_info&);
template std::shared_ptr<external_block> database_impl<uint64_t>::read_external_block(const db_ptr&,
                                                                                      const block_info&);
template std::shared_ptr<subnode_block> database_impl<uint64_t>::read_subnode_block(const db_ptr&,
                                                                                    const block_info&);
template std::shared_ptr<subnode_leaf_block> database_impl<uint64_t>::read_subnode_leaf_block(
    const db_ptr&, const block_info&);
template std::shared_ptr<subnode_nonleaf_block> database_impl<uint64_t>::read_subnode_nonleaf_block(
    const db_ptr&, const block_info&);
template std::shared_ptr<external_block> database_impl<uint64_t>::create_external_block(const db_ptr&,
                                                                                        size_t);
template std::shared_ptr<extended_block> database_impl<uint64_t>::create_extended_block(const db_ptr&,
                                                                                        size_t);

}  // namespace tarn::ndb
