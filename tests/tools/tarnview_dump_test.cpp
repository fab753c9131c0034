// tarnview dump over fixture stores: every node listed, a damaged node reported on its line while
// the dump goes on, an unreadable B-tree page costing only the nodes under it, and the exit status.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/pst_writer.h"
#include "tools/tarnview/commands.h"

namespace {

using namespace tarn::fixture;

struct DumpResult {
    int status;
    std::string out;
};

DumpResult Dump(const TempPstFile& file, bool json) {
    tarnview::Args args{file.native_path()};
    if (json) args.push_back("--json");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = tarnview::RunDump(args);
    std::fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return {status, out};
}

PstDescription ThreeNodes(PstLayout layout) {
    PstDescription d;
    d.layout = layout;
    d.encoding = PstEncoding::kPermute;
    d.nbt_fanout = 2;
    d.nodes.push_back({.id = 0x21, .data = ToBytes("one")});
    d.nodes.push_back({.id = 0x122, .parent = 0x122, .data = PatternBytes(9000, 1)});
    d.nodes.push_back({.id = 0x200024,
                       .parent = 0x122,
                       .data = ToBytes("message"),
                       .subnodes = {{.id = 0x1F, .data = ToBytes("a")}, {.id = 0x3F}}});
    return d;
}

TEST(NdbDump, ListsHeaderAndEveryNode) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        TempPstFile file(WritePst(ThreeNodes(layout)).bytes);
        const DumpResult text = Dump(file, false);
        EXPECT_EQ(text.status, 0);
        EXPECT_NE(text.out.find(layout == PstLayout::kAnsi ? "layout: ANSI (wVer 14)"
                                                           : "layout: Unicode (wVer 23)"),
                  std::string::npos);
        EXPECT_NE(text.out.find("encoding: permute (bCryptMethod 1)"), std::string::npos);
        EXPECT_NE(text.out.find("0x00000122  folder"), std::string::npos) << text.out;
        EXPECT_NE(text.out.find("9000"), std::string::npos);
        EXPECT_NE(text.out.find("3 nodes, 0 unreadable"), std::string::npos);

        const DumpResult json = Dump(file, true);
        EXPECT_EQ(json.status, 0);
        EXPECT_EQ(json.out.rfind("{\"file\":", 0), 0u) << json.out;
        EXPECT_NE(json.out.find("\"nodes\":[{\"id\":33,\"type\":\"internal\""), std::string::npos)
            << json.out;
        EXPECT_NE(json.out.find("\"id\":2097188,\"type\":\"message\",\"parent\":290"), std::string::npos);
        EXPECT_NE(json.out.find("\"size\":7,\"subnodes\":2}"), std::string::npos) << json.out;
        EXPECT_NE(json.out.find("\"errors\":0}"), std::string::npos);
    }
}

TEST(NdbDump, DamageIsReportedAndTheDumpGoesOn) {
    // A node whose block signature is wrong: its own line says so, the others are listed.
    PstImage image = WritePst(ThreeNodes(PstLayout::kUnicode));
    image.Put16(image.Block(image.Node(0x21).data_bid).trailer + 2, 0x4444);
    TempPstFile file(image.bytes);
    const DumpResult text = Dump(file, false);
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("0x00000021  internal"), std::string::npos);
    EXPECT_NE(text.out.find("error: block sig mismatch (id "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("0x00200024  message"), std::string::npos);
    EXPECT_NE(text.out.find("3 nodes, 1 unreadable"), std::string::npos);
    const DumpResult json = Dump(file, true);
    EXPECT_EQ(json.status, 1);
    EXPECT_NE(json.out.find("\"error\":\"block sig mismatch"), std::string::npos);
    EXPECT_NE(json.out.find("\"errors\":1}"), std::string::npos);

    // A leaf page of the node B-tree that cannot be read: the nodes of the other leaf still show.
    PstImage pages = WritePst(ThreeNodes(PstLayout::kAnsi));
    const PstPageRecord* first_leaf = pages.Pages(true, 0).front();
    pages.Put16(first_leaf->address + 502, 0x1111);
    TempPstFile broken(pages.bytes);
    const DumpResult walk = Dump(broken, false);
    EXPECT_EQ(walk.status, 1);
    EXPECT_NE(walk.out.find("node b-tree page at 0x"), std::string::npos) << walk.out;
    EXPECT_NE(walk.out.find("error: page sig mismatch"), std::string::npos);
    EXPECT_NE(walk.out.find("0x00200024  message"), std::string::npos);

    // A header the store refuses: the fields are shown, then the reason, status 1.
    PstImage header = WritePst(ThreeNodes(PstLayout::kUnicode));
    header.Put8(100, 0x77);
    TempPstFile refused(header.bytes);
    const DumpResult bad = Dump(refused, false);
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("layout: Unicode (wVer 23)"), std::string::npos);
}

}  // namespace
