#include "pst/composer.h"

#include <string_view>

#include "common/apiutils.h"
#include "common/status.h"
#include "pst/message_walk.h"
#include "pst/render/compressed_rtf.h"
#include "pst/render/header_block.h"
#include "store/ltp/prop_stream.h"

namespace tarn {
namespace {

constexpr std::string_view kHtmlOpen = "<html>";
constexpr std::string_view kHtmlClose = "</html>";
constexpr unsigned char kTextMark[] = {0xFF, 0xFE};

// A counted string's length without one final NUL.
size_t LengthWithoutNul(const CountedString& text) {
    const size_t size = text.size();
    if (size > 0 && text.data()[size - 1] == std::byte{0}) return size - 1;
    return size;
}

}  // namespace

int32_t ComposeMessage(PstMessage& message, MessageDocument& entry, bool is_target, int32_t* body_format,
                       PstFilterData* /*record*/) {
    const ltp::property_bag& properties = message.properties();
    const std::u16string subject = ReadSubject(properties);
    if (subject == kLocalFreebusySubject) return kStatusNotPresent;

    entry.document.Release();
    entry.text_body.Release();

    if (is_target) {
        if (AssignUtf8(entry.header[kSlotSubject], subject.data(), subject.size()) == kStatusFailure)
            return kStatusFailure;
        ReadHeaderFields(properties, entry);
    }

    if (properties.prop_exists(kPropBody)) {
        *body_format = kBodyPlainText;
        if (ReadWholeStream(properties, kPropBody, entry.text_body) != kStatusOk) return kStatusFailure;
    }
    if (properties.prop_exists(kPropHtmlBody)) {
        *body_format = kBodyHtml;
        if (ReadWholeStream(properties, kPropHtmlBody, entry.document) != kStatusOk) return kStatusFailure;
        // Images referenced by the HTML are inlined from the attachments by a later change. That step,
        // unlike the body reads here, catches the store's errors itself (inlining stops, the HTML keeps
        // what was done, the RTF step follows): it goes here, inside its own try block.
    }
    if (properties.prop_exists(kPropRtfCompressed)) {
        *body_format = kBodyRtf;
        // The decompressor reads the property's own stream whole; there is no separate copy to release.
        ltp::prop_stream in(properties.open_prop_stream(kPropRtfCompressed));
        const int32_t status = DecompressRtfStream(in, entry.document);
        if (status != kStatusOk) return status;
    }
    return kStatusOk;
}

void ReleaseComposedBodies(MessageDocument& entry) {
    entry.text_body.Release();
    entry.compressed_rtf.Release();
    entry.document.Release();
}

int32_t AssemblePstDocument(MessageDocument& entry, int32_t* body_format, bool plain_text,
                            PstFilterData* record) {
    GrowBuffer& out = record->document;
    if (plain_text) {
        *body_format = kBodyPlainText;
        if (entry.text_body.data() == nullptr) return kStatusUnsupported;
        if (BuildLocalizedHeader(entry, kBodyPlainText) != kStatusOk) return kStatusFailure;
        const size_t length = LengthWithoutNul(entry.text_body);
        if (!out.Reserve(length + sizeof kTextMark)) return kStatusFailure;
        out.Truncate(0);
        if (out.Append(kTextMark, sizeof kTextMark) != kStatusOk ||
            out.Append(entry.text_body.data(), length) != kStatusOk)
            return kStatusFailure;
        // The mark is not counted, so the declared length stops two bytes short of the text's end.
        // Deliberate: the toolkit's text loader is handed exactly this.
        out.Truncate(length);
        return kStatusOk;
    }

    if (entry.document.data() == nullptr) return kStatusUnsupported;
    if (BuildLocalizedHeader(entry, *body_format) != kStatusOk) return kStatusFailure;
    const size_t length = LengthWithoutNul(entry.document);
    out.Truncate(0);
    if (*body_format == kBodyHtml) {
        // Wrapped even when the body has its own html element: the loader takes the outer one.
        if (!out.Reserve(length + kHtmlOpen.size() + kHtmlClose.size())) return kStatusFailure;
        if (out.Append(kHtmlOpen) != kStatusOk || out.Append(entry.document.data(), length) != kStatusOk ||
            out.Append(kHtmlClose) != kStatusOk)
            return kStatusFailure;
        return kStatusOk;
    }
    if (!out.Reserve(length)) return kStatusFailure;
    return out.Append(entry.document.data(), length) == kStatusOk ? kStatusOk : kStatusFailure;
}

int32_t ProducePstDocument(const char16_t* file_name, PstFilterData* record, int32_t* message_index,
                           int32_t* body_format, bool plain_text) {
    const ndb::db_ptr db = ndb::open_database(std::u16string(file_name, WideLength(file_name)));
    MessageListPtr list;
    if (const int32_t status = CountMessages(db, &list); status != kStatusOk) return status;
    record->message_count = list->count;
    if (*message_index >= list->count) *message_index = list->count - 1;
    if (*message_index < 0) *message_index = 0;

    if (const int32_t status = SelectMessage(db, *list, *message_index, body_format, record);
        status != kStatusOk)
        return status;
    return AssemblePstDocument(list->entries[*message_index], body_format, plain_text, record);
}

}  // namespace tarn
