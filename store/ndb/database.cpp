#include "store/ndb/database.h"

#include "common/little_endian.h"
#include "store/ndb/database_impl.h"
#include "store/ndb/format.h"
#include "store/ndb/signature.h"

namespace tarn::ndb {

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

header_fields read_header_fields(const std::u16string& path) {
    StoreFile file(path);
    std::vector<std::byte> bytes(format::kAnsiHeader.size);
    file.read_at(bytes, 0);
    header_fields h;
    h.version = LoadLe16(bytes.data() + format::kVersionOffset);
    h.unicode = h.version >= format::kUnicodeVersionThreshold;
    const format::HeaderLayout& layout = h.unicode ? format::kUnicodeHeader : format::kAnsiHeader;
    if (h.unicode) {
        bytes.resize(layout.size);
        file.read_at(bytes, 0);
    }
    const auto id = [&](size_t at) -> uint64_t {
        return h.unicode ? LoadLe64(bytes.data() + at) : LoadLe32(bytes.data() + at);
    };
    h.magic = LoadLe32(bytes.data() + format::kMagicOffset);
    h.crypt_method = std::to_integer<uint8_t>(bytes[layout.crypt_method]);
    h.file_eof = id(layout.file_eof);
    h.next_block_id = id(layout.bid_next_b);
    h.nbt_root = {id(layout.root_nbt), id(layout.root_nbt + layout.id_width)};
    h.bbt_root = {id(layout.root_bbt), id(layout.root_bbt + layout.id_width)};
    return h;
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

// ---- Root caches ---------------------------------------------------------------------------------

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

// Deliberately masks instead of setting the internal bit: `internal` gives 0 or 2, never a fresh id.
// Nothing on the reading paths calls this; ids handed out here are never written to the file.
template <typename T>
block_id database_impl<T>::alloc_bid(bool internal) {
    constexpr size_t at = layout<T>::header.bid_next_b;
    const T current = LoadLe<T>(header_.data() + at);
    StoreLe<T>(header_.data() + at, static_cast<T>(current + 4));
    return internal ? (current & 2) : current;
}

// The members defined here; page.cpp and block.cpp instantiate theirs.
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
