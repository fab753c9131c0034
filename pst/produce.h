// Composing the requested message of a source into the record's document buffer.
#ifndef TARN_PST_PRODUCE_H_
#define TARN_PST_PRODUCE_H_

#include <cstdint>

#include "kernel/tarnkrn.h"
#include "pst/filter_data.h"
#include "pst/probe.h"

namespace tarn {

// Dispatches on `*kind` and leaves the composed document in record->document, settling `*kind`, the
// zero-based `*message_index` (clamped to the messages there are) and `*body_format`. `handle` is the
// open source. 1, or a failure status; -9 for a kind it cannot read or a source without a body.
int32_t ProduceDocument(const char16_t* file_name, PstFilterData* record, InputKind* kind,
                        int32_t* message_index, int32_t* body_format, bool plain_text, krn_handle handle);

}  // namespace tarn

#endif  // TARN_PST_PRODUCE_H_
