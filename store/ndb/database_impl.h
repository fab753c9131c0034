// The database handle's one implementation, over the on-disk id width: uint32_t for the ANSI layout,
// uint64_t for the Unicode layout. Its members are defined in three files, each of which instantiates
// its own for both widths: database.cpp (opening, the header, lookups and the root caches), page.cpp
// (reading and checking B-tree pages) and block.cpp (reading and checking blocks, and the blocks made in
// memory). Nothing else needs the member definitions. Open a store with open_database (database.h).
#ifndef TARN_STORE_NDB_DATABASE_IMPL_H_
#define TARN_STORE_NDB_DATABASE_IMPL_H_

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "common/little_endian.h"
#include "common/store_file.h"
#include "store/ndb/database.h"
#include "store/ndb/format.h"

namespace tarn::ndb {

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

inline uint8_t byte_at(const std::vector<std::byte>& bytes, size_t offset) {
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

template <typename T>
class database_impl : public db_context {
    static_assert(std::is_same_v<T, uint32_t> || std::is_same_v<T, uint64_t>);

  public:
    // Opens the file and checks the header for this layout: invalid_format when the version does
    // not fit, crc_fail when a header CRC differs.
    explicit database_impl(const std::u16string& path);
    ~database_impl() override;

    node lookup_node(node_id nid) override;
    node_info lookup_node_info(node_id nid) override;
    block_info lookup_block_info(block_id bid) override;

    std::shared_ptr<bbt_page> read_bbt_root() override;
    std::shared_ptr<nbt_page> read_nbt_root() override;
    std::shared_ptr<bbt_page> read_bbt_page(const page_info& pi) override;
    std::shared_ptr<nbt_page> read_nbt_page(const page_info& pi) override;
    std::shared_ptr<nbt_leaf_page> read_nbt_leaf_page(const page_info& pi) override;
    std::shared_ptr<bbt_leaf_page> read_bbt_leaf_page(const page_info& pi) override;
    std::shared_ptr<nbt_nonleaf_page> read_nbt_nonleaf_page(const page_info& pi) override;
    std::shared_ptr<bbt_nonleaf_page> read_bbt_nonleaf_page(const page_info& pi) override;

    std::shared_ptr<block> read_block(const db_ptr& db, const block_info& bi) override;
    std::shared_ptr<block> read_block(const db_ptr& db, block_id bid) override;
    std::shared_ptr<data_block> read_data_block(const db_ptr& db, const block_info& bi) override;
    std::shared_ptr<data_block> read_data_block(const db_ptr& db, block_id bid) override;
    std::shared_ptr<extended_block> read_extended_block(const db_ptr& db, const block_info& bi) override;
    std::shared_ptr<extended_block> read_extended_block(const db_ptr& db, block_id bid) override;
    std::shared_ptr<external_block> read_external_block(const db_ptr& db, const block_info& bi) override;
    std::shared_ptr<external_block> read_external_block(const db_ptr& db, block_id bid) override;
    std::shared_ptr<subnode_block> read_subnode_block(const db_ptr& db, const block_info& bi) override;
    std::shared_ptr<subnode_block> read_subnode_block(const db_ptr& db, block_id bid) override;
    std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const db_ptr& db,
                                                                const block_info& bi) override;
    std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const db_ptr& db, block_id bid) override;
    std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const db_ptr& db,
                                                                      const block_info& bi) override;
    std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const db_ptr& db,
                                                                      block_id bid) override;

    std::shared_ptr<external_block> create_external_block(const db_ptr& db, size_t size) override;
    std::shared_ptr<extended_block> create_extended_block(const db_ptr& db, size_t size) override;

  private:
    // Page reading (page.cpp).
    std::vector<std::byte> read_page_data(const page_info& pi);
    template <typename K, typename V>
    std::shared_ptr<bt_page<K, V>> build_page(const page_info& pi, const std::vector<std::byte>& bytes);
    template <typename K, typename V>
    std::shared_ptr<bt_page<K, V>> read_typed_page(const page_info& pi, uint8_t want_level);
    // Block reading (block.cpp).
    std::vector<std::byte> read_block_data(const block_info& bi);
    std::shared_ptr<subnode_block> build_subnode_block(const db_ptr& db, const block_info& bi,
                                                       const std::vector<std::byte>& bytes);
    // The header's fields (database.cpp).
    uint64_t file_eof() const;
    // The file's real size, asked of the kernel once, on first use.
    uint64_t file_size();
    uint8_t crypt_method() const;

    tarn::StoreFile file_;
    std::vector<std::byte> header_;
    std::optional<uint64_t> file_size_;
    std::shared_ptr<bbt_page> bbt_root_;
    std::shared_ptr<nbt_page> nbt_root_;
};

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_DATABASE_IMPL_H_
