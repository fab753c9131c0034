// The per-file data slot routines: lookup of our record among other filters' data, growth of a slot
// into an "LMLT" list, and exposing an entry to a loader.
#include "common/filterdata.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "common/status.h"
#include "kernel/tarnkrn_control.h"

namespace tarn {
namespace {

// Data that begins with our record's tag, and data that does not.
struct FakeRecord {
    uint32_t tag = kPstRecordTag;
    int32_t payload = 0;
};
struct Foreign {
    uint32_t tag = 0x12345678;
};

// A list the test owns, laid out as the toolkit would lay it out.
struct TestList {
    explicit TestList(int32_t entries, int32_t total_size = -1)
        : bytes(ListBytes(static_cast<size_t>(entries)) + 64) {
        head()->tag = kFilterDataListTag;
        head()->entry_count = entries;
        head()->total_size =
            total_size >= 0 ? total_size : static_cast<int32_t>(ListBytes(static_cast<size_t>(entries)));
    }
    FilterDataList* head() { return reinterpret_cast<FilterDataList*>(bytes.data()); }
    FilterDataEntry& entry(int i) { return ListEntries(head())[i]; }
    std::vector<std::byte> bytes;
};

FilterDataSlot SlotWith(void* data, int32_t size, int32_t count) {
    FilterDataSlot slot{};
    slot.data = data;
    slot.size = size;
    slot.count = count;
    slot.default_count = 7;
    return slot;
}

FilterDataList* HeldList(const FilterDataSlot& slot) { return static_cast<FilterDataList*>(slot.data); }

TEST(FindSlotData, FindsTheRecordOrSaysWhyNot) {
    FakeRecord record;
    Foreign foreign;
    void* found = nullptr;

    FilterDataSlot empty = SlotWith(nullptr, 0, 0);
    EXPECT_EQ(FindSlotData(nullptr, &found), kStatusNullPointer);
    EXPECT_EQ(FindSlotData(&empty, &found), kStatusNullPointer);
    FilterDataSlot direct = SlotWith(&record, sizeof record, 1);
    EXPECT_EQ(FindSlotData(&direct, nullptr), kStatusNullPointer);
    ASSERT_EQ(FindSlotData(&direct, &found), kStatusOk);
    EXPECT_EQ(found, &record);

    // A single datum of another filter counts as one entry, which is too few to hold ours as well.
    FilterDataSlot other = SlotWith(&foreign, sizeof foreign, 1);
    EXPECT_EQ(FindSlotData(&other, &found), kStatusBadArgument);

    // Our record in entry 2, behind another filter's datum and an empty entry.
    TestList list(3);
    list.entry(0).data = &foreign;
    list.entry(2).data = &record;
    FilterDataSlot listed = SlotWith(list.head(), 0, kSlotHoldsList);
    found = nullptr;
    ASSERT_EQ(FindSlotData(&listed, &found), kStatusOk);
    EXPECT_EQ(found, &record);
    listed.size = list.head()->total_size;  // a slot size equal to the list's is as good as none
    EXPECT_EQ(FindSlotData(&listed, &found), kStatusOk);

    list.entry(2).data = &foreign;
    EXPECT_EQ(FindSlotData(&listed, &found), kStatusBadArgument);
}

TEST(FindSlotData, RejectsMalformedLists) {
    FakeRecord record;
    struct Case {
        const char* what;
        uint32_t tag;
        int32_t entries;
        int32_t total_size;
        int32_t slot_size;
        int32_t expected;
    };
    const int32_t fits = static_cast<int32_t>(ListBytes(2));
    const Case cases[] = {
        {"wrong tag", 0x4C4D4C54, 2, fits, 0, kStatusBadArgument},
        {"one entry", kFilterDataListTag, 1, fits, 0, kStatusBadArgument},
        {"no entries", kFilterDataListTag, 0, fits, 0, kStatusBadArgument},
        {"negative entries", kFilterDataListTag, -5, fits, 0, kStatusBadArgument},
        {"slot size differs", kFilterDataListTag, 2, fits, fits + 4, kStatusFormatFailure},
        {"too small for its entries", kFilterDataListTag, 2, fits - 1, 0, kStatusFormatFailure},
        {"negative total", kFilterDataListTag, 2, -1, 0, kStatusFormatFailure},
    };
    for (const Case& c : cases) {
        TestList list(2);
        list.entry(0).data = &record;
        list.head()->tag = c.tag;
        list.head()->entry_count = c.entries;
        list.head()->total_size = c.total_size;
        FilterDataSlot slot = SlotWith(list.head(), c.slot_size, kSlotHoldsList);
        void* found = nullptr;
        EXPECT_EQ(FindSlotData(&slot, &found), c.expected) << c.what;
        EXPECT_EQ(found, nullptr) << c.what;
    }
}

TEST(StoreSlotData, GrowsASingleRecordIntoAList) {
    FakeRecord record;
    FakeRecord loader_data;
    FilterDataSlot slot = SlotWith(nullptr, 0, 0);

    // Index 0 of an empty slot takes the datum directly, the default count standing in for -1.
    ASSERT_EQ(StoreSlotData(&slot, 0, &record, 0, kUseDefaultCount), kStatusOk);
    EXPECT_EQ(slot.data, &record);
    EXPECT_EQ(slot.count, 7);
    EXPECT_EQ(StoreSlotData(&slot, 0, &record, 0, kUseDefaultCount), kStatusOk);  // the same pointer again
    EXPECT_EQ(slot.data, &record);

    ASSERT_EQ(StoreSlotData(&slot, 3, FilterDataEntry{&loader_data, 40, kUseDefaultCount, 99}), kStatusOk);
    ASSERT_EQ(slot.count, kSlotHoldsList);
    EXPECT_EQ(slot.size, 0);
    FilterDataList* list = HeldList(slot);
    EXPECT_EQ(list->tag, kFilterDataListTag);
    EXPECT_EQ(list->entry_count, 4);
    // Twelve bytes of head and four entries of sixteen on the toolkit's 32-bit build.
    const size_t expected_size = sizeof(void*) == 4 ? 76 : kListEntriesOffset + 4 * sizeof(FilterDataEntry);
    EXPECT_EQ(static_cast<size_t>(list->total_size), expected_size);
    const FilterDataEntry* entries = ListEntries(list);
    EXPECT_EQ(entries[0].data, &record);
    EXPECT_EQ(entries[0].count, 7);
    EXPECT_EQ(entries[1].data, nullptr);
    EXPECT_EQ(entries[2].data, nullptr);
    EXPECT_EQ(entries[3].data, &loader_data);
    EXPECT_EQ(entries[3].size, 40);
    EXPECT_EQ(entries[3].count, 7);
    EXPECT_EQ(entries[3].extra, 99);

    // The record is still found, and an occupied entry refuses other data but takes its own again.
    void* found = nullptr;
    EXPECT_EQ(FindSlotData(&slot, &found), kStatusOk);
    EXPECT_EQ(found, &record);
    FakeRecord intruder;
    EXPECT_EQ(StoreSlotData(&slot, 3, &intruder, 0, 1), kStatusSlotOccupied);
    EXPECT_EQ(StoreSlotData(&slot, 0, &intruder, 0, 1), kStatusSlotOccupied);
    EXPECT_EQ(StoreSlotData(&slot, 3, &loader_data, 40, 1), kStatusOk);

    // Filling a gap does not grow the list; an index beyond it grows it, with the new entries empty.
    ASSERT_EQ(StoreSlotData(&slot, 1, &intruder, 0, 2), kStatusOk);
    EXPECT_EQ(HeldList(slot)->entry_count, 4);
    ASSERT_EQ(StoreSlotData(&slot, 6, &intruder, 0, 2), kStatusOk);
    list = HeldList(slot);
    EXPECT_EQ(list->entry_count, 7);
    EXPECT_EQ(static_cast<size_t>(list->total_size), ListBytes(7));
    EXPECT_EQ(ListEntries(list)[3].data, &loader_data);
    EXPECT_EQ(ListEntries(list)[4].data, nullptr);
    EXPECT_EQ(ListEntries(list)[5].data, nullptr);

    krnFree(slot.data, __FILE__, __LINE__);
}

TEST(StoreSlotData, RefusesWithoutChangingTheSlot) {
    FakeRecord record;
    FakeRecord other;

    EXPECT_EQ(StoreSlotData(nullptr, 0, &record, 0, 1), kStatusNullPointer);
    FilterDataSlot slot = SlotWith(nullptr, 0, 0);
    EXPECT_EQ(StoreSlotData(&slot, 2, nullptr, 0, 1), kStatusOk);  // nothing to store
    EXPECT_EQ(slot.data, nullptr);
    EXPECT_EQ(StoreSlotData(&slot, -1, &record, 0, 1), kStatusIndexOutOfRange);

    // A single other datum cannot be replaced at index 0.
    FilterDataSlot single = SlotWith(&record, 8, 1);
    EXPECT_EQ(StoreSlotData(&single, 0, &other, 0, 1), kStatusSlotOccupied);
    EXPECT_EQ(single.data, &record);

    // Out of memory while the slot turns into a list: the slot keeps its single datum.
    krnctlFailAllocation(1);
    EXPECT_EQ(StoreSlotData(&single, 1, &other, 0, 1), kStatusFailure);
    EXPECT_EQ(single.data, &record);
    EXPECT_EQ(single.count, 1);

    // A list that does not hold together is not written into.
    TestList broken(2);
    broken.head()->tag = 0;
    FilterDataSlot listed = SlotWith(broken.head(), 0, kSlotHoldsList);
    EXPECT_EQ(StoreSlotData(&listed, 1, &other, 0, 1), kStatusBadArgument);

    // Out of memory while a kernel-made list grows: the old list stays in the slot, whole.
    FilterDataSlot grown = SlotWith(nullptr, 0, 0);
    ASSERT_EQ(StoreSlotData(&grown, 1, &record, 0, 1), kStatusOk);
    void* before = grown.data;
    krnctlFailAllocation(1);
    EXPECT_EQ(StoreSlotData(&grown, 5, &other, 0, 1), kStatusFailure);
    EXPECT_EQ(grown.data, before);
    EXPECT_EQ(HeldList(grown)->entry_count, 2);
    krnFree(grown.data, __FILE__, __LINE__);
}

TEST(ExposeSlotEntry, CopiesOneEntryIntoTheLoadOptions) {
    FakeRecord record;
    FakeRecord loader_data;

    LoadOptions options{};
    options.flags = 0x100;
    FilterDataSlot single = SlotWith(&record, 0, 1);
    // Only the record: nothing for message 1, the options untouched.
    EXPECT_EQ(ExposeSlotEntry(&single, &options, 1), 0);
    EXPECT_EQ(options.flags, 0x100u);
    EXPECT_EQ(options.slot_data, nullptr);
    EXPECT_EQ(ExposeSlotEntry(&single, &options, -1), 0);
    EXPECT_EQ(ExposeSlotEntry(nullptr, &options, 0), 0);
    FilterDataSlot empty = SlotWith(nullptr, 0, 0);
    EXPECT_EQ(ExposeSlotEntry(&empty, &options, 0), 0);
    EXPECT_EQ(options.flags, 0x100u);

    ASSERT_EQ(ExposeSlotEntry(&single, &options, 0), 1);
    EXPECT_EQ(options.flags, 0x104u);
    EXPECT_EQ(options.slot_data, &record);
    EXPECT_EQ(options.slot_data_count, 1);

    TestList list(3);
    list.entry(0) = FilterDataEntry{&record, 0, 1, 0};
    list.entry(2) = FilterDataEntry{&loader_data, 24, 5, 0};
    FilterDataSlot listed = SlotWith(list.head(), 0, kSlotHoldsList);
    LoadOptions fresh{};
    ASSERT_EQ(ExposeSlotEntry(&listed, &fresh, 2), 1);
    EXPECT_EQ(fresh.flags, kOptionsHaveSlotData);
    EXPECT_EQ(fresh.slot_data, &loader_data);
    EXPECT_EQ(fresh.slot_data_size, 24);
    EXPECT_EQ(fresh.slot_data_count, 5);
    LoadOptions untouched{};
    EXPECT_EQ(ExposeSlotEntry(&listed, &untouched, 3), 0);
    EXPECT_EQ(untouched.flags, 0u);
}

}  // namespace
}  // namespace tarn
