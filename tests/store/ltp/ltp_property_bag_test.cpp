// Property contexts over writer-made nodes: every accessor against the writer's own list of what it
// wrote, values in the entry, in the heap and in subnodes, in both layouts; the text rule of
// read_wstring; value streams and their seeks; and the failures a caller can meet.
#include <gtest/gtest.h>

#include <stdexcept>

#include "store/ltp/property_bag.h"
#include "store/ndb/errors.h"
#include "tests/store/ltp/ltp_test_util.h"

namespace {

using namespace tarn::ltp;
using namespace tarn::fixture;
using tarn::testing::MessageOf;
using tarn::testing::OpenNode;
namespace ndb = tarn::ndb;

std::vector<std::byte> Drain(hnid_stream_device device) {
    prop_stream in(device);
    std::vector<std::byte> all;
    char piece[1000];
    while (in.read(piece, sizeof piece) || in.gcount() > 0) {
        const auto* b = reinterpret_cast<const std::byte*>(piece);
        all.insert(all.end(), b, b + in.gcount());
    }
    return all;
}

// A property of each way of storing, with the value the writer put there.
std::vector<PcProperty> Sample() {
    return {
        {0x0017, 0x0003, Le(2, 4)},  // 4-byte integer, in the entry
        {0x0E07, 0x0003, Le(0xDEADBEEF, 4)},
        {0x0057, 0x000B, Le(1, 4)},                      // boolean
        {0x3FDE, 0x0002, Le(0xFFFE, 2)},                 // 2-byte integer
        {0x0039, 0x0040, Le(0x01D2C3B4A5968778ull, 8)},  // 8 bytes, through the heap
        {0x0037, 0x001F, Utf16(std::string_view("Subject line"))},
        {0x0C1A, 0x001E, ToBytes("Sender")},
        {0x1000, 0x001F, PatternBytes(20000, 7)},      // too big for the heap: a subnode
        {0x1013, 0x0102, PatternBytes(300, 8), true},  // small, but put in a subnode
        {0x1009, 0x0102, PatternBytes(3580, 9)},       // the largest heap allocation
        {0x3701, 0x0102, {}},                          // empty: HNID 0
        {0x0E04, 0x001F, {}, true},                    // empty subnode
    };
}

TEST(PropertyBagTest, EveryAccessorReturnsWhatWasWritten) {
    for (PstLayout layout : {PstLayout::kAnsi, PstLayout::kUnicode}) {
        SCOPED_TRACE(static_cast<int>(layout));
        const std::vector<PcProperty> sample = Sample();
        auto store = OpenNode(layout, WritePropertyContext(layout, sample), 0x200024, PstEncoding::kPermute);
        const property_bag bag(store.node(0x200024));

        std::vector<prop_id> ids;
        for (const PcProperty& p : sample) ids.push_back(p.id);
        std::sort(ids.begin(), ids.end());
        EXPECT_EQ(bag.prop_list(), ids);

        for (const PcProperty& p : sample) {
            SCOPED_TRACE(p.id);
            EXPECT_TRUE(bag.prop_exists(p.id));
            EXPECT_EQ(bag.get_prop_type(p.id), p.type);
            if (IsInlineType(p.type)) {
                uint32_t v = 0;
                for (size_t i = 0; i < p.value.size(); ++i)
                    v |= std::to_integer<uint32_t>(p.value[i]) << (8 * i);
                EXPECT_EQ(bag.get_value_4(p.id), v);
                EXPECT_EQ(bag.get_value_2(p.id), static_cast<uint16_t>(v));
                EXPECT_EQ(bag.get_value_1(p.id), static_cast<uint8_t>(v));
                continue;
            }
            EXPECT_EQ(bag.get_value_variable(p.id), p.value);
            EXPECT_EQ(bag.prop_size(p.id), p.value.size());
            EXPECT_EQ(Drain(bag.open_prop_stream(p.id)), p.value);
        }
        EXPECT_EQ(bag.get_value_8(0x0039), 0x01D2C3B4A5968778ull);
        EXPECT_EQ(bag.read_wstring(0x0037), u"Subject line");
        EXPECT_EQ(bag.read_wstring(0x0C1A), u"Sender");
        EXPECT_EQ(bag.get_value_4(0x3701), 0u);  // the HNID of an empty value
        EXPECT_NE(bag.get_value_4(0x1013) & 0x1F, 0u);
    }
}

TEST(PropertyBagTest, ReadWstringWidensEightBitTextAndKeepsWhatIsStored) {
    const std::vector<PcProperty> props = {
        {0x0001, 0x001E, Bytes{std::byte{0x63}, std::byte{0x61}, std::byte{0x66}, std::byte{0xE9}}},
        {0x0002, 0x001F,
         Bytes{std::byte{'a'}, std::byte{0}, std::byte{'b'}, std::byte{0}, std::byte{0x34}, std::byte{0x12},
               std::byte{0x7F}}},                                  // 7 bytes: 3 units
        {0x0003, 0x001F, Utf16(std::u16string_view(u"hi\0", 3))},  // a stored terminator is kept
        {0x0004, 0x001E, Bytes{std::byte{'x'}, std::byte{0x80}, std::byte{0}}},
        {0x0005, 0x0102,
         Bytes{std::byte{'o'}, std::byte{0}, std::byte{'k'}, std::byte{0}}},  // binary: UTF-16
    };
    auto store = OpenNode(PstLayout::kUnicode, WritePropertyContext(PstLayout::kUnicode, props));
    const property_bag bag(store.node(0x21));
    EXPECT_EQ(bag.read_wstring(0x0001), (std::u16string{0x0063, 0x0061, 0x0066, 0xFFE9}));
    EXPECT_EQ(bag.read_wstring(0x0002), (std::u16string{u'a', u'b', 0x1234}));
    EXPECT_EQ(bag.read_wstring(0x0003), std::u16string(u"hi\0", 3));
    EXPECT_EQ(bag.read_wstring(0x0004), (std::u16string{u'x', 0xFF80, 0}));
    EXPECT_EQ(bag.read_wstring(0x0005), u"ok");
}

TEST(PropertyBagTest, StreamsSeekWithinTheirValueInBothModes) {
    const Bytes value = PatternBytes(9000, 3);
    const Bytes small = PatternBytes(100, 4);
    auto store = OpenNode(
        PstLayout::kUnicode,
        WritePropertyContext(PstLayout::kUnicode,
                             {{0x1000, 0x0102, value}, {0x1001, 0x0102, small}, {0x1002, 0x0102, {}}}));
    for (prop_id id : {prop_id{0x1000}, prop_id{0x1001}}) {
        const Bytes& expected = id == 0x1000 ? value : small;
        const std::streamoff size = static_cast<std::streamoff>(expected.size());
        hnid_stream_device device = property_bag(store.node(0x21)).open_prop_stream(id);  // outlives its bag
        EXPECT_EQ(device.seek(-5, std::ios_base::beg), 0);
        EXPECT_EQ(device.seek(10, std::ios_base::end), size);
        char c;
        EXPECT_EQ(device.read(&c, 1), -1);
        EXPECT_EQ(device.seek(-3, std::ios_base::end), size - 3);
        EXPECT_EQ(device.seek(1, std::ios_base::cur), size - 2);
        char tail[10];
        EXPECT_EQ(device.read(tail, 10), 2);
        EXPECT_EQ(static_cast<std::byte>(tail[1]), expected.back());
        EXPECT_EQ(device.seek(std::numeric_limits<int64_t>::max(), std::ios_base::cur), size);
        EXPECT_EQ(device.seek(std::numeric_limits<int64_t>::min(), std::ios_base::cur), 0);
        // Through the buffered stream, from the middle.
        prop_stream in(device);
        in.seekg(50);
        char piece[20];
        in.read(piece, 20);
        EXPECT_EQ(in.gcount(), 20);
        EXPECT_EQ(static_cast<std::byte>(piece[0]), expected[50]);
    }
    hnid_stream_device empty = property_bag(store.node(0x21)).open_prop_stream(0x1002);
    char c;
    EXPECT_EQ(empty.read(&c, 1), -1);
    EXPECT_EQ(empty.seek(5, std::ios_base::beg), 0);
}

TEST(PropertyBagTest, FailuresACallerCanMeet) {
    auto content =
        WritePropertyContext(PstLayout::kUnicode, {{0x0037, 0x001F, Utf16(std::string_view("s"))},
                                                   {0x0039, 0x0040, Le(5, 3)}});  // 8-byte type, 3 bytes
    auto store = OpenNode(PstLayout::kUnicode, content);
    const property_bag bag(store.node(0x21));
    EXPECT_FALSE(bag.prop_exists(0x0E04));
    try {
        bag.get_prop_type(0x0E04);
        ADD_FAILURE();
    } catch (const key_not_found<prop_id>& e) {
        EXPECT_EQ(e.which(), 0x0E04);
    }
    for (auto call : {+[](const property_bag& b) { b.get_value_4(0x0E04); },
                      +[](const property_bag& b) { b.get_value_variable(0x0E04); },
                      +[](const property_bag& b) { b.prop_size(0x0E04); },
                      +[](const property_bag& b) { b.open_prop_stream(0x0E04); },
                      +[](const property_bag& b) { b.read_wstring(0x0E04); }}) {
        EXPECT_THROW(call(bag), key_not_found<prop_id>);
    }
    // An 8-byte value read from fewer bytes is refused instead of read past.
    EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { bag.get_value_8(0x0039); }),
              "8-byte property value holds fewer than 8 bytes");

    // A subnode HNID without its subnode: the subnode lookup's key_not_found.
    auto orphan = WritePropertyContext(PstLayout::kUnicode, {{0x1000, 0x0102, PatternBytes(50, 1), true}});
    orphan.subnodes.clear();
    auto orphan_store = OpenNode(PstLayout::kUnicode, orphan);
    const property_bag lost(orphan_store.node(0x21));
    EXPECT_THROW(lost.get_value_variable(0x1000), key_not_found<uint32_t>);
    EXPECT_THROW(lost.prop_size(0x1000), key_not_found<uint32_t>);

    // A bag's copy skips the client signature; building one from a table's heap does not.
    auto table_heap = WritePropertyContext(
        PstLayout::kUnicode, {{0x0037, 0x001F, Utf16(std::string_view("t"))}}, {.client_sig = kClientSigTc});
    auto tc_store = OpenNode(PstLayout::kUnicode, table_heap);
    EXPECT_EQ(MessageOf<ndb::sig_mismatch>([&] { property_bag b(tc_store.node(0x21)); }),
              "invalid client_sig");
    const property_bag copy(bag);
    EXPECT_EQ(copy.read_wstring(0x0037), u"s");
    EXPECT_NE(copy.heap(), bag.heap());
}

TEST(PropertyBagTest, AnIndexThatRevisitsAnAllocationIsRefused) {
    // A two-tier index (read with the 8-byte stride) whose root lists the same leaf twice.
    HeapWriter heap(PstLayout::kUnicode, kClientSigPc);
    Bytes leaf = Le(0x0037, 2);
    const Bytes entry = Le(0x0003, 2);
    leaf.insert(leaf.end(), entry.begin(), entry.end());
    const Bytes value = Le(7, 4);
    leaf.insert(leaf.end(), value.begin(), value.end());
    const uint32_t leaf_id = heap.Allocate(leaf);
    Bytes root;
    for (uint16_t key : {0x0037, 0x0038}) {
        const Bytes k = Le(key, 4), c = Le(leaf_id, 4);
        root.insert(root.end(), k.begin(), k.end());
        root.insert(root.end(), c.begin(), c.end());
    }
    const uint32_t root_id = heap.Allocate(root);
    Bytes header{std::byte{0xB5}, std::byte{2}, std::byte{6}, std::byte{2}};
    const Bytes r = Le(root_id, 4);
    header.insert(header.end(), r.begin(), r.end());
    heap.SetRoot(heap.Allocate(header));
    auto store = OpenNode(PstLayout::kUnicode, {heap.Finish(), {}});
    const property_bag bag(store.node(0x21));
    EXPECT_EQ(bag.get_value_4(0x0037), 7u);
    EXPECT_EQ(MessageOf<ndb::database_corrupt>([&] { bag.prop_list(); }),
              "property index reaches one allocation twice");
}

}  // namespace
