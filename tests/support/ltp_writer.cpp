#include "tests/support/ltp_writer.h"

#include <algorithm>
#include <stdexcept>

#include "store/ndb/format.h"

namespace tarn::fixture {
namespace {

namespace fmt = tarn::ndb::format;

constexpr uint16_t kRowIdColumn = 0x67F2;
constexpr uint16_t kRowVersionColumn = 0x67F3;
constexpr uint16_t kTypeLong = 0x0003;

void Append(Bytes& out, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) out.push_back(static_cast<std::byte>((value >> (8 * i)) & 0xFF));
}

void Put(Bytes& out, size_t at, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) out.at(at + i) = static_cast<std::byte>((value >> (8 * i)) & 0xFF);
}

uint64_t Get(const Bytes& bytes, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width && i < bytes.size(); ++i)
        value |= std::to_integer<uint64_t>(bytes[i]) << (8 * i);
    return value;
}

size_t RoundUp2(size_t n) { return (n + 1) & ~size_t{1}; }

// A value too big for the heap, or forced out of it, becomes a subnode of its own.
// Takes the value: a large one moves into its subnode without a copy.
uint32_t StoreValue(HeapWriter& heap, Bytes value, bool in_subnode, uint32_t& next_subnode,
                    std::vector<PstSubnode>& subnodes) {
    if (value.empty() && !in_subnode) return 0;
    if (!in_subnode && value.size() <= kMaxHeapAllocation) return heap.Allocate(value);
    const uint32_t id = (next_subnode++ << 5) | 0x1F;
    subnodes.push_back({.id = id, .data = std::move(value)});
    return id;
}

}  // namespace

size_t LeafDataSize(PstLayout layout) {
    return layout == PstLayout::kUnicode ? fmt::kUnicodeBlock.max_data : fmt::kAnsiBlock.max_data;
}

HeapWriter::HeapWriter(PstLayout layout, uint8_t client_sig)
    : layout_(layout), client_sig_(client_sig), blocks_(1) {}

size_t HeapWriter::HeaderSize(size_t block) const {
    // HNHDR on block 0; an HNBITMAPHDR (ibHnpm and 64 fill-level bytes) on blocks 8, 136, 264, ...;
    // an HNPAGEHDR (ibHnpm alone) on the rest.
    if (block == 0) return 12;
    if (block >= 8 && (block - 8) % 128 == 0) return 66;
    return 2;
}

size_t HeapWriter::UsedSize(size_t block) const {
    size_t used = HeaderSize(block);
    for (const Bytes& a : blocks_[block]) used += a.size();
    return used;
}

void HeapWriter::NewBlock() {
    if (blocks_.size() >= 0x10000) throw std::invalid_argument("fixture heap has too many blocks");
    blocks_.emplace_back();
}

uint32_t HeapWriter::Allocate(const Bytes& bytes) {
    if (bytes.size() > kMaxHeapAllocation) throw std::invalid_argument("fixture heap allocation too large");
    auto fits = [&](size_t block) {
        const size_t count = blocks_[block].size() + 1;
        return count <= 0x7FF &&
               RoundUp2(UsedSize(block) + bytes.size()) + 4 + 2 * (count + 1) <= LeafDataSize(layout_);
    };
    if (!fits(blocks_.size() - 1)) NewBlock();
    const size_t block = blocks_.size() - 1;
    blocks_[block].push_back(bytes);
    return static_cast<uint32_t>((block << 16) | (blocks_[block].size() << 5));
}

void HeapWriter::Set(uint32_t hid, const Bytes& bytes) {
    Bytes& slot = blocks_.at(hid >> 16).at(((hid >> 5) & 0x7FF) - 1);
    if (slot.size() != bytes.size()) throw std::invalid_argument("fixture heap Set changes a size");
    slot = bytes;
}

Bytes HeapWriter::Finish() const {
    Bytes out;
    for (size_t b = 0; b < blocks_.size(); ++b) {
        Bytes page(HeaderSize(b), std::byte{0});
        std::vector<size_t> offsets;
        for (const Bytes& a : blocks_[b]) {
            offsets.push_back(page.size());
            page.insert(page.end(), a.begin(), a.end());
        }
        offsets.push_back(page.size());
        if (page.size() % 2) page.push_back(std::byte{0});
        Put(page, 0, page.size(), 2);  // ibHnpm
        if (b == 0) {
            page[2] = static_cast<std::byte>(heap_sig);
            page[3] = static_cast<std::byte>(client_sig_);
            Put(page, 4, root_, 4);
        }
        Append(page, blocks_[b].size(), 2);  // cAlloc
        Append(page, 0, 2);                  // cFree
        for (size_t o : offsets) Append(page, o, 2);
        if (b + 1 < blocks_.size()) page.resize(LeafDataSize(layout_), std::byte{0});
        out.insert(out.end(), page.begin(), page.end());
    }
    return out;
}

uint32_t WriteBth(HeapWriter& heap, uint8_t key_size, uint8_t entry_size, std::vector<BthRecord> records,
                  const BthOptions& options) {
    std::sort(records.begin(), records.end(),
              [](const BthRecord& a, const BthRecord& b) { return a.key < b.key; });
    const bool fixed = options.stride == BthStride::kFixed8;
    const size_t leaf_record = fixed ? 8 : size_t{key_size} + entry_size;
    const size_t inner_record = fixed ? 8 : size_t{key_size} + 4;

    // Each level: (first key, heap id) of its nodes.
    std::vector<std::pair<uint32_t, uint32_t>> level;
    const size_t leaf_max = options.max_per_node ? options.max_per_node : kMaxHeapAllocation / leaf_record;
    for (size_t at = 0; at < records.size(); at += leaf_max) {
        Bytes node;
        for (size_t i = at; i < std::min(records.size(), at + leaf_max); ++i) {
            Append(node, records[i].key, key_size);
            Bytes value = records[i].value;
            value.resize(entry_size, std::byte{0});
            node.insert(node.end(), value.begin(), value.end());
            node.resize(node.size() + leaf_record - key_size - entry_size, std::byte{0});
        }
        level.emplace_back(records[at].key, heap.Allocate(node));
    }
    uint8_t levels = 0;
    const size_t inner_max = options.max_per_node ? options.max_per_node : kMaxHeapAllocation / inner_record;
    while (level.size() > 1) {
        std::vector<std::pair<uint32_t, uint32_t>> above;
        for (size_t at = 0; at < level.size(); at += inner_max) {
            Bytes node;
            for (size_t i = at; i < std::min(level.size(), at + inner_max); ++i) {
                Append(node, level[i].first, key_size);
                if (fixed && key_size == 2) Append(node, 0, 2);
                Append(node, level[i].second, 4);
            }
            above.emplace_back(level[at].first, heap.Allocate(node));
        }
        level = std::move(above);
        ++levels;
    }
    Bytes header;
    Append(header, options.signature.value_or(kClientSigBth), 1);
    Append(header, options.key_size.value_or(key_size), 1);
    Append(header, options.entry_size.value_or(entry_size), 1);
    Append(header, options.idx_levels.value_or(levels), 1);
    Append(header, level.empty() ? 0 : level[0].second, 4);
    return heap.Allocate(header);
}

bool IsInlineType(uint16_t type) {
    return type == 0x0002 || type == 0x0003 || type == 0x0004 || type == 0x000A || type == 0x000B;
}

size_t FixedTypeSize(uint16_t type) {
    switch (type) {
        case 0x000B:
            return 1;
        case 0x0002:
            return 2;
        case 0x0003:
        case 0x0004:
        case 0x000A:
            return 4;
        case 0x0005:
        case 0x0006:
        case 0x0007:
        case 0x0014:
        case 0x0040:
            return 8;
        default:
            return 0;
    }
}

LtpNodeData WritePropertyContext(PstLayout layout, std::vector<PcProperty> properties,
                                 const LtpOptions& options) {
    uint32_t local_next = 1;
    uint32_t& next = options.next_subnode ? *options.next_subnode : local_next;
    HeapWriter heap(layout, options.client_sig);
    LtpNodeData out;
    std::vector<BthRecord> records;
    for (PcProperty& p : properties) {
        const uint32_t stored = IsInlineType(p.type) && !p.in_subnode
                                    ? static_cast<uint32_t>(Get(p.value, 4))
                                    : StoreValue(heap, std::move(p.value), p.in_subnode, next, out.subnodes);
        Bytes entry;
        Append(entry, p.type, 2);
        Append(entry, stored, 4);
        records.push_back({p.id, entry});
    }
    BthOptions bth;
    bth.stride = options.stride;
    heap.SetRoot(WriteBth(heap, 2, 6, std::move(records), bth));
    out.data = heap.Finish();
    return out;
}

LtpNodeData WriteTableContext(PstLayout layout, std::vector<TcColumn> columns, const std::vector<TcRow>& rows,
                              const TcOptions& options, TcLayout* where) {
    uint32_t local_next = 1;
    uint32_t& next = options.next_subnode ? *options.next_subnode : local_next;
    auto has = [&](uint16_t id) {
        return std::any_of(columns.begin(), columns.end(), [&](const TcColumn& c) { return c.id == id; });
    };
    if (!has(kRowVersionColumn)) columns.insert(columns.begin(), {kRowVersionColumn, kTypeLong});
    if (!has(kRowIdColumn)) columns.insert(columns.begin(), {kRowIdColumn, kTypeLong});

    // Cells grouped by size: 8 and 4 bytes (variable-size values are 4-byte HNIDs), then 2, then 1,
    // then the existence bitmap. The row id comes first, at offset 0.
    struct Placed {
        TcColumn column;
        size_t size, offset;
        uint8_t bit;
    };
    std::vector<Placed> placed;
    for (size_t i = 0; i < columns.size(); ++i) {
        const size_t fixed = FixedTypeSize(columns[i].type);
        placed.push_back({columns[i], fixed ? fixed : 4, 0, static_cast<uint8_t>(i)});
    }
    auto rank = [](const Placed& p) {
        return p.column.id == kRowIdColumn ? 0 : p.size >= 4 ? (p.size == 8 ? 1 : 2) : 6 - p.size;
    };
    std::stable_sort(placed.begin(), placed.end(),
                     [&](const Placed& a, const Placed& b) { return rank(a) < rank(b); });
    size_t offset = 0;
    uint16_t rgib[4] = {};
    for (Placed& p : placed) {
        p.offset = offset;
        offset += p.size;
        if (p.size >= 4) rgib[0] = static_cast<uint16_t>(offset);
        if (p.size >= 2) rgib[1] = static_cast<uint16_t>(offset);
        rgib[2] = static_cast<uint16_t>(offset);
    }
    rgib[1] = std::max(rgib[1], rgib[0]);
    rgib[2] = std::max(rgib[2], rgib[1]);
    const size_t ceb = (placed.size() + 7) / 8;
    rgib[3] = static_cast<uint16_t>(rgib[2] + ceb);
    const size_t row_size = rgib[3];

    HeapWriter heap(layout, kClientSigTc);
    LtpNodeData out;

    // Rows, with variable values stored first so their HNIDs can go in the cells.
    Bytes matrix;
    std::vector<BthRecord> index;
    for (size_t r = 0; r < rows.size(); ++r) {
        Bytes row(row_size, std::byte{0});
        auto set_bit = [&](uint8_t bit) {
            row[rgib[2] + bit / 8] |= static_cast<std::byte>(0x80 >> (bit % 8));
        };
        for (const Placed& p : placed) {
            if (p.column.id == kRowIdColumn) {
                Put(row, p.offset, rows[r].row_id, 4);
                set_bit(p.bit);
            } else if (p.column.id == kRowVersionColumn &&
                       !std::any_of(rows[r].cells.begin(), rows[r].cells.end(),
                                    [&](const TcCell& c) { return c.id == kRowVersionColumn; })) {
                set_bit(p.bit);
            }
        }
        for (const TcCell& cell : rows[r].cells) {
            auto found = std::find_if(placed.begin(), placed.end(),
                                      [&](const Placed& p) { return p.column.id == cell.id; });
            if (found == placed.end()) throw std::invalid_argument("fixture table cell without a column");
            const uint64_t stored = FixedTypeSize(found->column.type)
                                        ? Get(cell.value, found->size)
                                        : StoreValue(heap, cell.value, false, next, out.subnodes);
            Put(row, found->offset, stored, found->size);
            set_bit(found->bit);
        }
        matrix.insert(matrix.end(), row.begin(), row.end());
        index.push_back({rows[r].row_id, Le(r, options.row_index_entry_size)});
    }

    TcLayout layout_out;
    layout_out.row_size = row_size;
    uint32_t rows_hnid = 0;
    if (!rows.empty()) {
        if (!options.matrix_in_subnode && matrix.size() <= kMaxHeapAllocation) {
            rows_hnid = heap.Allocate(matrix);
        } else {
            // Rows never cross a block: each block holds as many whole rows as fit, then padding.
            const size_t leaf = LeafDataSize(layout);
            const size_t per_block = leaf / row_size;
            layout_out.rows_per_block = per_block;
            Bytes data;
            for (size_t r = 0; r < rows.size(); ++r) {
                if (r > 0 && r % per_block == 0) data.resize((r / per_block) * leaf, std::byte{0});
                data.insert(data.end(), matrix.begin() + r * row_size, matrix.begin() + (r + 1) * row_size);
            }
            rows_hnid = options.matrix_subnode_id ? options.matrix_subnode_id : (next++ << 5) | 0x1F;
            out.subnodes.push_back({.id = rows_hnid, .data = std::move(data)});
        }
    }
    BthOptions bth;
    bth.stride = options.stride;
    const uint32_t row_index = WriteBth(heap, 4, options.row_index_entry_size, std::move(index), bth);

    Bytes info;
    Append(info, kClientSigTc, 1);
    Append(info, placed.size(), 1);
    for (uint16_t v : rgib) Append(info, v, 2);
    Append(info, row_index, 4);
    Append(info, rows_hnid, 4);
    Append(info, 0, 4);  // hidIndex
    std::vector<Placed> by_id = placed;
    std::sort(by_id.begin(), by_id.end(),
              [](const Placed& a, const Placed& b) { return a.column.id < b.column.id; });
    for (const Placed& p : by_id) {
        Append(info, p.column.type, 2);
        Append(info, p.column.id, 2);
        Append(info, p.offset, 2);
        Append(info, p.size, 1);
        Append(info, p.bit, 1);
        layout_out.column_offsets.emplace_back(p.column.id, p.offset);
    }
    const uint32_t tcinfo = heap.Allocate(info);
    heap.SetRoot(tcinfo);
    out.data = heap.Finish();
    layout_out.tcinfo = tcinfo;
    layout_out.row_index = row_index;
    layout_out.rows = rows_hnid;
    if (where) *where = layout_out;
    return out;
}

Bytes Le(uint64_t value, size_t width) {
    Bytes out;
    Append(out, value, width);
    return out;
}

Bytes Utf16(std::u16string_view text) {
    Bytes out(text.size() * 2);
    for (size_t i = 0; i < text.size(); ++i) {
        out[2 * i] = static_cast<std::byte>(text[i] & 0xFF);
        out[2 * i + 1] = static_cast<std::byte>(text[i] >> 8);
    }
    return out;
}

Bytes Utf16(std::string_view ascii) {
    Bytes out;
    for (char c : ascii) Append(out, static_cast<unsigned char>(c), 2);
    return out;
}

}  // namespace tarn::fixture
