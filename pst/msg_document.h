// Composing an Outlook message file into the record's document buffer.
#ifndef TARN_PST_MSG_DOCUMENT_H_
#define TARN_PST_MSG_DOCUMENT_H_

#include <cstdint>

#include "pst/filter_data.h"
#include "pst/render/message_document.h"

namespace tarn {

// Moves a message file's body, with its header block, into record->document and settles *body_format:
// an RTF body (one that begins with "{\rtf") as it is; an HTML body as it is when it begins, after
// spaces, CR and LF, with its own html element, else wrapped in "<html>" and "</html>"; with
// `plain_text` the text body behind the bytes EF BB BF, which the length does not count. The document
// ends with a NUL that the length does not count (in plain-text mode the text's own NUL is counted).
// 1; -9 without a body to hand on (plain-text mode without a text body is an empty document, not a
// failure); -9 or -1 when the header block cannot be added; -1 when the buffer cannot grow.
int32_t AssembleMsgDocument(MessageDocument& entry, int32_t* body_format, bool plain_text,
                            PstFilterData* record);

// ProduceDocument for a message file: reads it (see ReadMsgMessage) and assembles it; the reader's
// secondary status goes to record->reader_status.
int32_t ProduceMsgDocument(const char16_t* file_name, PstFilterData* record, int32_t* body_format,
                           bool plain_text);

}  // namespace tarn

#endif  // TARN_PST_MSG_DOCUMENT_H_
