// The filter's per-file record, kept in the toolkit's per-file data slot between calls: the composed
// document, how the toolkit's loader described it, and the temporary files made for it.
#ifndef TARN_PST_FILTER_DATA_H_
#define TARN_PST_FILTER_DATA_H_

#include <cstdint>
#include <memory>

#include "common/filterdata.h"
#include "common/toolkit_records.h"
#include "pst/probe.h"
#include "pst/render/message_document.h"
#include "pst/render/text_buffer.h"

namespace tarn {

// The format of a composed document, as the toolkit's loaders know it.
enum DocumentFormat : int32_t {
    kDocumentRtf = 226,
    kDocumentText = 316,
    kDocumentHtml = 369,
};

// The document format for a body: plain text when the caller asked for it, whatever the body.
DocumentFormat ChooseDocumentFormat(int32_t body_format, bool plain_text);

constexpr int32_t kTempPathUnits = 264;
constexpr size_t kDocumentGrowthStep = 1024;
constexpr size_t kTempNamesGrowthStep = 5;

// Made only by NewFilterData (kernel memory, registered with the kernel as a single object) and
// released only by ReleaseFilterData. Plain fields: the record is shared state between the entry
// points, not an abstraction.
struct PstFilterData {
    uint32_t tag = kPstRecordTag;  // must stay the first word: the slot lookup reads it
    GrowBuffer document;
    GrowBuffer temp_names;  // char16_t* of kernel memory, one per image file written for the document
    int32_t document_format = 0;
    int32_t page_number = 0;
    int32_t total_pages = 0;
    char16_t temp_path[kTempPathUnits] = {};       // the HTML document when handed over by name
    char16_t temp_directory[kTempPathUnits] = {};  // made for inline images; empty when none was made
    int32_t width = 0;
    int32_t height = 0;
    int32_t x_resolution = 0;
    int32_t y_resolution = 0;
    int32_t loader_value_1 = 0;
    int32_t loader_value_2 = 0;
    int32_t reported_kind = 0;
    int32_t produced_kind = kInputUnsupported;
    int32_t message_count = 0;
    int32_t temp_file_mode = 0;  // 1: the HTML document is handed over as a temporary file
    int32_t reader_status = 1;   // a secondary failure of the message-file reader
    uint32_t render_options[kRenderOptionWords] = {};
    Repairs repairs;  // asked of the kernel when the record is made; notes what the document needed
};

// A fresh record, or null when memory runs out or the kernel will not register it.
PstFilterData* NewFilterData();

// Deletes the record's temporary files and directory (in temporary-file mode), unregisters and frees
// it. Anything that is not a record (null, or a first word other than the tag) is left alone.
void ReleaseFilterData(void* record);

// Releases a record (temporary files included) when it goes out of scope, unless it was handed on.
struct FilterDataRelease {
    void operator()(PstFilterData* record) const { ReleaseFilterData(record); }
};
using FilterDataHolder = std::unique_ptr<PstFilterData, FilterDataRelease>;

}  // namespace tarn

#endif  // TARN_PST_FILTER_DATA_H_
