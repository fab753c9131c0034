// A table context: rows of fixed-size records in a row matrix, each column a property, kept in a
// heap whose client signature is 0x7C. The hierarchy and contents tables of folders and the
// recipient and attachment tables of messages. Read-only.
#ifndef TARN_STORE_LTP_TABLE_H_
#define TARN_STORE_LTP_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "store/ltp/property_object.h"

namespace tarn::ltp {

inline constexpr node_id kGustTableNodeId = 0x730;

struct column_description {
    prop_type type = 0;
    prop_id id = 0;
    uint16_t offset = 0;     // ibData
    uint8_t size = 0;        // cbData
    uint8_t bit_offset = 0;  // iBit
};

class table_impl : public std::enable_shared_from_this<table_impl> {
  public:
    virtual ~table_impl() = default;

    // The row number stored for a row id; key_not_found<uint32_t> carrying the row id when absent.
    virtual uint32_t row_of(uint32_t row_id) const = 0;
    virtual const node& get_node() const = 0;
    virtual node& get_node() = 0;
    // The cell's 1, 2, 4 or 8 bytes, widened. Does not consult the existence bit.
    virtual uint64_t get_cell_value(uint32_t row, prop_id id) const = 0;
    virtual std::vector<std::byte> read_cell(uint32_t row, prop_id id) const = 0;
    virtual hnid_stream_device open_cell_stream(uint32_t row, prop_id id) const = 0;
    // No order is promised.
    virtual std::vector<prop_id> column_list() const = 0;
    virtual prop_type column_type(prop_id id) const = 0;
    virtual uint32_t row_id_at(uint32_t row) const = 0;
    virtual uint32_t row_count() const = 0;
    virtual bool cell_exists(uint32_t row, prop_id id) const = 0;
    virtual uint32_t cell_size(uint32_t row, prop_id id) const = 0;
};

// T: the width of the row numbers in the row index (uint32_t or uint16_t).
template <typename T>
class basic_table : public table_impl {
  public:
    explicit basic_table(const node& n);

    uint32_t row_of(uint32_t row_id) const override;
    const node& get_node() const override { return heap_->get_node(); }
    node& get_node() override { return heap_->get_node(); }
    uint64_t get_cell_value(uint32_t row, prop_id id) const override;
    std::vector<std::byte> read_cell(uint32_t row, prop_id id) const override;
    hnid_stream_device open_cell_stream(uint32_t row, prop_id id) const override;
    std::vector<prop_id> column_list() const override;
    prop_type column_type(prop_id id) const override;
    uint32_t row_id_at(uint32_t row) const override;
    uint32_t row_count() const override;
    bool cell_exists(uint32_t row, prop_id id) const override;
    uint32_t cell_size(uint32_t row, prop_id id) const override;

  private:
    // Copies `size` bytes at `offset` from the start of row `row`, which may reach into the rows after
    // it (throws "row >= size()" past the last row, database_corrupt past the matrix or the row's block).
    void read_row_bytes(uint32_t row, size_t offset, std::byte* out, size_t size) const;
    const column_description& column(prop_id id) const;
    size_t row_size() const { return rgib_[3]; }
    size_t rows_per_block() const;

    heap_ptr heap_;
    std::shared_ptr<bth_node<uint32_t, T>> row_index_;
    std::vector<std::byte> rows_;    // the row matrix, when it is a heap allocation
    std::optional<node> rows_node_;  // the row matrix, when it is a subnode
    std::unordered_map<prop_id, column_description> columns_;
    uint16_t rgib_[4] = {};  // ends of the 4/8-byte, 2-byte, 1-byte cells, and of the bitmap
};

extern template class basic_table<uint32_t>;
extern template class basic_table<uint16_t>;

// Chooses the row-number width from the row index header. The node 0x730 is refused with
// not_implemented "gust table" before anything is read.
std::shared_ptr<table_impl> open_table(const node& n);

// One row as a property object. Holds the table, so it stays valid after the table handle goes.
class const_table_row : public const_property_object {
  public:
    const_table_row(uint32_t row, std::shared_ptr<const table_impl> table)
        : row_(row), table_(std::move(table)) {}

    std::vector<prop_id> prop_list() const override;
    prop_type get_prop_type(prop_id id) const override { return table_->column_type(id); }
    bool prop_exists(prop_id id) const override { return table_->cell_exists(row_, id); }
    uint32_t prop_size(prop_id id) const override { return table_->cell_size(row_, id); }
    hnid_stream_device open_prop_stream(prop_id id) const override {
        return table_->open_cell_stream(row_, id);
    }
    uint8_t get_value_1(prop_id id) const override {
        return static_cast<uint8_t>(table_->get_cell_value(row_, id));
    }
    uint16_t get_value_2(prop_id id) const override {
        return static_cast<uint16_t>(table_->get_cell_value(row_, id));
    }
    uint32_t get_value_4(prop_id id) const override {
        return static_cast<uint32_t>(table_->get_cell_value(row_, id));
    }
    uint64_t get_value_8(prop_id id) const override { return table_->get_cell_value(row_, id); }
    std::vector<std::byte> get_value_variable(prop_id id) const override {
        return table_->read_cell(row_, id);
    }

    uint32_t get_row() const { return row_; }
    uint32_t get_row_id() const { return table_->row_id_at(row_); }

  private:
    uint32_t row_;
    std::shared_ptr<const table_impl> table_;
};

// The handle code holds: a shared table_impl, indexed by row number.
class table {
  public:
    explicit table(const node& n) : impl_(open_table(n)) {}
    explicit table(std::shared_ptr<table_impl> impl) : impl_(std::move(impl)) {}

    const_table_row operator[](uint32_t row) const { return const_table_row(row, impl_); }
    uint32_t size() const { return impl_->row_count(); }
    uint32_t lookup_row(uint32_t row_id) const { return impl_->row_of(row_id); }
    const std::shared_ptr<table_impl>& get_impl() const { return impl_; }

  private:
    std::shared_ptr<table_impl> impl_;
};

}  // namespace tarn::ltp

#endif  // TARN_STORE_LTP_TABLE_H_
