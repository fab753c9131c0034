#include "api/source_attachments.h"

#include <string_view>

#include "cfb/compound_storage.h"
#include "common/apiutils.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "pst/message_model.h"
#include "pst/msg/msg_reader.h"
#include "pst/render/mime_reader.h"

namespace tarn::api {
namespace {

constexpr std::string_view kLongNameStream = "__substg1.0_3707";
constexpr std::string_view kEmbeddedStorage = "/__substg1.0_3701000D";

std::string Text(const tarn::CountedString& value) {
    std::string text(reinterpret_cast<const char*>(value.data()), value.size());
    // Stored terminators are not part of a name.
    return text.substr(0, text.find('\0'));
}

std::vector<SourceAttachment> MessageFileAttachments(krn_handle handle, const std::string& source,
                                                     std::string* error) {
    tarn::cfb::CompoundStorage storage(handle);
    if (!storage.open()) {
        *error = source + ": not a readable compound file";
        return {};
    }
    std::vector<SourceAttachment> out;
    for (const tarn::AttachmentStorageEntry& found : tarn::FindAttachmentStorages(storage)) {
        const std::string base = tarn::AttachmentStorageName(found.number);
        SourceAttachment attachment;
        tarn::CountedString value;
        for (const std::string_view name : {kLongNameStream, tarn::kMsgAttachNameStream}) {
            if (attachment.name.empty() &&
                tarn::ReadStringProperty(storage, base + "/" + std::string(name), value) == tarn::kStatusOk)
                attachment.name = Text(value);
        }
        const int32_t status =
            tarn::ReadWholeStream(storage, base + "/" + std::string(tarn::kMsgAttachDataStream), value);
        if (status == tarn::kStatusOk) {
            attachment.bytes.assign(reinterpret_cast<const char*>(value.data()), value.size());
        } else if (storage.find_entry(base + std::string(kEmbeddedStorage)) != nullptr) {
            attachment.embedded = true;
            attachment.error = "an embedded message of a message file is not written";
        } else if (status != tarn::kStatusNotPresent) {
            attachment.error = "its data cannot be read (status " + std::to_string(status) + ", " +
                               tarn::StatusText(status) + ")";
        }
        out.push_back(std::move(attachment));
    }
    return out;
}

std::vector<SourceAttachment> InternetMessageAttachments(krn_handle handle, const std::string& source,
                                                         std::string* error) {
    std::vector<tarn::MimePartReport> parts;
    tarn::MimeReadOptions options;
    options.parts = &parts;
    options.keep_content = true;
    tarn::MessageDocument record;
    int32_t format = tarn::kBodyNone;
    if (const int32_t status = tarn::ReadEmlMessage(handle, record, &format, options);
        status != tarn::kStatusOk) {
        *error = source + ": status " + std::to_string(status) + " (" + tarn::StatusText(status) + ")";
        return {};
    }
    // A part is an attachment when it has content and is neither the body nor in it, and is named or
    // is not text (an alternative text the HTML body replaced is not one).
    std::vector<SourceAttachment> out;
    for (tarn::MimePartReport& part : parts) {
        const bool text = part.type == tarn::kMimeTextPlain || part.type == tarn::kMimeTextHtml;
        if (part.content.empty() || part.fate == "body" || part.fate == "inlined" ||
            (text && part.location.empty()))
            continue;
        out.push_back({part.location, std::move(part.content), false, ""});
    }
    return out;
}

}  // namespace

std::vector<SourceAttachment> ReadSourceAttachments(const std::string& source, bool message_file,
                                                    std::string* error) {
    const tarn::KernelFileHandle handle(
        krnOpenFile(tarn::host::WideFromUtf8(source).c_str(), 0, tarn::kOpenShareMode));
    if (!handle.valid()) {
        *error = source + ": cannot be opened";
        return {};
    }
    return message_file ? MessageFileAttachments(handle.get(), source, error)
                        : InternetMessageAttachments(handle.get(), source, error);
}

}  // namespace tarn::api
