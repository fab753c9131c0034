#include "pst/produce.h"

#include <string>

#include "common/apiutils.h"
#include "common/status.h"
#include "pst/composer.h"
#include "pst/image_files.h"
#include "pst/message_walk.h"
#include "pst/mime_document.h"
#include "pst/msg_document.h"
#include "store/ndb/database.h"

namespace tarn {
namespace {

// ProduceDocument for a PST: opens the store, counts and clamps, walks to the message and assembles
// it. Errors while the store is opened or counted are not caught.
int32_t ProducePstDocument(const char16_t* file_name, PstFilterData* record, int32_t* message_index,
                           int32_t* body_format, bool plain_text) {
    const ndb::db_ptr db = ndb::open_database(std::u16string(file_name, WideLength(file_name)));
    MessageListPtr list;
    if (const int32_t status = CountMessages(db, &list, &record->repairs); status != kStatusOk) return status;
    record->message_count = list->count;
    if (*message_index >= list->count) *message_index = list->count - 1;
    if (*message_index < 0) *message_index = 0;

    if (const int32_t status = SelectMessage(db, *list, *message_index, body_format, record);
        status != kStatusOk)
        return status;
    return AssemblePstDocument(list->entries[*message_index], body_format, plain_text, record);
}

}  // namespace

int32_t ProduceDocument(const char16_t* file_name, PstFilterData* record, InputKind* kind,
                        int32_t* message_index, int32_t* body_format, bool plain_text, krn_handle handle) {
    if (record == nullptr || kind == nullptr || message_index == nullptr || body_format == nullptr)
        return kStatusBadArgument;
    switch (*kind) {
        case kInputPstStore: {
            if (file_name == nullptr) return kStatusBadArgument;
            const int32_t status =
                ProducePstDocument(file_name, record, message_index, body_format, plain_text);
            if (status != kStatusOk) return status;
            record->produced_kind = kInputPstStore;
            return kStatusOk;
        }
        case kInputMessageFile: {
            const int32_t status = ProduceMsgDocument(file_name, record, body_format, plain_text);
            if (status != kStatusOk) return status;
            record->produced_kind = kInputMessageFile;
            return kStatusOk;
        }
        case kInputMimeText:
            // One message: the toolkit's message number has nothing to choose.
            *message_index = 0;
            {
                // A document handed over as a file takes its images as files beside it.
                RecordImageFiles files(record);
                return ProduceMimeDocument(handle, record, body_format, plain_text,
                                           record->temp_file_mode != 0 ? &files : nullptr);
            }
        default:
            return kStatusUnsupported;
    }
}

}  // namespace tarn
