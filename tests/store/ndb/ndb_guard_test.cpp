// Damage that would make a careless reader loop, recurse without end or read outside a buffer:
// trees whose pointers loop or converge, nesting deeper than any store, counts larger than their
// block, and data trees that claim more than their children hold. Each must end in an error.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "store/ndb/database.h"
#include "store/ndb/format.h"
#include "tests/support/pst_writer.h"
#include "tests/support/test_util.h"

namespace {

using tarn::testing::MessageOf;

using namespace tarn::ndb;
using namespace tarn::fixture;
namespace fmt = tarn::ndb::format;

size_t Width(PstLayout layout) { return layout == PstLayout::kAnsi ? 4 : 8; }

void Put(Bytes& b, size_t at, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i) b[at + i] = static_cast<std::byte>((value >> (8 * i)) & 0xFF);
}

// An extended block's bytes, written by hand so that any field can lie.
Bytes XBlock(PstLayout layout, uint8_t level, uint32_t total, const std::vector<uint64_t>& ids,
             uint16_t count) {
    const size_t w = Width(layout);
    Bytes b(8 + ids.size() * w);
    Put(b, 0, 1, 1);
    Put(b, 1, level, 1);
    Put(b, 2, count, 2);
    Put(b, 4, total, 4);
    for (size_t i = 0; i < ids.size(); ++i) Put(b, 8 + i * w, ids[i], w);
    return b;
}

// A subnode block's bytes: leaf entries (id, data, subnodes) or intermediate ones (id, child).
Bytes SubnodeBlock(PstLayout layout, uint8_t level, const std::vector<std::vector<uint64_t>>& entries,
                   uint16_t count) {
    const size_t w = Width(layout);
    const size_t header = layout == PstLayout::kAnsi ? 4 : 8;
    const size_t entry = (level == 0 ? 3 : 2) * w;
    Bytes b(header + entries.size() * entry);
    Put(b, 0, 2, 1);
    Put(b, 1, level, 1);
    Put(b, 2, count, 2);
    for (size_t i = 0; i < entries.size(); ++i)
        for (size_t f = 0; f < entries[i].size(); ++f) Put(b, header + i * entry + f * w, entries[i][f], w);
    return b;
}

void ReadAll(db_context& db, node_id id) {
    node n = db.lookup_node(id);
    Bytes all(n.size());
    if (!all.empty()) n.read(all, 0);
    for (size_t p = 0; p < n.get_page_count(); ++p) n.get_page_size(p);
    for (const subnode_info& info : n.subnodes()) {
        node sub = n.lookup(info.id);
        Bytes data(sub.size());
        if (!data.empty()) sub.read(data, 0);
    }
}

TEST(NdbGuard, DataTreesThatLoopNestOrFallShortEndInAnError) {
    const uint64_t kLeaf = 0x20000, kX1 = 0x20002, kX2 = 0x20006, kX3 = 0x2000A;
    struct Case {
        const char* name;
        std::function<std::vector<PstRawBlock>(PstLayout)> blocks;  // node 0x24's data is kX1
        const char* message;
    };
    const Case cases[] = {
        {"xblock lists itself",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kX1, XBlock(l, 1, 100, {kX1}, 1)}};
         },
         "data tree lists a block twice; its pointers loop"},
        {"xblock lists one leaf twice",
         [=](PstLayout l) {
             const size_t full = l == PstLayout::kAnsi ? 8180 : 8176;
             return std::vector<PstRawBlock>{
                 {kX1, XBlock(l, 1, static_cast<uint32_t>(2 * full), {kLeaf, kLeaf}, 2)},
                 {kLeaf, PatternBytes(full, 1), true}};
         },
         "data tree lists a block twice; its pointers loop"},
        {"three extended levels",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kX1, XBlock(l, 2, 100, {kX2}, 1)},
                                             {kX2, XBlock(l, 1, 100, {kX3}, 1)},
                                             {kX3, XBlock(l, 1, 100, {kLeaf}, 1)},
                                             {kLeaf, PatternBytes(100, 1), true}};
         },
         "extended blocks nest deeper than any data tree can"},
        {"two levels whose child level does not match are read",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kX1, XBlock(l, 1, 100, {kX2}, 1)},
                                             {kX2, XBlock(l, 1, 100, {kLeaf}, 1)},
                                             {kLeaf, PatternBytes(100, 1), true}};
         },
         "(no error)"},
        {"total larger than the children",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kX1, XBlock(l, 1, 9000, {kLeaf, kLeaf}, 2)},
                                             {kLeaf, PatternBytes(100, 1), true}};
         },
         "extended block child holds less data than its share"},
        {"total past the last child",
         [=](PstLayout l) {
             const size_t full = l == PstLayout::kAnsi ? 8180 : 8176;
             return std::vector<PstRawBlock>{{kX1, XBlock(l, 1, 20000, {kLeaf}, 1)},
                                             {kLeaf, PatternBytes(full, 1), true}};
         },
         "index >= m_child_blocks.size()"},
        {"cEnt larger than the block",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kX1, XBlock(l, 1, 100, {kLeaf}, 600)},
                                             {kLeaf, PatternBytes(100, 1), true}};
         },
         "extended block entry count exceeds the block"},
        {"extended block shorter than its header",
         [=](PstLayout l) {
             Bytes b = XBlock(l, 1, 100, {}, 0);
             b.resize(6);
             return std::vector<PstRawBlock>{{kX1, b}};
         },
         "extended block entry count exceeds the block"},
    };
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (layout == PstLayout::kAnsi ? " ANSI" : " Unicode"));
            PstDescription d;
            d.layout = layout;
            d.raw_blocks = c.blocks(layout);
            d.nodes.push_back({.id = 0x24, .data_bid = kX1});
            // Filler, so that the totals claimed above stay within the file and reach the guards
            // behind the one that refuses a tree larger than its file.
            d.nodes.push_back({.id = 0x44, .data = PatternBytes(32768, 2)});
            TempPstFile file(WritePst(d).bytes);
            auto db = open_database(file.path());
            EXPECT_EQ(MessageOf<std::exception>([&] { ReadAll(*db, 0x24); }), c.message);
        }
    }
}

TEST(NdbGuard, SubnodeTreesThatLoopOrOverfillEndInAnError) {
    const uint64_t kSi = 0x30002, kSl = 0x30006;
    struct Case {
        const char* name;
        std::function<std::vector<PstRawBlock>(PstLayout)> blocks;  // node 0x24's subnodes are kSi
        const char* message;
    };
    const Case cases[] = {
        {"siblock lists itself",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kSi, SubnodeBlock(l, 1, {{0x1F, kSi}}, 1)}};
         },
         "subnode block reached twice; the tree's pointers loop"},
        {"two entries lead to one leaf",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kSi, SubnodeBlock(l, 1, {{0x1F, kSl}, {0x3F, kSl}}, 2)},
                                             {kSl, SubnodeBlock(l, 0, {{0x1F, 0, 0}}, 1)}};
         },
         "subnode block reached twice; the tree's pointers loop"},
        {"slblock cEnt larger than the block",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kSi, SubnodeBlock(l, 0, {{0x1F, 0, 0}}, 2000)}};
         },
         "subnode block entry count exceeds the block"},
        {"siblock cEnt larger than the block",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kSi, SubnodeBlock(l, 1, {{0x1F, kSl}}, 3)}};
         },
         "subnode block entry count exceeds the block"},
        {"an siblock under an siblock is read (levels are not compared)",
         [=](PstLayout l) {
             return std::vector<PstRawBlock>{{kSi, SubnodeBlock(l, 1, {{0x1F, 0x3000A}}, 1)},
                                             {0x3000A, SubnodeBlock(l, 1, {{0x1F, kSl}}, 1)},
                                             {kSl, SubnodeBlock(l, 0, {{0x1F, 0, 0}, {0x3F, 0, 0}}, 2)}};
         },
         "(no error)"},
    };
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (layout == PstLayout::kAnsi ? " ANSI" : " Unicode"));
            PstDescription d;
            d.layout = layout;
            d.raw_blocks = c.blocks(layout);
            d.nodes.push_back({.id = 0x24, .data = ToBytes("body"), .subnode_bid = kSi});
            TempPstFile file(WritePst(d).bytes);
            auto db = open_database(file.path());
            EXPECT_EQ(MessageOf<std::exception>([&] { ReadAll(*db, 0x24); }), c.message);
        }
    }
}

TEST(NdbGuard, BtreePagesThatLoopOrOverfillEndInAnError) {
    struct Case {
        const char* name;
        std::function<void(PstImage&)> damage;
        const char* message;
    };
    const Case cases[] = {
        {"root lists itself",
         [](PstImage& im) {
             const auto& root = im.Root(true);
             const size_t w = Width(im.layout);
             im.PutId(root.entry_offsets[1] + w, root.id);
             im.PutId(root.entry_offsets[1] + 2 * w, root.address);
             im.ResignPage(root.address);
         },
         "b-tree page reached twice; the tree's pointers loop"},
        {"two entries lead to one page",
         [](PstImage& im) {
             const auto& root = im.Root(true);
             const size_t w = Width(im.layout);
             im.PutId(root.entry_offsets[1] + w, im.GetId(root.entry_offsets[0] + w));
             im.PutId(root.entry_offsets[1] + 2 * w, im.GetId(root.entry_offsets[0] + 2 * w));
             im.ResignPage(root.address);
         },
         "b-tree page reached twice; the tree's pointers loop"},
        {"leaf cEnt larger than the page",
         [](PstImage& im) {
             const auto* leaf = im.Pages(true, 0).front();
             const auto& page = im.layout == PstLayout::kAnsi ? fmt::kAnsiPage : fmt::kUnicodePage;
             im.Put8(leaf->address + page.c_ent, 0xFF);
         },
         "b-tree page entry count exceeds the page"},
        {"intermediate page without entries",
         [](PstImage& im) {
             const auto& page = im.layout == PstLayout::kAnsi ? fmt::kAnsiPage : fmt::kUnicodePage;
             im.Put8(im.Root(true).address + page.c_ent, 0);
         },
         "b-tree intermediate node has no entries"},
    };
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (layout == PstLayout::kAnsi ? " ANSI" : " Unicode"));
            PstDescription d;
            d.layout = layout;
            d.nbt_fanout = 3;
            for (uint32_t i = 0; i < 9; ++i) d.nodes.push_back({.id = 0x22 + 0x20 * i, .data = ToBytes("n")});
            PstImage image = WritePst(d);
            c.damage(image);
            TempPstFile file(image.bytes);
            auto db = open_database(file.path());
            EXPECT_EQ(MessageOf<std::exception>([&] {
                          for (const node_info& info : page_range(db->read_nbt_root())) ReadAll(*db, info.id);
                      }),
                      c.message);
        }
    }
}

// A chain of intermediate nodes, one entry each, ending in a leaf: deeper than any store's tree. The
// guard lives in the shared B-tree code, so every tree built on it (heaps too) gets it.
class ChainLeaf : public btree_node_leaf<uint32_t, uint32_t> {
  public:
    const uint32_t& get_key(size_t) const override { return key_; }
    const uint32_t& get_value(size_t) const override { return key_; }
    size_t num_values() const override { return 1; }

  private:
    uint32_t key_ = 7;
};

class ChainNonleaf : public btree_node_nonleaf<uint32_t, uint32_t> {
  public:
    explicit ChainNonleaf(size_t below) {
        if (below == 0) {
            child_ = std::make_unique<ChainLeaf>();
        } else {
            child_ = std::make_unique<ChainNonleaf>(below - 1);
        }
    }
    const uint32_t& get_key(size_t) const override { return key_; }
    size_t num_values() const override { return 1; }
    const btree_node<uint32_t, uint32_t>* get_child(size_t) const override { return child_.get(); }

  private:
    uint32_t key_ = 0;
    std::unique_ptr<btree_node<uint32_t, uint32_t>> child_;
};

TEST(NdbGuard, BtreeDepthIsCountedForLookupAndWalk) {
    for (size_t levels : {kMaxBtreeDepth, kMaxBtreeDepth + 1}) {
        auto root = std::make_shared<ChainNonleaf>(levels - 1);  // `levels` intermediate nodes
        const bool fits = levels <= kMaxBtreeDepth;
        EXPECT_EQ(MessageOf<std::exception>([&] { root->lookup(7); }),
                  fits ? "(no error)" : "b-tree nests deeper than any store can");
        EXPECT_EQ(MessageOf<std::exception>([&] {
                      for (uint32_t v : btree_range<uint32_t, uint32_t>(root)) EXPECT_EQ(v, 7u);
                  }),
                  fits ? "(no error)" : "b-tree nests deeper than any store can");
    }
}

}  // namespace
