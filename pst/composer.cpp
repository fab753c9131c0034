#include "pst/composer.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "common/apiutils.h"
#include "common/status.h"
#include "kernel/tarnkrn.h"
#include "platform/codepage.h"
#include "pst/image_files.h"
#include "pst/render/charset.h"
#include "pst/render/compressed_rtf.h"
#include "pst/render/header_block.h"
#include "pst/render/html_text.h"
#include "pst/render/inline_image.h"
#include "store/ltp/prop_stream.h"

namespace tarn {
namespace {

constexpr unsigned char kTextMark[] = {0xFF, 0xFE};
constexpr unsigned char kUtf8Mark[] = {0xEF, 0xBB, 0xBF};

constexpr ltp::prop_id kPropMessageCodePage = 0x3FFD;
constexpr ltp::prop_id kPropInternetCodePage = 0x3FDE;
constexpr uint32_t kCodePageUtf16 = 1200;
constexpr uint32_t kCodePageUtf8 = 65001;

// Room for an attachment name of a usual length in UTF-8; longer names grow the buffer.
constexpr size_t kNameScratchBytes = 1024;
constexpr size_t kNameGrowthStep = 32;

// `name` in UTF-8 through the kernel's converter, with room for `per_unit` bytes a unit and `extra`
// more: empty when the name is empty, does not fit that room, or memory runs out. The long name is
// converted with only 2 bytes a unit, so a long name of mostly three-byte characters gives no value and
// the body's "cid:" form of it is not looked for (the file name still is).
std::string ConvertName(GrowBuffer& scratch, const std::u16string& name, size_t per_unit, size_t extra) {
    if (name.empty() || name.size() > (kMaxBufferBytes - extra) / per_unit) return {};
    const size_t capacity = name.size() * per_unit + extra;
    if (!scratch.Reserve(capacity)) return {};
    const int32_t written =
        krnUtf16ToUtf8(name.data(), static_cast<int32_t>(name.size()),
                       reinterpret_cast<char*>(scratch.data()), static_cast<int32_t>(capacity));
    if (written <= 0) return {};
    return std::string(reinterpret_cast<const char*>(scratch.data()), static_cast<size_t>(written));
}

// The code page the text body is stored in: UTF-16LE in a Unicode store, else the message's own code
// page, its Internet code page, or Western European when it names neither.
uint32_t TextCodePage(const ltp::const_property_object& message) {
    if (message.get_prop_type(kPropBody) == ltp::kPropTypeUnicode) return kCodePageUtf16;
    for (const ltp::prop_id id : {kPropMessageCodePage, kPropInternetCodePage}) {
        if (message.prop_exists(id) && message.get_value_4(id) != 0)
            return StoredStringCodePage(message.get_value_4(id));
    }
    return platform::kCpWestern;
}

// The text body in UTF-8 into `out`. Units that are not UTF-16 (a lone surrogate) and bytes the code
// page does not map become U+FFFD, so that damaged text costs a character, not the document.
int32_t TextBodyAsUtf8(const MessageDocument& entry, CountedString& out) {
    const CountedString& body = entry.text_body;
    if (entry.text_code_page != kCodePageUtf16) {
        // Stored terminators are not text.
        const std::string_view bytes(reinterpret_cast<const char*>(body.data()), body.size());
        return EightBitToUtf8(bytes.substr(0, bytes.find_last_not_of('\0') + 1), entry.text_code_page, out);
    }
    std::u16string units(body.size() / 2, u'\0');
    std::memcpy(units.data(), body.data(), units.size() * 2);
    for (size_t i = 0; i < units.size(); ++i) {
        const bool high = units[i] >= 0xD800 && units[i] < 0xDC00;
        const bool low = units[i] >= 0xDC00 && units[i] < 0xE000;
        if (high && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] < 0xE000) {
            ++i;
        } else if (high || low) {
            units[i] = 0xFFFD;
        }
    }
    while (!units.empty() && units.back() == 0) units.pop_back();  // a stored terminator
    return AssignUtf8(out, units.data(), units.size());
}

// The repaired text document: a UTF-8 mark, the header lines and the text body in UTF-8 (none when
// the message has no text body), all of it declared.
int32_t AssembleUtf8Text(MessageDocument& entry, GrowBuffer& out) {
    if (entry.text_body.data() != nullptr) {
        CountedString utf8;
        if (const int32_t status = TextBodyAsUtf8(entry, utf8); status == kStatusFailure) return status;
        entry.text_body = std::move(utf8);
    }
    if (BuildLocalizedHeader(entry, kBodyPlainText) != kStatusOk) return kStatusFailure;
    const std::string_view text = entry.text_body.text();
    out.Truncate(0);
    if (!out.Reserve(text.size() + sizeof kUtf8Mark) ||
        out.Append(kUtf8Mark, sizeof kUtf8Mark) != kStatusOk || out.Append(text) != kStatusOk)
        return kStatusFailure;
    entry.repairs.Make(Repair::kTextWholeLength);
    entry.repairs.Make(Repair::kTextUtf8);
    return kStatusOk;
}

std::u16string ReadNameIfPresent(const ltp::const_property_object& attachment, ltp::prop_id id) {
    return attachment.prop_exists(id) ? attachment.read_wstring(id) : std::u16string();
}

}  // namespace

// Puts each attachment that the HTML body refers to in place of its references, attachments in table
// order. The long file name is the key: "cid:" and it, else the file name (long, or short without a
// long one) itself; the attachment's content id is not consulted. Images go into the document as data
// URIs, or in temporary-file mode into files beside it. 1 (also when there are no attachments), or -1
// when the state for it cannot be had.
//
// A failure while an image is inlined stops the inlining but never discards the body: every image is
// put in whole or not at all, so the body keeps the images done so far. A store error (a damaged
// attachment) is one such failure, and so is anything else of the standard family thrown here.
int32_t InlineAttachedImages(PstMessage& message, CountedString& html, PstFilterData* record) {
    uint32_t attachments = 0;
    try {
        attachments = message.AttachmentCount();
    } catch (const std::exception&) {
        return kStatusOk;  // a damaged attachment table: no images, the body as it is
    }
    if (attachments == 0) return kStatusOk;

    GrowBuffer names;
    if (names.Init(kNameScratchBytes, kNameGrowthStep) != kStatusOk) return kStatusFailure;
    RecordImageFiles files(record);
    ImageInliner images(&html, record != nullptr && record->temp_file_mode != 0 ? &files : nullptr);
    try {
        for (uint32_t row = 0; row < attachments; ++row) {
            // The row names the attachment's own node, which holds its names and its data.
            const ltp::property_bag attachment(
                message.properties().get_node().lookup(message.Attachment(row).get_row_id()));
            const std::u16string long_name = ReadNameIfPresent(attachment, kPropAttachLongName);
            const std::u16string& file_name = attachment.prop_exists(kPropAttachLongName)
                                                  ? long_name
                                                  : ReadNameIfPresent(attachment, kPropAttachShortName);
            std::string reference;
            const int32_t found = images.Find(ConvertName(names, file_name, 4, 4),
                                              ConvertName(names, long_name, 2, 1), &reference);
            if (found < kStatusOk) break;
            if (found != kStatusOk || !attachment.prop_exists(kPropAttachData)) continue;
            CountedString data;
            if (ReadWholeStream(attachment, kPropAttachData, data) != kStatusOk) break;
            int32_t count = 0;
            const int32_t status = images.Inline(reference, data.data(), data.size(), &count);
            // An image too small to encode, or empty, is passed over; any other failure ends the inlining.
            if (status != kStatusOk && status != 0 && status != kStatusBadArgument) break;
        }
    } catch (const std::exception&) {
        // Inlining ends here; the body keeps the images put in before.
    }
    // Memory running out as the images go in loses them all, never the body.
    images.Finish();
    return kStatusOk;
}

int32_t ComposeMessage(PstMessage& message, MessageDocument& entry, bool is_target, int32_t* body_format,
                       PstFilterData* record) {
    const ltp::property_bag& properties = message.properties();
    const std::u16string subject = ReadSubject(properties);
    if (subject == kLocalFreebusySubject) return kStatusNotPresent;

    entry.document.Release();
    entry.text_body.Release();

    if (is_target) {
        entry.repairs = Repairs(record != nullptr && record->repairs.wanted());
        entry.text_code_page = properties.prop_exists(kPropBody) ? TextCodePage(properties) : 0;
        // The same entry serves again when a target fails in a damaged folder and the walk moves on:
        // a field the new target lacks must not show the failed one's value.
        for (CountedString& slot : entry.header) slot.Release();
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
        // Only the target's images: the other messages are composed only to be passed over.
        if (is_target && InlineAttachedImages(message, entry.document, record) != kStatusOk)
            return kStatusFailure;
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

namespace {

int32_t AssembleDocument(MessageDocument& entry, int32_t* body_format, bool plain_text,
                         PstFilterData* record) {
    GrowBuffer& out = record->document;
    // Without an HTML or RTF body the contract has no document; repaired, the text body serves, and a
    // message without any body (a contact, an appointment) still shows its header block.
    if (!plain_text && entry.document.data() == nullptr &&
        entry.repairs.Make(entry.text_body.data() != nullptr ? Repair::kTextBody : Repair::kHeaderOnly))
        plain_text = true;
    // A text document of a message with an HTML body and no text body gives the HTML's text. One with an
    // RTF body alone stays refused: the header block alone would pass for the whole message.
    if (plain_text && entry.text_body.data() == nullptr && *body_format == kBodyHtml &&
        entry.repairs.Make(Repair::kHtmlAsText)) {
        GrowBuffer text;
        if (text.Init(0, kDocumentGrowthStep) != kStatusOk ||
            HtmlToText(entry.document.text(), &text) != kStatusOk)
            return kStatusFailure;
        text.MoveInto(entry.text_body);
        entry.text_code_page = kCodePageUtf8;
    }
    if (plain_text && entry.repairs.wanted() &&
        (entry.text_body.data() != nullptr || entry.document.data() == nullptr)) {
        *body_format = kBodyPlainText;
        return AssembleUtf8Text(entry, out);
    }
    if (plain_text) {
        *body_format = kBodyPlainText;
        if (entry.text_body.data() == nullptr) return kStatusUnsupported;
        if (BuildLocalizedHeader(entry, kBodyPlainText) != kStatusOk) return kStatusFailure;
        const size_t length = entry.text_body.TextLength();
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
    const size_t length = entry.document.TextLength();
    out.Truncate(0);
    if (*body_format == kBodyHtml) {
        // Wrapped even when the body has its own html element: the loader takes the outer one.
        if (!out.Reserve(length + kHtmlOpen.size() + kUtf8MetaFirst.size() + kHtmlClose.size()))
            return kStatusFailure;
        if (out.Append(kHtmlOpen) != kStatusOk ||
            (entry.repairs.Make(Repair::kHtmlUtf8Meta) && out.Append(kUtf8MetaFirst) != kStatusOk) ||
            out.Append(entry.document.data(), length) != kStatusOk || out.Append(kHtmlClose) != kStatusOk)
            return kStatusFailure;
        return kStatusOk;
    }
    if (!out.Reserve(length)) return kStatusFailure;
    return out.Append(entry.document.data(), length) == kStatusOk ? kStatusOk : kStatusFailure;
}

}  // namespace

int32_t AssemblePstDocument(MessageDocument& entry, int32_t* body_format, bool plain_text,
                            PstFilterData* record) {
    const int32_t status = AssembleDocument(entry, body_format, plain_text, record);
    record->repairs.Merge(entry.repairs);
    return status;
}

}  // namespace tarn
