#include "store/ndb/database.h"

#include <algorithm>
#include <limits>

#include "common/little_endian.h"
#include "store/ndb/database_impl.h"
#include "store/ndb/encoding.h"
#include "store/ndb/format.h"
#include "store/ndb/signature.h"

namespace tarn::ndb {

namespace {

// The layout's geometry, picked by the on-disk id width.
template <typename T>
struct layout;
template <>
struct layout<uint32_t> {
    static constexpr const format::HeaderLayout& header = format::kAnsiHeader;
    static constexpr const format::PageLayout& page = format::kAnsiPage;
    static constexpr const format::BlockLayout& block = format::kAnsiBlock;
};
template <>
struct layout<uint64_t> {
    static constexpr const format::HeaderLayout& header = format::kUnicodeHeader;
    static constexpr const format::PageLayout& page = format::kUnicodePage;
    static constexpr const format::BlockLayout& block = format::kUnicodeBlock;
};

// An id or address of the layout's width at `offset`, zero-extended. Requires: the bytes are there
// (every caller reads inside a page, a block span or the header, whose sizes are fixed).
template <typename T>
uint64_t load_id(const std::vector<std::byte>& bytes, size_t offset) {
    return LoadLe<T>(bytes.data() + offset);
}

uint8_t byte_at(const std::vector<std::byte>& bytes, size_t offset) {
    return std::to_integer<uint8_t>(bytes[offset]);
}

// True when [address, address + span) does not lie within `eof` (and, for the ANSI layout, within
// 32-bit addresses). Written so that it cannot overflow.
template <typename T>
bool past_eof(uint64_t address, uint64_t span, uint64_t eof) {
    if (address > eof || span > eof - address) return true;
    if constexpr (std::is_same_v<T, uint32_t>) {
        if (address > std::numeric_limits<uint32_t>::max() - span) return true;
    }
    return false;
}

}  // namespace

template <typename T>
database_impl<T>::database_impl(const std::u16string& path) : file_(path), header_(layout<T>::header.size) {
    using L = layout<T>;
    file_.read_at(header_, 0);

    // The version alone decides the layout, in both directions (14/15 ANSI, 23 Unicode); the magic
    // is left to the caller's probe and is covered by the CRCs anyway.
    const uint16_t version = LoadLe16(header_.data() + format::kVersionOffset);
    const bool unicode = std::is_same_v<T, uint64_t>;
    if (unicode != (version >= format::kUnicodeVersionThreshold)) throw invalid_format();

    const std::span<const std::byte> bytes(header_);
    const uint32_t partial = compute_crc(bytes.subspan(format::kCrcPartialStart, format::kCrcPartialLength));
    const uint32_t stored_partial = LoadLe32(header_.data() + format::kCrcPartialOffset);
    if (partial != stored_partial)
        throw crc_fail("header dwCRCPartial failure", 0, 0, partial, stored_partial);
    if constexpr (L::header.crc_full != 0) {
        const uint32_t full = compute_crc(bytes.subspan(format::kCrcPartialStart, L::header.crc_full_length));
        const uint32_t stored_full = LoadLe32(header_.data() + L::header.crc_full);
        if (full != stored_full) throw crc_fail("header dwCRCFull failure", 0, 0, full, stored_full);
    }
}

template <typename T>
database_impl<T>::~database_impl() {
    // Node B-tree root first, then the block B-tree root; the file closes with its member.
    nbt_root_.reset();
    bbt_root_.reset();
}

template <typename T>
uint64_t database_impl<T>::file_eof() const {
    return load_id<T>(header_, layout<T>::header.file_eof);
}

template <typename T>
uint64_t database_impl<T>::file_size() {
    if (!file_size_) file_size_ = file_.size();
    return *file_size_;
}

template <typename T>
uint8_t database_impl<T>::crypt_method() const {
    return byte_at(header_, layout<T>::header.crypt_method);
}

// ---- Nodes and lookups ---------------------------------------------------------------------------

template <typename T>
node database_impl<T>::lookup_node(node_id nid) {
    return node(shared_from_this(), lookup_node_info(nid));
}

template <typename T>
node_info database_impl<T>::lookup_node_info(node_id nid) {
    return read_nbt_root()->lookup(nid);
}

template <typename T>
block_info database_impl<T>::lookup_block_info(block_id bid) {
    if (bid == 0) return block_info{};
    // Bit 0 is reserved in block ids and ignored for lookups.
    return read_bbt_root()->lookup(bid & ~block_id{1});
}

// ---- Pages ---------------------------------------------------------------------------------------

template <typename T>
std::vector<std::byte> database_impl<T>::read_page_data(const page_info& pi) {
    constexpr const auto& page = layout<T>::page;
    if (past_eof<T>(pi.address, format::kPageSize, file_eof()))
        throw unexpected_page("nonsensical page location; past eof");
    if (pi.address % format::kPageSize != 0)
        throw unexpected_page("nonsensical page location; not sector aligned");

    std::vector<std::byte> bytes(format::kPageSize);
    file_.read_at(bytes, pi.address);

    // An ANSI trailer holds 32 bits; zero-extended, it matches only an id whose high half is 0.
    if (load_id<T>(bytes, page.page_id) != pi.id) throw unexpected_page("wrong page id");
    if (byte_at(bytes, page.ptype) != byte_at(bytes, page.ptype_repeat))
        throw database_corrupt("ptype != ptype repeat?");
    const uint16_t stored = LoadLe16(bytes.data() + page.signature);
    const uint16_t computed = compute_signature(pi.address, pi.id);
    if (stored != computed) throw sig_mismatch("page sig mismatch", pi.address, pi.id, computed, stored);
    // The trailer's CRC is deliberately not checked.
    return bytes;
}

template <typename T>
template <typename K, typename V>
std::shared_ptr<bt_page<K, V>> database_impl<T>::build_page(const page_info& pi,
                                                            const std::vector<std::byte>& bytes) {
    constexpr const auto& page = layout<T>::page;
    constexpr size_t w = sizeof(T);
    constexpr bool nbt = std::is_same_v<K, node_id>;
    const uint8_t level = byte_at(bytes, page.c_level);
    const size_t count = byte_at(bytes, page.c_ent);
    const size_t entry_size =
        level != 0 ? page.nonleaf_entry : (nbt ? page.nbt_leaf_entry : page.bbt_leaf_entry);
    // cEnt is a byte, so up to 255 entries could be claimed; the page has room for far fewer.
    if (count > page.entries_size / entry_size)
        throw database_corrupt("b-tree page entry count exceeds the page");

    auto db = this->shared_from_this();
    if (level != 0) {
        std::vector<std::pair<K, page_info>> entries;
        entries.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            const size_t at = i * entry_size;
            const auto key = static_cast<K>(load_id<T>(bytes, at));
            entries.emplace_back(key, page_info{load_id<T>(bytes, at + w), load_id<T>(bytes, at + 2 * w)});
        }
        return std::make_shared<bt_nonleaf_page<K, V>>(db, pi, level, std::move(entries));
    }
    std::vector<std::pair<K, V>> entries;
    entries.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const size_t at = i * entry_size;
        if constexpr (nbt) {
            // A Unicode node id is 64 bits on disk; its low 32 bits are the id and the key.
            node_info info{static_cast<node_id>(load_id<T>(bytes, at)), load_id<T>(bytes, at + w),
                           load_id<T>(bytes, at + 2 * w), LoadLe32(bytes.data() + at + 3 * w)};
            entries.emplace_back(info.id, info);
        } else {
            block_info info{load_id<T>(bytes, at), load_id<T>(bytes, at + w),
                            LoadLe16(bytes.data() + at + 2 * w), LoadLe16(bytes.data() + at + 2 * w + 2)};
            entries.emplace_back(info.id, info);
        }
    }
    return std::make_shared<bt_leaf_page<K, V>>(db, pi, std::move(entries));
}

// `want_level`: 0 a leaf, 1 an intermediate page, 2 either.
template <typename T>
template <typename K, typename V>
std::shared_ptr<bt_page<K, V>> database_impl<T>::read_typed_page(const page_info& pi, uint8_t want_level) {
    constexpr bool nbt = std::is_same_v<K, node_id>;
    const auto bytes = read_page_data(pi);
    const uint8_t ptype = byte_at(bytes, layout<T>::page.ptype);
    const uint8_t level = byte_at(bytes, layout<T>::page.c_level);
    const bool type_ok = ptype == (nbt ? format::kPageTypeNbt : format::kPageTypeBbt);
    const bool level_ok = want_level == 2 || (want_level == 0) == (level == 0);
    if (!type_ok || !level_ok)
        throw unexpected_page(nbt ? "page_type != page_type_nbt" : "page_type != page_type_bbt");
    return build_page<K, V>(pi, bytes);
}

template <typename T>
std::shared_ptr<bbt_page> database_impl<T>::read_bbt_root() {
    if (!bbt_root_) {
        constexpr size_t at = layout<T>::header.root_bbt;
        bbt_root_ = read_bbt_page(page_info{load_id<T>(header_, at), load_id<T>(header_, at + sizeof(T))});
    }
    return bbt_root_;
}

template <typename T>
std::shared_ptr<nbt_page> database_impl<T>::read_nbt_root() {
    if (!nbt_root_) {
        constexpr size_t at = layout<T>::header.root_nbt;
        nbt_root_ = read_nbt_page(page_info{load_id<T>(header_, at), load_id<T>(header_, at + sizeof(T))});
    }
    return nbt_root_;
}

template <typename T>
std::shared_ptr<bbt_page> database_impl<T>::read_bbt_page(const page_info& pi) {
    return read_typed_page<block_id, block_info>(pi, 2);
}

template <typename T>
std::shared_ptr<nbt_page> database_impl<T>::read_nbt_page(const page_info& pi) {
    return read_typed_page<node_id, node_info>(pi, 2);
}

template <typename T>
std::shared_ptr<nbt_leaf_page> database_impl<T>::read_nbt_leaf_page(const page_info& pi) {
    return std::dynamic_pointer_cast<nbt_leaf_page>(read_typed_page<node_id, node_info>(pi, 0));
}

template <typename T>
std::shared_ptr<bbt_leaf_page> database_impl<T>::read_bbt_leaf_page(const page_info& pi) {
    return std::dynamic_pointer_cast<bbt_leaf_page>(read_typed_page<block_id, block_info>(pi, 0));
}

template <typename T>
std::shared_ptr<nbt_nonleaf_page> database_impl<T>::read_nbt_nonleaf_page(const page_info& pi) {
    return std::dynamic_pointer_cast<nbt_nonleaf_page>(read_typed_page<node_id, node_info>(pi, 1));
}

template <typename T>
std::shared_ptr<bbt_nonleaf_page> database_impl<T>::read_bbt_nonleaf_page(const page_info& pi) {
    return std::dynamic_pointer_cast<bbt_nonleaf_page>(read_typed_page<block_id, block_info>(pi, 1));
}

// ---- Blocks --------------------------------------------------------------------------------------

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

// The by-id forms: one block B-tree lookup, then the by-record twin.
template <typename T>
std::shared_ptr<block> database_impl<T>::read_block(const db_ptr& db, block_id bid) {
    return read_block(db, lookup_block_info(bid));
}
template <typename T>
std::shared_ptr<data_block> database_impl<T>::read_data_block(const db_ptr& db, block_id bid) {
    return read_data_block(db, lookup_block_info(bid));
}
template <typename T>
std::shared_ptr<extended_block> database_impl<T>::read_extended_block(const db_ptr& db, block_id bid) {
    return read_extended_block(db, lookup_block_info(bid));
}
template <typename T>
std::shared_ptr<external_block> database_impl<T>::read_external_block(const db_ptr& db, block_id bid) {
    return read_external_block(db, lookup_block_info(bid));
}
template <typename T>
std::shared_ptr<subnode_block> database_impl<T>::read_subnode_block(const db_ptr& db, block_id bid) {
    return read_subnode_block(db, lookup_block_info(bid));
}
template <typename T>
std::shared_ptr<subnode_leaf_block> database_impl<T>::read_subnode_leaf_block(const db_ptr& db,
                                                                              block_id bid) {
    return read_subnode_leaf_block(db, lookup_block_info(bid));
}
template <typename T>
std::shared_ptr<subnode_nonleaf_block> database_impl<T>::read_subnode_nonleaf_block(const db_ptr& db,
                                                                                    block_id bid) {
    return read_subnode_nonleaf_block(db, lookup_block_info(bid));
}

// ---- In-memory blocks ----------------------------------------------------------------------------

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

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::create_extended_block(
    const db_ptr& db, const std::shared_ptr<extended_block>& child) {
    constexpr const auto& block = layout<T>::block;
    auto parent = std::make_shared<extended_block>(
        db, block_info{}, 2, static_cast<uint32_t>(child->get_total_size()), block.max_level2_child,
        block.max_children, block.max_children, std::vector<block_id>{child->get_id()});
    parent->adopt_child(0, child);
    return parent;
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::create_extended_block(
    const db_ptr& db, const std::shared_ptr<external_block>& child) {
    constexpr const auto& block = layout<T>::block;
    auto parent = std::make_shared<extended_block>(
        db, block_info{}, 1, static_cast<uint32_t>(child->get_total_size()), block.max_data, 1,
        block.max_children, std::vector<block_id>{child->get_id()});
    parent->adopt_child(0, child);
    return parent;
}

// Deliberately masks instead of setting the internal bit: `internal` gives 0 or 2, never a fresh id.
// Nothing on the reading paths calls this; ids handed out here are never written to the file.
template <typename T>
block_id database_impl<T>::alloc_bid(bool internal) {
    constexpr size_t at = layout<T>::header.bid_next_b;
    const T current = LoadLe<T>(header_.data() + at);
    StoreLe<T>(header_.data() + at, static_cast<T>(current + 4));
    return internal ? (current & 2) : current;
}

template class database_impl<uint32_t>;
template class database_impl<uint64_t>;

// ---- Opening -------------------------------------------------------------------------------------

std::shared_ptr<db_context> open_database(const std::u16string& path) {
    // The ANSI attempt decides: only "wrong version for this layout" leads to the Unicode attempt;
    // a CRC or file error ends the open. The file is opened anew for the second attempt.
    try {
        return std::make_shared<database_impl<uint32_t>>(path);
    } catch (const invalid_format&) {
    }
    return std::make_shared<database_impl<uint64_t>>(path);
}

}  // namespace tarn::ndb
