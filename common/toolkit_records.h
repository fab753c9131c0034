// The toolkit's records as the filter sees them: the info and load requests, the load options, the
// file-info record, the per-file data slot and the "LMLT" list by which several data items share a
// slot, and the toolkit object that a load request may point to.
//
// These are the toolkit's binary interface, not ours: the toolkit is a closed 32-bit library that hands
// us its records by pointer, so every field must sit at the byte offset the toolkit uses on a 32-bit
// (ILP32) build. Fields we never touch are padded with byte arrays named after their offset. The
// static_asserts at the end pin those offsets and are active when pointers are 4 bytes wide
// (scripts/check-ilp32.sh compiles them with -m32). On a 64-bit build the same structs keep their field
// order and widths, pointers widen, and the offsets after the first pointer move: that build talks only
// to our own host stand-in, which uses these same declarations.
#ifndef TARN_COMMON_TOOLKIT_RECORDS_H_
#define TARN_COMMON_TOOLKIT_RECORDS_H_

#include <cstddef>
#include <cstdint>

#include "kernel/tarnkrn.h"

namespace tarn {

struct FileInfo;
struct LoadOptions;

// Loader callbacks in the requests; each returns a toolkit status, 1 for success. Documents are handed
// over by temporary file path (UTF-16, zero-terminated) or as bytes and a length.
using InfoByNameFn = int32_t (*)(const char16_t* path, FileInfo* info, int32_t info_size, int32_t flags,
                                 LoadOptions* options);
using InfoInMemoryFn = int32_t (*)(const void* document, FileInfo* info, int32_t info_size, int32_t length,
                                   int32_t flags, LoadOptions* options);
// The four constants of a standard load (216, 24, 1, 32) are passed as they stand.
using LoadByNameFn = int32_t (*)(const char16_t* path, void* bitmap, int32_t c216, int32_t c24, int32_t c1,
                                 int32_t c32, int32_t caller_value_1, int32_t caller_value_2,
                                 LoadOptions* options, FileInfo* info);
using LoadInMemoryFn = int32_t (*)(const void* document, void* bitmap, int32_t c216, int32_t c24, int32_t c1,
                                   int32_t c32, int32_t caller_value_1, int32_t caller_value_2,
                                   int32_t length, LoadOptions* options, FileInfo* info);
using AltLoadByNameFn = int32_t (*)(const char16_t* path, int32_t alternative_value, LoadOptions* options,
                                    FileInfo* info);
using AltLoadInMemoryFn = int32_t (*)(const void* document, int32_t alternative_value, int32_t length,
                                      LoadOptions* options, FileInfo* info);

// The toolkit object of a load request. Only the fourth virtual operation is ours to call: it answers
// the toolkit's load mode, and kLoadModeAlternative selects the alternative loaders. The first three
// hold their places in the virtual table. Not deleted through this interface, hence no virtual
// destructor (which would take table slots of its own).
class ToolkitObject {
  public:
    virtual int32_t Operation1() = 0;
    virtual int32_t Operation2() = 0;
    virtual int32_t Operation3() = 0;
    virtual int32_t LoadMode() = 0;

  protected:
    ~ToolkitObject() = default;
};

constexpr int32_t kLoadModeAlternative = 10;

// The per-file data slot. The toolkit keeps it for one source between calls; the filter fills it.
struct FilterDataSlot {
    uint8_t reserved_0[12];
    void* data;  // null when the slot is empty
    uint8_t reserved_16[4];
    int32_t default_count;  // stored wherever a count of -1 is given
    uint8_t reserved_24[16];
    int32_t size;   // bytes of the datum; 0 for a list
    int32_t count;  // kSlotHoldsList when `data` is a FilterDataList
};

constexpr int32_t kSlotHoldsList = -2;
constexpr int32_t kUseDefaultCount = -1;

// Head of a "LMLT" list. Other filters of the toolkit share slots through it, so its layout is fixed.
// The entries follow the head; use ListEntries() rather than indexing past the head.
struct FilterDataList {
    uint32_t tag;         // kFilterDataListTag
    int32_t entry_count;  // entries in use
    int32_t total_size;   // bytes of the whole list, head included
};

struct FilterDataEntry {
    void* data;
    int32_t size;
    int32_t count;
    int32_t extra;  // copied with the entry, never interpreted
};

constexpr uint32_t kFilterDataListTag = 0x544C4D4C;  // "LMLT" in file order

// Where the entries start: straight after the head on ILP32, after alignment padding elsewhere.
constexpr size_t kListEntriesOffset = (sizeof(FilterDataList) + alignof(FilterDataEntry) - 1) /
                                      alignof(FilterDataEntry) * alignof(FilterDataEntry);

// Bytes of a list of `entries` entries.
constexpr size_t ListBytes(size_t entries) { return kListEntriesOffset + entries * sizeof(FilterDataEntry); }

inline FilterDataEntry* ListEntries(FilterDataList* list) {
    return reinterpret_cast<FilterDataEntry*>(reinterpret_cast<std::byte*>(list) + kListEntriesOffset);
}
inline const FilterDataEntry* ListEntries(const FilterDataList* list) {
    return reinterpret_cast<const FilterDataEntry*>(reinterpret_cast<const std::byte*>(list) +
                                                    kListEntriesOffset);
}

// Load options: 72 bytes, the first word its size.
struct LoadOptions {
    int32_t size;  // kLoadOptionsSize
    uint8_t reserved_4[16];
    int32_t page_number;  // requested page, counted from 1
    uint8_t reserved_24[28];
    uint32_t flags;  // kOptionsHaveSlotData marks the three fields below as filled
    void* slot_data;
    int32_t slot_data_size;
    int32_t slot_data_count;
    uint8_t reserved_68[4];
};

constexpr int32_t kLoadOptionsSize = 72;
constexpr uint32_t kOptionsHaveSlotData = 4;

// The file-info record: 2308 bytes, the first word its size.
struct FileInfo {
    int32_t size;    // kFileInfoSize
    int32_t format;  // the InputKind from fltInfo; the document format in copies handed to loaders
    uint8_t reserved_8[1024];
    int32_t width;  // pixels
    int32_t height;
    int32_t bits_per_pixel;
    uint8_t reserved_1044[8];
    int32_t loader_value_1;  // two values of the loader's description, passed through unread
    int32_t loader_value_2;
    uint8_t reserved_1060[44];
    int32_t marker_1104;  // set to 1
    int32_t page_number;
    int32_t total_pages;
    int32_t x_resolution;
    int32_t y_resolution;
    uint32_t flags;  // kInfoFlagForInfoCall, kInfoFlagClearedForLoad
    uint8_t reserved_1128[1060];
    int32_t marker_2188;  // set to 1
    double width_units;   // width / horizontal resolution
    double height_units;  // height / vertical resolution
    int32_t marker_2208;  // set to 1
    uint8_t reserved_2212[68];
    int32_t message_count;  // written only when the format is the PST kind
    uint8_t reserved_2284[8];
    void* loader_data;  // per-file data a loader may return from an info call
    int32_t loader_data_size;
    int32_t loader_data_count;
    uint8_t reserved_2304[4];
};

constexpr int32_t kFileInfoSize = 2308;
constexpr uint32_t kInfoFlagForInfoCall = 0x1000;
constexpr uint32_t kInfoFlagClearedForLoad = 0x4000;
constexpr int32_t kRenderOptionWords = 17;

// The argument of fltInfo.
struct InfoRequest {
    const char16_t* file_name;
    uint8_t reserved_4[4];
    krn_handle handle;  // the open source
    FileInfo* file_info;
    FilterDataSlot* slot;  // may be null
    uint8_t reserved_20[16];
    LoadOptions* load_options;
    uint8_t reserved_40[768];
    InfoByNameFn info_by_name;
    uint8_t reserved_812[12];
    InfoInMemoryFn info_in_memory;
    uint8_t reserved_828[32];
    // Words 14 and 15 are the requested horizontal and vertical resolution (0 keeps the document's).
    uint32_t render_options[kRenderOptionWords];
    uint8_t reserved_928[92];
    int32_t message_number;  // from 1 on entry; the zero-based index used, on success
    int32_t plain_text;      // 1 renders as plain text
    uint8_t reserved_1028[220];
    int32_t info_status;  // status of a failed info callback
};

constexpr int kRenderOptionXResolution = 14;
constexpr int kRenderOptionYResolution = 15;

// The argument of fltLoad.
struct LoadRequest {
    const char16_t* file_name;
    void* bitmap;  // the caller's, passed through to the loader
    uint8_t reserved_8[4];
    int32_t caller_value_1;  // passed through to the loader, in this order
    int32_t caller_value_2;
    uint8_t reserved_20[36];
    FileInfo* file_info;
    FilterDataSlot* slot;
    uint8_t reserved_64[1880];
    LoadOptions* load_options;
    uint8_t reserved_1948[12];
    int32_t secondary_status;  // 1 when none
    uint8_t reserved_1964[236];
    int32_t message_number;  // from 1
    int32_t plain_text;
    int32_t alternative_value;      // passed to the alternative loaders
    ToolkitObject* toolkit_object;  // may be null
    uint8_t reserved_2216[8];
    LoadByNameFn load_by_name;
    LoadInMemoryFn load_in_memory;
    uint8_t reserved_2232[216];
    AltLoadByNameFn alt_load_by_name;
    AltLoadInMemoryFn alt_load_in_memory;
};

#if UINTPTR_MAX == 0xFFFFFFFFu
// The toolkit's own offsets, which only a 32-bit build can honour.
static_assert(sizeof(FilterDataSlot) == 48);
static_assert(offsetof(FilterDataSlot, data) == 12);
static_assert(offsetof(FilterDataSlot, default_count) == 20);
static_assert(offsetof(FilterDataSlot, size) == 40);
static_assert(offsetof(FilterDataSlot, count) == 44);

static_assert(sizeof(FilterDataList) == 12 && kListEntriesOffset == 12);
static_assert(sizeof(FilterDataEntry) == 16);
static_assert(offsetof(FilterDataEntry, size) == 4 && offsetof(FilterDataEntry, count) == 8 &&
              offsetof(FilterDataEntry, extra) == 12);
static_assert(ListBytes(4) == 76);

static_assert(sizeof(LoadOptions) == 72);
static_assert(offsetof(LoadOptions, page_number) == 20);
static_assert(offsetof(LoadOptions, flags) == 52);
static_assert(offsetof(LoadOptions, slot_data) == 56);
static_assert(offsetof(LoadOptions, slot_data_size) == 60);
static_assert(offsetof(LoadOptions, slot_data_count) == 64);

static_assert(sizeof(FileInfo) == 2308);
static_assert(offsetof(FileInfo, format) == 4);
static_assert(offsetof(FileInfo, width) == 1032);
static_assert(offsetof(FileInfo, height) == 1036);
static_assert(offsetof(FileInfo, bits_per_pixel) == 1040);
static_assert(offsetof(FileInfo, loader_value_1) == 1052);
static_assert(offsetof(FileInfo, loader_value_2) == 1056);
static_assert(offsetof(FileInfo, marker_1104) == 1104);
static_assert(offsetof(FileInfo, page_number) == 1108);
static_assert(offsetof(FileInfo, total_pages) == 1112);
static_assert(offsetof(FileInfo, x_resolution) == 1116);
static_assert(offsetof(FileInfo, y_resolution) == 1120);
static_assert(offsetof(FileInfo, flags) == 1124);
static_assert(offsetof(FileInfo, marker_2188) == 2188);
static_assert(offsetof(FileInfo, width_units) == 2192);
static_assert(offsetof(FileInfo, height_units) == 2200);
static_assert(offsetof(FileInfo, marker_2208) == 2208);
static_assert(offsetof(FileInfo, message_count) == 2280);
static_assert(offsetof(FileInfo, loader_data) == 2292);
static_assert(offsetof(FileInfo, loader_data_size) == 2296);
static_assert(offsetof(FileInfo, loader_data_count) == 2300);

static_assert(offsetof(InfoRequest, file_name) == 0);
static_assert(offsetof(InfoRequest, handle) == 8);
static_assert(offsetof(InfoRequest, file_info) == 12);
static_assert(offsetof(InfoRequest, slot) == 16);
static_assert(offsetof(InfoRequest, load_options) == 36);
static_assert(offsetof(InfoRequest, info_by_name) == 808);
static_assert(offsetof(InfoRequest, info_in_memory) == 824);
static_assert(offsetof(InfoRequest, render_options) == 860);
static_assert(offsetof(InfoRequest, render_options) + 4 * kRenderOptionXResolution == 916);
static_assert(offsetof(InfoRequest, render_options) + 4 * kRenderOptionYResolution == 920);
static_assert(offsetof(InfoRequest, render_options) + sizeof(InfoRequest::render_options) == 928);
static_assert(offsetof(InfoRequest, message_number) == 1020);
static_assert(offsetof(InfoRequest, plain_text) == 1024);
static_assert(offsetof(InfoRequest, info_status) == 1248);

static_assert(offsetof(LoadRequest, file_name) == 0);
static_assert(offsetof(LoadRequest, bitmap) == 4);
static_assert(offsetof(LoadRequest, caller_value_1) == 12);
static_assert(offsetof(LoadRequest, caller_value_2) == 16);
static_assert(offsetof(LoadRequest, file_info) == 56);
static_assert(offsetof(LoadRequest, slot) == 60);
static_assert(offsetof(LoadRequest, load_options) == 1944);
static_assert(offsetof(LoadRequest, secondary_status) == 1960);
static_assert(offsetof(LoadRequest, message_number) == 2200);
static_assert(offsetof(LoadRequest, plain_text) == 2204);
static_assert(offsetof(LoadRequest, alternative_value) == 2208);
static_assert(offsetof(LoadRequest, toolkit_object) == 2212);
static_assert(offsetof(LoadRequest, load_by_name) == 2224);
static_assert(offsetof(LoadRequest, load_in_memory) == 2228);
static_assert(offsetof(LoadRequest, alt_load_by_name) == 2448);
static_assert(offsetof(LoadRequest, alt_load_in_memory) == 2452);
#endif

}  // namespace tarn

#endif  // TARN_COMMON_TOOLKIT_RECORDS_H_
