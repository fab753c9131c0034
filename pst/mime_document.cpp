#include "pst/mime_document.h"

#include "common/status.h"
#include "pst/render/header_block.h"
#include "pst/render/mime_reader.h"

namespace tarn {

int32_t ProduceMimeDocument(krn_handle handle, PstFilterData* record, int32_t* body_format,
                            ImageFileWriter* files) {
    MessageDocument message;
    MimeReadOptions options;
    options.files = files;
    if (const int32_t status = ReadEmlMessage(handle, message, body_format, options); status != kStatusOk)
        return status;
    if (*body_format != kBodyHtml && *body_format != kBodyPlainText) return kStatusUnsupported;
    if (const int32_t status = BuildEnglishHeader(message, *body_format); status != kStatusOk) return status;
    CountedString& body = *body_format == kBodyHtml ? message.document : message.text_body;
    StripHtmlNoise(&body);
    if (const int32_t status = record->document.Adopt(body); status != kStatusOk) return status;
    record->reader_status = message.reader_status;
    record->produced_kind = kInputMimeText;
    return kStatusOk;
}

}  // namespace tarn
