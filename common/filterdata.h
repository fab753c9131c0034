// The per-file data slot routines shared by the toolkit's filters. A slot holds one datum, or a
// "LMLT" list of entries when several share it: the filter keeps its own record as entry 0, and the
// toolkit loader's per-file data for message n as entry n.
#ifndef TARN_COMMON_FILTERDATA_H_
#define TARN_COMMON_FILTERDATA_H_

#include <cstdint>

#include "common/toolkit_records.h"

namespace tarn {

// The first word of the PST filter's per-file record, by which the slot lookup recognises it among
// other data ("PST" and a zero).
constexpr uint32_t kPstRecordTag = 0x00545350;

// Finds the record that begins with kPstRecordTag: the slot's datum itself, or the first list entry
// that points at one. 1 and *record set when found; -814 for a null slot, empty slot or null output;
// -13 when the slot holds a single other datum, a malformed list or no record; -74 when the list does
// not fit the slot's size.
int32_t FindSlotData(const FilterDataSlot* slot, void** record);

// Stores `entry` as entry `index`. Index 0 of an empty slot takes the datum directly; any other index
// turns the slot into a list (grown through the kernel allocator, owned by the slot from then on) with
// what the slot held as entry 0. A count of -1 becomes the slot's default count. 1 on success, also for
// a null data pointer (nothing is stored) and for storing the pointer the slot already holds at index 0;
// -814 for a null slot, -13 for a malformed list, -1 when memory runs out, -1860 for a negative index,
// -1935 when the entry already holds another pointer.
int32_t StoreSlotData(FilterDataSlot* slot, int32_t index, const FilterDataEntry& entry);
// The same with the fourth word 0.
int32_t StoreSlotData(FilterDataSlot* slot, int32_t index, void* data, int32_t size, int32_t count);

// Copies entry `index` into the load options (data pointer, size and count, and the flag that says
// they are there) so that a loader finds its own per-file data. 1 when an entry was copied, else 0.
int32_t ExposeSlotEntry(const FilterDataSlot* slot, LoadOptions* options, int32_t index);

}  // namespace tarn

#endif  // TARN_COMMON_FILTERDATA_H_
