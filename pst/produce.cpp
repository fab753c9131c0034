#include "pst/produce.h"

#include "common/status.h"

namespace tarn {

int32_t ProduceDocument(const char16_t* /*file_name*/, PstFilterData* record, InputKind* kind,
                        int32_t* message_index, int32_t* body_format, bool /*plain_text*/,
                        krn_handle /*handle*/) {
    if (record == nullptr || kind == nullptr || message_index == nullptr || body_format == nullptr)
        return kStatusBadArgument;
    switch (*kind) {
        // The store walk, the message-file reader and the MIME reader land in their own changes;
        // until then no kind yields a document, and the record keeps its produced kind 388.
        case kInputPstStore:
        case kInputMessageFile:
        case kInputMimeText:
            return kStatusUnsupported;
        default:
            return kStatusUnsupported;
    }
}

}  // namespace tarn
