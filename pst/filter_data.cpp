#include "pst/filter_data.h"

#include <cstring>

#include "common/kernel_memory.h"
#include "common/status.h"
#include "kernel/tarnkrn.h"
#include "platform/directory.h"

namespace tarn {

DocumentFormat ChooseDocumentFormat(int32_t body_format, bool plain_text) {
    if (plain_text) return kDocumentText;
    if (body_format == kBodyRtf) return kDocumentRtf;
    if (body_format == kBodyHtml) return kDocumentHtml;
    return kDocumentText;
}

PstFilterData* NewFilterData() {
    KernelPtr<PstFilterData> record = MakeKernelObject<PstFilterData>(KernelRegistry::kSingle);
    if (record == nullptr) return nullptr;
    // Init reserves nothing, so these cannot fail.
    record->document.Init(0, kDocumentGrowthStep);
    record->temp_names.Init(0, kTempNamesGrowthStep, /*zero_fill=*/true);
    record->repairs = Repairs::Requested();
    return record.release();  // from here on ReleaseFilterData owns it
}

void ReleaseFilterData(void* pointer) {
    if (pointer == nullptr) return;
    uint32_t tag = 0;
    std::memcpy(&tag, pointer, sizeof tag);
    if (tag != kPstRecordTag) return;
    auto* record = static_cast<PstFilterData*>(pointer);
    const bool temp_mode = record->temp_file_mode != 0;

    if (record->document_format == kDocumentHtml && temp_mode) krnDeleteFile(record->temp_path);

    const size_t names = record->temp_names.length() / sizeof(char16_t*);
    for (size_t i = 0; i < names; ++i) {
        char16_t* name = nullptr;
        std::memcpy(&name, record->temp_names.data() + i * sizeof name, sizeof name);
        if (name == nullptr) continue;
        if (temp_mode) krnDeleteTempFile(name);
        krnFree(name, __FILE__, __LINE__);
    }
    // The directory held only the image files deleted above; anything else in it keeps it alive.
    if (temp_mode && record->temp_directory[0] != 0) platform::RemoveDirectoryW(record->temp_directory);

    AdoptKernelObject(record, KernelRegistry::kSingle);  // unregistered, destroyed and freed here
}

}  // namespace tarn
