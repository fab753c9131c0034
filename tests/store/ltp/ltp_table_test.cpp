// Table contexts over writer-made nodes: every cell of every row against the writer's own rows, with
// the matrix in the heap and in a subnode, both row-index widths and both layouts; then the failures
// of the format's rules and our guards, made by patching the written table info.
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "store/ltp/table.h"
#include "store/ndb/errors.h"
#include "tests/store/ltp/ltp_test_util.h"

namespace {

using namespace tarn::ltp;
using namespace tarn::fixture;
using tarn::testing::AllocOffset;
using tarn::testing::MessageOf;
using tarn::testing::OpenNode;
using tarn::testing::Put;
namespace ndb = tarn::ndb;

const std::vector<TcColumn> kColumns = {
    {0x0E08, 0x0003}, {0x0017, 0x0003}, {0x0039, 0x0040}, {0x3FDE, 0x0002},
    {0x0057, 0x000B}, {0x0037, 0x001F}, {0x1013, 0x0102},
};

// Row r: id 0x200004 + 32 r; 0x0017 absent when r % 3 == 0, 0x0037 absent when r % 5 == 0; row 7's
// binary value is too big for the heap.
std::vector<TcRow> Rows(size_t count) {
    std::vector<TcRow> rows;
    for (uint32_t r = 0; r < count; ++r) {
        TcRow row{0x200004 + 32 * r, {}};
        row.cells.push_back({0x0E08, Le(1000 + r, 4)});
        if (r % 3 != 0) row.cells.push_back({0x0017, Le(r % 3, 4)});
        row.cells.push_back({0x0039, Le(0x01D0000000000000ull + r, 8)});
        row.cells.push_back({0x3FDE, Le(r, 2)});
        row.cells.push_back({0x0057, Le(r & 1, 1)});
        if (r % 5 != 0) row.cells.push_back({0x0037, Utf16("row " + std::to_string(r))});
        row.cells.push_back({0x1013, PatternBytes(r == 7 ? 5000 : r * 3, r)});
        rows.push_back(row);
    }
    return rows;
}

const Bytes* CellOf(const TcRow& row, prop_id id) {
    for (const TcCell& c : row.cells)
        if (c.id == id) return &c.value;
    return nullptr;
}

std::vector<std::byte> Drain(hnid_stream_device device) {
    prop_stream in(device);
    std::vector<std::byte> all;
    char piece[333];
    while (in.read(piece, sizeof piece) || in.gcount() > 0) {
        const auto* b = reinterpret_cast<const std::byte*>(piece);
        all.insert(all.end(), b, b + in.gcount());
    }
    return all;
}

TEST(TableTest, EveryCellOfEveryRowReadsBack) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (uint8_t width : {4, 2}) {
            for (bool in_subnode : {false, true}) {
                SCOPED_TRACE(std::to_string(static_cast<int>(layout)) + " " + std::to_string(width) + " " +
                             std::to_string(in_subnode));
                const size_t count = in_subnode ? 30 : 20;
                const std::vector<TcRow> rows = Rows(count);
                // A 2-byte row index is written with the 8-byte stride this reader takes.
                TcOptions options{.matrix_in_subnode = in_subnode,
                                  .row_index_entry_size = width,
                                  .stride = width == 2 ? BthStride::kFixed8 : BthStride::kFile};
                auto store = OpenNode(layout, WriteTableContext(layout, kColumns, rows, options), 0x802E,
                                      PstEncoding::kCyclic);
                const table t(store.node(0x802E));
                EXPECT_EQ(dynamic_cast<const basic_table<uint16_t>*>(t.get_impl().get()) != nullptr,
                          width == 2);
                ASSERT_EQ(t.size(), count);
                std::set<prop_id> columns;
                for (prop_id id : t.get_impl()->column_list()) columns.insert(id);
                EXPECT_EQ(columns, (std::set<prop_id>{0x67F2, 0x67F3, 0x0E08, 0x0017, 0x0039, 0x3FDE, 0x0057,
                                                      0x0037, 0x1013}));
                for (uint32_t r = 0; r < count; ++r) {
                    SCOPED_TRACE(r);
                    const const_table_row row = t[r];
                    ASSERT_EQ(row.get_row_id(), rows[r].row_id);
                    EXPECT_EQ(t.lookup_row(rows[r].row_id), r);
                    std::set<prop_id> present{0x67F2, 0x67F3};
                    for (const TcCell& c : rows[r].cells) present.insert(c.id);
                    const std::vector<prop_id> listed = row.prop_list();
                    EXPECT_EQ(std::set<prop_id>(listed.begin(), listed.end()), present);
                    for (const TcColumn& column : kColumns) {
                        const Bytes* value = CellOf(rows[r], column.id);
                        EXPECT_EQ(row.prop_exists(column.id), value != nullptr);
                        EXPECT_EQ(row.get_prop_type(column.id), column.type);
                        if (FixedTypeSize(column.type) == 0) {
                            if (value == nullptr) continue;
                            EXPECT_EQ(row.get_value_variable(column.id), *value);
                            EXPECT_EQ(row.prop_size(column.id), value->size());
                            EXPECT_EQ(Drain(row.open_prop_stream(column.id)), *value);
                            continue;
                        }
                        // A cell whose bit is clear still reads its bytes (the writer leaves zeros).
                        uint64_t expected = 0;
                        for (size_t i = 0; value != nullptr && i < value->size(); ++i)
                            expected |= std::to_integer<uint64_t>((*value)[i]) << (8 * i);
                        EXPECT_EQ(row.get_value_8(column.id), expected);
                        EXPECT_EQ(row.get_value_4(column.id), static_cast<uint32_t>(expected));
                        EXPECT_EQ(row.get_value_2(column.id), static_cast<uint16_t>(expected));
                        EXPECT_EQ(row.get_value_1(column.id), static_cast<uint8_t>(expected));
                    }
                    const std::string label = "row " + std::to_string(r);
                    if (r % 5 != 0) {
                        EXPECT_EQ(row.read_wstring(0x0037), std::u16string(label.begin(), label.end()));
                    }
                }
            }
        }
    }
}

TEST(TableTest, SubnodeMatrixRowsNeverCrossABlock) {
    // Two full blocks and three rows: the count comes from block 0's share and the last block's.
    const std::vector<TcColumn> wide = {{0x1000, 0x0014}, {0x1001, 0x0014}, {0x1002, 0x0014}};
    TcLayout where;
    WriteTableContext(PstLayout::kUnicode, wide, {}, {.matrix_in_subnode = true}, &where);
    const size_t per_block = LeafDataSize(PstLayout::kUnicode) / where.row_size;
    std::vector<TcRow> rows;
    for (uint32_t r = 0; r < 2 * per_block + 3; ++r) rows.push_back({r * 8 + 4, {{0x1001, Le(r * 7, 8)}}});
    auto store = OpenNode(PstLayout::kUnicode, WriteTableContext(PstLayout::kUnicode, wide, rows,
                                                                 {.matrix_in_subnode = true}, &where));
    const table t(store.node(0x21));
    EXPECT_EQ(t.size(), rows.size());
    EXPECT_EQ(where.rows_per_block, per_block);
    // Row 2R is the first of block 2, at offset 0.
    EXPECT_EQ(t[2 * per_block].get_row_id(), rows[2 * per_block].row_id);
    EXPECT_EQ(t[2 * per_block + 2].get_value_8(0x1001), (2 * per_block + 2) * 7);
    EXPECT_EQ(t[per_block - 1].get_value_8(0x1001), (per_block - 1) * 7);
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { t[2 * per_block + 3].get_row_id(); }), "row >= size()");
}

struct Damage {
    const char* what;
    size_t at;  // offset in the table info (or, with `in_heap_header`, in the node data)
    uint64_t value;
    size_t width;
};

// A written table with one patch applied; returns the store.
tarn::testing::OpenStore Damaged(const Damage& d, bool in_subnode = false, size_t rows = 4) {
    TcLayout where;
    LtpNodeData content = WriteTableContext(PstLayout::kUnicode, kColumns, Rows(rows),
                                            {.matrix_in_subnode = in_subnode}, &where);
    const size_t info = AllocOffset(content.data, where.tcinfo, PstLayout::kUnicode);
    if (d.width) Put(content.data, info + d.at, d.value, d.width);
    return OpenNode(PstLayout::kUnicode, content);
}

// Offset in the table info of field `field` of the descriptor of column `id` (descriptors by id).
size_t DescriptorField(prop_id id, size_t field) {
    std::vector<prop_id> ids{0x67F2, 0x67F3};
    for (const TcColumn& c : kColumns) ids.push_back(c.id);
    std::sort(ids.begin(), ids.end());
    return 22 + 8 * static_cast<size_t>(std::find(ids.begin(), ids.end(), id) - ids.begin()) + field;
}

TEST(TableTest, FailuresOfTheFormatsRules) {
    // The gust table is refused before its node is read: it is not even in this store.
    auto sound = Damaged({"none", 0, 0, 0});
    node_id gust = kGustTableNodeId;
    EXPECT_EQ(MessageOf<ndb::not_implemented>([&] {
                  open_table(ndb::node(sound.db, {gust, 0, 0, 0}));
              }),
              "gust table");

    const table t(sound.node(0x21));
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { t.get_impl()->get_cell_value(4, 0x0E08); }),
              "row >= size()");
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { t.get_impl()->cell_exists(4, 0x0E08); }), "row >= size()");
    EXPECT_FALSE(t.get_impl()->cell_exists(4, 0x4444));  // no column: false before the row is checked
    try {
        t.get_impl()->get_cell_value(99, 0x4444);  // the column is looked up first
        ADD_FAILURE();
    } catch (const key_not_found<prop_id>& e) {
        EXPECT_EQ(e.which(), 0x4444);
    }
    EXPECT_THROW(t.get_impl()->column_type(0x4444), key_not_found<prop_id>);
    try {
        t.lookup_row(0x999);
        ADD_FAILURE();
    } catch (const key_not_found<uint32_t>& e) {
        EXPECT_EQ(e.which(), 0x999u);
    }

    // No rows: hnidRows 0.
    auto empty_store = Damaged({"none", 0, 0, 0}, false, 0);
    const table empty(empty_store.node(0x21));
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { empty[0].get_value_4(0x0E08); }), "row >= size()");

    // A cell size of 3 fails for that column only.
    auto odd = Damaged({"cbData 3", DescriptorField(0x0017, 6), 3, 1});
    const table o(odd.node(0x21));
    EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { o[1].get_value_4(0x0017); }),
              "get_cell_value: invalid cell size");
    EXPECT_EQ(o[1].get_value_4(0x0E08), 1001u);

    // A later descriptor with the same id replaces the earlier one.
    auto twice = Damaged({"0x0039 renamed 0x0037", DescriptorField(0x0039, 2), 0x0037, 2});
    const table w(twice.node(0x21));
    EXPECT_EQ(w.get_impl()->column_type(0x0037), 0x0040);
    EXPECT_EQ(w[2].get_value_8(0x0037), 0x01D0000000000002ull);
}

TEST(TableTest, DamageIsRefusedWithItsOwnMessage) {
    const Damage damages[] = {
        {"heap_sig_tc expected", 0, 0x7B, 1},
        {"table info ends inside its column descriptors", 1, 40, 1},
        {"table row size is 0", 8, 0, 2},
        {"table cell existence bitmap ends before it starts", 6, 0xFFFF, 2},
    };
    for (const Damage& d : damages) {
        SCOPED_TRACE(d.what);
        auto store = Damaged(d);
        try {
            const table t(store.node(0x21));
            for (uint32_t r = 0; r < t.size(); ++r) {
                (void)t[r].prop_list();
                (void)t[r].get_value_4(0x0E08);
            }
            ADD_FAILURE() << "no error";
        } catch (const ndb::database_corrupt& e) {
            EXPECT_STREQ(e.what(), d.what);
        }
    }
    // A row bigger than block 0 of a subnode matrix (rows per block 0) would divide by zero.
    auto big = Damaged({"", 8, LeafDataSize(PstLayout::kUnicode) + 2, 2}, true, 400);
    const table t(big.node(0x21));
    EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { (void)t.size(); }),
              "table row matrix block is smaller than one row");

    // A table whose heap carries a property context's client signature.
    LtpNodeData content = WriteTableContext(PstLayout::kUnicode, kColumns, Rows(2));
    content.data[3] = std::byte{kClientSigPc};
    auto pc = OpenNode(PstLayout::kUnicode, content);
    EXPECT_EQ(MessageOf<ndb::sig_mismatch>([&] { table x(pc.node(0x21)); }), "invalid client_sig");
}

TEST(TableTest, CellsAndBitsPastTheirRowReadTheRowsAfterIt) {
    for (const bool in_subnode : {false, true}) {
        SCOPED_TRACE(in_subnode ? "subnode matrix" : "heap matrix");
        constexpr size_t kRows = 4;
        TcLayout where;
        LtpNodeData content = WriteTableContext(PstLayout::kUnicode, kColumns, Rows(kRows),
                                                {.matrix_in_subnode = in_subnode}, &where);
        const size_t info = AllocOffset(content.data, where.tcinfo, PstLayout::kUnicode);
        const size_t bitmap = std::to_integer<size_t>(content.data.at(info + 6)) |
                              std::to_integer<size_t>(content.data.at(info + 7)) << 8;  // rgib[TCI_1b]
        // 0x0E08's cell moved one row on: it reads the next row's 0x0E08. 0x0017's bit moved to bit 2
        // of the next row's first byte, the low byte of its row id (0x04 + 32 r: set for odd r).
        size_t ib_data = 0;
        for (const auto& [id, offset] : where.column_offsets)
            if (id == 0x0E08) ib_data = offset;
        Put(content.data, info + DescriptorField(0x0E08, 4), where.row_size + ib_data, 2);
        Put(content.data, info + DescriptorField(0x0017, 7), 8 * (where.row_size - bitmap) + 2, 1);
        auto store = OpenNode(PstLayout::kUnicode, content);
        const table t(store.node(0x21));
        ASSERT_EQ(t.size(), kRows);
        for (uint32_t r = 0; r + 1 < kRows; ++r) {
            EXPECT_EQ(t[r].get_value_4(0x0E08), 1000 + r + 1) << r;
            EXPECT_EQ(t[r].prop_exists(0x0017), (r + 1) % 2 == 1) << r;
        }
        // The last row's would lie past the matrix (or its block): the one place the reading is refused.
        const char* refusal =
            in_subnode ? "table row runs past its block" : "table cell runs past the row matrix";
        EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { t[kRows - 1].get_value_4(0x0E08); }), refusal);
        EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { t[kRows - 1].prop_exists(0x0017); }), refusal);
        EXPECT_EQ(t[kRows - 1].get_value_4(0x0039), static_cast<uint32_t>(0x01D0000000000000ull + kRows - 1));
    }
}

}  // namespace
