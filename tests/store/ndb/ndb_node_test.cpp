// Nodes and subnodes: lookup in the node B-tree and in subnode trees of both levels, nesting,
// copies, lifetimes and the subnode block checks.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <typeinfo>

#include "kernel/tarnkrn_control.h"
#include "store/ndb/database.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace {

using tarn::testing::MessageOf;

using namespace tarn::ndb;
using namespace tarn::fixture;

// 24,530 bytes fill three ANSI leaf blocks (3 x 8180 = 24,540) but spill two bytes into a fourth
// Unicode one (3 x 8176 = 24,528), so the page count tells which layout's leaf size was used.
constexpr size_t kLargeSubnodeSize = 24530;

// A message-like node: `count` subnodes with ids 0x1F, 0x3F, ...; the first one has two subnodes of
// its own (an attachment holding an embedded message's parts), one of which is large.
PstNode NodeWithSubnodes(uint32_t id, size_t count) {
    PstNode n{.id = id, .parent = 0x122, .data = PatternBytes(64, id)};
    for (size_t i = 0; i < count; ++i) {
        const auto sub_id = static_cast<uint32_t>(0x1F + 0x20 * i);
        n.subnodes.push_back({.id = sub_id, .data = PatternBytes(5 + i, sub_id)});
    }
    n.subnodes[0].subnodes = {{.id = 0x671, .data = PatternBytes(kLargeSubnodeSize, 0x671)},
                              {.id = 0x692, .data = ToBytes("inner")}};
    return n;
}

TEST(NdbNode, SubnodeTreesOfBothLevelsLookUpAndNest) {
    struct Case {
        PstLayout layout;
        size_t count;
        size_t fanout;  // entries per SLBLOCK/SIBLOCK, 0: full blocks
    };
    const Case cases[] = {{PstLayout::kUnicode, 1, 0},  {PstLayout::kUnicode, 50, 0},
                          {PstLayout::kUnicode, 50, 4}, {PstLayout::kUnicode, 341, 0},
                          {PstLayout::kAnsi, 50, 0},    {PstLayout::kAnsi, 50, 7},
                          {PstLayout::kAnsi, 682, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE("count " + std::to_string(c.count) + " fanout " + std::to_string(c.fanout) +
                     (c.layout == PstLayout::kAnsi ? " ANSI" : " Unicode"));
        PstDescription d;
        d.layout = c.layout;
        d.subnode_fanout = c.fanout;
        d.nodes.push_back(NodeWithSubnodes(0x24, c.count));
        const PstImage image = WritePst(d);
        const bool two_levels =
            image.Block(image.Node(0x24).subnode_bid).kind == PstBlockRecord::Kind::kSIBlock;
        EXPECT_EQ(two_levels,
                  c.fanout ? c.count > c.fanout : c.count > (c.layout == PstLayout::kAnsi ? 681u : 340u));
        TempPstFile file(image.bytes);
        auto db = open_database(file.path());
        node n = db->lookup_node(0x24);
        EXPECT_EQ(n.get_parent_id(), 0x122u);

        size_t walked = 0;
        node_id previous = 0;
        for (const subnode_info& info : n.subnodes()) {
            EXPECT_GT(info.id, previous);
            previous = info.id;
            ++walked;
        }
        EXPECT_EQ(walked, c.count);
        for (const PstSubnode& want : d.nodes[0].subnodes) {
            node sub = n.lookup(want.id);
            EXPECT_EQ(sub.get_id(), want.id);
            EXPECT_EQ(sub.get_parent_id(), 0u);
            EXPECT_TRUE(sub.is_subnode());
            Bytes got(sub.size());
            sub.read(got, 0);
            EXPECT_EQ(got, want.data);
        }
        // Subnode ids are private to their container: 0x671 is found only under 0x1F.
        node attachment = n.lookup(0x1F);
        node embedded = attachment.lookup(0x671);
        EXPECT_EQ(embedded.size(), kLargeSubnodeSize);
        const bool ansi = c.layout == PstLayout::kAnsi;
        ASSERT_EQ(embedded.get_page_count(), ansi ? 3u : 4u);
        EXPECT_EQ(embedded.get_page_size(0), ansi ? 8180u : 8176u);
        EXPECT_EQ(embedded.get_page_size(embedded.get_page_count() - 1), ansi ? 8170u : 2u);
        const Bytes& large = d.nodes[0].subnodes[0].subnodes[0].data;
        Bytes part(100);
        EXPECT_EQ(embedded.read(part, kLargeSubnodeSize - 50), 50u);
        EXPECT_EQ(Bytes(part.begin(), part.begin() + 50), Bytes(large.end() - 50, large.end()));
        EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { n.lookup(0x671); }), "key not found");
        EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { n.lookup(0x1E); }), "key not found");
        EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { n.lookup(0x20); }), "key not found");
    }
}

TEST(NdbNode, NoSubnodeBlockMeansNoSubnodesAndNoReads) {
    PstDescription d;
    d.nodes.push_back({.id = 0x24, .data = ToBytes("x")});
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    node n = db->lookup_node(0x24);
    n.size();
    krnctlFailFileOperation(KRNCTL_READ, 1);
    EXPECT_EQ(n.get_sub_id(), 0u);
    EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { n.lookup(0x1F); }), "key not found");
    EXPECT_EQ(n.get_subnode_block()->num_values(), 0u);
    krnctlReset();
    EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { db->lookup_node(0x25); }), "key not found");
}

// What a call did: the subnode it gave (id, data block, size), or the type and text of what it threw.
template <typename Call>
std::string Outcome(Call&& call) {
    try {
        const std::optional<node> got = call();
        if (!got) return "none";
        return "node " + std::to_string(got->get_id()) + " data " + std::to_string(got->get_data_id()) +
               " size " + std::to_string(got->size());
    } catch (const key_not_found<node_id>&) {
        return "none";  // where lookup throws this, find must give nothing
    } catch (const std::exception& e) {
        return std::string(typeid(e).name()) + ": " + e.what();
    }
}

TEST(NdbNode, FindGivesNothingExactlyWhereLookupThrowsKeyNotFound) {
    // A two-level subnode tree, a node without one, and one whose subnode block is missing from the
    // block B-tree: that is damage, and find must throw it as lookup does rather than answer "absent".
    PstDescription d;
    d.subnode_fanout = 4;
    d.nodes.push_back(NodeWithSubnodes(0x24, 50));
    d.nodes.push_back({.id = 0x44, .parent = 0x122, .data = ToBytes("bare")});
    d.nodes.push_back({.id = 0x64, .parent = 0x122, .data = ToBytes("lost"), .subnode_bid = 0x2002});
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    const node_id ids[] = {
        0, 0x1F, 0x20, 0x3F, 0x5F, 0x1F + 0x20 * 25, 0x1F + 0x20 * 49, 0x1F + 0x20 * 50, 0x671, 0xFFFFFFFF};
    size_t found = 0;
    for (node_id container : {0x24u, 0x44u, 0x64u}) {
        const node n = db->lookup_node(container);
        for (node_id id : ids) {
            SCOPED_TRACE("container " + std::to_string(container) + " id " + std::to_string(id));
            const std::string expected = Outcome([&] { return std::optional<node>(n.lookup(id)); });
            EXPECT_EQ(Outcome([&] { return n.find(id); }), expected);
            found += expected.starts_with("node ");
        }
    }
    EXPECT_EQ(found, 5u);  // the five ids of 0x24's own tree
    EXPECT_NE(Outcome([&] { return db->lookup_node(0x64).find(0x1F); }), "none");
}

TEST(NdbNode, IntermediateSubnodeMissBelowFirstKeyLoadsNoChild) {
    PstDescription d;
    d.subnode_fanout = 3;
    d.nodes.push_back(NodeWithSubnodes(0x24, 10));
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    node n = db->lookup_node(0x24);
    n.get_subnode_block();
    krnctlFailFileOperation(KRNCTL_READ, 1);
    EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { n.lookup(0x10); }), "key not found");
    krnctlReset();
}

TEST(NdbNode, SubnodeBlockReadersCheckTheLevel) {
    PstDescription d;
    d.subnode_fanout = 3;
    d.nodes.push_back(NodeWithSubnodes(0x24, 10));
    d.nodes.push_back(NodeWithSubnodes(0x44, 2));
    const PstImage image = WritePst(d);
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    const block_id si = image.Node(0x24).subnode_bid;
    const block_id sl = image.Node(0x44).subnode_bid;
    EXPECT_EQ(image.Block(si).kind, PstBlockRecord::Kind::kSIBlock);
    EXPECT_EQ(image.Block(sl).kind, PstBlockRecord::Kind::kSLBlock);
    EXPECT_NE(db->read_subnode_nonleaf_block(db, si), nullptr);
    EXPECT_NE(db->read_subnode_leaf_block(db, sl), nullptr);
    // The messages name the test the other way round, on purpose.
    EXPECT_EQ(MessageOf<unexpected_block>([&] { db->read_subnode_leaf_block(db, si); }), "psub->level != 0");
    EXPECT_EQ(MessageOf<unexpected_block>([&] { db->read_subnode_nonleaf_block(db, sl); }),
              "psub->level == 1");
    EXPECT_EQ(db->read_subnode_block(db, block_id{0})->num_values(), 0u);
}

TEST(NdbNode, CopiesLookupsAndLifetimes) {
    PstDescription d;
    d.nodes.push_back(NodeWithSubnodes(0x24, 3));
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    node n = db->lookup_node(0x24);

    // Two lookups of one subnode: two nodes, equal ids, one container.
    node a = n.lookup(0x3F);
    node b = n.lookup(0x3F);
    EXPECT_NE(a.get_impl(), b.get_impl());
    EXPECT_EQ(a.get_id(), b.get_id());
    EXPECT_EQ(a.get_impl()->get_container(), n.get_impl());
    EXPECT_EQ(b.get_impl()->get_container(), n.get_impl());

    // A copy shares what was read so far and caches on its own from then on.
    n.size();
    node copy = n;
    EXPECT_NE(copy.get_impl(), n.get_impl());
    EXPECT_EQ(copy.get_data_block(), n.get_data_block());
    EXPECT_EQ(copy.get_subnode_block(), n.get_subnode_block());
    EXPECT_EQ(copy.get_id(), n.get_id());
    node fresh = db->lookup_node(0x24);
    node fresh_copy = fresh;
    EXPECT_NE(fresh_copy.get_data_block(), fresh.get_data_block());

    // lookup needs the implementation held by a shared pointer.
    node_impl loose(*n.get_impl());
    EXPECT_THROW(loose.lookup(0x3F), std::bad_weak_ptr);

    // Nodes keep the database alive; subnodes keep their container.
    node sub = [&] {
        auto own_db = open_database(file.path());
        return own_db->lookup_node(0x24).lookup(0x1F).lookup(0x692);
    }();
    Bytes got(5);
    EXPECT_EQ(sub.read(got, 0), 5u);
    EXPECT_EQ(got, ToBytes("inner"));
}

TEST(NdbNode, FailedReadLeavesTheNodeUsable) {
    PstDescription d;
    d.nodes.push_back({.id = 0x24, .data = PatternBytes(20000, 1)});
    TempPstFile file(WritePst(d).bytes);
    auto db = open_database(file.path());
    node n = db->lookup_node(0x24);
    EXPECT_EQ(n.size(), 20000u);
    Bytes all(20000);
    // The second leaf fails to load once; the same node then reads in full.
    krnctlFailFileOperation(KRNCTL_READ, 2);
    EXPECT_THROW(n.read(all, 0), std::out_of_range);
    krnctlReset();
    EXPECT_EQ(n.read(all, 0), 20000u);
    EXPECT_EQ(all, PatternBytes(20000, 1));
}

}  // namespace
