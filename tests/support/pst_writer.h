// PST fixture writer: builds ANSI and Unicode stores byte by byte from a description, so that tests
// (and fuzz seeds) can make any node database they need, sound or damaged on purpose.
//
// What it writes: a header with valid CRCs; the node B-tree (NBT) and block B-tree (BBT) as 512-byte
// pages, any depth (the fan-out options force deeper trees); every node's data as one data block, an
// XBLOCK tree or an XXBLOCK tree, encoded as the description says; subnode trees as one SLBLOCK or an
// SIBLOCK over SLBLOCKs, nested to any depth. No allocation maps are written: the store never reads them.
//
// It is independent of the reader: it shares the on-disk constants of store/ndb/format.h and the
// published byte tables of store/ndb/crypt_tables.h, and does its own CRC, signature, encoding and
// layout. Keep it that way, so that a mistake in the reader cannot hide behind the same mistake here.
//
// Typical use:
//
//     PstDescription d;                      // Unicode, no encoding
//     d.nodes.push_back({.id = 0x21, .data = ToBytes("hello")});
//     PstImage image = WritePst(d);          // bytes plus a map of where everything went
//     image.Put16(image.Block(image.Node(0x21).data_bid).trailer + 2, 0);   // damage: a signature
//     TempPstFile file(image.bytes);         // a file on disk the store can open
//     auto db = tarn::ndb::open_database(file.path());
//
// Descriptions are meant for designated initializers ({.id = 0x21, .data = ...}); GCC's
// -Wmissing-field-initializers flags every field left at its default, so targets using the writer turn
// it off.
//
// Layers above the node database (heap-on-node, BTH, property and table contexts, whole message
// stores) extend this by building node data bytes and subnode lists and handing them to WritePst:
// the writer takes node data as opaque bytes and lays it out.
#ifndef TARN_TESTS_SUPPORT_PST_WRITER_H_
#define TARN_TESTS_SUPPORT_PST_WRITER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::fixture {

using Bytes = std::vector<std::byte>;

enum class PstLayout { kAnsi, kUnicode };

// The header's bCryptMethod. Data of external blocks is encoded with it; everything else is plain.
enum class PstEncoding : uint8_t { kNone = 0, kPermute = 1, kCyclic = 2 };

// A subnode: private to the node (or subnode) whose `subnodes` list holds it.
struct PstSubnode {
    uint32_t id = 0;
    Bytes data;                        // empty: data block id 0
    std::vector<PstSubnode> subnodes;  // empty: subnode block id 0
    // Overrides of the ids written in the SLENTRY (damage, or sharing a block on purpose). The data
    // or subnode tree is then not written for this subnode.
    std::optional<uint64_t> data_bid;
    std::optional<uint64_t> subnode_bid;
};

// A node of the node B-tree.
struct PstNode {
    uint32_t id = 0;
    uint32_t parent = 0;
    Bytes data;                        // empty: data block id 0
    std::vector<PstSubnode> subnodes;  // empty: subnode block id 0
    std::optional<uint64_t> data_bid;  // as in PstSubnode
    std::optional<uint64_t> subnode_bid;
};

// A block written exactly as given (its bytes become the block's data, a trailer is added) and entered
// in the BBT. Use it for hand-made XBLOCKs, SLBLOCKs and damage (an XBLOCK listing itself, a cEnt
// larger than the block). `encode` applies the store's encoding, as for an external data block.
struct PstRawBlock {
    uint64_t id = 0;
    Bytes data;
    bool encode = false;
};

struct PstDescription {
    PstLayout layout = PstLayout::kUnicode;
    PstEncoding encoding = PstEncoding::kNone;
    std::vector<PstNode> nodes;  // any order; sorted by id in the NBT
    std::vector<PstRawBlock> raw_blocks;

    // Entries per B-tree page, leaf and intermediate alike (0 = as many as a page holds: ANSI 41 BBT /
    // 31 NBT, Unicode 20 / 15). Small values make deep trees from few nodes.
    size_t nbt_fanout = 0;
    size_t bbt_fanout = 0;
    // Entries per SLBLOCK (0 = as many as a block holds: ANSI 681, Unicode 340). More subnodes than
    // that go into several SLBLOCKs under one SIBLOCK.
    size_t subnode_fanout = 0;
    // Data bytes per leaf data block and child ids per XBLOCK (0 = the store's limits, 8176/8180 and
    // 1021/1019). The store computes offsets from its limits, so other values make trees it reads
    // wrongly: a damage knob, not a layout choice.
    size_t leaf_size = 0;
    size_t xblock_fanout = 0;

    // Header fields (nullopt: the layout's normal value).
    std::optional<uint16_t> version;      // wVer: 14 ANSI, 23 Unicode
    std::optional<uint8_t> crypt_method;  // bCryptMethod written instead of `encoding`
    std::optional<uint32_t> magic;        // dwMagic, normally "!BDN"
    std::optional<uint64_t> file_eof;     // ibFileEof, normally the image size
    uint64_t first_block_id = 0x100;      // ids are handed out from here, 4 apart
    uint64_t first_page_id = 0x1000;
};

// Where the writer put things. Offsets are file offsets into PstImage::bytes.
struct PstBlockRecord {
    enum class Kind { kData, kXBlock, kXXBlock, kSLBlock, kSIBlock, kRaw };
    Kind kind = Kind::kData;
    uint64_t id = 0;
    uint64_t address = 0;
    uint16_t size = 0;     // cb: data bytes before padding
    size_t span = 0;       // size + padding + trailer, a multiple of 64
    size_t trailer = 0;    // offset of the trailer
    size_t bbt_entry = 0;  // offset of this block's BBT leaf entry
};

struct PstPageRecord {
    bool nbt = false;   // node B-tree page, else block B-tree page
    uint8_t level = 0;  // cLevel
    uint64_t id = 0;
    uint64_t address = 0;
    size_t entries = 0;  // cEnt
    std::vector<size_t> entry_offsets;
};

struct PstNodeRecord {
    uint64_t data_bid = 0;  // 0 when the node has no data
    uint64_t subnode_bid = 0;
    size_t nbt_entry = 0;  // offset of the NBT leaf entry
};

struct PstImage {
    PstLayout layout = PstLayout::kUnicode;
    Bytes bytes;
    std::map<uint64_t, PstBlockRecord> blocks;  // by block id
    std::vector<PstPageRecord> pages;           // leaves first, root last, per tree
    std::map<uint32_t, PstNodeRecord> nodes;    // by node id (nodes of the NBT only)
    uint64_t nbt_root_address = 0, nbt_root_id = 0;
    uint64_t bbt_root_address = 0, bbt_root_id = 0;

    const PstBlockRecord& Block(uint64_t id) const { return blocks.at(id); }
    const PstNodeRecord& Node(uint32_t id) const { return nodes.at(id); }
    // The root page of a tree, and every page of it at one level.
    const PstPageRecord& Root(bool nbt) const;
    std::vector<const PstPageRecord*> Pages(bool nbt, uint8_t level) const;

    // Little-endian patching, for damage. Offsets outside the image throw std::out_of_range.
    void Put8(size_t offset, uint8_t value);
    void Put16(size_t offset, uint16_t value);
    void Put32(size_t offset, uint32_t value);
    void Put64(size_t offset, uint64_t value);
    // An id or address in the layout's on-disk width (4 bytes ANSI, 8 Unicode).
    void PutId(size_t offset, uint64_t value);
    uint64_t GetId(size_t offset) const;
    // Writes a page's or block's signature for its address and the id now in its trailer, so that
    // damage to an id reaches the check after the signature.
    void ResignPage(uint64_t address);
    void ResignBlock(uint64_t address, size_t span);
    // Recomputes dwCRCPartial (and dwCRCFull in the Unicode layout) after header damage.
    void FixHeaderCrcs();
    // Cuts the image to `size` bytes (ibFileEof is left alone).
    void Truncate(size_t size);
};

// Lays the described store out. Throws std::invalid_argument for a description it cannot write
// (duplicate node ids, data too large for an XXBLOCK tree, ...).
PstImage WritePst(const PstDescription& description);

// Helpers that tests and fuzz seeds use with the writer.
Bytes ToBytes(std::string_view text);
Bytes PatternBytes(size_t size, uint32_t seed);       // deterministic, every byte value occurs
uint32_t PstCrc(const std::byte* data, size_t size);  // the store's CRC, computed bit by bit
uint16_t PstSignature(uint64_t address, uint64_t id);
// Encodes `data` in place as an external data block of id `id` is stored under `encoding`.
void EncodeBlockData(Bytes& data, PstEncoding encoding, uint64_t id);
// Writes `bytes` to the file at `path`, replacing it; false when they could not all be written.
bool SaveFile(const std::string& path, const Bytes& bytes);

// A file holding `bytes`, removed when the object goes. path() is what open_database takes.
class TempPstFile {
  public:
    explicit TempPstFile(const Bytes& bytes);
    ~TempPstFile();
    TempPstFile(const TempPstFile&) = delete;
    TempPstFile& operator=(const TempPstFile&) = delete;
    const std::string& native_path() const { return path_; }
    std::u16string path() const;

  private:
    std::string path_;
};

}  // namespace tarn::fixture

#endif  // TARN_TESTS_SUPPORT_PST_WRITER_H_
