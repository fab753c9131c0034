// The folder walk, the message list and the composer on stores made by the fixture writer, seen
// through the entry points as the toolkit sees them: which message a number selects, what counts,
// which body wins, and what the loader is handed.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/status.h"
#include "pst/composer.h"
#include "pst/message_walk.h"
#include "store/ndb/database.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/rtf_writer.h"

namespace tarn::testing {
namespace {

struct Described {
    int32_t status = 0;
    std::string error;
    int32_t message_count = 0;
    int32_t index = 0;
};

// fltInfo with a slot, then the slot released as the toolkit would.
Described Describe(const std::u16string& path, int32_t message_number) {
    host::Toolkit toolkit;
    host::SourceSession session(path);
    krnctlSetMode(3);
    KernelFileHandle handle(krnOpenFile(path.c_str(), 0, kOpenShareMode));
    const host::CallOutcome outcome =
        host::CallInfo(kLinkedFilter, &session.BuildInfoRequest(handle.get(), message_number));
    Described d{outcome.status, outcome.error, session.file_info().message_count,
                session.info_request().message_number};
    EXPECT_TRUE(session.ReleaseSlot(kLinkedFilter).returned());
    return d;
}

std::string Html(const std::string& body) { return "<html>" + body + "</html>"; }

TEST(StoreWalk, CountsNormalFoldersButNotFreebusyData) {
    ScratchDir dir;
    struct Case {
        const char* what;
        std::vector<StoreFolder> folders;
        int32_t status;
        int32_t count;
    };
    const StoreMessage m = HtmlMessage("m", "<p>m</p>");
    const Case cases[] = {
        {"two folders", {{"Inbox", {m, m}}, {"Sent Items", {m}}}, kStatusOk, 3},
        {"Freebusy Data is not counted", {{"Inbox", {m, m}}, {"Freebusy Data", {m}}}, kStatusOk, 2},
        {"a name that differs in case is counted", {{"Inbox", {m}}, {"freebusy data", {m, m}}}, kStatusOk, 3},
        {"a longer name is counted", {{"Freebusy Data 2", {m}}}, kStatusOk, 1},
        {"only Freebusy Data", {{"Freebusy Data", {m, m}}}, kStatusBadArgument, 0},
        {"empty folders", {{"Inbox", {}}}, kStatusBadArgument, 0},
        {"no folders", {}, kStatusBadArgument, 0},
    };
    int n = 0;
    for (const Case& c : cases) {
        StoreDescription store;
        store.folders = c.folders;
        const Described d = Describe(WriteStore(dir, store, "s" + std::to_string(n++) + ".pst"), 1);
        EXPECT_EQ(d.status, c.status) << c.what;
        if (c.status == kStatusOk) {
            EXPECT_EQ(d.message_count, c.count) << c.what;
        }
    }
}

TEST(StoreWalk, MessageNumbersFollowFolderAndRowOrder) {
    ScratchDir dir;
    for (const auto layout : {fixture::PstLayout::kUnicode, fixture::PstLayout::kAnsi}) {
        SCOPED_TRACE(layout == fixture::PstLayout::kUnicode ? "Unicode" : "ANSI");
        StoreMessage freebusy = HtmlMessage("LocalFreebusy", "<p>free/busy</p>");
        StoreDescription store;
        store.layout = layout;
        store.encoding = fixture::PstEncoding::kPermute;
        store.folders = {
            {"Inbox", {HtmlMessage("a1", "<p>a1</p>"), freebusy, HtmlMessage("a2", "<p>a2</p>")}},
            {"Archive", {HtmlMessage("b1", "<p>b1</p>")}}};
        const std::u16string path =
            WriteStore(dir, store, layout == fixture::PstLayout::kUnicode ? "u.pst" : "a.pst");

        // The skipped message is counted (the folder says 3) but takes no page, so the last number
        // reaches past the messages there are.
        struct Case {
            int32_t number;
            int32_t status;
            std::string document;
            int32_t index;
        };
        const Case cases[] = {
            {1, kStatusOk, Html("<p>a1</p>"), 0}, {2, kStatusOk, Html("<p>a2</p>"), 1},
            {3, kStatusOk, Html("<p>b1</p>"), 2}, {4, kStatusUnsupported, "", 3},
            {0, kStatusOk, Html("<p>a1</p>"), 0}, {-7, kStatusOk, Html("<p>a1</p>"), 0},
            {99, kStatusUnsupported, "", 3},
        };
        for (const Case& c : cases) {
            SCOPED_TRACE("message " + std::to_string(c.number));
            const Loaded loaded = LoadMessage(path, c.number);
            EXPECT_EQ(loaded.status, c.status);
            if (c.status == kStatusOk) {
                EXPECT_EQ(loaded.body, c.document);
                EXPECT_EQ(loaded.format, 369);
            }
            const Described d = Describe(path, c.number);
            EXPECT_EQ(d.status, c.status);
            EXPECT_EQ(d.message_count, c.status == kStatusOk ? 4 : 0);
            // The clamped index is reported only when a document was produced.
            EXPECT_EQ(d.index, c.status == kStatusOk ? c.index : c.number);
        }
    }
}

TEST(StoreWalk, FreebusyDataIsWalkedThoughNotCounted) {
    ScratchDir dir;
    StoreDescription store;
    // Folders are walked in node-id order, which the writer gives in description order.
    store.folders = {{"Freebusy Data", {HtmlMessage("busy", "<p>busy</p>")}},
                     {"Inbox", {HtmlMessage("i1", "<p>i1</p>"), HtmlMessage("i2", "<p>i2</p>")}}};
    const std::u16string path = WriteStore(dir, store);
    EXPECT_EQ(Describe(path, 1).message_count, 2);
    EXPECT_EQ(LoadMessage(path, 1).body, Html("<p>busy</p>"));
    EXPECT_EQ(LoadMessage(path, 2).body, Html("<p>i1</p>"));
    // The count clamps to 2, so i2 can never be reached.
    EXPECT_EQ(LoadMessage(path, 3).body, Html("<p>i1</p>"));
}

TEST(StoreWalk, ADamagedFolderCostsOnlyItsOwnMessages) {
    ScratchDir dir;
    StoreDescription store;
    store.folders = {{"Inbox", {HtmlMessage("a1", "<p>a1</p>"), HtmlMessage("a2", "<p>a2</p>")}},
                     {"Archive", {HtmlMessage("b1", "<p>b1</p>")}}};
    fixture::StoreMap map;
    fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store, &map));
    // The heap signature of Inbox's contents table: the block's CRC now fails, which the walk catches.
    const uint32_t contents = (map.folders[0] & ~0x1Fu) | 0x0E;
    image.Put8(image.Block(image.Node(contents).data_bid).address + 2, 0x00);
    const std::u16string path = Wide(dir.Write("damaged.pst", image.bytes));

    EXPECT_EQ(LoadMessage(path, 1).body, Html("<p>b1</p>"));
    EXPECT_EQ(LoadMessage(path, 2).status, kStatusUnsupported);
    EXPECT_EQ(Describe(path, 1).message_count, 3);
}

// The children of the one level-1 extended block the writer laid out, read from the bytes it wrote.
std::vector<uint64_t> OnlyXBlockChildren(const fixture::PstImage& image) {
    const fixture::PstBlockRecord* xblock = nullptr;
    for (const auto& [id, block] : image.blocks) {
        if (block.kind != fixture::PstBlockRecord::Kind::kXBlock) continue;
        EXPECT_EQ(xblock, nullptr) << "more than one extended block";
        xblock = &block;
    }
    if (xblock == nullptr) return {};
    const size_t width = image.layout == fixture::PstLayout::kUnicode ? 8 : 4;
    const size_t count = std::to_integer<size_t>(image.bytes.at(xblock->address + 2)) |
                         std::to_integer<size_t>(image.bytes.at(xblock->address + 3)) << 8;
    std::vector<uint64_t> children{xblock->id};
    for (size_t i = 0; i < count; ++i) children.push_back(image.GetId(xblock->address + 8 + i * width));
    return children;
}

TEST(StoreWalk, ADamagedBlockInsideABodyEndsItsFolderNotTheBody) {
    // Bodies of three leaf blocks each: HTML, and compressed RTF of literals only.
    std::string text;
    for (size_t i = 0; text.size() < 20000; ++i) text += "<p>line " + std::to_string(i) + "</p>\n";
    const Bytes html = AsBytes(text);
    const Bytes rtf = AsBytes(CompressedRtf(RtfRuns(RtfLiterals(text)), {.raw_size = uint32_t(text.size())}));
    ScratchDir dir;
    int n = 0;
    for (const auto layout : {fixture::PstLayout::kUnicode, fixture::PstLayout::kAnsi}) {
        for (const bool is_rtf : {false, true}) {
            // 0 is the extended block itself (its damage is found when the body's size is asked); then
            // the first, a middle and the last leaf.
            for (const size_t damaged : {0, 1, 2, 3}) {
                SCOPED_TRACE(std::string(layout == fixture::PstLayout::kUnicode ? "Unicode " : "ANSI ") +
                             (is_rtf ? "RTF" : "HTML") + ", block " + std::to_string(damaged));
                StoreMessage big;
                big.subject = "big";
                big.display_cc = "Copy 0";
                (is_rtf ? big.rtf_compressed : big.html) = is_rtf ? rtf : html;
                StoreDescription store;
                store.layout = layout;
                store.encoding = fixture::PstEncoding::kCyclic;
                store.folders = {{"Inbox", {big, HtmlMessage("a2", "<p>a2</p>")}},
                                 {"Archive", {HtmlMessage("b1", "<p>b1</p>")}}};
                fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store));
                const std::vector<uint64_t> blocks = OnlyXBlockChildren(image);
                ASSERT_EQ(blocks.size(), 4u);
                const fixture::PstBlockRecord& block = image.Block(blocks[damaged]);
                image.bytes.at(block.trailer + 2) ^= std::byte{0xFF};  // wSig
                const std::u16string path = Wide(dir.Write("b" + std::to_string(n++) + ".pst", image.bytes));

                // The whole of Inbox is given up, as for any store error inside a folder; never an
                // empty or shortened document.
                const Loaded loaded = LoadMessage(path, 1);
                EXPECT_EQ(loaded.status, kStatusOk);
                EXPECT_EQ(loaded.error, "");
                EXPECT_EQ(loaded.body, Html("<p>b1</p>"));
                EXPECT_EQ(loaded.document.find("Copy 0"), std::string::npos) << "the failed message's Cc";
                EXPECT_EQ(LoadMessage(path, 2).status, kStatusUnsupported);
                EXPECT_EQ(Describe(path, 1).message_count, 3);
            }
        }
    }
}

TEST(StoreWalk, ContentCountsAreSignedAndSummedWide) {
    ScratchDir dir;
    struct Case {
        const char* what;
        int64_t inbox_count, archive_count;  // as stored in 0x3602; each folder holds one message
        int32_t status;
        int32_t message_count;
    };
    const Case cases[] = {
        {"as written", 1, 1, kStatusOk, 2},
        {"a count of -1 lowers the total", 2, -1, kStatusOk, 1},
        {"a total below 1", -5, 1, kStatusBadArgument, 0},
        {"a total of 0", 1, -1, kStatusBadArgument, 0},
        // Ours: every message is a node, so a total above the node count is damage.
        {"a total above the node count", 500, 1, kStatusFailure, 0},
        {"a total beyond 32 bits", 0x7FFFFFFF, 0x7FFFFFFF, kStatusFailure, 0},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        StoreDescription store;
        store.folders = {{"Inbox", {HtmlMessage("a", "<p>a</p>")}},
                         {"Archive", {HtmlMessage("b", "<p>b</p>")}}};
        fixture::StoreMap map;
        fixture::PstDescription description = fixture::DescribeStore(store, &map);
        const std::pair<const char*, int64_t> folders[] = {{"Inbox", c.inbox_count},
                                                           {"Archive", c.archive_count}};
        for (fixture::PstNode& node : description.nodes) {
            for (size_t f = 0; f < 2; ++f) {
                if (node.id != map.folders[f]) continue;
                node.data = fixture::WritePropertyContext(
                                store.layout, {{0x3001, 0x001F, fixture::Utf16(folders[f].first)},
                                               {0x3602, 0x0003, fixture::Le(uint64_t(folders[f].second), 4)}})
                                .data;
            }
        }
        const std::u16string path =
            Wide(dir.Write("count" + std::to_string(n++) + ".pst", fixture::WritePst(description).bytes));
        const Described d = Describe(path, 1);
        EXPECT_EQ(d.status, c.status);
        if (c.status == kStatusOk) {
            EXPECT_EQ(d.message_count, c.message_count);
        }
    }
}

TEST(StoreWalk, StoreErrorsWhileOpeningOrCountingLeaveTheEntryPoints) {
    ScratchDir dir;
    // A store header that fails its checks: the error escapes fltInfo and fltLoad, and the host reports
    // it; the leak check after the test proves the unwinding released record, handle and memory.
    const std::u16string path = Wide(dir.Write("header.pst", std::string("!BDN") + std::string(600, '\x5A')));
    const Loaded loaded = LoadMessage(path, 1);
    EXPECT_FALSE(loaded.error.empty());
    EXPECT_NE(loaded.error.find("fltLoad: uncaught exception: "), std::string::npos) << loaded.error;
    const Described d = Describe(path, 1);
    EXPECT_NE(d.error.find("fltInfo: uncaught exception: "), std::string::npos) << d.error;

    // A folder whose property context lacks its name or its count: the count does not catch the
    // property context's missing-key error, and neither do the entry points.
    const std::vector<fixture::PcProperty> without_name = {{0x3602, 0x0003, fixture::Le(1, 4)}};
    const std::vector<fixture::PcProperty> without_count = {{0x3001, 0x001F, fixture::Utf16("Inbox")}};
    int n = 0;
    for (const auto& properties : {without_name, without_count}) {
        StoreDescription store;
        store.folders = {{"Inbox", {HtmlMessage("m", "<p>m</p>")}}};
        fixture::StoreMap map;
        fixture::PstDescription description = fixture::DescribeStore(store, &map);
        for (fixture::PstNode& node : description.nodes) {
            if (node.id == map.folders[0])
                node.data = fixture::WritePropertyContext(store.layout, properties).data;
        }
        const std::u16string damaged =
            Wide(dir.Write("folder" + std::to_string(n++) + ".pst", fixture::WritePst(description).bytes));
        EXPECT_EQ(Describe(damaged, 1).error, "fltInfo: uncaught exception: key not found");
        EXPECT_EQ(LoadMessage(damaged, 1).error, "fltLoad: uncaught exception: key not found");
        // Repaired, a folder without a count is counted by its rows; one without a name still fails.
        krnctlSetRepairs(1);
        const bool counted = n == 2;  // the second store, without a count
        EXPECT_EQ(Describe(damaged, 1).message_count, counted ? 1 : 0);
        EXPECT_EQ(LoadMessage(damaged, 1).body, counted ? Html("<p>m</p>") : "");
        krnctlSetRepairs(0);
    }
}

TEST(StoreWalk, TheListAndWhatTheWalkLeavesInIt) {
    ScratchDir dir;
    StoreMessage first = HtmlMessage("first", "<p>1</p>");
    first.sender_name = "Ann";
    StoreMessage second = HtmlMessage("second", "<p>2</p>");
    second.sender_name = "Bob";
    StoreDescription store;
    store.folders = {{"Inbox", {first, second, HtmlMessage("third", "<p>3</p>")}}};
    const ndb::db_ptr db = ndb::open_database(WriteStore(dir, store));

    MessageListPtr list;
    ASSERT_EQ(CountMessages(db, &list), kStatusOk);
    ASSERT_EQ(list->count, 3);
    std::string report(krnctlLeakReport(nullptr, 0) + 1, '\0');
    krnctlLeakReport(report.data(), report.size());
    EXPECT_NE(report.find("object of kind 5"), std::string::npos) << "the entries are registered as an array";

    FilterDataHolder record(NewFilterData());
    int32_t body_format = kBodyNone;
    ASSERT_EQ(SelectMessage(db, *list, 1, &body_format, record.get()), kStatusOk);
    EXPECT_EQ(list->count, 2) << "lowered to index + 1 at the target";
    EXPECT_EQ(body_format, kBodyHtml);
    // A message before the target keeps nothing: its bodies went once it was composed, and it never
    // gets header fields. The target keeps its body and its header fields.
    EXPECT_EQ(list->entries[0].document.data(), nullptr);
    EXPECT_EQ(list->entries[0].text_body.data(), nullptr);
    EXPECT_EQ(list->entries[0].header[kSlotSubject].data(), nullptr);
    EXPECT_EQ(list->entries[0].header[kSlotFrom].data(), nullptr);
    EXPECT_EQ(list->entries[1].document.text(), "<p>2</p>");
    EXPECT_EQ(list->entries[1].header[kSlotSubject].text(), "second");
    EXPECT_EQ(list->entries[1].header[kSlotFrom].text(), "Bob");
    EXPECT_EQ(list->entries[2].document.data(), nullptr) << "nothing after the target is read";
}

TEST(StoreWalk, WhatTheWalkHoldsDoesNotGrowWithTheTarget) {
    // Every message has all three bodies, so each composition allocates a text body, an HTML body and
    // a decompressed RTF document.
    const std::string rtf = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard hello}";
    StoreDescription store;
    store.folders.push_back({"Inbox", {}});
    for (int i = 0; i < 12; ++i) {
        StoreMessage m = HtmlMessage("m" + std::to_string(i), "<p>" + std::string(5000, 'x') + "</p>");
        m.body = fixture::StoreText(fixture::PstLayout::kUnicode, std::string(3000, 'y'));
        m.rtf_compressed =
            AsBytes(CompressedRtf(RtfRuns(RtfLiterals(rtf)), {.raw_size = uint32_t(rtf.size())}));
        store.folders[0].messages.push_back(m);
    }
    ScratchDir dir;
    const ndb::db_ptr db = ndb::open_database(WriteStore(dir, store));

    // Kernel allocations the list and its entries hold once the walk has reached each target: the
    // same for the first message as for the last.
    std::vector<size_t> held;
    for (const int32_t index : {0, 1, 5, 11}) {
        MessageListPtr list;
        ASSERT_EQ(CountMessages(db, &list), kStatusOk);
        FilterDataHolder record(NewFilterData());
        int32_t body_format = kBodyNone;
        const size_t before = krnctlOutstandingAllocations();
        ASSERT_EQ(SelectMessage(db, *list, index, &body_format, record.get()), kStatusOk);
        EXPECT_EQ(body_format, kBodyRtf);
        held.push_back(krnctlOutstandingAllocations() - before);
        for (int32_t i = 0; i < index; ++i) {
            EXPECT_EQ(list->entries[i].text_body.data(), nullptr) << "entry " << i << " of target " << index;
            EXPECT_EQ(list->entries[i].document.data(), nullptr) << "entry " << i << " of target " << index;
        }
        EXPECT_EQ(list->entries[index].document.text(), rtf) << "target " << index;
    }
    EXPECT_EQ(held, std::vector<size_t>(held.size(), held.front()));
}

TEST(StoreWalk, EarlierMessagesThatFailOrAreSkippedLeaveTheTargetAsItIs) {
    const std::string rtf = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard hello}";
    StoreMessage with_rtf = HtmlMessage("with rtf", "<p>under the rtf</p>");
    with_rtf.sender_name = "Ann";
    with_rtf.rtf_compressed =
        AsBytes(CompressedRtf(RtfRuns(RtfLiterals(rtf)), {.raw_size = uint32_t(rtf.size())}));
    StoreMessage broken = HtmlMessage("broken", "<p>x</p>");
    broken.rtf_compressed = AsBytes(CompressedRtf("abc", {.comp_size = 1}));
    const StoreMessage freebusy = HtmlMessage("LocalFreebusy", "<p>free/busy</p>");
    StoreMessage a1 = HtmlMessage("a1", "<p>a1</p>");
    a1.sender_name = "Bob";
    const StoreMessage a2 = HtmlMessage("a2", "<p>a2</p>");
    const StoreMessage a3 = HtmlMessage("a3", "<p>a3</p>");
    const StoreMessage b1 = HtmlMessage("b1", "<p>b1</p>");

    struct Target {
        int32_t number;
        int32_t status;
        const StoreMessage* message;  // what the number reaches, when it succeeds
        int32_t index;
    };
    struct Case {
        const char* what;
        std::vector<StoreFolder> folders;
        std::optional<std::pair<size_t, size_t>> damaged;  // (folder, row) whose property context is damaged
        std::vector<Target> targets;
    };
    const Case cases[] = {
        {"a skipped message takes no index",
         {{"Inbox", {a1, freebusy, with_rtf, freebusy, a3}}},
         {},
         {{1, kStatusOk, &a1, 0}, {2, kStatusOk, &with_rtf, 1}, {3, kStatusOk, &a3, 2}}},
        {"a damaged message ends its folder, the next folder goes on with its index",
         {{"Inbox", {a1, a2, a3}}, {"Archive", {b1, with_rtf}}},
         std::make_pair(size_t{0}, size_t{1}),
         {{1, kStatusOk, &a1, 0},
          {2, kStatusOk, &b1, 1},
          {3, kStatusOk, &with_rtf, 2},
          {4, kStatusUnsupported, nullptr, 0}}},
        {"a malformed RTF body before the target ends the walk with its status",
         {{"Inbox", {a1, broken, a3}}, {"Archive", {b1}}},
         {},
         {{1, kStatusOk, &a1, 0},
          {2, kStatusUnsupported, nullptr, 0},
          {3, kStatusUnsupported, nullptr, 0},
          {4, kStatusUnsupported, nullptr, 0}}},
        {"many RTF bodies before the target",
         {{"Inbox", {with_rtf, with_rtf, with_rtf, with_rtf, a3}}},
         {},
         {{4, kStatusOk, &with_rtf, 3}, {5, kStatusOk, &a3, 4}}},
    };
    ScratchDir dir;
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        StoreDescription store;
        store.folders = c.folders;
        fixture::StoreMap map;
        fixture::PstImage image = fixture::WritePst(fixture::DescribeStore(store, &map));
        if (c.damaged) {
            const uint32_t message = map.messages[c.damaged->first][c.damaged->second];
            image.bytes.at(image.Block(image.Node(message).data_bid).trailer + 2) ^= std::byte{0xFF};  // wSig
        }
        const std::u16string path = Wide(dir.Write("case" + std::to_string(n++) + ".pst", image.bytes));
        for (const Target& t : c.targets) {
            SCOPED_TRACE("message " + std::to_string(t.number));
            const Loaded loaded = LoadMessage(path, t.number);
            EXPECT_EQ(loaded.status, t.status);
            const Described d = Describe(path, t.number);
            EXPECT_EQ(d.status, t.status);
            if (t.status != kStatusOk) continue;
            EXPECT_EQ(d.index, t.index);
            // The oracle: the same message alone in a store, where nothing comes before it.
            StoreDescription alone;
            alone.folders = {{"Inbox", {*t.message}}};
            const Loaded expected =
                LoadMessage(WriteStore(dir, alone, "alone" + std::to_string(n++) + ".pst"), 1);
            ASSERT_EQ(expected.status, kStatusOk);
            EXPECT_EQ(loaded.format, t.message->rtf_compressed ? 226 : 369);
            EXPECT_EQ(loaded.format, expected.format);
            EXPECT_EQ(loaded.document, expected.document);
            EXPECT_EQ(loaded.body, t.message->rtf_compressed ? rtf : Html(AsString(*t.message->html)));
        }
    }
}

TEST(Composer, TheLastPresentBodyWins) {
    ScratchDir dir;
    const std::string rtf = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard hello}";
    const Bytes lzfu = AsBytes(CompressedRtf(RtfRuns(RtfLiterals(rtf)), {.raw_size = uint32_t(rtf.size())}));
    // Stored ("MELA") data with the CRC of 0 that writers give it: the stream check refuses it.
    const Bytes mela_zero_crc = AsBytes(CompressedRtf(rtf, {.comp_type = 0x414C454D, .crc = 0}));
    const Bytes mela =
        AsBytes(CompressedRtf(rtf + std::string(1, '\0') + "after", {.comp_type = 0x414C454D}));
    const Bytes text = fixture::StoreText(fixture::PstLayout::kUnicode, "hi");  // 68 00 69 00
    // The header block goes in front of the first "\pard" and needs a font table or a "\from" word.
    auto stored = [](const std::string& body) {
        return AsBytes(CompressedRtf(body, {.comp_type = 0x414C454D}));
    };
    const Bytes no_pard = stored("{\\rtf1{\\fonttbl{\\f0 Arial;}} hello}");
    const Bytes no_table = stored("{\\rtf1\\pard hello}");

    struct Case {
        const char* what;
        std::optional<Bytes> body, html, rtf;
        bool plain_text;
        int32_t status;
        int32_t format;
        std::string document;
        // Repaired, this format and document instead (text is UTF-8 behind its mark, all of it declared).
        std::optional<std::pair<int32_t, std::string>> repaired = {};
    };
    // "hi" is 68 00 69 00: its final zero byte is taken for a terminator, and the mark is not counted,
    // so the loader is told of FF FE, the header lines and 68, and nothing more. Both kept as they stand.
    // The header lines go in front of the text as they are (UTF-8 before the stored UTF-16).
    const std::string marked = std::string("\xFF\xFE", 2) + "Subject:   \ts\r\n\r\nh";
    const std::string header_utf8 = "\xEF\xBB\xBFSubject:   \ts\r\n\r\n";
    const Case cases[] = {
        {"HTML only", {}, AsBytes("<p>x</p>"), {}, false, kStatusOk, 369, Html("<p>x</p>")},
        {"HTML with its own html element is wrapped again",
         {},
         AsBytes("<html><p>x</p></html>"),
         {},
         false,
         kStatusOk,
         369,
         "<html><html><p>x</p></html></html>"},
        {"a final NUL of the HTML is dropped",
         {},
         AsBytes(std::string("<p>x</p>\0", 9)),
         {},
         false,
         kStatusOk,
         369,
         Html("<p>x</p>")},
        {"RTF over HTML", {}, AsBytes("<p>x</p>"), lzfu, false, kStatusOk, 226, rtf},
        {"RTF over HTML over text", text, AsBytes("<p>x</p>"), lzfu, false, kStatusOk, 226, rtf},
        {"HTML over text", text, AsBytes("<p>x</p>"), {}, false, kStatusOk, 369, Html("<p>x</p>")},
        {"stored RTF is cut at its first NUL", {}, {}, mela, false, kStatusOk, 226, rtf},
        {"stored RTF with a zero CRC is refused",
         {},
         AsBytes("<p>x</p>"),
         mela_zero_crc,
         false,
         kStatusUnsupported,
         0,
         ""},
        {"RTF without \\pard: no header, no document",
         {},
         {},
         no_pard,
         false,
         kStatusFailure,
         0,
         "",
         std::pair(226, "{\\rtf1{\\fonttbl{\\f0 Arial;}} hello}")},
        {"RTF without a font table or \\from: no header, no document",
         {},
         {},
         no_table,
         false,
         kStatusFailure,
         0,
         "",
         std::pair(226, "{\\rtf1\\pard hello}")},
        {"text only has no document",
         text,
         {},
         {},
         false,
         kStatusUnsupported,
         0,
         "",
         std::pair(316, header_utf8 + "hi")},
        {"no body at all", {}, {}, {}, false, kStatusUnsupported, 0, "", std::pair(316, header_utf8)},
        {"plain text: FF FE and the text, the length not counting the mark", text, AsBytes("<p>x</p>"), lzfu,
         true, kStatusOk, 316, marked, std::pair(316, header_utf8 + "hi")},
        {"plain text without a text body",
         {},
         AsBytes("<p>x</p>"),
         {},
         true,
         kStatusUnsupported,
         0,
         "",
         std::pair(316, header_utf8 + "x")},
    };
    int n = 0;
    for (const Case& c : cases) {
        StoreMessage m;
        m.subject = "s";
        m.body = c.body;
        m.html = c.html;
        m.rtf_compressed = c.rtf;
        StoreDescription store;
        store.folders = {{"Inbox", {m}}};
        const std::u16string path = WriteStore(dir, store, "c" + std::to_string(n++) + ".pst");
        for (const bool repaired : {false, true}) {
            krnctlSetRepairs(repaired);
            const Loaded loaded = LoadMessage(path, 1, c.plain_text);
            const bool mended = repaired && c.repaired.has_value();
            EXPECT_EQ(loaded.status, mended ? kStatusOk : c.status)
                << c.what << (repaired ? ", repaired" : "");
            if (loaded.status != kStatusOk) continue;
            EXPECT_EQ(loaded.format, mended ? c.repaired->first : c.format) << c.what;
            EXPECT_EQ(loaded.body, mended ? c.repaired->second : c.document) << c.what;
            // Repaired HTML declares UTF-8 first (the body above is seen without it).
            if (loaded.format == 369) {
                EXPECT_EQ(loaded.document.find(kUtf8MetaFirst) == 6, repaired) << c.what;
            }
        }
        krnctlSetRepairs(0);
    }
}

TEST(Composer, AMalformedRtfBodyEndsTheWalkForLaterMessages) {
    ScratchDir dir;
    StoreMessage broken = HtmlMessage("broken", "<p>x</p>");
    broken.rtf_compressed = AsBytes(CompressedRtf("abc", {.comp_size = 1}));
    StoreDescription store;
    store.folders = {{"Inbox", {HtmlMessage("first", "<p>1</p>"), broken, HtmlMessage("last", "<p>3</p>")}}};
    const std::u16string path = WriteStore(dir, store);
    EXPECT_EQ(LoadMessage(path, 1).body, Html("<p>1</p>"));
    // Every message before the target is composed too, so the broken body stops the walk on its way.
    EXPECT_EQ(LoadMessage(path, 2).status, kStatusUnsupported);
    EXPECT_EQ(LoadMessage(path, 3).status, kStatusUnsupported);
}

}  // namespace
}  // namespace tarn::testing
