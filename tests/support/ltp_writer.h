// Fixture writer for the layer above the node database: heaps-on-node, BTHs, property contexts and
// table contexts, built byte by byte as node data plus the subnodes that hold large values. The
// results are handed to WritePst (pst_writer.h) inside PstNode / PstSubnode descriptions.
//
// Independent of the reader in store/ltp: only the on-disk facts are shared, and each is written here
// from the format, not from the reader's code, so that a reader mistake cannot hide behind the same
// mistake in the fixture. Damage is made on the returned bytes, or with the knobs of the options.
//
//     HeapWriter heap(PstLayout::kUnicode, kClientSigPc);
//     uint32_t hid = heap.Allocate(ToBytes("value"));
//     heap.SetRoot(hid);
//     PstNode node{.id = 0x21, .data = heap.Finish()};
#ifndef TARN_TESTS_SUPPORT_LTP_WRITER_H_
#define TARN_TESTS_SUPPORT_LTP_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/pst_writer.h"

namespace tarn::fixture {

inline constexpr uint8_t kClientSigPc = 0xBC;
inline constexpr uint8_t kClientSigTc = 0x7C;
inline constexpr uint8_t kClientSigBth = 0xB5;
// The largest allocation a heap may hold; bigger values go to subnodes.
inline constexpr size_t kMaxHeapAllocation = 3580;

// Bytes of one leaf data block: the unit every heap page and row-matrix block is cut to.
size_t LeafDataSize(PstLayout layout);

// A heap-on-node under construction. Allocations are placed in order, a new block (page) being
// started when the current one is full; every block but the last is padded to the leaf size so that
// the data tree's leaves and the heap's pages coincide.
class HeapWriter {
  public:
    HeapWriter(PstLayout layout, uint8_t client_sig);

    // A heap id for a copy of `bytes`. Throws std::invalid_argument above kMaxHeapAllocation.
    uint32_t Allocate(const Bytes& bytes);
    // Replaces an allocation's bytes with as many new ones (contents fixed up after the fact).
    void Set(uint32_t hid, const Bytes& bytes);
    void SetRoot(uint32_t hid) { root_ = hid; }
    // Starts a new block even if the current one has room (to test values on later pages).
    void NewBlock();

    Bytes Finish() const;
    size_t block_count() const { return blocks_.size(); }

    // Damage knobs applied by Finish.
    uint8_t heap_sig = 0xEC;

  private:
    size_t HeaderSize(size_t block) const;
    size_t UsedSize(size_t block) const;

    PstLayout layout_;
    uint8_t client_sig_;
    uint32_t root_ = 0;
    std::vector<std::vector<Bytes>> blocks_;
};

// Record layouts of a BTH. kFile is the format's: leaves of cbKey + cbEnt bytes, intermediate records
// of cbKey + 4. kFixed8 pads every record to 8 bytes.
enum class BthStride { kFile, kFixed8 };

struct BthRecord {
    uint32_t key = 0;  // written in cbKey bytes
    Bytes value;       // cbEnt bytes
};

struct BthOptions {
    BthStride stride = BthStride::kFile;
    size_t max_per_node = 0;            // 0: as many as fit in one allocation
    std::optional<uint8_t> idx_levels;  // the header's bIdxLevels instead of the true count
    std::optional<uint8_t> signature;   // bType instead of 0xB5
    std::optional<uint8_t> key_size;    // cbKey written instead of the real one
    std::optional<uint8_t> entry_size;  // cbEnt written instead of the real one
};

// Writes the records (sorted by key here) as leaves and as many intermediate levels as needed;
// returns the heap id of the BTH header. No records: hidRoot 0.
uint32_t WriteBth(HeapWriter& heap, uint8_t key_size, uint8_t entry_size, std::vector<BthRecord> records,
                  const BthOptions& options = {});

// A node's data and the subnodes that carry its larger values.
struct LtpNodeData {
    Bytes data;
    std::vector<PstSubnode> subnodes;
};

// Property types by how they are stored.
bool IsInlineType(uint16_t type);     // 1, 2 or 4 bytes in the entry itself
size_t FixedTypeSize(uint16_t type);  // bytes of a fixed-size type, 0 for variable-size

struct PcProperty {
    uint16_t id = 0;
    uint16_t type = 0;
    Bytes value;              // inline types: their little-endian bytes (1, 2 or 4)
    bool in_subnode = false;  // force a subnode even for a small value
};

struct LtpOptions {
    // Ids of subnodes made for large values: (next_subnode++ << 5) | 0x1F.
    uint32_t* next_subnode = nullptr;
    BthStride stride = BthStride::kFile;
    uint8_t client_sig = kClientSigPc;
};

LtpNodeData WritePropertyContext(PstLayout layout, std::vector<PcProperty> properties,
                                 const LtpOptions& options = {});

struct TcColumn {
    uint16_t id = 0;
    uint16_t type = 0;
};

struct TcCell {
    uint16_t id = 0;
    Bytes value;  // fixed types: little-endian bytes; others: the value (stored by HNID)
};

struct TcRow {
    uint32_t row_id = 0;
    std::vector<TcCell> cells;  // cells absent here have their existence bit clear
};

struct TcOptions {
    bool matrix_in_subnode = false;    // else in the heap when it fits in one allocation
    uint8_t row_index_entry_size = 4;  // 4 or 2
    BthStride stride = BthStride::kFile;
    uint32_t* next_subnode = nullptr;
    uint32_t matrix_subnode_id = 0;  // 0: taken from next_subnode
};

// Where the writer put the table's parts, for damage.
struct TcLayout {
    uint32_t tcinfo = 0;
    uint32_t row_index = 0;
    uint32_t rows = 0;  // hnidRows
    size_t row_size = 0;
    size_t rows_per_block = 0;
    std::vector<std::pair<uint16_t, size_t>> column_offsets;  // id, ibData
};

// Columns 0x67F2 (row id) and 0x67F3 (row version) are added in front when absent.
LtpNodeData WriteTableContext(PstLayout layout, std::vector<TcColumn> columns, const std::vector<TcRow>& rows,
                              const TcOptions& options = {}, TcLayout* where = nullptr);

// Little-endian helpers for values.
Bytes Le(uint64_t value, size_t width);
Bytes Utf16(std::u16string_view text);
Bytes Utf16(std::string_view ascii);

}  // namespace tarn::fixture

#endif  // TARN_TESTS_SUPPORT_LTP_WRITER_H_
