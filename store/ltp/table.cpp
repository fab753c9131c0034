#include "store/ltp/table.h"

#include <cstring>
#include <stdexcept>

#include "common/little_endian.h"
#include "store/ndb/errors.h"

namespace tarn::ltp {
namespace {

// TCINFO: bType, cCols, rgib[4], hidRowIndex, hnidRows, hidIndex, then 8-byte column descriptors.
constexpr size_t kTcInfoHeaderSize = 22;
constexpr size_t kTcInfoRgib = 2;
constexpr size_t kTcInfoRowIndex = 10;
constexpr size_t kTcInfoRows = 14;
constexpr size_t kColumnDescriptorSize = 8;
constexpr size_t kRowIdSize = 4;

}  // namespace

template <typename T>
basic_table<T>::basic_table(const node& n) : heap_(heap_impl::open(n, heap_sig_tc)) {
    const std::vector<std::byte> info = heap_->read_whole(heap_->root_id());
    if (info.empty()) throw ndb::database_corrupt("table info allocation is empty");
    const uint8_t type = LoadLe8(info.data());
    if (type != heap_sig_tc)
        throw ndb::sig_mismatch("heap_sig_tc expected", 0, n.get_id(), type, heap_sig_tc);
    if (info.size() < kTcInfoHeaderSize) throw ndb::database_corrupt("table info is shorter than its header");

    row_index_ = open_bth<uint32_t, T>(heap_, LoadLe32(info.data() + kTcInfoRowIndex));

    const size_t column_count = LoadLe8(info.data() + 1);
    if (column_count * kColumnDescriptorSize > info.size() - kTcInfoHeaderSize)
        throw ndb::database_corrupt("table info ends inside its column descriptors");
    // A later descriptor with the same id replaces an earlier one.
    for (size_t i = 0; i < column_count; ++i) {
        const std::byte* d = info.data() + kTcInfoHeaderSize + i * kColumnDescriptorSize;
        const column_description column{LoadLe16(d), LoadLe16(d + 2), LoadLe16(d + 4), LoadLe8(d + 6),
                                        LoadLe8(d + 7)};
        columns_[column.id] = column;
    }
    for (size_t i = 0; i < 4; ++i) rgib_[i] = LoadLe16(info.data() + kTcInfoRgib + 2 * i);

    const hnid rows = LoadLe32(info.data() + kTcInfoRows);
    if (is_subnode_id(rows)) {
        rows_node_.emplace(heap_->get_node().lookup(rows));
    } else if (rows != 0) {
        rows_ = heap_->read_whole(rows);
    }
}

template <typename T>
uint32_t basic_table<T>::row_of(uint32_t row_id) const {
    try {
        return static_cast<uint32_t>(row_index_->lookup(row_id));
    } catch (const key_not_found<uint32_t>&) {
        throw key_not_found<uint32_t>(row_id);
    }
}

template <typename T>
size_t basic_table<T>::rows_per_block() const {
    // Rows never cross a block; every block holds as many as block 0. A block 0 too small for one row
    // would make every address a division by zero.
    const size_t per_block = rows_node_->get_page_size(0) / row_size();
    if (per_block == 0) throw ndb::database_corrupt("table row matrix block is smaller than one row");
    return per_block;
}

template <typename T>
uint32_t basic_table<T>::row_count() const {
    if (!rows_node_ && rows_.empty()) return 0;
    if (row_size() == 0) throw ndb::database_corrupt("table row size is 0");
    if (!rows_node_) return static_cast<uint32_t>(rows_.size() / row_size());
    const size_t blocks = rows_node_->get_page_count();
    const uint64_t in_last = rows_node_->get_page_size(blocks - 1) / row_size();
    if (blocks == 1) return static_cast<uint32_t>(in_last);
    const uint64_t count = in_last + (blocks - 1) * uint64_t{rows_per_block()};
    if (count > UINT32_MAX)
        throw ndb::database_corrupt("table row matrix holds more rows than can be numbered");
    return static_cast<uint32_t>(count);
}

template <typename T>
void basic_table<T>::read_row_bytes(uint32_t row, size_t offset, std::byte* out, size_t size) const {
    if (row >= row_count()) throw std::out_of_range("row >= size()");
    // A cell or existence bit may lie past the end of its row: it is then read from the bytes that
    // follow in the matrix (the next row), as the format's addressing does. Refused only where that
    // addressing would leave the matrix bytes, or the block that holds the row.
    if (!rows_node_) {
        const size_t start = size_t{row} * row_size();
        if (offset > rows_.size() - start || size > rows_.size() - start - offset)
            throw ndb::database_corrupt("table cell runs past the row matrix");
        std::memcpy(out, rows_.data() + start + offset, size);
        return;
    }
    const size_t per_block = rows_per_block();
    const size_t block = row / per_block;
    const size_t at = (row % per_block) * row_size() + offset;
    // A middle block shorter than block 0 leaves its last rows outside it.
    if (at >= rows_node_->get_page_size(block) ||
        rows_node_->read(std::span<std::byte>(out, size), block, at) != size)
        throw ndb::database_corrupt("table row runs past its block");
}

template <typename T>
const column_description& basic_table<T>::column(prop_id id) const {
    const auto found = columns_.find(id);
    if (found == columns_.end()) throw key_not_found<prop_id>(id);
    return found->second;
}

template <typename T>
uint64_t basic_table<T>::get_cell_value(uint32_t row, prop_id id) const {
    const column_description& c = column(id);
    if (c.size != 1 && c.size != 2 && c.size != 4 && c.size != 8)
        throw ndb::database_corrupt("get_cell_value: invalid cell size");
    std::byte bytes[8];
    read_row_bytes(row, c.offset, bytes, c.size);
    uint64_t value = 0;
    for (size_t i = 0; i < c.size; ++i) value |= uint64_t{std::to_integer<uint8_t>(bytes[i])} << (8 * i);
    return value;
}

template <typename T>
std::vector<std::byte> basic_table<T>::read_cell(uint32_t row, prop_id id) const {
    return read_hnid_value(heap_, static_cast<hnid>(get_cell_value(row, id)));
}

template <typename T>
hnid_stream_device basic_table<T>::open_cell_stream(uint32_t row, prop_id id) const {
    return open_hnid_stream(heap_, static_cast<hnid>(get_cell_value(row, id)));
}

template <typename T>
uint32_t basic_table<T>::cell_size(uint32_t row, prop_id id) const {
    return static_cast<uint32_t>(hnid_value_size(heap_, static_cast<hnid>(get_cell_value(row, id))));
}

template <typename T>
std::vector<prop_id> basic_table<T>::column_list() const {
    std::vector<prop_id> ids;
    ids.reserve(columns_.size());
    for (const auto& entry : columns_) ids.push_back(entry.first);
    return ids;
}

template <typename T>
prop_type basic_table<T>::column_type(prop_id id) const {
    return column(id).type;
}

template <typename T>
uint32_t basic_table<T>::row_id_at(uint32_t row) const {
    std::byte bytes[kRowIdSize];
    read_row_bytes(row, 0, bytes, kRowIdSize);
    return LoadLe32(bytes);
}

template <typename T>
bool basic_table<T>::cell_exists(uint32_t row, prop_id id) const {
    const auto found = columns_.find(id);
    if (found == columns_.end()) return false;
    if (row >= row_count()) throw std::out_of_range("row >= size()");
    // A bitmap that ends before it starts has a negative length: the format's reading of it would copy
    // from outside the row matrix, so this one is refused.
    if (rgib_[2] > rgib_[3]) throw ndb::database_corrupt("table cell existence bitmap ends before it starts");
    // The bit index is not compared with the bitmap's length: a bit beyond it is read from the bytes
    // that follow, bounded by the matrix like any cell.
    std::byte bits;
    read_row_bytes(row, rgib_[2] + size_t{found->second.bit_offset} / 8, &bits, 1);
    return (std::to_integer<uint8_t>(bits) & (0x80 >> (found->second.bit_offset % 8))) != 0;
}

template class basic_table<uint32_t>;
template class basic_table<uint16_t>;

std::shared_ptr<table_impl> open_table(const node& n) {
    if (n.get_id() == kGustTableNodeId) throw ndb::not_implemented("gust table");
    const heap_ptr heap = heap_impl::open(n);
    const std::vector<std::byte> info = heap->read_whole(heap->root_id());
    // The row-number width comes from the row index header's cbEnt. Information too short to name
    // the index goes to the 16-bit variant, whose constructor reports the damage in its own terms.
    uint8_t entry_size = 0;
    if (info.size() >= kTcInfoRowIndex + 4) {
        const std::vector<std::byte> header = heap->read_whole(LoadLe32(info.data() + kTcInfoRowIndex));
        if (header.size() > 2) entry_size = LoadLe8(header.data() + 2);
    }
    if (entry_size == 4) return std::make_shared<basic_table<uint32_t>>(n);
    return std::make_shared<basic_table<uint16_t>>(n);
}

std::vector<prop_id> const_table_row::prop_list() const {
    std::vector<prop_id> ids;
    for (prop_id id : table_->column_list())
        if (prop_exists(id)) ids.push_back(id);
    return ids;
}

}  // namespace tarn::ltp
