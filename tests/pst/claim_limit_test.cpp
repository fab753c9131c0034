// Small files whose data trees claim gigabytes, through every read that is sized from a stated total:
// a node's data, a property value in a subnode, a table's row matrix, and the HTML and compressed-RTF
// bodies through the entry points. CTest runs these cases under an allocation limit of 64 MiB (see
// tests/CMakeLists.txt), so a buffer sized from the claim aborts the case instead of passing slowly.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"
#include "store/ndb/database.h"
#include "tests/pst/store_fixture.h"
#include "tests/store/ltp/ltp_test_util.h"
#include "tests/support/ltp_writer.h"
#include "tests/support/rtf_writer.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

using fixture::PstLayout;

constexpr uint64_t kClaimId = 0xF0002;  // internal, and far above the ids the writer hands out
// Just under 4 GiB, and just under 2 GiB (what once passed a 2 GiB buffer cap and was reserved whole).
constexpr uint32_t kClaims[] = {0xFFFFF000, 0x7FFFF000};
constexpr char kRefusal[] = "extended block claims more data than the file holds";

// A level-2 extended block whose children are all holes (id 0) covering `total` bytes. Holes read as
// zeros without touching the file, so these few bytes describe the whole claim readably.
fixture::PstRawBlock HoleTree(PstLayout layout, uint32_t total) {
    const size_t width = layout == PstLayout::kUnicode ? 8 : 4;
    const uint64_t per_child = layout == PstLayout::kUnicode ? 8347696 : 8335420;
    const size_t children = static_cast<size_t>(total / per_child + 1);
    Bytes data(8 + children * width);
    data[0] = std::byte{1};  // extended block
    data[1] = std::byte{2};  // level 2
    Put(data, 2, children, 2);
    Put(data, 4, total, 4);
    return {.id = kClaimId, .data = data};
}

// Points the subnode of `subnodes` whose data is `data` at the claim.
void ClaimSubnode(std::vector<fixture::PstSubnode>& subnodes, const Bytes& data) {
    for (fixture::PstSubnode& sub : subnodes) {
        if (sub.data != data) continue;
        sub.data_bid = kClaimId;
        return;
    }
    ADD_FAILURE() << "no subnode holds the value";
}

TEST(ClaimLimit, ANodesDataTree) {
    for (const PstLayout layout : {PstLayout::kUnicode, PstLayout::kAnsi}) {
        for (const uint32_t claim : kClaims) {
            SCOPED_TRACE(claim);
            fixture::PstDescription d;
            d.layout = layout;
            d.nodes.push_back({.id = 0x21, .data_bid = kClaimId});
            d.raw_blocks.push_back(HoleTree(layout, claim));
            const OpenStore store = Open(d);
            const ndb::node n = store.db->lookup_node(0x21);
            EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { (void)n.size(); }), kRefusal);
            std::vector<std::byte> piece(16);
            EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { n.read(piece, claim - 16); }), kRefusal);
        }
    }
}

TEST(ClaimLimit, APropertyValueInASubnode) {
    for (const uint32_t claim : kClaims) {
        SCOPED_TRACE(claim);
        const Bytes subject = fixture::Utf16(std::string(5000, 's'));
        fixture::LtpNodeData content = fixture::WritePropertyContext(
            PstLayout::kUnicode, {{0x0037, 0x001F, subject}, {0x0017, 0x0003, fixture::Le(1, 4)}});
        ClaimSubnode(content.subnodes, subject);
        fixture::PstDescription d;
        d.nodes.push_back({.id = 0x21, .data = content.data, .subnodes = content.subnodes});
        d.raw_blocks.push_back(HoleTree(PstLayout::kUnicode, claim));
        const OpenStore store = Open(d);
        const ltp::property_bag bag(store.db->lookup_node(0x21));
        EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { bag.get_value_variable(0x0037); }), kRefusal);
        EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { bag.read_wstring(0x0037); }), kRefusal);
        EXPECT_EQ(bag.get_value_4(0x0017), 1u) << "the rest of the bag reads";
    }
}

TEST(ClaimLimit, ATablesRowMatrix) {
    for (const uint32_t claim : kClaims) {
        SCOPED_TRACE(claim);
        fixture::TcLayout where;
        fixture::LtpNodeData content = fixture::WriteTableContext(PstLayout::kUnicode, {{0x0E08, 0x0003}},
                                                                  {{0x200004, {{0x0E08, fixture::Le(7, 4)}}}},
                                                                  {.matrix_in_subnode = true}, &where);
        for (fixture::PstSubnode& sub : content.subnodes)
            if (sub.id == where.rows) sub.data_bid = kClaimId;
        fixture::PstDescription d;
        d.nodes.push_back({.id = 0x21, .data = content.data, .subnodes = content.subnodes});
        d.raw_blocks.push_back(HoleTree(PstLayout::kUnicode, claim));
        const OpenStore store = Open(d);
        const ltp::table t(store.db->lookup_node(0x21));
        // Hundreds of millions of zero rows otherwise.
        EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { (void)t.size(); }), kRefusal);
    }
}

TEST(ClaimLimit, BodiesThroughTheEntryPoints) {
    const Bytes html = AsBytes("<p>" + std::string(5000, 'h') + "</p>");
    const std::string text(5000, 'r');
    const Bytes rtf = AsBytes(CompressedRtf(RtfRuns(RtfLiterals(text)), {.raw_size = uint32_t(text.size())}));
    ScratchDir dir;
    int n = 0;
    for (const bool is_rtf : {false, true}) {
        for (const uint32_t claim : kClaims) {
            SCOPED_TRACE(std::string(is_rtf ? "RTF " : "HTML ") + std::to_string(claim));
            StoreMessage big;
            big.subject = "big";
            (is_rtf ? big.rtf_compressed : big.html) = is_rtf ? rtf : html;
            StoreDescription store;
            store.folders = {{"Inbox", {big}}, {"Archive", {HtmlMessage("b1", "<p>b1</p>")}}};
            fixture::StoreMap map;
            fixture::PstDescription d = fixture::DescribeStore(store, &map);
            for (fixture::PstNode& node : d.nodes)
                if (node.id == map.messages[0][0]) ClaimSubnode(node.subnodes, is_rtf ? rtf : html);
            d.raw_blocks.push_back(HoleTree(PstLayout::kUnicode, claim));
            const std::u16string path =
                Wide(dir.Write("claim" + std::to_string(n++) + ".pst", fixture::WritePst(d).bytes));
            // The refusal is a store error inside Inbox, so Inbox is given up and message 1 is Archive's.
            const Loaded loaded = LoadMessage(path, 1);
            EXPECT_EQ(loaded.status, kStatusOk);
            EXPECT_EQ(loaded.error, "");
            EXPECT_EQ(loaded.body, "<html><p>b1</p></html>");
        }
    }
}

}  // namespace
}  // namespace tarn::testing
