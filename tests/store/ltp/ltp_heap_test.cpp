// Heap-on-node over writer-made nodes: allocations across many pages read back in both layouts and
// every encoding; the signature checks and their order; and every bound of the page map, including
// the deliberately loose ones, fails with its own message instead of reading outside the block.
#include <gtest/gtest.h>

#include <stdexcept>

#include "store/ltp/heap.h"
#include "store/ndb/errors.h"
#include "tests/store/ltp/ltp_test_util.h"

namespace {

using namespace tarn::ltp;
using namespace tarn::fixture;
using tarn::testing::AllocOffset;
using tarn::testing::MessageOf;
using tarn::testing::OpenNode;
using tarn::testing::Put;
namespace ndb = tarn::ndb;

TEST(HeapTest, AllocationsOnEveryPageReadBackInBothLayoutsAndEncodings) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        for (PstEncoding encoding : {PstEncoding::kNone, PstEncoding::kPermute, PstEncoding::kCyclic}) {
            SCOPED_TRACE(static_cast<int>(layout) * 10 + static_cast<int>(encoding));
            HeapWriter heap(layout, kClientSigPc);
            std::vector<std::pair<uint32_t, Bytes>> written;
            // Sizes 0 to 3580, enough of them to fill more than eight pages, so that page 8 (whose
            // header is the 66-byte bitmap header) holds allocations too.
            for (uint32_t i = 0; i < 40; ++i) {
                const Bytes value = PatternBytes((i * 1543) % (kMaxHeapAllocation + 1), i);
                written.emplace_back(heap.Allocate(value), value);
            }
            heap.SetRoot(written[3].first);
            ASSERT_GT(heap.block_count(), 9u);
            auto store = OpenNode(layout, {heap.Finish(), {}}, 0x21, encoding);
            const heap_ptr h = heap_impl::open(store.node(0x21), heap_sig_pc);
            EXPECT_EQ(h->root_id(), written[3].first);
            for (const auto& [id, value] : written) {
                ASSERT_EQ(h->alloc_size(id), value.size()) << std::hex << id;
                EXPECT_EQ(h->read_whole(id), value);
                if (value.size() > 10) {
                    std::vector<std::byte> middle(value.size() - 10);
                    EXPECT_EQ(h->read_alloc(middle, id, 5), middle.size());
                    EXPECT_TRUE(std::equal(middle.begin(), middle.end(), value.begin() + 5));
                }
            }
        }
    }
}

TEST(HeapTest, SignaturesAreCheckedHeapFirstThenClient) {
    struct Case {
        uint8_t heap_sig, client_sig;
        const char* plain;  // open without a client signature
        const char* as_pc;  // open expecting 0xBC
    };
    const Case cases[] = {
        {0xEC, 0xBC, "(no error)", "(no error)"},
        {0xEC, 0x7C, "(no error)", "invalid client_sig"},
        {0xED, 0x7C, "invalid heap_sig", "invalid heap_sig"},
        {0x00, 0xBC, "invalid heap_sig", "invalid heap_sig"},
    };
    for (const Case& c : cases) {
        HeapWriter heap(PstLayout::kUnicode, c.client_sig);
        heap.heap_sig = c.heap_sig;
        heap.SetRoot(heap.Allocate(ToBytes("x")));
        auto store = OpenNode(PstLayout::kUnicode, {heap.Finish(), {}}, 0x8022);
        EXPECT_EQ(MessageOf<ndb::sig_mismatch>([&] { heap_impl::open(store.node(0x8022)); }), c.plain);
        EXPECT_EQ(MessageOf<ndb::sig_mismatch>([&] { heap_impl::open(store.node(0x8022), heap_sig_pc); }),
                  c.as_pc);
    }
    // The error names the node, the byte found and the one expected.
    HeapWriter heap(PstLayout::kAnsi, 0x7C);
    auto store = OpenNode(PstLayout::kAnsi, {heap.Finish(), {}}, 0x8022);
    try {
        heap_impl::open(store.node(0x8022), heap_sig_pc);
        FAIL();
    } catch (const ndb::sig_mismatch& e) {
        EXPECT_EQ(e.id(), 0x8022u);
        EXPECT_EQ(e.computed(), 0x7Cu);
        EXPECT_EQ(e.stored(), 0xBCu);
    }
}

TEST(HeapTest, DataTooShortForTheHeaderFailsWithTheNodeMessages) {
    // Sizes 0, 1, 11 and 12; 12 is exactly the header, whose root then reads as 0.
    const std::pair<size_t, const char*> cases[] = {{0, "offset >= size()"},
                                                    {1, "sizeof(T) + offset >= size()"},
                                                    {11, "sizeof(T) + offset >= size()"},
                                                    {12, "(no error)"}};
    for (const auto& [size, message] : cases) {
        Bytes data(size, std::byte{0});
        if (size > 2) data[2] = std::byte{0xEC};
        auto store = OpenNode(PstLayout::kUnicode, {data, {}});
        EXPECT_EQ(MessageOf<std::out_of_range>([&] { heap_impl::open(store.node(0x21)); }), message) << size;
        if (size == 12) {
            EXPECT_EQ(heap_impl::open(store.node(0x21))->root_id(), 0u);
        }
    }
}

TEST(HeapTest, AllocationBoundsAndTheirMessages) {
    const PstLayout layout = PstLayout::kUnicode;
    HeapWriter heap(layout, kClientSigPc);
    const uint32_t small = heap.Allocate(ToBytes("abcdef"));
    heap.Allocate(ToBytes("0123456789"));
    heap.NewBlock();
    const uint32_t on_page_1 = heap.Allocate(ToBytes("xyz"));
    ASSERT_EQ(on_page_1, 0x10020u);
    const Bytes data = heap.Finish();
    auto store = OpenNode(layout, {data, {}});
    const heap_ptr h = heap_impl::open(store.node(0x21));

    // Id 0: no allocation, nothing read.
    EXPECT_EQ(h->alloc_size(0), 0u);
    EXPECT_EQ(h->read_alloc({}, 0, 0), 0u);
    EXPECT_TRUE(h->read_whole(0).empty());
    std::vector<std::byte> one(1), six(6), seven(7);
    EXPECT_EQ(MessageOf<std::length_error>([&] { h->read_alloc(one, 0, 0); }), "buffer.size() > size()");

    // The three length checks, in their order, and the exact fits beside them.
    EXPECT_EQ(MessageOf<std::length_error>([&] { h->read_alloc(seven, small, 0); }),
              "buffer.size() > size()");
    EXPECT_EQ(MessageOf<std::length_error>([&] { h->read_alloc({}, small, 7); }), "offset > size()");
    EXPECT_EQ(MessageOf<std::length_error>([&] { h->read_alloc(six, small, 1); }), "size + offset > size()");
    EXPECT_EQ(h->read_alloc({}, small, 6), 0u);
    EXPECT_EQ(h->read_alloc(six, small, 0), 6u);
    EXPECT_EQ(h->read_whole(on_page_1), ToBytes("xyz"));

    // Allocation index 0 maps to position 2047; positions past the count fail.
    EXPECT_EQ(MessageOf<std::length_error>([&] { h->alloc_size(0x10000); }), "index > num_allocs");
    EXPECT_EQ(MessageOf<std::length_error>([&] { h->alloc_size(0x10060); }), "index > num_allocs");
    // A position equal to the count is accepted on purpose and takes the word after the offsets: on
    // page 0 that is padding (0), so the size is 0 minus the last end, near 4 GiB, and reading it is
    // refused; on the last page the map ends there, and our bound refuses the read of that word.
    EXPECT_EQ(h->alloc_size(0x60), 0u - 28u);
    EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { h->read_whole(0x60); }),
              "heap allocation runs past its block");
    EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { h->alloc_size(0x10040); }),
              "heap page map ends before the allocation's offsets");
    // A page past the node's last fails in the node.
    EXPECT_THROW(h->alloc_size(0x20020), std::out_of_range);

    // Damage to the page maps, made in the node data before the store is written.
    const size_t page1 = LeafDataSize(layout);
    const size_t page1_size = data.size() - page1;
    const size_t map0 = std::to_integer<size_t>(data[0]) | std::to_integer<size_t>(data[1]) << 8;
    struct Damage {
        const char* what;
        size_t at;
        uint64_t value;
        uint32_t id;
        const char* message;
    };
    const Damage damages[] = {
        {"page map offset past its page", page1, page1_size + 1, on_page_1, "page_map_offset > node size"},
        {"page map offset at the page end", page1, page1_size, on_page_1,
         "heap page map is cut off by the end of its block"},
        {"end below start", map0 + 4 + 2, 10, small, "heap allocation runs past its block"},
        {"end past the page", map0 + 4 + 4, 9000, 0x40, "heap allocation runs past its block"},
    };
    for (const Damage& d : damages) {
        SCOPED_TRACE(d.what);
        Bytes bad = data;
        Put(bad, d.at, d.value, 2);
        auto damaged = OpenNode(layout, {bad, {}});
        const heap_ptr hd = heap_impl::open(damaged.node(0x21));
        try {
            hd->read_whole(d.id);
            ADD_FAILURE() << "no error";
        } catch (const std::exception& e) {
            EXPECT_STREQ(e.what(), d.message);
        }
    }
    // The size itself is reported unchecked: an end below its start gives a size near 4 GiB.
    Bytes bad = data;
    Put(bad, map0 + 4 + 2, 10, 2);
    auto damaged = OpenNode(layout, {bad, {}});
    EXPECT_EQ(heap_impl::open(damaged.node(0x21))->alloc_size(small), 0u - 2u);
}

}  // namespace
