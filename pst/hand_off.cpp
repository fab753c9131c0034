#include "pst/hand_off.h"

#include "common/filterdata.h"
#include "common/status.h"
#include "kernel/tarnkrn.h"

namespace tarn {
namespace {

// Internal failure codes the kernel's error routine turns into the status to return.
constexpr int32_t kCannotCreateFile = -1490;
constexpr int32_t kCannotWriteFile = -5;
// The standard loaders take these as they stand, in this order.
constexpr int32_t kLoadConstant216 = 216;
constexpr int32_t kLoadConstant24 = 24;
constexpr int32_t kLoadConstant1 = 1;
constexpr int32_t kLoadConstant32 = 32;
constexpr int32_t kInfoFlagsWithSlot = 3;
constexpr int32_t kInfoFlagsWithoutSlot = 1;

bool HandsOverByName(const PstFilterData* record) {
    return record->document_format == kDocumentHtml && record->temp_file_mode != 0;
}

const void* DocumentBytes(const PstFilterData* record) { return record->document.data(); }
int32_t DocumentLength(const PstFilterData* record) {
    return static_cast<int32_t>(record->document.length());
}

}  // namespace

int32_t WriteTempHtml(PstFilterData* record) {
    const char16_t* directory = record->temp_directory[0] != 0 ? record->temp_directory : nullptr;
    if (const int32_t status =
            krnTempFileName(directory, record->temp_path, kTempPathUnits, 1, u"pst", u"html");
        status != kStatusOk)
        return status;

    size_t length = record->document.length();
    while (length > 0 && record->document.data()[length - 1] == std::byte{0}) --length;
    record->document.Truncate(length);

    const krn_handle file = krnCreateFile(record->temp_path, 0);
    if (file == KRN_NO_HANDLE) return krnErrorStatus(kCannotCreateFile);
    const int32_t written = krnWriteFile(file, record->document.data(), static_cast<int32_t>(length), 0);
    const int32_t status =
        written == static_cast<int32_t>(length) ? kStatusOk : krnErrorStatus(kCannotWriteFile);
    krnCloseCreatedFile(file, 0);
    return status;
}

int32_t HandOffInfo(PstFilterData* record, InfoRequest* request, FileInfo* info, LoadOptions* options,
                    bool fresh, int32_t* callback_status) {
    const int32_t flags = request->slot != nullptr ? kInfoFlagsWithSlot : kInfoFlagsWithoutSlot;
    if (HandsOverByName(record)) {
        if (fresh) {
            if (const int32_t status = WriteTempHtml(record); status != kStatusOk) return status;
        }
        *callback_status = request->info_by_name != nullptr
                               ? request->info_by_name(record->temp_path, info, kFileInfoSize, flags, options)
                               : kStatusNullPointer;
        return kStatusOk;
    }
    *callback_status = request->info_in_memory != nullptr
                           ? request->info_in_memory(DocumentBytes(record), info, kFileInfoSize,
                                                     DocumentLength(record), flags, options)
                           : kStatusNullPointer;
    return kStatusOk;
}

int32_t HandOffLoad(PstFilterData* record, LoadRequest* request, int32_t message_index) {
    FileInfo info{};
    if (request->file_info != nullptr) info = *request->file_info;
    info.size = kFileInfoSize;
    info.format = record->document_format;
    info.flags &= ~kInfoFlagClearedForLoad;

    LoadOptions options{};
    if (request->load_options != nullptr) options = *request->load_options;
    options.size = kLoadOptionsSize;
    ExposeSlotEntry(request->slot, &options, message_index + 1);

    // The page is still loaded; the message-file reader's secondary failure is reported beside it.
    if (record->reader_status != kStatusOk && request->secondary_status == kStatusOk)
        request->secondary_status = record->reader_status;

    const bool alternative =
        request->toolkit_object != nullptr && request->toolkit_object->LoadMode() == kLoadModeAlternative;
    if (HandsOverByName(record)) {
        if (alternative) {
            if (request->alt_load_by_name == nullptr) return kStatusNullPointer;
            return request->alt_load_by_name(record->temp_path, request->alternative_value, &options, &info);
        }
        if (request->load_by_name == nullptr) return kStatusNullPointer;
        return request->load_by_name(record->temp_path, request->bitmap, kLoadConstant216, kLoadConstant24,
                                     kLoadConstant1, kLoadConstant32, request->caller_value_1,
                                     request->caller_value_2, &options, &info);
    }
    if (alternative) {
        if (request->alt_load_in_memory == nullptr) return kStatusNullPointer;
        return request->alt_load_in_memory(DocumentBytes(record), request->alternative_value,
                                           DocumentLength(record), &options, &info);
    }
    if (request->load_in_memory == nullptr) return kStatusNullPointer;
    return request->load_in_memory(DocumentBytes(record), request->bitmap, kLoadConstant216, kLoadConstant24,
                                   kLoadConstant1, kLoadConstant32, request->caller_value_1,
                                   request->caller_value_2, DocumentLength(record), &options, &info);
}

}  // namespace tarn
