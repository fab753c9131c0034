// The document of an Internet message: the MIME reader's body with the English header block.
#ifndef TARN_PST_MIME_DOCUMENT_H_
#define TARN_PST_MIME_DOCUMENT_H_

#include <cstdint>

#include "kernel/tarnkrn.h"
#include "pst/filter_data.h"
#include "pst/render/inline_image.h"

namespace tarn {

// Reads the message behind `handle`, puts the English header block into its body, blanks the body's
// noise and moves the body into record->document (nothing is copied), setting *body_format. The
// reader's failure status as it is; -9 for a message without a body; the header block's status when
// it cannot be added. `files`, when not null, takes the images instead of data URIs.
//
// With the record's repairs wanted, a message without a body gives its header block alone as text,
// and with `plain_text` an HTML body gives its text (the header block then in text).
int32_t ProduceMimeDocument(krn_handle handle, PstFilterData* record, int32_t* body_format, bool plain_text,
                            ImageFileWriter* files);

}  // namespace tarn

#endif  // TARN_PST_MIME_DOCUMENT_H_
