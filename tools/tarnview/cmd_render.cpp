// tarnview render: loads one page of a message through fltLoad, as the toolkit would, with a loader that
// writes the document it is handed to a file. What lands in the file is exactly what the toolkit's
// HTML, RTF or text loader would have laid out. With --pdf the document is laid out and the PDF
// written; with --png the toolkit's layout loaders draw one page into the bitmap of the load.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "common/apiutils.h"
#include "common/status.h"
#include "common/terminal_text.h"
#include "host/page_layout.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn.h"
#include "kernel/tarnkrn_control.h"
#include "pst/filter_data.h"
#include "tarnpst/tarnpst.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/filter_library.h"
#include "tools/tarnview/language.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    int32_t message = 1;
    bool text = false;
    std::string out;
    bool pdf = false;
    bool png = false;
    int32_t page = 1;
    int32_t dpi = 96;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"render",
                                              {"--text", "--compat", "--pdf", "--png"},
                                              {"--message", "-o", "--lang", "--page", "--dpi"},
                                              {"FILE"},
                                              {}});
    if (!parsed) return std::nullopt;
    const auto message = MessageNumber(*parsed, "render");
    const auto page = BoundedNumber(*parsed, "render", "--page", 1, 1, INT32_MAX);
    const auto dpi = BoundedNumber(*parsed, "render", "--dpi", 96, 10, 1200);
    if (!message || !page || !dpi || !ApplyLanguage(*parsed, "render")) return std::nullopt;
    const bool png = parsed->Has("--png");
    if ((png && parsed->Has("--pdf")) || (!png && (parsed->Value("--page") || parsed->Value("--dpi")))) {
        std::fprintf(stderr, "tarnview render: --page and --dpi go with --png, which excludes --pdf\n");
        return std::nullopt;
    }
    ApplyProfile(*parsed);
    return Options{parsed->positional[0],
                   *message,
                   parsed->Has("--text"),
                   parsed->Value("-o").value_or(""),
                   parsed->Has("--pdf"),
                   png,
                   *page,
                   *dpi};
}

std::string DefaultName(const Options& o, const char* extension) {
    return std::filesystem::path(o.file).stem().string() + "-message-" + std::to_string(o.message) +
           (o.text ? "-text" : "") + (o.png ? "-page-" + std::to_string(o.page) : "") + extension;
}

int Fail(const std::string& file, const std::string& reason) {
    std::fprintf(stderr, "tarnview render: %s: %s\n", tarn::TerminalText(file).c_str(),
                 tarn::TerminalText(reason).c_str());
    return 1;
}

int FilterFailure(const std::string& file, const char* entry, const tarn::host::CallOutcome& outcome,
                  const tarn::host::Toolkit& toolkit) {
    if (!outcome.returned()) return Fail(file, outcome.error);
    if (!toolkit.layout_error().empty()) return Fail(file, "layout: " + toolkit.layout_error());
    return Fail(file, std::string(entry) + " returned " + std::to_string(outcome.status) + " (" +
                          tarn::StatusText(outcome.status) + ")");
}

// --png: fltInfo at the asked resolution, then fltLoad of the asked page, both through the layout
// loaders, as the toolkit loads a page; the bitmap the load fills is written as a PNG.
int RenderPage(const Options& o, const tarn::host::EntryPoints& entries) {
    tarn::host::PageLayout layout;
    tarn::host::PageBitmap bitmap;
    tarn::host::Toolkit toolkit;
    toolkit.UseLayout(&layout, &bitmap);
    tarn::host::SourceSession session(tarn::host::WideFromUtf8(o.file));
    const krn_handle handle = krnOpenFile(session.name().c_str(), 0, tarn::kOpenShareMode);
    if (handle == KRN_NO_HANDLE) return Fail(o.file, "cannot open");
    tarn::InfoRequest& info = session.BuildInfoRequest(handle, o.message, o.text, /*with_slot=*/true, o.page);
    info.render_options[tarn::kRenderOptionXResolution] = static_cast<uint32_t>(o.dpi);
    info.render_options[tarn::kRenderOptionYResolution] = static_cast<uint32_t>(o.dpi);
    tarn::host::CallOutcome outcome = tarn::host::CallInfo(entries, &info);
    krnCloseFile(handle);
    const char* failed = "fltInfo";
    if (outcome.returned() && outcome.status == tarn::kStatusOk) {
        tarn::LoadRequest& load = session.BuildLoadRequest(o.message, o.text, /*with_slot=*/true, o.page);
        load.bitmap = &bitmap;
        outcome = tarn::host::CallLoad(entries, &load);
        failed = "fltLoad";
    }
    const tarn::FileInfo described = session.file_info();
    const tarn::host::CallOutcome released = session.ReleaseSlot(entries);
    if (!outcome.returned() || outcome.status != tarn::kStatusOk)
        return FilterFailure(o.file, failed, outcome, toolkit);
    if (!released.returned()) return Fail(o.file, released.error);
    const std::string out = o.out.empty() ? DefaultName(o, ".png") : o.out;
    if (!tarn::host::WritePng(bitmap, out)) return Fail(out, "cannot write");
    std::printf("%s: page %d of %d, %d x %d pixels at %d dpi\n", tarn::TerminalText(out).c_str(), o.page,
                described.total_pages, bitmap.width, bitmap.height, o.dpi);
    return 0;
}

bool IsLoad(tarn::host::LoaderKind kind) {
    return kind == tarn::host::LoaderKind::kLoadInMemory || kind == tarn::host::LoaderKind::kLoadByName ||
           kind == tarn::host::LoaderKind::kAltLoadInMemory || kind == tarn::host::LoaderKind::kAltLoadByName;
}

}  // namespace

int RunRender(const Args& args) {
    const std::optional<Options> options = Parse(args);
    if (!options) return 2;

    // HTML documents stay in memory: a viewer has no use for the filter's temporary files.
    krnctlSetMode(tarn::kKernelModeInMemory);
    tarn::host::EntryPoints entries;
    std::string error;
    if (!LoadFilter(FilterLibraryPath(), &entries, &error)) {
        std::fprintf(stderr, "tarnview render: cannot load the filter: %s\n",
                     tarn::TerminalText(error).c_str());
        return 1;
    }

    if (options->png) return RenderPage(*options, entries);

    tarn::host::Toolkit toolkit;
    tarn::host::SourceSession session(tarn::host::WideFromUtf8(options->file));
    // No slot: nothing is cached between calls, so this one composes the message itself.
    tarn::LoadRequest& request =
        session.BuildLoadRequest(options->message, options->text, /*with_slot=*/false);
    const tarn::host::CallOutcome outcome = tarn::host::CallLoad(entries, &request);
    if (!outcome.returned()) {
        std::fprintf(stderr, "tarnview render: %s: %s\n", tarn::TerminalText(options->file).c_str(),
                     tarn::TerminalText(outcome.error).c_str());
        return 1;
    }
    if (outcome.status != tarn::kStatusOk) {
        std::fprintf(stderr, "tarnview render: %s: fltLoad returned %d (%s)\n",
                     tarn::TerminalText(options->file).c_str(), outcome.status,
                     tarn::StatusText(outcome.status));
        return 1;
    }
    const tarn::host::LoaderCall* call = nullptr;
    for (const auto& c : toolkit.calls())
        if (IsLoad(c.kind)) call = &c;
    if (call == nullptr || call->info == nullptr) {
        std::fprintf(stderr, "tarnview render: %s: the filter called no loader\n",
                     tarn::TerminalText(options->file).c_str());
        return 1;
    }

    const int32_t format = call->info->format;
    std::string out = options->out;
    if (out.empty())
        out = DefaultName(
            *options, options->pdf ? ".pdf" : tarnpst::FormatExtension(static_cast<tarnpst::Format>(format)));
    std::string_view bytes(reinterpret_cast<const char*>(call->document.data()), call->document.size());
    tarn::host::LaidOutDocument laid;
    if (options->pdf) {
        tarn::host::PageLayout layout;
        std::string reason;
        if (!layout.Lay(call->document, format, &laid, &reason))
            return Fail(options->file, "layout: " + reason);
        bytes = laid.pdf;
    }
    std::ofstream file(out, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) return Fail(out, "cannot write");
    if (options->pdf) {
        std::printf("%s: PDF of %d pages, %zu bytes, laid out from format %d\n",
                    tarn::TerminalText(out).c_str(), laid.pages, bytes.size(), format);
    } else {
        std::printf("%s: format %d, %zu bytes, by %s\n", tarn::TerminalText(out).c_str(), format,
                    bytes.size(), tarn::host::LoaderKindName(call->kind));
    }
    std::string repairs(krnctlRepairsMade(nullptr, 0), '\0');
    krnctlRepairsMade(repairs.data(), repairs.size() + 1);
    if (!repairs.empty()) std::printf("repaired: %s\n", repairs.c_str());
    return 0;
}

}  // namespace tarnview
