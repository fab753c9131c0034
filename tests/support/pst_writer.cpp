// The PST fixture writer (see pst_writer.h). Everything here is written from the format's own rules;
// only constants and the published byte tables come from the store's headers.
#include "tests/support/pst_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "common/signatures.h"
#include "platform/unicode.h"
#include "store/ndb/crypt_tables.h"
#include "store/ndb/format.h"

namespace tarn::fixture {

namespace fmt = tarn::ndb::format;

namespace {

// Little-endian stores into a growing image.
void PutLe(Bytes& bytes, size_t offset, uint64_t value, size_t width) {
    if (offset > bytes.size() || width > bytes.size() - offset)
        throw std::out_of_range("fixture write past image");
    for (size_t i = 0; i < width; ++i) bytes[offset + i] = static_cast<std::byte>((value >> (8 * i)) & 0xFF);
}

uint64_t GetLe(const Bytes& bytes, size_t offset, size_t width) {
    if (offset > bytes.size() || width > bytes.size() - offset)
        throw std::out_of_range("fixture read past image");
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value |= std::to_integer<uint64_t>(bytes[offset + i]) << (8 * i);
    return value;
}

size_t RoundUp(size_t value, size_t unit) { return (value + unit - 1) / unit * unit; }

struct Geometry {
    const fmt::HeaderLayout& header;
    const fmt::PageLayout& page;
    const fmt::BlockLayout& block;
    size_t w;  // on-disk id width
};

Geometry GeometryOf(PstLayout layout) {
    if (layout == PstLayout::kAnsi) return {fmt::kAnsiHeader, fmt::kAnsiPage, fmt::kAnsiBlock, 4};
    return {fmt::kUnicodeHeader, fmt::kUnicodePage, fmt::kUnicodeBlock, 8};
}

struct PendingBlock {
    PstBlockRecord::Kind kind;
    uint64_t id;
    Bytes data;
    bool encode;
};

struct PageRef {
    uint64_t id;
    uint64_t address;
};

struct SubnodeEntry {
    uint32_t id;
    uint64_t data_bid;
    uint64_t subnode_bid;
};

class Writer {
  public:
    explicit Writer(const PstDescription& d)
        : d_(d),
          g_(GeometryOf(d.layout)),
          next_bid_(d.first_block_id & ~uint64_t{3}),
          next_page_id_(d.first_page_id) {
        leaf_size_ = d.leaf_size ? d.leaf_size : g_.block.max_data;
        xfan_ = d.xblock_fanout ? d.xblock_fanout : g_.block.max_children;
        const size_t block_room = g_.block.max_data;
        sl_fan_ = d.subnode_fanout ? d.subnode_fanout
                                   : (block_room - g_.block.subnode_header) / g_.block.subnode_leaf_entry;
        si_fan_ = (block_room - g_.block.subnode_header) / g_.block.subnode_nonleaf_entry;
    }

    PstImage Run() {
        image_.layout = d_.layout;
        // Nodes in id order, each with its data and subnode trees.
        std::vector<const PstNode*> nodes;
        std::set<uint32_t> seen;
        for (const PstNode& n : d_.nodes) {
            if (!seen.insert(n.id).second)
                throw std::invalid_argument("duplicate node id in PST description");
            nodes.push_back(&n);
        }
        std::sort(nodes.begin(), nodes.end(),
                  [](const PstNode* a, const PstNode* b) { return a->id < b->id; });
        std::vector<PstNodeRecord> records;
        for (const PstNode* n : nodes) {
            PstNodeRecord r;
            r.data_bid = n->data_bid ? *n->data_bid : WriteDataTree(n->data);
            r.subnode_bid = n->subnode_bid ? *n->subnode_bid : WriteSubnodeTree(n->subnodes);
            records.push_back(r);
        }
        for (const PstRawBlock& raw : d_.raw_blocks)
            pending_.push_back({PstBlockRecord::Kind::kRaw, raw.id, raw.data, raw.encode});

        const size_t header_size =
            d_.layout == PstLayout::kAnsi ? fmt::kAnsiHeader.size : fmt::kUnicodeHeaderOnDisk;
        image_.bytes.assign(RoundUp(header_size, fmt::kBlockAlignment), std::byte{0});
        LayOutBlocks();

        // Block B-tree over every block, node B-tree over every node.
        std::vector<uint64_t> bbt_keys;
        for (const auto& [id, rec] : image_.blocks) bbt_keys.push_back(id);
        std::vector<uint64_t> nbt_keys;
        for (const PstNode* n : nodes) nbt_keys.push_back(n->id);

        PadTo(fmt::kPageSize);
        const auto bbt_root = WriteTree(false, bbt_keys, [&](size_t i, Bytes& page, size_t at) {
            const PstBlockRecord& rec = image_.blocks.at(bbt_keys[i]);
            PutLe(page, at, rec.id, g_.w);
            PutLe(page, at + g_.w, rec.address, g_.w);
            PutLe(page, at + 2 * g_.w, rec.size, 2);
            PutLe(page, at + 2 * g_.w + 2, 1, 2);
        });
        const auto nbt_root = WriteTree(true, nbt_keys, [&](size_t i, Bytes& page, size_t at) {
            PutLe(page, at, nodes[i]->id, g_.w);
            PutLe(page, at + g_.w, records[i].data_bid, g_.w);
            PutLe(page, at + 2 * g_.w, records[i].subnode_bid, g_.w);
            PutLe(page, at + 3 * g_.w, nodes[i]->parent, 4);
        });
        // Entry offsets are known once the pages are placed.
        for (const PstPageRecord& p : image_.pages) {
            if (p.level != 0) continue;
            for (size_t e = 0; e < p.entries; ++e) {
                const uint64_t key = GetLe(image_.bytes, p.entry_offsets[e], g_.w);
                if (p.nbt) {
                    for (size_t i = 0; i < nodes.size(); ++i)
                        if (nodes[i]->id == static_cast<uint32_t>(key))
                            records[i].nbt_entry = p.entry_offsets[e];
                } else {
                    image_.blocks.at(key).bbt_entry = p.entry_offsets[e];
                }
            }
        }
        for (size_t i = 0; i < nodes.size(); ++i) image_.nodes[nodes[i]->id] = records[i];
        image_.bbt_root_id = bbt_root.id;
        image_.bbt_root_address = bbt_root.address;
        image_.nbt_root_id = nbt_root.id;
        image_.nbt_root_address = nbt_root.address;
        WriteHeader();
        return std::move(image_);
    }

  private:
    uint64_t NewBid(bool internal) {
        const uint64_t id = next_bid_ | (internal ? fmt::kInternalBlockBit : 0);
        next_bid_ += 4;
        return id;
    }

    uint64_t AddBlock(PstBlockRecord::Kind kind, Bytes data, bool encode) {
        const bool internal = kind != PstBlockRecord::Kind::kData;
        if (data.size() > fmt::kMaxBlockSpan - g_.block.trailer_size)
            throw std::invalid_argument("fixture block larger than a block can hold");
        const uint64_t id = NewBid(internal);
        pending_.push_back({kind, id, std::move(data), encode});
        return id;
    }

    uint64_t WriteDataTree(const Bytes& data) {
        if (data.empty()) return 0;
        if (data.size() <= leaf_size_) return AddBlock(PstBlockRecord::Kind::kData, data, true);
        std::vector<std::pair<uint64_t, size_t>> leaves;  // id, size
        for (size_t at = 0; at < data.size(); at += leaf_size_) {
            const size_t n = std::min(leaf_size_, data.size() - at);
            leaves.emplace_back(
                AddBlock(PstBlockRecord::Kind::kData, Bytes(data.begin() + at, data.begin() + at + n), true),
                n);
        }
        if (leaves.size() <= xfan_) return AddExtended(1, leaves);
        std::vector<std::pair<uint64_t, size_t>> middles;
        for (size_t at = 0; at < leaves.size(); at += xfan_) {
            std::vector<std::pair<uint64_t, size_t>> part(
                leaves.begin() + at, leaves.begin() + std::min(at + xfan_, leaves.size()));
            size_t total = 0;
            for (const auto& p : part) total += p.second;
            middles.emplace_back(AddExtended(1, part), total);
        }
        if (middles.size() > xfan_) throw std::invalid_argument("fixture data too large for an XXBLOCK tree");
        return AddExtended(2, middles);
    }

    uint64_t AddExtended(uint8_t level, const std::vector<std::pair<uint64_t, size_t>>& children) {
        size_t total = 0;
        for (const auto& c : children) total += c.second;
        Bytes b(g_.block.extended_header + children.size() * g_.w);
        PutLe(b, 0, fmt::kBlockTypeExtended, 1);
        PutLe(b, 1, level, 1);
        PutLe(b, 2, children.size(), 2);
        PutLe(b, 4, total, 4);
        for (size_t i = 0; i < children.size(); ++i)
            PutLe(b, g_.block.extended_header + i * g_.w, children[i].first, g_.w);
        return AddBlock(level == 1 ? PstBlockRecord::Kind::kXBlock : PstBlockRecord::Kind::kXXBlock,
                        std::move(b), false);
    }

    uint64_t WriteSubnodeTree(const std::vector<PstSubnode>& subnodes) {
        if (subnodes.empty()) return 0;
        std::vector<const PstSubnode*> sorted;
        for (const PstSubnode& s : subnodes) sorted.push_back(&s);
        std::sort(sorted.begin(), sorted.end(),
                  [](const PstSubnode* a, const PstSubnode* b) { return a->id < b->id; });
        std::vector<SubnodeEntry> entries;
        for (const PstSubnode* s : sorted) {
            SubnodeEntry e{s->id, 0, 0};
            e.data_bid = s->data_bid ? *s->data_bid : WriteDataTree(s->data);
            e.subnode_bid = s->subnode_bid ? *s->subnode_bid : WriteSubnodeTree(s->subnodes);
            entries.push_back(e);
        }
        if (entries.size() <= sl_fan_) return AddSubnodeLeaf(entries, 0, entries.size());
        std::vector<std::pair<uint32_t, uint64_t>> leaves;
        for (size_t at = 0; at < entries.size(); at += sl_fan_) {
            const size_t end = std::min(at + sl_fan_, entries.size());
            leaves.emplace_back(entries[at].id, AddSubnodeLeaf(entries, at, end));
        }
        if (leaves.size() > si_fan_)
            throw std::invalid_argument("fixture subnode list too long for two levels");
        Bytes b(g_.block.subnode_header + leaves.size() * g_.block.subnode_nonleaf_entry);
        PutLe(b, 0, fmt::kBlockTypeSubnode, 1);
        PutLe(b, 1, 1, 1);
        PutLe(b, 2, leaves.size(), 2);
        for (size_t i = 0; i < leaves.size(); ++i) {
            const size_t at = g_.block.subnode_header + i * g_.block.subnode_nonleaf_entry;
            PutLe(b, at, leaves[i].first, g_.w);
            PutLe(b, at + g_.w, leaves[i].second, g_.w);
        }
        return AddBlock(PstBlockRecord::Kind::kSIBlock, std::move(b), false);
    }

    uint64_t AddSubnodeLeaf(const std::vector<SubnodeEntry>& entries, size_t begin, size_t end) {
        Bytes b(g_.block.subnode_header + (end - begin) * g_.block.subnode_leaf_entry);
        PutLe(b, 0, fmt::kBlockTypeSubnode, 1);
        PutLe(b, 1, 0, 1);
        PutLe(b, 2, end - begin, 2);
        for (size_t i = begin; i < end; ++i) {
            const size_t at = g_.block.subnode_header + (i - begin) * g_.block.subnode_leaf_entry;
            PutLe(b, at, entries[i].id, g_.w);
            PutLe(b, at + g_.w, entries[i].data_bid, g_.w);
            PutLe(b, at + 2 * g_.w, entries[i].subnode_bid, g_.w);
        }
        return AddBlock(PstBlockRecord::Kind::kSLBlock, std::move(b), false);
    }

    void PadTo(size_t unit) { image_.bytes.resize(RoundUp(image_.bytes.size(), unit), std::byte{0}); }

    void LayOutBlocks() {
        for (PendingBlock& p : pending_) {
            if (image_.blocks.count(p.id) != 0)
                throw std::invalid_argument("duplicate block id in PST description");
            PstBlockRecord rec;
            rec.kind = p.kind;
            rec.id = p.id;
            rec.address = image_.bytes.size();
            rec.size = static_cast<uint16_t>(p.data.size());
            rec.span = RoundUp(p.data.size() + g_.block.trailer_size, fmt::kBlockAlignment);
            rec.trailer = rec.address + rec.span - g_.block.trailer_size;
            Bytes stored = p.data;
            if (p.encode) EncodeBlockData(stored, d_.encoding, p.id);
            image_.bytes.resize(rec.address + rec.span, std::byte{0});
            std::copy(stored.begin(), stored.end(),
                      image_.bytes.begin() + static_cast<std::ptrdiff_t>(rec.address));
            PutLe(image_.bytes, rec.trailer + g_.block.trailer_cb, rec.size, 2);
            PutLe(image_.bytes, rec.trailer + g_.block.trailer_signature, PstSignature(rec.address, rec.id),
                  2);
            PutLe(image_.bytes, rec.trailer + g_.block.trailer_crc, PstCrc(stored.data(), stored.size()), 4);
            PutLe(image_.bytes, rec.trailer + g_.block.trailer_id, rec.id, g_.w);
            image_.blocks[p.id] = rec;
        }
    }

    // Writes one B-tree bottom up: leaves of `fill`ed entries, then intermediate levels until one
    // page remains. Returns the root's id and address.
    template <typename Fill>
    PageRef WriteTree(bool nbt, const std::vector<uint64_t>& keys, Fill fill) {
        const size_t leaf_entry = nbt ? g_.page.nbt_leaf_entry : g_.page.bbt_leaf_entry;
        const size_t leaf_room = g_.page.entries_size / leaf_entry;
        const size_t nonleaf_room = g_.page.entries_size / g_.page.nonleaf_entry;
        const size_t option = nbt ? d_.nbt_fanout : d_.bbt_fanout;
        const size_t leaf_fan = option ? std::min(option, leaf_room) : leaf_room;
        const size_t nonleaf_fan = option ? std::min(option, nonleaf_room) : nonleaf_room;
        if (leaf_fan == 0 || nonleaf_fan < 2) throw std::invalid_argument("fixture B-tree fan-out too small");

        // (first key, page) of every page of the level just written.
        std::vector<std::pair<uint64_t, PageRef>> level;
        size_t at = 0;
        do {
            const size_t end = std::min(at + leaf_fan, keys.size());
            Bytes page(fmt::kPageSize);
            std::vector<size_t> offsets;
            for (size_t i = at; i < end; ++i) {
                fill(i, page, (i - at) * leaf_entry);
                offsets.push_back((i - at) * leaf_entry);
            }
            level.emplace_back(at < keys.size() ? keys[at] : 0,
                               PlacePage(nbt, 0, end - at, leaf_room, leaf_entry, page, offsets));
            at = end;
        } while (at < keys.size());

        for (uint8_t depth = 1; level.size() > 1; ++depth) {
            std::vector<std::pair<uint64_t, PageRef>> upper;
            for (size_t i = 0; i < level.size(); i += nonleaf_fan) {
                const size_t end = std::min(i + nonleaf_fan, level.size());
                Bytes page(fmt::kPageSize);
                std::vector<size_t> offsets;
                for (size_t c = i; c < end; ++c) {
                    const size_t e = (c - i) * g_.page.nonleaf_entry;
                    PutLe(page, e, level[c].first, g_.w);
                    PutLe(page, e + g_.w, level[c].second.id, g_.w);
                    PutLe(page, e + 2 * g_.w, level[c].second.address, g_.w);
                    offsets.push_back(e);
                }
                upper.emplace_back(level[i].first, PlacePage(nbt, depth, end - i, nonleaf_room,
                                                             g_.page.nonleaf_entry, page, offsets));
            }
            level = std::move(upper);
        }
        return level.front().second;
    }

    PageRef PlacePage(bool nbt, uint8_t level, size_t count, size_t room, size_t entry_size, Bytes& page,
                      const std::vector<size_t>& offsets) {
        const uint64_t id = next_page_id_++;
        const uint64_t address = image_.bytes.size();
        PutLe(page, g_.page.c_ent, count, 1);
        PutLe(page, g_.page.c_ent + 1, room, 1);
        PutLe(page, g_.page.c_ent + 2, entry_size, 1);
        PutLe(page, g_.page.c_level, level, 1);
        const uint8_t ptype = nbt ? fmt::kPageTypeNbt : fmt::kPageTypeBbt;
        PutLe(page, g_.page.ptype, ptype, 1);
        PutLe(page, g_.page.ptype_repeat, ptype, 1);
        PutLe(page, g_.page.signature, PstSignature(address, id), 2);
        PutLe(page, g_.page.crc, PstCrc(page.data(), g_.page.entries_size), 4);
        PutLe(page, g_.page.page_id, id, g_.w);
        image_.bytes.insert(image_.bytes.end(), page.begin(), page.end());
        PstPageRecord rec;
        rec.nbt = nbt;
        rec.level = level;
        rec.id = id;
        rec.address = address;
        rec.entries = count;
        for (size_t o : offsets) rec.entry_offsets.push_back(address + o);
        image_.pages.push_back(std::move(rec));
        return {id, address};
    }

    void WriteHeader() {
        Bytes& b = image_.bytes;
        const auto& h = g_.header;
        const bool ansi = d_.layout == PstLayout::kAnsi;
        PutLe(b, fmt::kMagicOffset, d_.magic ? *d_.magic : kPstSignatureWord, 4);
        PutLe(b, fmt::kMagicClientOffset, 0x4D53, 2);  // "SM"
        PutLe(b, fmt::kVersionOffset, d_.version ? *d_.version : (ansi ? 14 : 23), 2);
        PutLe(b, 12, 19, 2);  // wVerClient
        PutLe(b, 14, 1, 1);   // bPlatformCreate
        PutLe(b, 15, 1, 1);   // bPlatformAccess
        PutLe(b, h.bid_next_b, next_bid_, g_.w);
        PutLe(b, ansi ? 28 : 32, next_page_id_, g_.w);  // bidNextP
        PutLe(b, h.file_eof, d_.file_eof ? *d_.file_eof : b.size(), g_.w);
        PutLe(b, h.root_nbt, image_.nbt_root_id, g_.w);
        PutLe(b, h.root_nbt + g_.w, image_.nbt_root_address, g_.w);
        PutLe(b, h.root_bbt, image_.bbt_root_id, g_.w);
        PutLe(b, h.root_bbt + g_.w, image_.bbt_root_address, g_.w);
        PutLe(b, h.crypt_method - 1, 0x80, 1);  // bSentinel
        PutLe(b, h.crypt_method, d_.crypt_method ? *d_.crypt_method : static_cast<uint8_t>(d_.encoding), 1);
        image_.FixHeaderCrcs();
    }

    const PstDescription& d_;
    Geometry g_;
    uint64_t next_bid_;
    uint64_t next_page_id_;
    size_t leaf_size_, xfan_, sl_fan_, si_fan_;
    std::vector<PendingBlock> pending_;
    PstImage image_;
};

}  // namespace

const PstPageRecord& PstImage::Root(bool nbt) const {
    for (auto it = pages.rbegin(); it != pages.rend(); ++it)
        if (it->nbt == nbt) return *it;
    throw std::out_of_range("fixture image has no such tree");
}

std::vector<const PstPageRecord*> PstImage::Pages(bool nbt, uint8_t level) const {
    std::vector<const PstPageRecord*> out;
    for (const PstPageRecord& p : pages)
        if (p.nbt == nbt && p.level == level) out.push_back(&p);
    return out;
}

void PstImage::Put8(size_t offset, uint8_t value) { PutLe(bytes, offset, value, 1); }
void PstImage::Put16(size_t offset, uint16_t value) { PutLe(bytes, offset, value, 2); }
void PstImage::Put32(size_t offset, uint32_t value) { PutLe(bytes, offset, value, 4); }
void PstImage::Put64(size_t offset, uint64_t value) { PutLe(bytes, offset, value, 8); }
void PstImage::PutId(size_t offset, uint64_t value) { PutLe(bytes, offset, value, GeometryOf(layout).w); }
uint64_t PstImage::GetId(size_t offset) const { return GetLe(bytes, offset, GeometryOf(layout).w); }

void PstImage::ResignPage(uint64_t address) {
    const Geometry g = GeometryOf(layout);
    const uint64_t id = GetLe(bytes, address + g.page.page_id, g.w);
    PutLe(bytes, address + g.page.signature, PstSignature(address, id), 2);
}

void PstImage::ResignBlock(uint64_t address, size_t span) {
    const Geometry g = GeometryOf(layout);
    const size_t trailer = address + span - g.block.trailer_size;
    const uint64_t id = GetLe(bytes, trailer + g.block.trailer_id, g.w);
    PutLe(bytes, trailer + g.block.trailer_signature, PstSignature(address, id), 2);
}

void PstImage::FixHeaderCrcs() {
    const Geometry g = GeometryOf(layout);
    PutLe(bytes, fmt::kCrcPartialOffset, PstCrc(bytes.data() + fmt::kCrcPartialStart, fmt::kCrcPartialLength),
          4);
    if (g.header.crc_full != 0)
        PutLe(bytes, g.header.crc_full,
              PstCrc(bytes.data() + fmt::kCrcPartialStart, g.header.crc_full_length), 4);
}

void PstImage::Truncate(size_t size) { bytes.resize(std::min(size, bytes.size())); }

PstImage WritePst(const PstDescription& description) { return Writer(description).Run(); }

Bytes ToBytes(std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::byte*>(text.data());
    return Bytes(bytes, bytes + text.size());
}

Bytes PatternBytes(size_t size, uint32_t seed) {
    // A position hash, so that bytes from the wrong offset or the wrong leaf never match by chance.
    Bytes out(size);
    for (size_t i = 0; i < size; ++i) {
        uint32_t x = static_cast<uint32_t>(i) * 2654435761u + seed * 40503u + static_cast<uint32_t>(i >> 32);
        x ^= x >> 15;
        x *= 2246822519u;
        x ^= x >> 13;
        out[i] = static_cast<std::byte>(x >> 24);
    }
    return out;
}

uint32_t PstCrc(const std::byte* data, size_t size) {
    // Bit at a time from the polynomial, deliberately unlike the reader's table.
    uint32_t crc = 0;
    for (size_t i = 0; i < size; ++i) {
        crc ^= std::to_integer<uint32_t>(data[i]);
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc;
}

uint16_t PstSignature(uint64_t address, uint64_t id) {
    const uint32_t x = static_cast<uint32_t>(address ^ id);
    return static_cast<uint16_t>((x & 0xFFFF) ^ (x >> 16));
}

TempPstFile::TempPstFile(const Bytes& bytes) {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-pst-XXXXXX").string();
    const int fd = mkstemp(pattern.data());
    if (fd < 0) throw std::runtime_error("cannot make a temporary PST file");
    close(fd);
    path_ = pattern;
    if (!SaveFile(path_, bytes)) throw std::runtime_error("cannot write a temporary PST file");
}

TempPstFile::~TempPstFile() { std::remove(path_.c_str()); }

std::u16string TempPstFile::path() const { return platform::Utf16FromUtf8(path_); }

bool SaveFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

void EncodeBlockData(Bytes& data, PstEncoding encoding, uint64_t id) {
    using ndb::tables::kMpbbI;
    using ndb::tables::kMpbbR;
    using ndb::tables::kMpbbS;
    if (encoding == PstEncoding::kPermute) {
        for (std::byte& b : data) b = static_cast<std::byte>(kMpbbR[std::to_integer<uint8_t>(b)]);
    } else if (encoding == PstEncoding::kCyclic) {
        // The cyclic method is its own inverse, so encoding runs the same steps as decoding.
        uint32_t key = static_cast<uint32_t>(id);
        uint16_t salt = static_cast<uint16_t>(key ^ (key >> 16));
        for (std::byte& b : data) {
            uint8_t lo = salt & 0xFF, hi = salt >> 8, v = std::to_integer<uint8_t>(b);
            v = static_cast<uint8_t>(
                kMpbbI[static_cast<uint8_t>(
                    kMpbbS[static_cast<uint8_t>(kMpbbR[static_cast<uint8_t>(v + lo)] + hi)] - hi)] -
                lo);
            b = static_cast<std::byte>(v);
            salt = static_cast<uint16_t>(salt + 1);
        }
    }
}

}  // namespace tarn::fixture
