// tarnview info: describes a source as the toolkit sees it. It loads the filter library the toolkit
// would load and calls fltInfo through the toolkit stand-in, so that the exported library itself is
// what answers. The toolkit's layout loaders answer it with the real pages of the document, unless
// --no-layout keeps to the recording loaders and their fixed description.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include "common/apiutils.h"
#include "common/json_writer.h"
#include "common/status.h"
#include "common/terminal_text.h"
#include "host/page_layout.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn.h"
#include "kernel/tarnkrn_control.h"
#include "pst/probe.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/filter_library.h"
#include "tools/tarnview/language.h"

namespace tarnview {
namespace {

const char* KindName(int32_t kind) {
    switch (kind) {
        case tarn::kInputPstStore:
            return "PST store";
        case tarn::kInputMessageFile:
            return "message file";
        case tarn::kInputMimeText:
            return "MIME text";
        default:
            return "unknown";
    }
}

struct Options {
    std::string file;
    int32_t message = 1;
    bool json = false;
    bool layout = true;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(
        args, {"info", {"--json", "--compat", "--no-layout"}, {"--message", "--lang"}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    const auto message = MessageNumber(*parsed, "info");
    if (!message || !ApplyLanguage(*parsed, "info")) return std::nullopt;
    ApplyProfile(*parsed);
    return Options{parsed->positional[0], *message, parsed->Has("--json"), !parsed->Has("--no-layout")};
}

}  // namespace

int RunInfo(const Args& args) {
    const std::optional<Options> options = Parse(args);
    if (!options) return 2;

    // HTML documents stay in memory: a viewer has no use for the filter's temporary files.
    krnctlSetMode(tarn::kKernelModeInMemory);
    tarn::host::EntryPoints entries;
    std::string error;
    const std::string library = FilterLibraryPath();
    if (!LoadFilter(library, &entries, &error)) {
        std::fprintf(stderr, "tarnview info: cannot load the filter: %s\n",
                     tarn::TerminalText(error).c_str());
        return 1;
    }

    tarn::host::SourceSession session(tarn::host::WideFromUtf8(options->file));
    const krn_handle handle = krnOpenFile(session.name().c_str(), 0, tarn::kOpenShareMode);
    if (handle == KRN_NO_HANDLE) {
        std::fprintf(stderr, "tarnview info: %s: cannot open\n", tarn::TerminalText(options->file).c_str());
        return 1;
    }
    // What the filter will classify the source as; shown even when it cannot describe it.
    tarn::InputKind kind = tarn::kInputUnsupported;
    const bool probed = tarn::ProbeSource(handle, &kind) == tarn::kStatusOk;

    tarn::host::PageLayout layout;
    tarn::host::Toolkit toolkit;
    if (options->layout) toolkit.UseLayout(&layout);
    tarn::InfoRequest& request = session.BuildInfoRequest(handle, options->message);
    const tarn::host::CallOutcome outcome = tarn::host::CallInfo(entries, &request);
    krnCloseFile(handle);
    const tarn::FileInfo info = session.file_info();
    const int32_t message_index = request.message_number;
    const tarn::host::CallOutcome released = session.ReleaseSlot(entries);

    if (!outcome.returned()) {
        std::fprintf(stderr, "tarnview info: %s: %s\n", tarn::TerminalText(options->file).c_str(),
                     tarn::TerminalText(outcome.error).c_str());
        return 1;
    }
    const bool ok = outcome.status == tarn::kStatusOk;
    const int32_t shown_kind = ok ? info.format : (probed ? kind : 0);

    if (options->json) {
        tarn::JsonWriter json(std::cout);
        json.BeginObject();
        json.Field("file", options->file);
        json.Field("kind", shown_kind).Field("kind_name", KindName(shown_kind));
        json.Field("status", outcome.status).Field("status_text", tarn::StatusText(outcome.status));
        if (ok) {
            if (info.format == tarn::kInputPstStore) json.Field("message_count", info.message_count);
            json.Field("message_index", message_index);
            json.Field("page", info.page_number).Field("pages", info.total_pages);
            json.Field("width", info.width).Field("height", info.height);
            json.Field("x_resolution", info.x_resolution).Field("y_resolution", info.y_resolution);
        }
        json.EndObject();
        std::cout << '\n';
    } else {
        std::printf("file        %s\n", tarn::TerminalText(options->file).c_str());
        std::printf("kind        %d %s\n", shown_kind, KindName(shown_kind));
        std::printf("status      %d %s\n", outcome.status, tarn::StatusText(outcome.status));
        if (ok) {
            if (info.format == tarn::kInputPstStore) std::printf("messages    %d\n", info.message_count);
            std::printf("message     %d (index %d)\n", message_index + 1, message_index);
            std::printf("pages       %d (page %d)\n", info.total_pages, info.page_number);
            std::printf("size        %d x %d pixels at %d x %d dpi\n", info.width, info.height,
                        info.x_resolution, info.y_resolution);
        }
    }
    std::fflush(stdout);

    if (!released.returned()) {
        std::fprintf(stderr, "tarnview info: %s: %s\n", tarn::TerminalText(options->file).c_str(),
                     tarn::TerminalText(released.error).c_str());
        return 1;
    }
    if (!toolkit.layout_error().empty()) {
        std::fprintf(stderr, "tarnview info: %s: layout: %s\n", tarn::TerminalText(options->file).c_str(),
                     tarn::TerminalText(toolkit.layout_error()).c_str());
    }
    if (!ok) {
        std::fprintf(stderr, "tarnview info: %s: fltInfo returned %d (%s)\n",
                     tarn::TerminalText(options->file).c_str(), outcome.status,
                     tarn::StatusText(outcome.status));
        return 1;
    }
    return 0;
}

}  // namespace tarnview
