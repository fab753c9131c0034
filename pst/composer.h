// Composing one PST message into its MessageDocument, and the record's document out of the target's.
#ifndef TARN_PST_COMPOSER_H_
#define TARN_PST_COMPOSER_H_

#include <cstdint>
#include <string>

#include "pst/filter_data.h"
#include "pst/message_model.h"
#include "pst/render/message_document.h"

namespace tarn {

// The subject of the calendar's own free/busy message, which never takes a page.
inline constexpr char16_t kLocalFreebusySubject[] = u"LocalFreebusy";

// Reads the message's bodies into `entry` (plain text, then HTML, then compressed RTF; the last present
// sets *body_format and, for HTML and RTF, the document) and, for the target, its header fields. 1; 2
// for a "LocalFreebusy" message, which is skipped; the decompressor's status when the RTF body is
// malformed; -1 when memory runs out. Store errors propagate to the walk.
int32_t ComposeMessage(PstMessage& message, MessageDocument& entry, bool is_target, int32_t* body_format,
                       PstFilterData* record);

// Puts the images that `html` refers to from the message's attachments in place of their references:
// "cid:" and the long file name, else the file name itself. As data URIs, or in the record's
// temporary-file mode as files (`record` may be null: data URIs). A store error while an attachment is
// read ends the inlining, keeping the images put in before. 1; -1 when its state cannot be had.
int32_t InlineAttachedImages(PstMessage& message, CountedString& html, PstFilterData* record);

// Moves the target's body into record->document: the HTML wrapped in "<html>" and "</html>", the RTF as
// it is, or with `plain_text` the text body behind the bytes FF FE (which the length does not count).
// -9 when the body is absent, -1 when the header cannot be added or the buffer cannot grow.
// With repairs wanted, a text document is UTF-8 behind EF BB BF and declares its whole length, a
// message without an HTML or RTF body gives its text body, and one without any body its header block
// alone; the repairs made are noted in the record.
int32_t AssemblePstDocument(MessageDocument& entry, int32_t* body_format, bool plain_text,
                            PstFilterData* record);

// Frees what ComposeMessage read into `entry`: its text body, its document and any compressed-RTF
// copy. The header slots are left as they are.
void ReleaseComposedBodies(MessageDocument& entry);

}  // namespace tarn

#endif  // TARN_PST_COMPOSER_H_
