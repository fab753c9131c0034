// The node and block B-trees: page checks, lookups, in-order walks over trees of any depth.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "kernel/tarnkrn_control.h"
#include "store/ndb/database.h"
#include "store/ndb/format.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace {

using tarn::testing::MessageOf;

using namespace tarn::ndb;
using namespace tarn::fixture;
namespace fmt = tarn::ndb::format;

// Node ids 0x22, 0x42, 0x62, ... (type 2, as folders): room below, between and above for misses.
PstDescription Nodes(PstLayout layout, size_t count, size_t fanout) {
    PstDescription d;
    d.layout = layout;
    d.nbt_fanout = fanout;
    d.bbt_fanout = fanout;
    for (size_t i = 0; i < count; ++i) {
        const auto id = static_cast<uint32_t>(0x22 + 0x20 * i);
        d.nodes.push_back({.id = id, .parent = 0x22, .data = PatternBytes(10 + i % 7, id)});
    }
    return d;
}

size_t HeaderBref(PstLayout layout, bool nbt) {
    const auto& h = layout == PstLayout::kAnsi ? fmt::kAnsiHeader : fmt::kUnicodeHeader;
    return nbt ? h.root_nbt : h.root_bbt;
}

TEST(NdbBtree, TreesOfEveryDepthLookUpAndWalkInOrder) {
    struct Case {
        PstLayout layout;
        size_t count;
        size_t fanout;  // 0: full pages
    };
    const Case cases[] = {
        {PstLayout::kUnicode, 0, 0},  {PstLayout::kUnicode, 1, 0},   {PstLayout::kUnicode, 15, 0},
        {PstLayout::kUnicode, 16, 0}, {PstLayout::kUnicode, 400, 0}, {PstLayout::kUnicode, 40, 2},
        {PstLayout::kUnicode, 27, 3}, {PstLayout::kAnsi, 31, 0},     {PstLayout::kAnsi, 32, 0},
        {PstLayout::kAnsi, 700, 0},   {PstLayout::kAnsi, 33, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("count " + std::to_string(c.count) + " fanout " + std::to_string(c.fanout));
        const PstDescription d = Nodes(c.layout, c.count, c.fanout);
        const PstImage image = WritePst(d);
        TempPstFile file(image.bytes);
        auto db = open_database(file.path());

        std::vector<node_id> walked;
        for (const node_info& info : page_range(db->read_nbt_root())) walked.push_back(info.id);
        std::vector<node_id> expected;
        for (const PstNode& n : d.nodes) expected.push_back(n.id);
        EXPECT_EQ(walked, expected);

        // Backwards from the end gives the same ids reversed.
        std::vector<node_id> backwards;
        auto root = std::shared_ptr<const btree_node<node_id, node_info>>(db->read_nbt_root());
        auto begin = btree_iterator<node_id, node_info>::begin(root);
        auto it = btree_iterator<node_id, node_info>::end(root);
        while (!(it == begin)) {
            --it;
            backwards.push_back(it->id);
        }
        std::reverse(backwards.begin(), backwards.end());
        EXPECT_EQ(backwards, expected);

        for (const PstNode& n : d.nodes) {
            const node_info info = db->lookup_node_info(n.id);
            EXPECT_EQ(info.parent_id, 0x22u);
            EXPECT_EQ(info.data_bid, image.Node(n.id).data_bid);
            const block_info block = db->lookup_block_info(info.data_bid);
            EXPECT_EQ(block.address, image.Block(info.data_bid).address);
            EXPECT_EQ(block.size, n.data.size());
        }
        // Misses below the smallest key, between two keys and above the largest: lookup throws, and
        // find, which answers for the same descent without an exception, gives null.
        const auto nbt = db->read_nbt_root();
        for (node_id miss :
             {node_id{0x21}, node_id{0x23}, node_id{0x22 + 0x20 * static_cast<node_id>(c.count)}}) {
            EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { db->lookup_node_info(miss); }),
                      "key not found");
            EXPECT_EQ(nbt->find(miss), nullptr);
        }
        for (const PstNode& n : d.nodes) {
            const node_info* found = nbt->find(n.id);
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(found->data_bid, image.Node(n.id).data_bid);
        }
        // Every block of the store is in the block B-tree, and the walk finds them in id order.
        std::vector<block_id> blocks;
        for (const block_info& info : page_range(db->read_bbt_root())) blocks.push_back(info.id);
        EXPECT_EQ(blocks.size(), image.blocks.size());
        EXPECT_TRUE(std::is_sorted(blocks.begin(), blocks.end()));
    }
}

TEST(NdbBtree, SearchesOverHeldEntriesTakeTheSameStepsAsTheGenericSearch) {
    // Pages and blocks that keep their entries search them directly; on damaged ones (keys out of order,
    // a key twice) that search must land on the very entry the search through get_key lands on.
    const std::vector<std::vector<node_id>> key_sets = {
        {}, {5}, {1, 3, 5, 7, 9}, {9, 7, 5, 3, 1}, {4, 4, 4, 8}, {1, 8, 3, 8, 2, 8, 5}, {0, 0xFFFFFFFF, 7}};
    for (const std::vector<node_id>& keys : key_sets) {
        std::vector<std::pair<node_id, subnode_info>> subnodes;
        std::vector<std::pair<node_id, node_info>> nodes;
        for (size_t i = 0; i < keys.size(); ++i) {
            subnodes.emplace_back(keys[i], subnode_info{keys[i], i + 1, 0});
            nodes.emplace_back(keys[i], node_info{keys[i], i + 1, 0, 0});
        }
        std::vector<std::pair<block_id, page_info>> children;
        for (size_t i = 0; i < keys.size(); ++i)
            children.emplace_back(keys[i], page_info{i + 1, 512 * (i + 1)});
        const subnode_leaf_block subnode_leaf(nullptr, block_info{}, subnodes);
        const nbt_leaf_page node_leaf(nullptr, page_info{}, nodes);
        const bbt_nonleaf_page block_nonleaf(nullptr, page_info{}, 1, children);
        std::vector<node_id> probes = {0xFFFFFFFF, 0xFFFFFFFE};
        for (node_id key = 0; key <= 10; ++key) probes.push_back(key);
        using subnode_search = btree_node_leaf<node_id, subnode_info>;
        using node_search = btree_node_leaf<node_id, node_info>;
        for (node_id key : probes) {
            SCOPED_TRACE("keys " + std::to_string(keys.size()) + " probe " + std::to_string(key));
            EXPECT_EQ(subnode_leaf.find(key), subnode_leaf.subnode_search::find(key));
            EXPECT_EQ(node_leaf.find(key), node_leaf.node_search::find(key));
            EXPECT_EQ(node_leaf.binary_search(key), node_leaf.btree_node::binary_search(key));
            EXPECT_EQ(block_nonleaf.binary_search(key),
                      block_nonleaf.btree_node::binary_search(block_id{key}));
        }
    }
}

TEST(NdbBtree, BlockLookupIgnoresBitZeroAndIdZeroReadsNothing) {
    const PstImage image = WritePst(Nodes(PstLayout::kUnicode, 3, 0));
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    krnctlFailFileOperation(KRNCTL_READ, 1);
    const block_info zero = db->lookup_block_info(0);
    EXPECT_EQ(zero.id, 0u);
    EXPECT_EQ(zero.address, 0u);
    EXPECT_EQ(zero.size, 0u);
    EXPECT_EQ(zero.ref_count, 0u);
    krnctlReset();

    const uint64_t bid = image.Node(0x42).data_bid;
    const block_info odd = db->lookup_block_info(bid | 1);
    EXPECT_EQ(odd.id, bid);
    EXPECT_EQ(odd.address, image.Block(bid).address);
    EXPECT_EQ(odd.ref_count, 1u);
}

TEST(NdbBtree, MissBelowAnIntermediatePageReadsNoChild) {
    const PstImage image = WritePst(Nodes(PstLayout::kAnsi, 20, 2));
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    db->read_nbt_root();
    // Any read of a child page now fails; the miss must be decided by the root alone.
    krnctlFailFileOperation(KRNCTL_READ, 1);
    EXPECT_EQ(MessageOf<key_not_found<node_id>>([&] { db->lookup_node_info(0x10); }), "key not found");
    krnctlReset();
}

TEST(NdbBtree, PageDamageFailsWithItsMessage) {
    struct Case {
        const char* name;
        std::function<void(PstImage&)> damage;
        std::function<void(db_context&)> action;
        const char* message;
    };
    auto read_nbt = [](db_context& db) { db.read_nbt_root(); };
    auto walk_nbt = [](db_context& db) {
        for (const node_info& info : page_range(db.read_nbt_root())) (void)info;
    };
    const Case cases[] = {
        {"wrong page id",
         [](PstImage& im) {
             const auto& root = im.Root(true);
             im.PutId(root.address + (im.layout == PstLayout::kAnsi ? 504 : 504), root.id + 1);
             im.ResignPage(root.address);
         },
         read_nbt, "wrong page id"},
        {"ptype repeat",
         [](PstImage& im) {
             im.Put8(im.Root(true).address + (im.layout == PstLayout::kAnsi ? 501 : 497), 0x80);
         },
         read_nbt, "ptype != ptype repeat?"},
        {"signature",
         [](PstImage& im) {
             im.Put16(im.Root(true).address + (im.layout == PstLayout::kAnsi ? 502 : 498), 0x1234);
         },
         read_nbt, "page sig mismatch"},
        {"nbt page as bbt",
         [](PstImage& im) {
             const auto& nbt = im.Root(true);
             im.PutId(HeaderBref(im.layout, false), nbt.id);
             im.PutId(HeaderBref(im.layout, false) + (im.layout == PstLayout::kAnsi ? 4 : 8), nbt.address);
             im.FixHeaderCrcs();
         },
         [](db_context& db) { db.read_bbt_root(); }, "page_type != page_type_bbt"},
        {"bbt page as nbt",
         [](PstImage& im) {
             const auto& bbt = im.Root(false);
             im.PutId(HeaderBref(im.layout, true), bbt.id);
             im.PutId(HeaderBref(im.layout, true) + (im.layout == PstLayout::kAnsi ? 4 : 8), bbt.address);
             im.FixHeaderCrcs();
         },
         read_nbt, "page_type != page_type_nbt"},
        {"not aligned",
         [](PstImage& im) {
             const size_t at = HeaderBref(im.layout, true) + (im.layout == PstLayout::kAnsi ? 4 : 8);
             im.PutId(at, im.Root(true).address - 64);
             im.FixHeaderCrcs();
         },
         read_nbt, "nonsensical page location; not sector aligned"},
        {"past eof and not aligned: past eof wins",
         [](PstImage& im) {
             const size_t at = HeaderBref(im.layout, true) + (im.layout == PstLayout::kAnsi ? 4 : 8);
             im.PutId(at, im.bytes.size() + 1);
             im.FixHeaderCrcs();
         },
         read_nbt, "nonsensical page location; past eof"},
        {"one byte past eof",
         [](PstImage& im) {
             // The NBT root is the last page: its end is exactly the file's end.
             const auto& h = im.layout == PstLayout::kAnsi ? fmt::kAnsiHeader : fmt::kUnicodeHeader;
             im.PutId(h.file_eof, im.bytes.size() - 1);
             im.FixHeaderCrcs();
         },
         read_nbt, "nonsensical page location; past eof"},
        {"leaf page past eof, found by the walk",
         [](PstImage& im) {
             const auto& root = im.Root(true);
             im.PutId(root.entry_offsets[0] + 2 * (im.layout == PstLayout::kAnsi ? 4 : 8), 0x7FFFFE00);
             im.ResignPage(root.address);
         },
         walk_nbt, "nonsensical page location; past eof"},
    };
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (layout == PstLayout::kAnsi ? " (ANSI)" : " (Unicode)"));
            PstImage image = WritePst(Nodes(layout, 40, 4));
            c.damage(image);
            TempPstFile file(image.bytes);
            auto db = open_database(file.path());
            EXPECT_EQ(MessageOf<std::exception>([&] { c.action(*db); }), c.message);
        }
    }
}

TEST(NdbBtree, SignatureErrorCarriesWhereAndWhat) {
    PstImage image = WritePst(Nodes(PstLayout::kUnicode, 3, 0));
    const auto& root = image.Root(true);
    image.Put16(root.address + 498, 0xBEEF);
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    try {
        db->read_nbt_root();
        ADD_FAILURE() << "no error";
    } catch (const sig_mismatch& e) {
        EXPECT_EQ(e.location(), root.address);
        EXPECT_EQ(e.id(), root.id);
        EXPECT_EQ(e.computed(), PstSignature(root.address, root.id));
        EXPECT_EQ(e.stored(), 0xBEEFu);
    }
}

TEST(NdbBtree, TrailerCrcIsNotChecked) {
    PstImage image = WritePst(Nodes(PstLayout::kUnicode, 30, 3));
    for (const PstPageRecord& p : image.pages) image.Put32(p.address + 500, 0xDEADBEEF);
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    size_t count = 0;
    for (const node_info& info : page_range(db->read_nbt_root())) count += info.id != 0;
    EXPECT_EQ(count, 30u);
}

TEST(NdbBtree, TypedPageReadersCheckTheLevel) {
    const PstImage image = WritePst(Nodes(PstLayout::kAnsi, 40, 4));
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    const auto& root = image.Root(true);
    const auto& leaf = *image.Pages(true, 0).front();
    const page_info root_info{root.id, root.address}, leaf_info{leaf.id, leaf.address};
    EXPECT_NE(db->read_nbt_nonleaf_page(root_info), nullptr);
    EXPECT_NE(db->read_nbt_leaf_page(leaf_info), nullptr);
    EXPECT_EQ(MessageOf<unexpected_page>([&] { db->read_nbt_leaf_page(root_info); }),
              "page_type != page_type_nbt");
    EXPECT_EQ(MessageOf<unexpected_page>([&] { db->read_nbt_nonleaf_page(leaf_info); }),
              "page_type != page_type_nbt");
    EXPECT_EQ(MessageOf<unexpected_page>([&] { db->read_bbt_leaf_page(leaf_info); }),
              "page_type != page_type_bbt");
    const auto& bbt_leaf = *image.Pages(false, 0).front();
    const page_info bbt_leaf_info{bbt_leaf.id, bbt_leaf.address};
    EXPECT_NE(db->read_bbt_leaf_page(bbt_leaf_info), nullptr);
    EXPECT_EQ(MessageOf<unexpected_page>([&] { db->read_bbt_nonleaf_page(bbt_leaf_info); }),
              "page_type != page_type_bbt");
}

TEST(NdbBtree, ChildLoadNeedsTheDatabase) {
    const PstImage image = WritePst(Nodes(PstLayout::kUnicode, 40, 2));
    TempPstFile file(image.bytes);
    auto db = open_database(file.path());
    std::shared_ptr<nbt_page> root = db->read_nbt_root();
    db.reset();  // pages keep only a weak reference
    auto* nonleaf = dynamic_cast<nbt_nonleaf_page*>(root.get());
    ASSERT_NE(nonleaf, nullptr);
    EXPECT_THROW(nonleaf->get_child(0), std::bad_weak_ptr);
}

}  // namespace
