// Handing a composed document to the toolkit's loaders: in memory, or (an HTML document when the
// kernel does not ask for memory) as a temporary file; the alternative loaders when the request's
// toolkit object asks for them.
#ifndef TARN_PST_HAND_OFF_H_
#define TARN_PST_HAND_OFF_H_

#include <cstdint>

#include "common/toolkit_records.h"
#include "pst/filter_data.h"

namespace tarn {

// Writes the document to a new temporary file named into record->temp_path (in the record's image
// directory when it has one). Trailing NULs are dropped from the document, and its length stays
// shortened. 1; the kernel's status when no name can be made; the kernel's error status for -1490 when
// the file cannot be created and for -5 when it cannot be written whole.
int32_t WriteTempHtml(PstFilterData* record);

// Asks the request's info loader to describe the document into `info` (prepared by the caller). For
// HTML in temporary-file mode the document goes by name, and a `fresh` record writes the file first
// (its failure is returned). Otherwise the status is 1 and *callback_status holds the loader's answer.
int32_t HandOffInfo(PstFilterData* record, InfoRequest* request, FileInfo* info, LoadOptions* options,
                    bool fresh, int32_t* callback_status);

// Loads the page the request asks for through the request's loader and returns the loader's status.
// `message_index` selects the slot entry exposed to the loader (0 for a record from the slot).
int32_t HandOffLoad(PstFilterData* record, LoadRequest* request, int32_t message_index);

}  // namespace tarn

#endif  // TARN_PST_HAND_OFF_H_
