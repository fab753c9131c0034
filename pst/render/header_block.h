// The header block that opens every page: From, Sent, To, Cc, Bcc, Subject and Importance above the
// body, in the body's own format (HTML, RTF or plain text) and spliced into it, so that the toolkit's
// loader sees one document.
//
// Two builders. The localised one serves messages from stores and message files and labels the rows in
// the kernel's current language; the English one serves Internet messages with fixed English rows, its
// own field order and its own escaping. On failure the body keeps its previous content.
#ifndef TARN_PST_RENDER_HEADER_BLOCK_H_
#define TARN_PST_RENDER_HEADER_BLOCK_H_

#include <cstdint>

#include "pst/render/message_document.h"

namespace tarn {

// Writes the block into the record's body: record.document for HTML (0) and RTF (1), record.text_body
// for plain text (2); any other format builds nothing. An empty header field gives no row. 1; -9 for an
// HTML body with "<body" but no ">" after it, or an RTF body with neither a font table nor "\from"; -1
// for an RTF body without "\pard" or when memory runs out; the character-set conversion's status when
// an HTML body must be converted to UTF-8 to agree with the labels and cannot be.
int32_t BuildLocalizedHeader(MessageDocument& record, int32_t body_format);

// The English block, for a record whose From, To, Sent or Cc is not empty (Subject, Bcc and Importance
// alone make no block). An HTML body is wrapped in "<html>" and "</html>" unless it begins with its own
// html element; a text body gets the block in front, or behind its first three bytes when those look
// like a UTF-7 signature. Statuses as BuildLocalizedHeader. With repairs wanted, Subject, Bcc or
// Importance alone make a block too.
int32_t BuildEnglishHeader(MessageDocument& record, int32_t body_format);

// The English block of `record` alone, appended to `out` in the format (the HTML table and the block's
// end included); nothing when the record has none. 1; -74 for format 3; -1 when memory runs out.
int32_t AppendEnglishHeaderBlock(MessageDocument& record, int32_t body_format, GrowBuffer& out);

}  // namespace tarn

#endif  // TARN_PST_RENDER_HEADER_BLOCK_H_
