#include "store/ndb/page.h"

#include "common/little_endian.h"
#include "store/ndb/database.h"
#include "store/ndb/database_impl.h"
#include "store/ndb/format.h"
#include "store/ndb/signature.h"

namespace tarn::ndb {

std::shared_ptr<bt_page<node_id, node_info>> read_child_page(db_context& db, const page_info& info,
                                                             const node_id*) {
    return db.read_nbt_page(info);
}

std::shared_ptr<bt_page<block_id, block_info>> read_child_page(db_context& db, const page_info& info,
                                                               const block_id*) {
    return db.read_bbt_page(info);
}

// ---- Reading pages -------------------------------------------------------------------------------

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

// The page readers of both layouts (the rest of the class is instantiated in database.cpp and
// block.cpp; the helpers above are instantiated by their callers here).
template std::shared_ptr<bbt_page> database_impl<uint32_t>::read_bbt_page(const page_info&);
template std::shared_ptr<nbt_page> database_impl<uint32_t>::read_nbt_page(const page_info&);
template std::shared_ptr<nbt_leaf_page> database_impl<uint32_t>::read_nbt_leaf_page(const page_info&);
template std::shared_ptr<bbt_leaf_page> database_impl<uint32_t>::read_bbt_leaf_page(const page_info&);
template std::shared_ptr<nbt_nonleaf_page> database_impl<uint32_t>::read_nbt_nonleaf_page(const page_info&);
template std::shared_ptr<bbt_nonleaf_page> database_impl<uint32_t>::read_bbt_nonleaf_page(const page_info&);
template std::shared_ptr<bbt_page> database_impl<uint64_t>::read_bbt_page(const page_info&);
template std::shared_ptr<nbt_page> database_impl<uint64_t>::read_nbt_page(const page_info&);
template std::shared_ptr<nbt_leaf_page> database_impl<uint64_t>::read_nbt_leaf_page(const page_info&);
template std::shared_ptr<bbt_leaf_page> database_impl<uint64_t>::read_bbt_leaf_page(const page_info&);
template std::shared_ptr<nbt_nonleaf_page> database_impl<uint64_t>::read_nbt_nonleaf_page(const page_info&);
template std::shared_ptr<bbt_nonleaf_page> database_impl<uint64_t>::read_bbt_nonleaf_page(const page_info&);

}  // namespace tarn::ndb
