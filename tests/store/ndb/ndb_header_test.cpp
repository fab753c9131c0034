// Opening a store: layout choice by version, header CRCs, what is deliberately not checked, file
// errors.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "common/little_endian.h"
#include "kernel/tarnkrn_control.h"
#include "store/ndb/database.h"
#include "store/ndb/database_impl.h"
#include "store/ndb/format.h"
#include "store/ndb/signature.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace {

using tarn::testing::MessageOf;

using namespace tarn::ndb;
using namespace tarn::fixture;

PstDescription OneNode(PstLayout layout) {
    PstDescription d;
    d.layout = layout;
    d.nodes.push_back({.id = 0x21, .parent = 0, .data = ToBytes("hello, store")});
    return d;
}

bool IsUnicode(const std::shared_ptr<db_context>& db) {
    return dynamic_cast<database_impl<uint64_t>*>(db.get()) != nullptr;
}

TEST(NdbHeader, VersionAloneDecidesTheLayout) {
    // Versions 14 and 15 (and anything below 20) are ANSI; 20 and up Unicode. Each header is written
    // for its own layout, with valid CRCs, so only the version decides.
    struct Case {
        PstLayout layout;
        uint16_t version;
        bool unicode;
    };
    const Case cases[] = {{PstLayout::kAnsi, 14, false},   {PstLayout::kAnsi, 15, false},
                          {PstLayout::kAnsi, 19, false},   {PstLayout::kUnicode, 20, true},
                          {PstLayout::kUnicode, 23, true}, {PstLayout::kUnicode, 0xFFFF, true}};
    for (const Case& c : cases) {
        PstDescription d = OneNode(c.layout);
        d.version = c.version;
        TempPstFile file(WritePst(d).bytes);
        auto db = open_database(file.path());
        EXPECT_EQ(IsUnicode(db), c.unicode) << "wVer " << c.version;
        EXPECT_EQ(db->lookup_node(0x21).size(), 12u);
    }
}

TEST(NdbHeader, VersionWinsOverTheBytes) {
    // A Unicode image labelled 19 is read as ANSI: nothing but the version is asked.
    PstDescription d = OneNode(PstLayout::kUnicode);
    d.version = 19;
    PstImage image = WritePst(d);
    TempPstFile unicode_as_ansi(image.bytes);
    // Both layouts cover bytes 8..478 with dwCRCPartial, so the ANSI attempt accepts the header and
    // then finds no sensible tree: it is the root page that fails, not the open.
    auto db = open_database(unicode_as_ansi.path());
    EXPECT_FALSE(IsUnicode(db));
    EXPECT_THROW(db->read_nbt_root(), database_corrupt);

    // An ANSI image labelled 20 goes to the Unicode attempt, whose full CRC does not match.
    PstDescription a = OneNode(PstLayout::kAnsi);
    a.version = 20;
    TempPstFile ansi_as_unicode(WritePst(a).bytes);
    EXPECT_EQ(MessageOf<crc_fail>([&] { open_database(ansi_as_unicode.path()); }),
              "header dwCRCFull failure");
}

TEST(NdbHeader, CrcFailuresCarryBothValuesAndAreNotRetried) {
    struct Case {
        PstLayout layout;
        size_t damaged_offset;  // inside the partial CRC range, or only inside the full one
        const char* message;
    };
    const Case cases[] = {
        {PstLayout::kAnsi, 100, "header dwCRCPartial failure"},
        {PstLayout::kUnicode, 100, "header dwCRCPartial failure"},
        // Offset 500 lies after the partial range (8..478) and inside the full range (8..523).
        {PstLayout::kUnicode, 500, "header dwCRCFull failure"},
    };
    for (const Case& c : cases) {
        PstImage image = WritePst(OneNode(c.layout));
        image.bytes[c.damaged_offset] ^= std::byte{0x5A};
        TempPstFile file(image.bytes);
        try {
            open_database(file.path());
            ADD_FAILURE() << "opened a damaged header";
        } catch (const crc_fail& e) {
            EXPECT_STREQ(e.what(), c.message);
            EXPECT_EQ(e.location(), 0u);
            EXPECT_EQ(e.id(), 0u);
            EXPECT_NE(e.computed(), e.stored());
            const size_t stored_at = std::string(c.message).find("Full") != std::string::npos ? 524 : 4;
            EXPECT_EQ(e.stored(), tarn::LoadLe32(image.bytes.data() + stored_at));
            const size_t length = stored_at == 524 ? 516 : 471;
            EXPECT_EQ(e.computed(), PstCrc(image.bytes.data() + 8, length));
        }
    }
}

TEST(NdbHeader, AnsiIsTriedFirstAndOnlyTheWrongVersionMovesOn) {
    // Each layout's own check: the other layout's version is "Unexpected Database Format".
    TempPstFile ansi(WritePst(OneNode(PstLayout::kAnsi)).bytes);
    TempPstFile unicode(WritePst(OneNode(PstLayout::kUnicode)).bytes);
    EXPECT_EQ(MessageOf<invalid_format>([&] { database_impl<uint64_t> db(ansi.path()); }),
              "Unexpected Database Format");
    EXPECT_EQ(MessageOf<invalid_format>([&] { database_impl<uint32_t> db(unicode.path()); }),
              "Unexpected Database Format");

    // An ANSI store needs one open of the file; a Unicode store a second one (the file is opened anew
    // for the second attempt), so failing the second open fails only the Unicode store.
    krnctlFailFileOperation(KRNCTL_OPEN, 2);
    EXPECT_FALSE(IsUnicode(open_database(ansi.path())));
    krnctlFailFileOperation(KRNCTL_OPEN, 2);
    EXPECT_EQ(MessageOf<std::runtime_error>([&] { open_database(unicode.path()); }), "fopen failed");

    // A CRC failure of the ANSI attempt is final: no second open is made.
    PstImage damaged = WritePst(OneNode(PstLayout::kAnsi));
    damaged.bytes[40] ^= std::byte{1};
    TempPstFile bad(damaged.bytes);
    krnctlFailFileOperation(KRNCTL_OPEN, 2);
    EXPECT_EQ(MessageOf<crc_fail>([&] { open_database(bad.path()); }), "header dwCRCPartial failure");
    krnctlReset();
}

TEST(NdbHeader, MagicIsNotConsulted) {
    PstDescription d = OneNode(PstLayout::kUnicode);
    d.magic = 0x12345678;
    TempPstFile file(WritePst(d).bytes);
    EXPECT_EQ(open_database(file.path())->lookup_node(0x21).size(), 12u);
}

TEST(NdbHeader, FileErrorsPassThrough) {
    // Shorter than an ANSI header: the read error of the first attempt ends the open.
    PstImage image = WritePst(OneNode(PstLayout::kUnicode));
    for (size_t size : {size_t{0}, size_t{100}, size_t{511}}) {
        image.Truncate(size);
        TempPstFile file(image.bytes);
        EXPECT_EQ(MessageOf<std::out_of_range>([&] { open_database(file.path()); }), "fread failed") << size;
    }
    // 512 bytes of a Unicode header: ANSI says wrong format, the Unicode attempt cannot read 568 bytes.
    PstImage unicode = WritePst(OneNode(PstLayout::kUnicode));
    unicode.Truncate(520);
    TempPstFile short_unicode(unicode.bytes);
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { open_database(short_unicode.path()); }), "fread failed");

    EXPECT_EQ(MessageOf<std::runtime_error>([] { open_database(u"/nonexistent/store.pst"); }),
              "fopen failed");

    // A seek failure reading the root page passes through too, and a second try then succeeds.
    TempPstFile good(WritePst(OneNode(PstLayout::kUnicode)).bytes);
    auto db = open_database(good.path());
    krnctlFailFileOperation(KRNCTL_SEEK, 1);
    EXPECT_EQ(MessageOf<std::out_of_range>([&] { db->read_nbt_root(); }), "fseek failed");
    EXPECT_NO_THROW(db->read_nbt_root());
}

TEST(NdbHeader, ChecksumsMatchThePublishedSamples) {
    // CRC and signature vectors from the format's sample dumps, and our own CRC check value.
    const std::string digits = "123456789";
    EXPECT_EQ(compute_crc(std::as_bytes(std::span(digits.data(), digits.size()))), 0x2dfd2d88u);
    EXPECT_EQ(compute_signature(0x8200, 0x206), 0x8006);
    EXPECT_EQ(compute_signature(0x7000, 0x6b), 0x706b);
    EXPECT_EQ(compute_signature(0x900200, 0x246), 0x00d6);
    EXPECT_EQ(compute_signature(0x5a6600, 0x162), 0x6738);
    EXPECT_EQ(compute_signature(0x594d80, 0x1386), 0x5e5f);
    // The sample SLBLOCK's 32 data bytes and their stored CRC.
    const uint8_t slblock[32] = {0x02, 0x00, 0x01, 0x00, 0, 0, 0, 0, 0x7f, 0x81, 0, 0, 0, 0, 0, 0,
                                 0x80, 0x13, 0,    0,    0, 0, 0, 0, 0,    0,    0, 0, 0, 0, 0, 0};
    EXPECT_EQ(compute_crc(std::as_bytes(std::span(slblock))), 0xd9d45e50u);
    // The writer's bitwise CRC agrees with the reader's table.
    const Bytes pattern = PatternBytes(1000, 7);
    EXPECT_EQ(compute_crc(pattern), PstCrc(pattern.data(), pattern.size()));
}

}  // namespace
