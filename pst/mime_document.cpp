#include "pst/mime_document.h"

#include "common/status.h"
#include "pst/render/header_block.h"
#include "pst/render/html_text.h"
#include "pst/render/mime_reader.h"

namespace tarn {
namespace {

// The body the document is made of, with the English header block in it.
int32_t ComposeMimeBody(MessageDocument& message, int32_t* body_format, bool plain_text) {
    if (*body_format == kBodyNone && message.repairs.wanted()) {
        // A message of attachments alone still shows who sent it, and what about; one without a header
        // field either has nothing to show.
        *body_format = kBodyPlainText;
        const int32_t status = BuildEnglishHeader(message, *body_format);
        if (status != kStatusOk) return status;
        if (message.text_body.TextLength() == 0) return kStatusUnsupported;
        message.repairs.Make(Repair::kHeaderOnly);
        return kStatusOk;
    }
    if (plain_text && *body_format == kBodyHtml && message.repairs.Make(Repair::kHtmlAsText)) {
        // A text document is read as text: the page's words, not its markup.
        GrowBuffer text;
        int32_t status = text.Init(message.document.TextLength() / 2, message.document.TextLength() / 8 + 1);
        if (status == kStatusOk) status = HtmlToText(message.document.text(), &text);
        if (status != kStatusOk) return status;
        text.MoveInto(message.text_body);
        message.document.Release();
        *body_format = kBodyPlainText;
    }
    if (*body_format != kBodyHtml && *body_format != kBodyPlainText) return kStatusUnsupported;
    return BuildEnglishHeader(message, *body_format);
}

}  // namespace

int32_t ProduceMimeDocument(krn_handle handle, PstFilterData* record, int32_t* body_format, bool plain_text,
                            ImageFileWriter* files) {
    MessageDocument message;
    message.repairs = Repairs(record->repairs.wanted());
    MimeReadOptions options;
    options.files = files;
    int32_t status = ReadEmlMessage(handle, message, body_format, options);
    if (status == kStatusOk) status = ComposeMimeBody(message, body_format, plain_text);
    record->repairs.Merge(message.repairs);
    if (status != kStatusOk) return status;
    CountedString& body = *body_format == kBodyHtml ? message.document : message.text_body;
    StripHtmlNoise(&body);
    if (const int32_t status = record->document.Adopt(body); status != kStatusOk) return status;
    record->reader_status = message.reader_status;
    record->produced_kind = kInputMimeText;
    return kStatusOk;
}

}  // namespace tarn
