#include "pst/msg_document.h"

#include <string_view>

#include "common/status.h"
#include "pst/image_files.h"
#include "pst/msg/msg_reader.h"
#include "pst/render/charset.h"
#include "pst/render/header_block.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

constexpr std::string_view kHtmlElement = "<html";
constexpr unsigned char kUtf8Mark[] = {0xEF, 0xBB, 0xBF};

// Whether the body, after any spaces, CR and LF, opens with "<html" in any case.
bool OpensWithHtmlElement(std::string_view body) {
    const size_t start = body.find_first_not_of(" \r\n");
    return start != std::string_view::npos && StartsIgnoringCase(body.substr(start), kHtmlElement);
}

// The header builder's own -9 (a "<body" tag that never closes) stands; any other failure is -1.
int32_t HeaderFailure(int32_t status) { return status == kStatusUnsupported ? status : kStatusFailure; }

}  // namespace

int32_t AssembleMsgDocument(MessageDocument& entry, int32_t* body_format, bool plain_text,
                            PstFilterData* record) {
    GrowBuffer& out = record->document;
    out.Truncate(0);
    if (plain_text) {
        *body_format = kBodyPlainText;
        if (const int32_t status = BuildLocalizedHeader(entry, kBodyPlainText); status != kStatusOk)
            return HeaderFailure(status);
        if (entry.text_body.data() == nullptr) return kStatusOk;
        const size_t length = entry.text_body.TextLength();
        if (!out.Reserve(sizeof kUtf8Mark + length + 1)) return kStatusFailure;
        if (out.Append(kUtf8Mark, sizeof kUtf8Mark) != kStatusOk ||
            out.Append(entry.text_body.data(), length) != kStatusOk || out.AppendByte(0) != kStatusOk)
            return kStatusFailure;
        // The mark is not counted but the text's NUL is, so the declared length stops three bytes short
        // of the buffer's end. Deliberate: the toolkit's text loader is handed exactly this. Repaired,
        // the mark and the text are declared, and the NUL is not.
        out.Truncate(entry.repairs.Make(Repair::kTextWholeLength) ? sizeof kUtf8Mark + length : length + 1);
        return kStatusOk;
    }

    // Repaired, a message without a formatted body gives its text body, or its header block alone.
    if (entry.document.data() == nullptr && entry.repairs.wanted()) {
        if (entry.text_body.data() != nullptr) entry.repairs.Make(Repair::kTextBody);
        return AssembleMsgDocument(entry, body_format, true, record);
    }
    if (entry.document.data() == nullptr) return kStatusUnsupported;
    const bool rtf = entry.document.text().starts_with(kRtfStart);
    *body_format = rtf ? kBodyRtf : kBodyHtml;
    // The header's labels are UTF-8; a body that declares no character set is declared UTF-8 with them.
    if (!rtf && EnsureUtf8Meta(&entry.document) != kStatusOk) return kStatusFailure;
    if (const int32_t status = BuildLocalizedHeader(entry, *body_format); status != kStatusOk)
        return HeaderFailure(status);

    const std::string_view body = entry.document.text();
    const size_t length = body.size();
    const bool wrap = !rtf && !OpensWithHtmlElement(body);
    const bool meta = !rtf && entry.repairs.Make(Repair::kHtmlUtf8Meta);
    const size_t total =
        length + (wrap ? kHtmlOpen.size() + kHtmlClose.size() : 0) + (meta ? kUtf8MetaFirst.size() : 0);
    if (!out.Reserve(total + 1)) return kStatusFailure;
    // Repaired, the declaration goes first: behind the wrapper's "<html>", or in front of the body's own.
    if ((wrap && out.Append(kHtmlOpen) != kStatusOk) || (meta && out.Append(kUtf8MetaFirst) != kStatusOk) ||
        out.Append(body) != kStatusOk || (wrap && out.Append(kHtmlClose) != kStatusOk) ||
        out.AppendByte(0) != kStatusOk)
        return kStatusFailure;
    out.Truncate(total);
    return kStatusOk;
}

int32_t ProduceMsgDocument(const char16_t* file_name, PstFilterData* record, int32_t* body_format,
                           bool plain_text) {
    MessageDocument entry;
    MsgReadOptions options;
    // Images are inlined once per record: a record that already wrote image files has them.
    options.walk_attachments = record->temp_names.length() == 0;
    // A document handed over as a file has its images as files beside it; one in memory, as data URIs.
    RecordImageFiles files(record);
    if (record->temp_file_mode != 0) options.image_files = &files;
    entry.repairs = record->repairs;
    if (const int32_t status = ReadMsgMessage(entry, file_name, options); status != kStatusOk) return status;
    const int32_t status = AssembleMsgDocument(entry, body_format, plain_text, record);
    record->repairs = entry.repairs;
    record->reader_status = entry.reader_status;
    return status;
}

}  // namespace tarn
