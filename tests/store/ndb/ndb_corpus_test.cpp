// Real stores written by mail software: every PST of the shared corpus opens, its whole node B-tree
// iterates, and every node's data tree and every subnode's data (at every nesting level) reads in full.
// The per-type node counts pin what the walk finds, so a regression in lookup or iteration shows.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "store/ndb/database.h"
#include "store/ndb/database_impl.h"
#include "tests/support/test_util.h"

namespace {

using namespace tarn::ndb;

using tarn::testing::Wide;

struct WalkTotals {
    std::map<unsigned, unsigned> nodes_by_type;  // nid & 0x1F
    size_t subnodes = 0;
    uint64_t data_bytes = 0;
    uint64_t pages = 0;
};

// Reads a node's whole stream twice over: in one call, and page by page, and checks they agree.
uint64_t ReadAll(const node& n, WalkTotals& totals) {
    const size_t size = n.size();
    std::vector<std::byte> whole(size);
    if (size != 0) {
        EXPECT_EQ(n.read(whole, 0), size) << "node 0x" << std::hex << n.get_id();
    }
    size_t at = 0;
    const size_t pages = n.get_page_count();
    for (size_t p = 0; p < pages; ++p) {
        const size_t page_size = n.get_page_size(p);
        std::vector<std::byte> part(page_size);
        if (page_size != 0) {
            EXPECT_EQ(n.read(part, p, 0), page_size);
            EXPECT_TRUE(
                std::equal(part.begin(), part.end(), whole.begin() + static_cast<std::ptrdiff_t>(at)));
        }
        at += page_size;
    }
    EXPECT_EQ(at, size) << "pages of node 0x" << std::hex << n.get_id() << " do not add up to its size";
    totals.pages += pages;
    return size;
}

// Subnodes nest (an attachment's embedded message has its own subnodes); an explicit stack keeps the
// walk's depth off the call stack.
void WalkSubnodes(const node& top, WalkTotals& totals) {
    std::vector<node> stack{top};
    while (!stack.empty()) {
        node current = std::move(stack.back());
        stack.pop_back();
        for (const subnode_info& info : current.subnodes()) {
            node sub = current.lookup(info.id);
            EXPECT_EQ(sub.get_data_id(), info.data_bid);
            totals.data_bytes += ReadAll(sub, totals);
            ++totals.subnodes;
            if (sub.get_sub_id() != 0) stack.push_back(sub);
        }
    }
}

struct CorpusCase {
    const char* file;
    bool unicode;
    std::map<unsigned, unsigned> nodes_by_type;
    size_t subnodes;
};

class CorpusTest : public ::testing::TestWithParam<CorpusCase> {};

TEST_P(CorpusTest, OpensIteratesAndReadsEveryNode) {
    const CorpusCase& c = GetParam();
    const std::string path = std::string(TARN_SHARED_DIR) + "/corpus/pst/" + c.file;
    auto db = open_database(Wide(path));
    EXPECT_EQ(dynamic_cast<database_impl<uint64_t>*>(db.get()) != nullptr, c.unicode);

    WalkTotals totals;
    node_id previous = 0;
    bool first = true;
    for (const node_info& info : page_range(db->read_nbt_root())) {
        EXPECT_TRUE(first || info.id > previous) << "node ids out of order at 0x" << std::hex << info.id;
        first = false;
        previous = info.id;
        ++totals.nodes_by_type[info.id & 0x1F];
        node n = db->lookup_node(info.id);
        EXPECT_EQ(n.get_parent_id(), info.parent_id);
        totals.data_bytes += ReadAll(n, totals);
        // Folders and messages are heaps whose third byte is the heap signature 0xEC: a wrong
        // decoding (permutation, cyclic, none) shows here first.
        const unsigned type = info.id & 0x1F;
        if ((type == 0x02 || type == 0x04) && n.size() >= 4) {
            EXPECT_EQ(n.read<uint8_t>(0, 2), 0xEC) << "node 0x" << std::hex << info.id;
        }
        WalkSubnodes(n, totals);
    }
    EXPECT_EQ(totals.nodes_by_type, c.nodes_by_type);
    EXPECT_EQ(totals.subnodes, c.subnodes);
    EXPECT_GT(totals.data_bytes, 0u);
}

// Node types by the low five bits of the id: 0x01 NID_TYPE_INTERNAL, 0x02 folder, 0x03 search folder,
// 0x04 message, 0x05 attachment, 0x06 search update queue, 0x07 search criteria, 0x08 associated
// message, 0x0A contents table index, 0x0B receive folder table, 0x0C outgoing queue table,
// 0x0D hierarchy table, 0x0E contents table, 0x0F associated contents table, 0x10 search contents
// table, 0x11 attachment table, 0x12 recipient table, 0x13 search table index, 0x1F list of
// tables, ...
const CorpusCase kCorpus[] = {
    {"ansi-cp932-nonunicode.pst",
     false,
     {{0x01, 12},
      {0x02, 5},
      {0x03, 1},
      {0x04, 1},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 6},
      {0x0e, 6},
      {0x0f, 6},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     6},
    {"ansi-gopst-32bit-minimal.pst",
     false,
     {{0x01, 5},
      {0x02, 5},
      {0x04, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 6},
      {0x0e, 6},
      {0x0f, 6},
      {0x10, 1},
      {0x11, 1},
      {0x12, 1}},
     5},
    {"ansi-outlook2000-pst2john-73msgs.pst",
     false,
     {{0x01, 5},
      {0x02, 4},
      {0x04, 73},
      {0x0a, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 1},
      {0x11, 1},
      {0x12, 1}},
     1462},
    {"ansi-outlook97-pst2john-294msgs.pst",
     false,
     {{0x01, 5},
      {0x02, 14},
      {0x03, 1},
      {0x04, 294},
      {0x06, 1},
      {0x07, 1},
      {0x0a, 2},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 15},
      {0x0e, 15},
      {0x0f, 15},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1}},
     1055},
    {"unicode-aspose-outlook-images.pst",
     true,
     {{0x01, 16},
      {0x02, 21},
      {0x03, 6},
      {0x04, 17},
      {0x06, 5},
      {0x07, 5},
      {0x08, 10},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 22},
      {0x0e, 22},
      {0x0f, 22},
      {0x10, 7},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     178},
    {"unicode-attach-and-inline.pst",
     true,
     {{0x01, 12},
      {0x02, 4},
      {0x03, 1},
      {0x04, 1},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     10},
    {"unicode-contacts-dist-list-row-order.pst",
     true,
     {{0x01, 16},
      {0x02, 18},
      {0x03, 6},
      {0x04, 4},
      {0x06, 5},
      {0x07, 5},
      {0x08, 3},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 19},
      {0x0e, 19},
      {0x0f, 19},
      {0x10, 7},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     46},
    {"unicode-cyclic-pst2john-quickquick.pst",
     true,
     {{0x01, 5},
      {0x02, 4},
      {0x03, 1},
      {0x04, 36},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1}},
     713},
    {"unicode-dfrws2009-rodeo.pst",
     true,
     {{0x01, 5},
      {0x02, 16},
      {0x03, 1},
      {0x04, 13},
      {0x06, 1},
      {0x07, 1},
      {0x08, 12},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 17},
      {0x0e, 17},
      {0x0f, 17},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1}},
     32},
    {"unicode-gopst-support-html.pst",
     true,
     {{0x01, 9},
      {0x02, 24},
      {0x03, 1},
      {0x04, 17},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 25},
      {0x0e, 25},
      {0x0f, 25},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     71},
    {"unicode-hello-cjk.pst",
     true,
     {{0x01, 12},
      {0x02, 4},
      {0x03, 1},
      {0x04, 1},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     9},
    {"unicode-libyal-outlook-cjk-folders.pst",
     true,
     {{0x01, 5},
      {0x02, 21},
      {0x03, 1},
      {0x04, 2},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 22},
      {0x0e, 22},
      {0x0f, 22},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1}},
     53},
    {"unicode-msginmsginmsg.pst",
     true,
     {{0x01, 12},
      {0x02, 4},
      {0x03, 1},
      {0x04, 1},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1},
      {0x16, 1},
      {0x17, 1},
      {0x18, 1}},
     20},
    {"unicode-nocrypt-pst2john-quickquick.pst",
     true,
     {{0x01, 5},
      {0x02, 4},
      {0x03, 1},
      {0x04, 20},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1}},
     401},
    {"unicode-permute-pst2john-quickquick.pst",
     true,
     {{0x01, 5},
      {0x02, 4},
      {0x03, 1},
      {0x04, 32},
      {0x06, 1},
      {0x07, 1},
      {0x0b, 1},
      {0x0c, 1},
      {0x0d, 5},
      {0x0e, 5},
      {0x0f, 5},
      {0x10, 2},
      {0x11, 1},
      {0x12, 1}},
     629},
};

INSTANTIATE_TEST_SUITE_P(SharedCorpus, CorpusTest, ::testing::ValuesIn(kCorpus),
                         [](const ::testing::TestParamInfo<CorpusCase>& info) {
                             return tarn::testing::CorpusCaseName(info.param.file);
                         });

}  // namespace
