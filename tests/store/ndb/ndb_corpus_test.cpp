// Real stores written by mail software: every PST of the shared corpus opens, its whole node B-tree
// iterates in order, and every node's data tree and every subnode's data (at every nesting level) reads
// in full, the same in one call and page by page. What the nodes hold is compared with other readers
// by the store's corpus drivers.
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

class CorpusTest : public ::testing::TestWithParam<std::string> {};

TEST_P(CorpusTest, OpensIteratesAndReadsEveryNode) {
    const std::string& file = GetParam();
    auto db = open_database(Wide(std::string(TARN_SHARED_DIR) + "/corpus/pst/" + file));
    // The corpus names each store by its layout.
    EXPECT_EQ(dynamic_cast<database_impl<uint64_t>*>(db.get()) != nullptr, file.starts_with("unicode-"));

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
    // Every store has its message store, root folder and tables, each with data.
    EXPECT_GT(totals.nodes_by_type[0x02], 0u);
    EXPECT_GT(totals.nodes_by_type[0x0D], 0u);
    EXPECT_GT(totals.data_bytes, 0u);
}

INSTANTIATE_TEST_SUITE_P(SharedCorpus, CorpusTest, ::testing::ValuesIn(tarn::testing::CorpusFiles("pst")),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return tarn::testing::CorpusCaseName(info.param);
                         });

}  // namespace
