// BTH over writer-made heaps: the three instantiations read back; the header checks; the deliberate
// rules (every record read with an 8-byte stride, bIdxLevels 0 and 1 both meaning a leaf root) shown
// against trees written the way the format lays them out; lazy children, cursors and loops.
#include <gtest/gtest.h>

#include <stdexcept>

#include "store/ltp/bth.h"
#include "store/ndb/errors.h"
#include "tests/store/ltp/ltp_test_util.h"

namespace {

using namespace tarn::ltp;
using namespace tarn::fixture;
using tarn::testing::MessageOf;
using tarn::testing::OpenNode;
namespace ndb = tarn::ndb;

struct Built {
    tarn::testing::OpenStore store;
    heap_ptr heap;
    uint32_t header = 0;
};

// A heap holding one BTH of `count` records: key k = 3 * i + 10, value = 1000 + i.
Built Build(uint8_t key_size, uint8_t entry_size, size_t count, const BthOptions& options = {}) {
    HeapWriter heap(PstLayout::kUnicode, kClientSigPc);
    std::vector<BthRecord> records;
    for (size_t i = 0; i < count; ++i) {
        Bytes value = Le(1000 + i, entry_size);
        if (entry_size == 6)
            value = Bytes{std::byte{0x03}, std::byte{0}, value[0], value[1], value[2], value[3]};
        records.push_back({static_cast<uint32_t>(3 * i + 10), value});
    }
    Built b;
    b.header = WriteBth(heap, key_size, entry_size, records, options);
    heap.SetRoot(b.header);
    b.store = OpenNode(PstLayout::kUnicode, {heap.Finish(), {}});
    b.heap = heap_impl::open(b.store.node(0x21));
    return b;
}

template <typename K, typename V>
uint32_t ValueOf(const V& v) {
    if constexpr (std::is_same_v<V, prop_entry>) {
        return v.id;
    } else {
        return v;
    }
}

// Every key found with its value, keys around them absent, and an in-order walk over all of them.
template <typename K, typename V>
void ExpectWholeTree(const std::shared_ptr<bth_node<K, V>>& root, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const K key = static_cast<K>(3 * i + 10);
        ASSERT_EQ(ValueOf<K>(root->lookup(key)), 1000 + i) << key;
        EXPECT_THROW(root->lookup(static_cast<K>(key + 1)), key_not_found<K>);
    }
    try {
        root->lookup(9);  // below every key: the search position is -1
        ADD_FAILURE();
    } catch (const key_not_found<K>& e) {
        EXPECT_EQ(e.which(), 9);
    }
    size_t seen = 0;
    for (auto it = ndb::btree_iterator<K, V>::begin(root), end = ndb::btree_iterator<K, V>::end(root);
         !(it == end); ++it, ++seen) {
        ASSERT_EQ(it.key(), static_cast<K>(3 * seen + 10));
    }
    EXPECT_EQ(seen, count);
}

TEST(BthTest, TheThreeInstantiationsReadBackAcrossLevels) {
    // One leaf, and trees of two and three tiers (headers stating the tiers the way this reader counts).
    const std::pair<size_t, BthOptions> shapes[] = {
        {40, {}},
        {200, {.max_per_node = 30, .idx_levels = 2}},
        {500, {.max_per_node = 10, .idx_levels = 3}},
    };
    for (const auto& [count, options] : shapes) {
        SCOPED_TRACE(count);
        BthOptions fixed = options;
        fixed.stride = BthStride::kFixed8;
        {
            // Intermediate records of 2-byte keys need the 8-byte stride this reader uses.
            Built b = Build(2, 6, count, fixed);
            ExpectWholeTree(open_bth<prop_id, prop_entry>(b.heap, b.header), count);
        }
        {
            Built b = Build(4, 4, count, options);
            ExpectWholeTree(open_bth<uint32_t, uint32_t>(b.heap, b.header), count);
        }
        {
            Built b = Build(4, 2, count, fixed);
            ExpectWholeTree(open_bth<uint32_t, uint16_t>(b.heap, b.header), count);
        }
    }
    // Children are opened on first use and kept.
    Built b = Build(4, 4, 200, {.max_per_node = 30, .idx_levels = 2});
    auto root = open_bth<uint32_t, uint32_t>(b.heap, b.header);
    ASSERT_FALSE(root->is_leaf());
    auto* inner = dynamic_cast<bth_nonleaf_node<uint32_t, uint32_t>*>(root.get());
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->num_values(), 7u);
    EXPECT_EQ(inner->get_child(3), inner->get_child(3));
    EXPECT_EQ(inner->get_child(6)->num_values(), 20u);
    EXPECT_EQ(inner->get_key(1), 3u * 30 + 10);
}

TEST(BthTest, BIdxLevelsZeroAndOneBothMeanALeafRoot) {
    // Two tiers written as the format counts them (bIdxLevels 1): the root's records are read as leaf
    // records, so its keys are the first keys of the leaves and its "values" the leaves' heap ids.
    Built b = Build(4, 4, 200, {.max_per_node = 30});
    auto root = open_bth<uint32_t, uint32_t>(b.heap, b.header);
    ASSERT_TRUE(root->is_leaf());
    EXPECT_EQ(root->num_values(), 7u);
    EXPECT_EQ(root->get_key(2), 3u * 60 + 10);
    EXPECT_EQ(root->lookup(10) & 0x1F, 0u);  // a heap id, not a row number
    EXPECT_THROW(root->lookup(13), key_not_found<uint32_t>);
    // A single leaf reads the same whether the header says 0 or 1.
    for (uint8_t levels : {0, 1}) {
        Built one = Build(2, 6, 12, {.idx_levels = levels});
        ExpectWholeTree(open_bth<prop_id, prop_entry>(one.heap, one.header), 12);
    }
}

TEST(BthTest, RecordsAreReadWithAnEightByteStride) {
    // A 2-byte-value row index as the format writes it (6-byte records) is read out of step: 40
    // records of 6 bytes are 240 bytes, read as 30 records of 8.
    Built file = Build(4, 2, 40);
    auto misread = open_bth<uint32_t, uint16_t>(file.heap, file.header);
    EXPECT_EQ(misread->num_values(), 30u);
    EXPECT_EQ(misread->get_key(0), 10u);
    EXPECT_NE(misread->get_key(1), 13u);
    // One 6-byte record is shorter than a stride: the trailing bytes are ignored and nothing is found.
    Built single = Build(4, 2, 1);
    auto empty = open_bth<uint32_t, uint16_t>(single.heap, single.header);
    EXPECT_EQ(empty->num_values(), 0u);
    EXPECT_THROW(empty->lookup(10), key_not_found<uint32_t>);
    // Intermediate records of 2-byte keys as the format writes them (6 bytes) misplace the children.
    Built inner = Build(2, 6, 100, {.max_per_node = 20, .idx_levels = 2});
    auto root = open_bth<prop_id, prop_entry>(inner.heap, inner.header);
    EXPECT_EQ(root->num_values(), 3u);  // 5 records of 6 bytes = 30 bytes = 3 of 8
}

TEST(BthTest, HeaderChecks) {
    // The signature is the store's sig_mismatch; the two sizes are logic errors, not store damage.
    enum class Error { kNone, kSignature, kLogic };
    struct Case {
        const char* what;
        uint8_t key_size, entry_size;
        BthOptions options;
        int variant;  // 0: <prop_id, prop_entry>, 1: <u32, u32>, 2: <u32, u16>
        Error error;
        const char* message;
    };
    const Case cases[] = {
        {"signature", 2, 6, {.signature = 0xB4}, 0, Error::kSignature, "bth_signature expected"},
        {"property index opened as a row index", 2, 6, {}, 1, Error::kLogic, "invalid key size"},
        {"4-byte values opened as 2-byte", 4, 4, {}, 2, Error::kLogic, "invalid entry size"},
        {"2-byte values opened as 4-byte", 4, 2, {}, 1, Error::kLogic, "invalid entry size"},
        {"key size stated wrong", 2, 6, {.key_size = 4}, 0, Error::kLogic, "invalid key size"},
        {"sound", 2, 6, {}, 0, Error::kNone, ""},
        {"sound row index", 4, 4, {}, 1, Error::kNone, ""},
        {"sound row index of 2-byte values", 4, 2, {}, 2, Error::kNone, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Built b = Build(c.key_size, c.entry_size, 5, c.options);
        const auto open = [&] {
            if (c.variant == 0) open_bth<prop_id, prop_entry>(b.heap, b.header);
            if (c.variant == 1) open_bth<uint32_t, uint32_t>(b.heap, b.header);
            if (c.variant == 2) open_bth<uint32_t, uint16_t>(b.heap, b.header);
        };
        // MessageOf catches only the type named, so an error of another type fails the test too.
        switch (c.error) {
            case Error::kNone:
                EXPECT_NO_THROW(open());
                break;
            case Error::kSignature:
                EXPECT_EQ(MessageOf<ndb::sig_mismatch>(open), c.message);
                break;
            case Error::kLogic:
                EXPECT_EQ(MessageOf<std::logic_error>(open), c.message);
                break;
        }
    }
    // The signature error carries no location, the header's id, the byte found and the byte expected.
    Built bad = Build(2, 6, 5, {.signature = 0xB4});
    try {
        open_bth<prop_id, prop_entry>(bad.heap, bad.header);
        ADD_FAILURE() << "a BTH header of type 0xB4 opened";
    } catch (const ndb::sig_mismatch& e) {
        EXPECT_EQ(e.location(), 0u);
        EXPECT_EQ(e.id(), bad.header);
        EXPECT_EQ(e.computed(), 0xB4u);
        EXPECT_EQ(e.stored(), 0xB5u);
    }
    // hidRoot 0: an empty leaf. A header allocation shorter than 8 bytes fails in the heap.
    Built none = Build(2, 6, 0);
    auto empty = open_bth<prop_id, prop_entry>(none.heap, none.header);
    EXPECT_EQ(empty->num_values(), 0u);
    EXPECT_THROW(empty->lookup(10), key_not_found<prop_id>);
    HeapWriter heap(PstLayout::kUnicode, kClientSigPc);
    const uint32_t short_header = heap.Allocate(Bytes{std::byte{0xB5}, std::byte{2}, std::byte{6}});
    auto store = OpenNode(PstLayout::kUnicode, {heap.Finish(), {}});
    EXPECT_EQ(MessageOf<std::length_error>(
                  [&] { open_bth<prop_id, prop_entry>(heap_impl::open(store.node(0x21)), short_header); }),
              "buffer.size() > size()");
}

TEST(BthTest, ATreeThatPointsAtItselfEndsInAnError) {
    // An intermediate node whose only child is itself, under a header claiming 255 levels.
    HeapWriter heap(PstLayout::kUnicode, kClientSigPc);
    const uint32_t self = heap.Allocate(Bytes(8, std::byte{0}));
    Bytes record = Le(1, 4);
    const Bytes child = Le(self, 4);
    record.insert(record.end(), child.begin(), child.end());
    heap.Set(self, record);
    Bytes header{std::byte{0xB5}, std::byte{4}, std::byte{4}, std::byte{255}};
    const Bytes root = Le(self, 4);
    header.insert(header.end(), root.begin(), root.end());
    const uint32_t h = heap.Allocate(header);
    auto store = OpenNode(PstLayout::kUnicode, {heap.Finish(), {}});
    auto tree = open_bth<uint32_t, uint32_t>(heap_impl::open(store.node(0x21)), h);
    EXPECT_THROW(tree->lookup(5), ndb::database_corrupt);
    using iterator = ndb::btree_iterator<uint32_t, uint32_t>;
    EXPECT_THROW(iterator::begin(tree), ndb::database_corrupt);
}

}  // namespace
