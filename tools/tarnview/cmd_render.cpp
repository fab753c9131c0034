// tarnview render: loads one page of a message through fltLoad, as the toolkit would, with a loader that
// writes the document it is handed to a file. What lands in the file is exactly what the toolkit's
// HTML, RTF or text loader would have laid out.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "common/apiutils.h"
#include "common/status.h"
#include "common/terminal_text.h"
#include "host/toolkit_host.h"
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
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed =
        ParseArguments(args, {"render", {"--text", "--compat"}, {"--message", "-o", "--lang"}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    const auto message = MessageNumber(*parsed, "render");
    if (!message || !ApplyLanguage(*parsed, "render")) return std::nullopt;
    ApplyProfile(*parsed);
    return Options{parsed->positional[0], *message, parsed->Has("--text"), parsed->Value("-o").value_or("")};
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
    if (out.empty()) {
        out = std::filesystem::path(options->file).stem().string() + "-message-" +
              std::to_string(options->message) + (options->text ? "-text" : "") +
              tarnpst::FormatExtension(static_cast<tarnpst::Format>(format));
    }
    std::ofstream file(out, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(call->document.data()),
               static_cast<std::streamsize>(call->document.size()));
    file.close();
    if (!file) {
        std::fprintf(stderr, "tarnview render: %s: cannot write\n", tarn::TerminalText(out).c_str());
        return 1;
    }
    std::printf("%s: format %d, %zu bytes, by %s\n", tarn::TerminalText(out).c_str(), format,
                call->document.size(), tarn::host::LoaderKindName(call->kind));
    std::string repairs(krnctlRepairsMade(nullptr, 0), '\0');
    krnctlRepairsMade(repairs.data(), repairs.size() + 1);
    if (!repairs.empty()) std::printf("repaired: %s\n", repairs.c_str());
    return 0;
}

}  // namespace tarnview
