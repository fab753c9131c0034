#include "common/filterdata.h"

#include <algorithm>
#include <cstring>

#include "common/status.h"

namespace tarn {
namespace {

// The slot's datum as a list, or null when the slot does not claim to hold one.
FilterDataList* SlotList(const FilterDataSlot* slot) {
    if (slot->data == nullptr || slot->count != kSlotHoldsList) return nullptr;
    return static_cast<FilterDataList*>(slot->data);
}

bool TagMatches(const FilterDataList* list) { return list->tag == kFilterDataListTag; }

// A list that every entry below its count can be read from: the slot's size is either unset or the
// list's own, there are at least two entries (one entry lives in the slot directly), and the bytes the
// list claims cover those entries.
bool ListFits(const FilterDataSlot* slot, const FilterDataList* list) {
    if (slot->size != 0 && slot->size != list->total_size) return false;
    if (list->entry_count < 2 || list->total_size < 0) return false;
    return static_cast<size_t>(list->total_size) >= ListBytes(static_cast<size_t>(list->entry_count));
}

bool BeginsWithRecordTag(const void* datum) {
    uint32_t tag = 0;
    std::memcpy(&tag, datum, sizeof tag);
    return tag == kPstRecordTag;
}

// Entry `index` of a list that fits its slot.
int32_t GetListEntry(const FilterDataList* list, int32_t index, const FilterDataEntry** entry) {
    if (index < 0 || index >= list->entry_count) return kStatusIndexOutOfRange;
    *entry = &ListEntries(list)[index];
    return kStatusOk;
}

}  // namespace

int32_t FindSlotData(const FilterDataSlot* slot, void** record) {
    if (slot == nullptr || slot->data == nullptr || record == nullptr) return kStatusNullPointer;
    if (BeginsWithRecordTag(slot->data)) {
        *record = slot->data;
        return kStatusOk;
    }
    // A single datum that is not our record: there is nothing else to look at.
    const FilterDataList* list = SlotList(slot);
    if (list == nullptr || !TagMatches(list) || list->entry_count < 2) return kStatusBadArgument;
    if (!ListFits(slot, list)) return kStatusFormatFailure;

    for (int32_t i = 0; i < list->entry_count; ++i) {
        const FilterDataEntry* entry = nullptr;
        if (int32_t status = GetListEntry(list, i, &entry); status != kStatusOk) return status;
        if (entry->data != nullptr && BeginsWithRecordTag(entry->data)) {
            *record = entry->data;
            return kStatusOk;
        }
    }
    return kStatusBadArgument;
}

int32_t StoreSlotData(FilterDataSlot* slot, int32_t index, const FilterDataEntry& entry) {
    if (entry.data == nullptr) return kStatusOk;
    if (slot == nullptr) return kStatusNullPointer;
    if (index < 0) return kStatusIndexOutOfRange;

    if (index == 0) {
        if (slot->data == nullptr) {
            slot->data = entry.data;
            slot->size = entry.size;
            slot->count = entry.count == kUseDefaultCount ? slot->default_count : entry.count;
            return kStatusOk;
        }
        if (slot->data == entry.data) return kStatusOk;
    }

    FilterDataList* list = SlotList(slot);
    int32_t held = 0;
    if (list != nullptr) {
        if (!TagMatches(list) || !ListFits(slot, list)) return kStatusBadArgument;
        held = list->entry_count;
    } else if (slot->data != nullptr) {
        held = 1;
    }

    if (held < index + 1) {
        const size_t wanted = ListBytes(static_cast<size_t>(index) + 1);
        if (wanted > static_cast<size_t>(INT32_MAX)) return kStatusIndexOutOfRange;
        if (list != nullptr) {
            // Never shrinks a list that claims more room than its entries need.
            const size_t old_size = static_cast<size_t>(list->total_size);
            if (wanted > old_size) {
                void* grown = krnRealloc(list, wanted, __FILE__, __LINE__);
                if (grown == nullptr) return kStatusFailure;
                std::memset(static_cast<std::byte*>(grown) + old_size, 0, wanted - old_size);
                list = static_cast<FilterDataList*>(grown);
                list->total_size = static_cast<int32_t>(wanted);
            }
        } else {
            list = static_cast<FilterDataList*>(krnAllocZeroed(1, wanted, __FILE__, __LINE__));
            if (list == nullptr) return kStatusFailure;
            list->tag = kFilterDataListTag;
            list->entry_count = 0;
            if (slot->data != nullptr) {
                ListEntries(list)[0] = FilterDataEntry{slot->data, slot->size, slot->count, 0};
                list->entry_count = 1;
            }
            list->total_size = static_cast<int32_t>(wanted);
        }
        slot->data = list;
        slot->size = 0;
        slot->count = kSlotHoldsList;
    }

    // Still a single datum: index 0 of a slot holding another pointer.
    if (list == nullptr) return kStatusSlotOccupied;
    FilterDataEntry& target = ListEntries(list)[index];
    if (target.data != nullptr && target.data != entry.data) return kStatusSlotOccupied;
    target = entry;
    if (target.count == kUseDefaultCount) target.count = slot->default_count;
    list->entry_count = std::max(list->entry_count, index + 1);
    return kStatusOk;
}

int32_t StoreSlotData(FilterDataSlot* slot, int32_t index, void* data, int32_t size, int32_t count) {
    return StoreSlotData(slot, index, FilterDataEntry{data, size, count, 0});
}

int32_t ExposeSlotEntry(const FilterDataSlot* slot, LoadOptions* options, int32_t index) {
    if (slot == nullptr || slot->data == nullptr || options == nullptr || index < 0) return 0;
    FilterDataEntry chosen{};
    if (const FilterDataList* list = SlotList(slot); list != nullptr) {
        // A list we cannot read safely exposes nothing rather than stray memory.
        if (!TagMatches(list) || !ListFits(slot, list)) return 0;
        const FilterDataEntry* entry = nullptr;
        if (GetListEntry(list, index, &entry) != kStatusOk) return 0;
        chosen = *entry;
    } else {
        if (index > 0) return 0;
        chosen = FilterDataEntry{slot->data, slot->size, slot->count, 0};
    }
    options->flags |= kOptionsHaveSlotData;
    options->slot_data = chosen.data;
    options->slot_data_size = chosen.size;
    options->slot_data_count = chosen.count;
    return 1;
}

}  // namespace tarn
