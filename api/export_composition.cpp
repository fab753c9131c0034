#include "api/export_composition.h"

#include <exception>
#include <new>

#include "pst/composer.h"
#include "pst/message_walk.h"
#include "store/ltp/property_bag.h"

namespace tarn::api {

Composed ComposeDocument(tarn::PstMessage& message, bool text, tarn::PstFilterData* record) {
    Composed out;
    tarn::MessageDocument entry;
    int32_t body_format = tarn::kBodyNone;
    out.compose_status = tarn::ComposeMessage(message, entry, /*is_target=*/true, &body_format, record);
    out.status = out.compose_status;
    if (out.status != tarn::kStatusOk) return out;
    out.status = tarn::AssemblePstDocument(entry, &body_format, text, record);
    if (out.status == tarn::kStatusUnsupported && !text) {
        // Only an entry without a document gives -9 here, before anything of it was touched, so the
        // same entry assembles as the filter's plain-text request would.
        if (tarn::AssemblePstDocument(entry, &body_format, true, record) == tarn::kStatusOk) {
            out.text_fallback = true;
            out.has_document = true;
            out.format = tarn::kDocumentText;
        }
        return out;
    }
    if (out.status == tarn::kStatusOk) {
        out.has_document = true;
        out.format = tarn::ChooseDocumentFormat(body_format, text);
    }
    return out;
}

std::optional<std::string> Quietly(const std::function<std::optional<std::string>()>& read) {
    try {
        return read();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

ComposedMessage ComposeForExport(tarn::PstMessage& message, bool text, bool defer) {
    ComposedMessage out;
    const tarn::ltp::property_bag& properties = message.properties();
    out.code_page = [&] {
        try {
            return StringCodePage(properties);
        } catch (const std::exception&) {
            return kDefaultCodePage;
        }
    }();
    std::u16string subject;
    try {
        subject = tarn::ReadSubject(properties);
    } catch (const std::exception& e) {
        // It ends the folder once the calling thread has taken the message's code page.
        out.unreadable_subject = e.what();
        return out;
    }
    if (subject == tarn::kLocalFreebusySubject) {
        out.skipped = true;
        return out;
    }
    out.node = properties.get_node().get_id();
    out.subject = Quietly([&] { return std::optional(SubjectText(properties, out.code_page, subject)); });
    out.sender = Quietly([&] { return ReadText(properties, tarn::kPropSenderName, out.code_page); });
    out.sent = Quietly([&] { return SentTimeUtc(properties); });
    if (defer) {
        out.deferred = true;
        return out;
    }
    out.record.reset(tarn::NewFilterData());
    if (out.record == nullptr) throw std::bad_alloc();
    try {
        out.composed = ComposeDocument(message, text, out.record.get());
    } catch (const std::exception& e) {
        // Whether the filter's walk gets past this message depends on how it fares as an earlier
        // message, which reads no header fields: composed so, a throw ends the folder there as it does
        // in the filter, and anything else keeps the numbering going.
        out.thrown = e.what();
        tarn::MessageDocument probe;
        int32_t body_format = tarn::kBodyNone;
        out.earlier_status = tarn::ComposeMessage(message, probe, false, &body_format, out.record.get());
    }
    return out;
}

}  // namespace tarn::api
