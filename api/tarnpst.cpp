// Source, Render and the small helpers of the public interface. A document is made by the filter's
// own entry points, linked in, through the toolkit stand-in, so that its bytes are the ones the
// toolkit's loader is handed for the same request.
#include "tarnpst/tarnpst.h"

#include <string>
#include <utility>

#include "api/edge.h"
#include "api/settings_scope.h"
#include "common/apiutils.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/filter_data.h"
#include "pst/probe.h"
#include "pst/pst.h"

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
        if (status != tarn::kStatusOk && status != tarn::kStatusUnsupported)
            throw Error(status, path + ": cannot be read: " + StatusWords(status));
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

// ---- Not yet moved here ----

Cursor::Cursor(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Cursor::~Cursor() = default;
Cursor::Cursor(Cursor&&) noexcept = default;
Cursor& Cursor::operator=(Cursor&&) noexcept = default;

class Cursor::Impl {
  public:
    std::vector<std::string> warnings;
};

bool Cursor::Next(Message&) { throw Error(kStatusFailure, "the message cursor is not built yet"); }
const std::vector<std::string>& Cursor::warnings() const { return impl_->warnings; }

Cursor Source::Messages(const CursorOptions&) const { return Cursor(std::make_unique<Cursor::Impl>()); }
std::vector<Folder> Source::Folders() const { return {}; }

ExportResult Export(const std::vector<std::string>&, Sink&, const ExportOptions&) {
    throw Error(kStatusFailure, "export is not built yet");
}
ExportResult Export(const std::vector<std::string>&, const std::string&, const ExportOptions&) {
    throw Error(kStatusFailure, "export is not built yet");
}

}  // namespace tarnpst
