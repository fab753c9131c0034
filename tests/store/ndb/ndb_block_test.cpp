// Blocks and data trees: trailer checks, the three encodings, XBLOCK and XXBLOCK streams, reads by
// offset and by page.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

#include "store/ndb/crypt_tables.h"
#include "store/ndb/database.h"
#include "store/ndb/encoding.h"
#include "store/ndb/format.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace {

using tarn::testing::MessageOf;

using namespace tarn::ndb;
using namespace tarn::fixture;
namespace fmt = tarn::ndb::format;

size_t MaxData(PstLayout layout) { return layout == PstLayout::kAnsi ? 8180 : 8176; }

const char* Name(PstLayout layout) { return layout == PstLayout::kAnsi ? "ANSI" : "Unicode"; }

TEST(NdbBlock, DataTreesOfEverySizeReadBackUnderEveryEncoding) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        const size_t max = MaxData(layout);
        for (PstEncoding encoding : {PstEncoding::kNone, PstEncoding::kPermute, PstEncoding::kCyclic}) {
            PstDescription d;
            d.layout = layout;
            d.encoding = encoding;
            const std::vector<size_t> sizes = {1, 100, max, max + 1, 20000, 3 * max + 5};
            for (size_t i = 0; i < sizes.size(); ++i)
                d.nodes.push_back({.id = static_cast<uint32_t>(0x24 + 0x20 * i),
                                   .data = PatternBytes(sizes[i], static_cast<uint32_t>(i))});
            const PstImage image = WritePst(d);
            TempPstFile file(image.bytes);
            auto db = open_database(file.path());
            for (const PstNode& want : d.nodes) {
                SCOPED_TRACE(std::string(Name(layout)) + " encoding " + std::to_string(int(encoding)) +
                             " size " + std::to_string(want.data.size()));
                node n = db->lookup_node(want.id);
                ASSERT_EQ(n.size(), want.data.size());
                Bytes got(n.size());
                EXPECT_EQ(n.read(got, 0), got.size());
                EXPECT_EQ(got, want.data);
                // One page per leaf block; the pages together are the stream.
                const size_t pages = (want.data.size() + max - 1) / max;
                EXPECT_EQ(n.get_page_count(), pages);
                size_t at = 0;
                for (size_t p = 0; p < pages; ++p) {
                    const size_t page_size = n.get_page_size(p);
                    EXPECT_EQ(page_size, std::min(max, want.data.size() - at));
                    Bytes part(page_size);
                    EXPECT_EQ(n.read(part, p, 0), page_size);
                    EXPECT_TRUE(std::equal(part.begin(), part.end(),
                                           want.data.begin() + static_cast<std::ptrdiff_t>(at)));
                    at += page_size;
                }
                // The last byte reads; one past it is the end.
                EXPECT_EQ(n.read<uint8_t>(want.data.size() - 1), std::to_integer<uint8_t>(want.data.back()));
                Bytes one(1);
                EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read(one, want.data.size()); }),
                          "offset >= size()");
            }
        }
    }
}

TEST(NdbBlock, ReadsCrossLeavesAndClampAtTheEnd) {
    PstDescription d;
    const Bytes data = PatternBytes(20000, 3);
    d.nodes.push_back({.id = 0x24, .data = data});
    const PstImage image = WritePst(d);
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    node n = db->lookup_node(0x24);
    EXPECT_EQ(n.get_page_count(), 3u);  // a 20000-byte level-1 tree

    // 10 bytes before the end of the first leaf, 100 asked: 10 from it and 90 from the next.
    Bytes across(100);
    EXPECT_EQ(n.read(across, 8176 - 10), 100u);
    EXPECT_TRUE(std::equal(across.begin(), across.end(), data.begin() + 8166));

    // Near the end the read is short; read_raw past the end clamps the same way.
    Bytes tail(100);
    EXPECT_EQ(n.read(tail, 19950), 50u);
    EXPECT_TRUE(std::equal(tail.begin(), tail.begin() + 50, data.begin() + 19950));
    EXPECT_EQ(n.get_data_block()->read_raw(tail.data(), 100, 19990), 10u);
    EXPECT_EQ(n.get_data_block()->read_raw(tail.data(), 100, 20000), 0u);

    // Typed reads: an exact fit at the end is read, one byte more is refused.
    EXPECT_EQ(n.read<uint32_t>(19996), tarn::LoadLe32(data.data() + 19996));
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read<uint32_t>(19997); }), "sizeof(T) + offset >= size()");
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read<uint32_t>(20000); }), "offset >= size()");
    // A typed read inside one page: 2 bytes at the last two bytes of page 2 fit, at the last one not.
    EXPECT_EQ(n.read<uint16_t>(2, 20000 - 2 * 8176 - 2), tarn::LoadLe16(data.data() + 19998));
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read<uint16_t>(2, 20000 - 2 * 8176 - 1); }),
              "sizeof(T) + offset >= size()");
    // A page read starting past the page's end.
    Bytes some(4);
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read(some, 0, 8176); }), "offset >= size()");
    Bytes empty;
    EXPECT_EQ(n.read(empty, 0, 9999), 0u);  // an empty buffer reads nothing
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.get_data_block()->get_page(3); }),
              "index >= m_child_blocks.size()");
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.get_data_block()->get_page(0).get_page(1); }),
              "index > 0");
}

TEST(NdbBlock, XxblockTreesReadBack) {
    // Just over what one XBLOCK can list: the writer must make an XXBLOCK over two XBLOCKs.
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        SCOPED_TRACE(Name(layout));
        const size_t level2_child = layout == PstLayout::kAnsi ? 8335420 : 8347696;
        PstDescription d;
        d.layout = layout;
        d.encoding = PstEncoding::kCyclic;
        const Bytes data = PatternBytes(level2_child + 5000, 9);
        d.nodes.push_back({.id = 0x24, .data = data});
        const PstImage image = WritePst(d);
        EXPECT_EQ(image.Block(image.Node(0x24).data_bid).kind, PstBlockRecord::Kind::kXXBlock);
        TempPstFile file(image.bytes);
        auto db = open_database(file.path());
        node n = db->lookup_node(0x24);
        ASSERT_EQ(n.size(), data.size());
        Bytes got(data.size());
        EXPECT_EQ(n.read(got, 0), data.size());
        EXPECT_TRUE(got == data);
        const size_t max = MaxData(layout);
        EXPECT_EQ(n.get_page_count(), (data.size() + max - 1) / max);
        // The first page of the second XBLOCK.
        const size_t page = level2_child / max;
        Bytes part(n.get_page_size(page));
        EXPECT_EQ(n.read(part, page, 0), part.size());
        EXPECT_TRUE(
            std::equal(part.begin(), part.end(), data.begin() + static_cast<std::ptrdiff_t>(level2_child)));
    }
}

TEST(NdbBlock, BlockSizeLimitsAndEndOfFile) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        SCOPED_TRACE(Name(layout));
        const size_t max = MaxData(layout);
        PstDescription d;
        d.layout = layout;
        d.raw_blocks.push_back({.id = 0x10000, .data = PatternBytes(max, 1)});
        d.raw_blocks.push_back({.id = 0x10004, .data = PatternBytes(max + 1, 2)});
        d.nodes.push_back({.id = 0x24, .data_bid = 0x10000});
        d.nodes.push_back({.id = 0x44, .data_bid = 0x10004});
        const PstImage image = WritePst(d);
        TempPstFile file(image.bytes);
        auto db = open_database(file.path());
        EXPECT_EQ(db->lookup_node(0x24).size(), max);  // span exactly 8192
        EXPECT_EQ(MessageOf<unexpected_block>([&] { db->lookup_node(0x44).size(); }),
                  "nonsensical block size");

        // A block whose span ends exactly at ibFileEof reads; one byte less of file fails.
        const PstBlockRecord& rec = image.Block(0x10000);
        const auto& h = layout == PstLayout::kAnsi ? fmt::kAnsiHeader : fmt::kUnicodeHeader;
        for (uint64_t eof : {rec.address + rec.span, rec.address + rec.span - 1}) {
            PstImage cut = image;
            cut.PutId(h.file_eof, eof);
            cut.FixHeaderCrcs();
            TempPstFile cut_file(cut.bytes);
            auto cut_db = open_database(cut_file.path());
            const block_info info{rec.id, rec.address, rec.size, 1};
            if (eof == rec.address + rec.span) {
                EXPECT_EQ(cut_db->read_external_block(cut_db, info)->get_total_size(), max);
            } else {
                EXPECT_EQ(MessageOf<unexpected_block>([&] { cut_db->read_external_block(cut_db, info); }),
                          "nonsensical block location; past eof");
            }
        }
    }
}

TEST(NdbBlock, TrailerDamageFailsWithItsMessage) {
    struct Case {
        const char* name;
        std::function<void(PstImage&, const PstBlockRecord&)> damage;
        const char* message;
    };
    const Case cases[] = {
        {"trailer id",
         [](PstImage& im, const PstBlockRecord& b) {
             im.PutId(b.trailer + (im.layout == PstLayout::kAnsi ? 4 : 8), b.id + 4);
         },
         "wrong block id"},
        {"trailer cb", [](PstImage& im, const PstBlockRecord& b) { im.Put16(b.trailer, b.size - 1); },
         "wrong block size"},
        {"bbt cb",
         [](PstImage& im, const PstBlockRecord& b) {
             im.Put16(b.bbt_entry + 2 * (im.layout == PstLayout::kAnsi ? 4 : 8), b.size + 1);
             for (const auto& p : im.pages) im.ResignPage(p.address);
         },
         "wrong block size"},
        {"signature", [](PstImage& im, const PstBlockRecord& b) { im.Put16(b.trailer + 2, 0x4242); },
         "block sig mismatch"},
        {"address past eof",
         [](PstImage& im, const PstBlockRecord& b) {
             im.PutId(b.bbt_entry + (im.layout == PstLayout::kAnsi ? 4 : 8), im.bytes.size());
         },
         "nonsensical block location; past eof"},
        {"wrong crc is fine",
         [](PstImage& im, const PstBlockRecord& b) {
             im.Put32(b.trailer + (im.layout == PstLayout::kAnsi ? 8 : 4), 0xDEADBEEF);
         },
         "(no error)"},
    };
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + " " + Name(layout));
            PstDescription d;
            d.layout = layout;
            d.nodes.push_back({.id = 0x24, .data = PatternBytes(300, 5)});
            PstImage image = WritePst(d);
            const PstBlockRecord rec = image.Block(image.Node(0x24).data_bid);
            c.damage(image, rec);
            // Damage to a BBT entry must reach the block check, not the page's signature.
            for (const auto& p : image.pages) image.ResignPage(p.address);
            TempPstFile file(image.bytes);
            auto db = open_database(file.path());
            EXPECT_EQ(MessageOf<std::exception>([&] { db->lookup_node(0x24).size(); }), c.message);
        }
    }
}

TEST(NdbBlock, EncodingsDecodeAsPublished) {
    // The same stored bytes 00..0f under each method: permutation decodes through mpbbI; the cyclic
    // method depends on the block id; unknown methods pass bytes through.
    Bytes stored(16);
    for (size_t i = 0; i < 16; ++i) stored[i] = std::byte(i);
    const uint8_t permute[16] = {0x47, 0xf1, 0xb4, 0xe6, 0x0b, 0x6a, 0x72, 0x48,
                                 0x85, 0x4e, 0x9e, 0xeb, 0xe2, 0xf8, 0x94, 0x53};
    const uint8_t cyclic_64[16] = {0xd2, 0xba, 0x93, 0xcd, 0x08, 0xad, 0x02, 0x46,
                                   0xa1, 0xb6, 0xe9, 0x1a, 0xb4, 0x79, 0x18, 0x8a};
    struct Case {
        uint8_t method;
        uint64_t id;
        const uint8_t* expected;  // null: the stored bytes
    };
    const Case cases[] = {{0, 0x64, nullptr},
                          {1, 0x64, permute},
                          {2, 0x64, cyclic_64},
                          {0x10, 0x64, nullptr},
                          {7, 0x64, nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE("method " + std::to_string(c.method));
        PstDescription d;
        d.crypt_method = c.method;
        d.raw_blocks.push_back({.id = c.id, .data = stored});
        d.nodes.push_back({.id = 0x24, .data_bid = c.id});
        TempPstFile file(WritePst(d).bytes);
        auto db = open_database(file.path());
        Bytes got(16);
        db->lookup_node(0x24).read(got, 0);
        for (size_t i = 0; i < 16; ++i)
            EXPECT_EQ(std::to_integer<uint8_t>(got[i]), c.expected ? c.expected[i] : i) << i;
    }
    // Cyclic: the same bytes under another id decode differently.
    PstDescription d;
    d.encoding = PstEncoding::kCyclic;
    d.raw_blocks.push_back({.id = 0x64, .data = stored});
    d.raw_blocks.push_back({.id = 0x12345678, .data = stored});
    d.nodes.push_back({.id = 0x24, .data_bid = 0x64});
    d.nodes.push_back({.id = 0x44, .data_bid = 0x12345678});
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    Bytes a(16), b(16);
    db->lookup_node(0x24).read(a, 0);
    db->lookup_node(0x44).read(b, 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(std::to_integer<uint8_t>(b[0]), 0xe4);  // the published vector for key 0x12345678
}

TEST(NdbBlock, DecodingUndoesTheWritersEncodingAtEveryOffsetAndLength) {
    // Decoding works a word at a time with a byte tail, so every start and length around a word matters;
    // the writer's encoding (a byte at a time, from the published tables) is the model. The cyclic key
    // 0xFFFC makes the running key wrap inside the first word.
    Bytes original = PatternBytes(96, 7);
    struct Case {
        PstEncoding encoding;
        uint64_t id;
    };
    const Case cases[] = {{PstEncoding::kPermute, 0x64},
                          {PstEncoding::kCyclic, 0x64},
                          {PstEncoding::kCyclic, 0x12345678},
                          {PstEncoding::kCyclic, 0xFFFC}};
    for (const Case& c : cases) {
        for (size_t offset = 0; offset <= 16; ++offset) {
            for (size_t length = 0; offset + length <= original.size(); ++length) {
                SCOPED_TRACE("encoding " + std::to_string(int(c.encoding)) + " id " + std::to_string(c.id) +
                             " offset " + std::to_string(offset) + " length " + std::to_string(length));
                Bytes part(original.begin() + offset, original.begin() + offset + length);
                EncodeBlockData(part, c.encoding, c.id);
                Bytes buffer = original;
                std::copy(part.begin(), part.end(), buffer.begin() + offset);
                decode_block_data(std::span(buffer).subspan(offset, length), static_cast<uint8_t>(c.encoding),
                                  c.id);
                ASSERT_EQ(buffer, original);  // the span decoded, and nothing beside it touched
            }
        }
    }
}

TEST(NdbBlock, BlockKindsAreChecked) {
    PstDescription d;
    d.nodes.push_back(
        {.id = 0x24, .data = PatternBytes(100, 1), .subnodes = {{.id = 0x1, .data = PatternBytes(5, 2)}}});
    d.nodes.push_back({.id = 0x44, .data = PatternBytes(20000, 3)});
    const PstImage image = WritePst(d);
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    const block_id external = image.Node(0x24).data_bid;
    const block_id subnode = image.Node(0x24).subnode_bid;
    const block_id xblock = image.Node(0x44).data_bid;
    EXPECT_EQ(MessageOf<unexpected_block>([&] { db->read_extended_block(db, external); }),
              "internal bid expected");
    EXPECT_EQ(MessageOf<unexpected_block>([&] { db->read_external_block(db, xblock); }),
              "External BID expected");
    EXPECT_EQ(MessageOf<unexpected_block>([&] { db->read_data_block(db, subnode); }),
              "extended block expected");
    // read_block falls back to a subnode block for an internal block that is not extended.
    EXPECT_NE(std::dynamic_pointer_cast<subnode_leaf_block>(db->read_block(db, subnode)), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<extended_block>(db->read_block(db, xblock)), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<external_block>(db->read_block(db, external)), nullptr);
    EXPECT_FALSE(db->read_block(db, external)->is_internal());
    EXPECT_TRUE(db->read_block(db, xblock)->is_internal());
}

TEST(NdbBlock, EmptyDataReadsAsAnEmptyStream) {
    PstDescription d;
    d.nodes.push_back({.id = 0x24});
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    node n = db->lookup_node(0x24);
    EXPECT_EQ(n.get_data_id(), 0u);
    EXPECT_EQ(n.size(), 0u);
    EXPECT_EQ(n.get_page_count(), 1u);
    EXPECT_EQ(n.get_page_size(0), 0u);
    Bytes buffer(1);
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read(buffer, 0); }), "offset >= size()");
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { n.read(buffer, 0, 0); }), "offset >= size()");
    Bytes empty;
    EXPECT_EQ(n.read(empty, 0), 0u);
}

}  // namespace
