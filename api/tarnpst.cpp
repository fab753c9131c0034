// Source, Render and the small helpers of the public interface. A document is made by the filter's
// own entry points, linked in, through the toolkit stand-in, so that its bytes are the ones the
// toolkit's loader is handed for the same request.
#include "tarnpst/tarnpst.h"

#include <string>
#include <utility>

#include "api/cursor.h"
#include "api/edge.h"
#include "api/settings_scope.h"
#include "api/store_folders.h"
#include "common/apiutils.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/filter_data.h"
#include "pst/probe.h"
#include "pst/pst.h"
#include "pst/render/header_labels.h"
#include "store/ndb/database.h"

namespace tarnpst {

using tarn::api::AtEdge;
using tarn::api::SettingsScope;

namespace {

const tarn::host::EntryPoints kLinkedFilter{&fltInfo, &fltLoad, &fltFreeData};

bool IsLoad(tarn::host::LoaderKind kind) {
    return kind == tarn::host::LoaderKind::kLoadInMemory || kind == tarn::host::LoaderKind::kLoadByName ||
           kind == tarn::host::LoaderKind::kAltLoadInMemory || kind == tarn::host::LoaderKind::kAltLoadByName;
}

std::string StatusWords(int32_t status) {
    return "status " + std::to_string(status) + " (" + tarn::StatusText(status) + ")";
}

}  // namespace

class Source::Impl {
  public:
    std::string path;
    Kind kind = Kind::kUnsupported;
    std::vector<std::string> warnings;
};

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::kPstStore:
            return "pst";
        case Kind::kMessageFile:
            return "msg";
        case Kind::kInternetMessage:
            return "eml";
        default:
            return "unsupported";
    }
}

const char* FormatName(Format format) {
    switch (format) {
        case Format::kRtf:
            return "rtf";
        case Format::kHtml:
            return "html";
        default:
            return "text";
    }
}

const char* FormatExtension(Format format) {
    switch (format) {
        case Format::kRtf:
            return ".rtf";
        case Format::kHtml:
            return ".html";
        default:
            return ".txt";
    }
}

const char* StatusText(int32_t status) { return tarn::StatusText(status); }

std::vector<uint16_t> HeaderLanguages() {
    std::vector<uint16_t> languages;
    for (const tarn::LanguageLabels& row : tarn::LanguageLabelRows()) languages.push_back(row.language);
    return languages;
}

Source::Source(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Source::~Source() = default;
Source::Source(Source&&) noexcept = default;
Source& Source::operator=(Source&&) noexcept = default;

Source Source::Open(const std::string& path) {
    return AtEdge(path, [&] {
        auto impl = std::make_unique<Impl>();
        impl->path = path;
        const tarn::KernelFileHandle handle(
            krnOpenFile(tarn::host::WideFromUtf8(path).c_str(), 0, tarn::kOpenShareMode));
        if (!handle.valid()) throw Error(kStatusCannotOpen, path + ": cannot be opened");
        tarn::InputKind kind = tarn::kInputUnsupported;
        const int32_t status = tarn::ProbeSource(handle.get(), &kind);
        // A source the probe cannot classify opens all the same: the filter's calls give its status.
        if (status != tarn::kStatusOk)
            impl->warnings.push_back(path + ": the filter cannot classify it: " + StatusWords(status));
        if (status == tarn::kStatusOk) {
            impl->kind = kind == tarn::kInputPstStore      ? Kind::kPstStore
                         : kind == tarn::kInputMessageFile ? Kind::kMessageFile
                         : kind == tarn::kInputMimeText    ? Kind::kInternetMessage
                                                           : Kind::kUnsupported;
        }
        return Source(std::move(impl));
    });
}

const std::string& Source::path() const { return impl_->path; }
Kind Source::kind() const { return impl_->kind; }
const std::vector<std::string>& Source::warnings() const { return impl_->warnings; }

int32_t Source::MessageCount(const Settings& settings) const {
    return AtEdge(impl_->path, [&] {
        const SettingsScope scope(settings);
        tarn::host::SourceSession session(tarn::host::WideFromUtf8(impl_->path));
        const tarn::KernelFileHandle handle(krnOpenFile(session.name().c_str(), 0, tarn::kOpenShareMode));
        if (!handle.valid()) throw Error(kStatusCannotOpen, impl_->path + ": cannot be opened");
        const tarn::host::Toolkit toolkit;
        tarn::InfoRequest& request = session.BuildInfoRequest(handle.get(), 0);
        const tarn::host::CallOutcome outcome = tarn::host::CallInfo(kLinkedFilter, &request);
        const tarn::FileInfo info = session.file_info();
        const tarn::host::CallOutcome released = session.ReleaseSlot(kLinkedFilter);
        if (!outcome.returned()) throw Error(kStatusFailure, impl_->path + ": " + outcome.error);
        if (outcome.status != tarn::kStatusOk)
            throw Error(outcome.status, impl_->path + ": the filter gives " + StatusWords(outcome.status));
        if (!released.returned()) throw Error(kStatusFailure, impl_->path + ": " + released.error);
        return info.format == tarn::kInputPstStore ? info.message_count : 1;
    });
}

Document Source::Render(int32_t number, const RenderOptions& options) const {
    const std::string& path = impl_->path;
    return AtEdge(path, [&] {
        const SettingsScope scope(options.settings);
        krnNoteRepairs("");
        const tarn::host::Toolkit toolkit;
        tarn::host::SourceSession session(tarn::host::WideFromUtf8(path));
        // No slot: nothing is cached between calls, so this one composes the message itself.
        tarn::LoadRequest& request = session.BuildLoadRequest(number, options.text, /*with_slot=*/false);
        const tarn::host::CallOutcome outcome = tarn::host::CallLoad(kLinkedFilter, &request);
        const std::string message = path + ": message " + std::to_string(number);
        if (!outcome.returned()) throw Error(kStatusFailure, message + ": " + outcome.error);
        if (outcome.status != tarn::kStatusOk)
            throw Error(outcome.status, message + ": the filter gives " + StatusWords(outcome.status));
        const tarn::host::LoaderCall* call = nullptr;
        for (const auto& c : toolkit.calls())
            if (IsLoad(c.kind)) call = &c;
        if (call == nullptr || call->info == nullptr)
            throw Error(kStatusFailure, message + ": the filter called no loader");
        Document document;
        document.bytes.assign(reinterpret_cast<const char*>(call->document.data()), call->document.size());
        document.format = static_cast<Format>(call->info->format);
        document.repairs.resize(krnctlRepairsMade(nullptr, 0));
        krnctlRepairsMade(document.repairs.data(), document.repairs.size() + 1);
        return document;
    });
}

Cursor::Cursor(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Cursor::~Cursor() = default;
Cursor::Cursor(Cursor&&) noexcept = default;
Cursor& Cursor::operator=(Cursor&&) noexcept = default;

bool Cursor::Next(Message& out) {
    return AtEdge("cursor", [&] { return impl_->Next(out); });
}

const std::vector<std::string>& Cursor::warnings() const { return impl_->warnings; }

Cursor Source::Messages(const CursorOptions& options) const {
    return AtEdge(impl_->path, [&] {
        if (options.as_store || impl_->kind == Kind::kPstStore)
            return Cursor(tarn::api::OpenStoreCursor(impl_->path, options));
        if (impl_->kind == Kind::kUnsupported)
            throw Error(kStatusUnsupported, impl_->path + ": not a source the filter takes");
        return Cursor(tarn::api::OpenSingleCursor(impl_->path, impl_->kind == Kind::kMessageFile, options));
    });
}

std::vector<Folder> Source::Folders() const {
    return AtEdge(impl_->path, [&] {
        std::vector<Folder> folders;
        if (impl_->kind != Kind::kPstStore) return folders;
        const tarn::ndb::db_ptr db = tarn::ndb::open_database(tarn::host::WideFromUtf8(impl_->path));
        for (tarn::api::StoreFolder& folder : tarn::api::StoreFolders(db))
            folders.push_back({std::move(folder.path), folder.messages});
        return folders;
    });
}

}  // namespace tarnpst
