// The database handle's one implementation, over the on-disk id width: uint32_t for the ANSI layout,
// uint64_t for the Unicode layout. Both instances are compiled in database.cpp; nothing else needs the
// member definitions. Open a store with open_database (database.h).
#ifndef TARN_STORE_NDB_DATABASE_IMPL_H_
#define TARN_STORE_NDB_DATABASE_IMPL_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/store_file.h"
#include "store/ndb/database.h"

namespace tarn::ndb {

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
    std::shared_ptr<extended_block> create_extended_block(
        const db_ptr& db, const std::shared_ptr<extended_block>& child) override;
    std::shared_ptr<extended_block> create_extended_block(
        const db_ptr& db, const std::shared_ptr<external_block>& child) override;

    block_id alloc_bid(bool internal) override;

  private:
    std::vector<std::byte> read_page_data(const page_info& pi);
    std::vector<std::byte> read_block_data(const block_info& bi);
    template <typename K, typename V>
    std::shared_ptr<bt_page<K, V>> build_page(const page_info& pi, const std::vector<std::byte>& bytes);
    template <typename K, typename V>
    std::shared_ptr<bt_page<K, V>> read_typed_page(const page_info& pi, uint8_t want_level);
    std::shared_ptr<subnode_block> build_subnode_block(const db_ptr& db, const block_info& bi,
                                                       const std::vector<std::byte>& bytes);
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

extern template class database_impl<uint32_t>;
extern template class database_impl<uint64_t>;

}  // namespace tarn::ndb

#endif  // TARN_STORE_NDB_DATABASE_IMPL_H_
