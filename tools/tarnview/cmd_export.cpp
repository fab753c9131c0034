// tarnview export: every message of each source written as the document the filter makes of it, in one
// pass, through the library's Export into the folder -o names (see include/tarnpst/tarnpst.h). This
// command parses the arguments, shows the progress on a terminal, stops at a signal and gives the exit
// status.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tarnpst/tarnpst.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/language.h"

namespace tarnview {
namespace {

struct Options {
    std::vector<std::string> sources;
    std::string out;
    tarnpst::ExportOptions export_options;
};

std::optional<Options> Parse(const Args& args) {
    ArgumentSpec spec{"export",
                      {"--text", "--attachments", "--force", "--resume", "--compat", "--pdf"},
                      {"-o", "--lang", "--jobs"},
                      {"SOURCE"},
                      {}};
    spec.repeat_last = true;
    const auto parsed = ParseArguments(args, spec);
    if (!parsed) return std::nullopt;
    const std::optional<std::string> out = parsed->Value("-o");
    if (!out || out->empty()) {
        std::fprintf(stderr, "tarnview export: -o DIR is missing (try --help)\n");
        return std::nullopt;
    }
    Options options{parsed->positional, *out, {}};
    tarnpst::ExportOptions& e = options.export_options;
    if (!SettingsFrom(*parsed, "export", &e.settings)) return std::nullopt;
    const std::optional<unsigned> jobs = JobCount(*parsed, "export", 0);
    if (!jobs) return std::nullopt;
    e.jobs = *jobs;
    e.text = parsed->Has("--text");
    e.attachments = parsed->Has("--attachments");
    e.force = parsed->Has("--force");
    e.resume = parsed->Has("--resume");
    e.pdf = parsed->Has("--pdf");
    // The rows are in the manifest; this process keeps none of them.
    e.keep_rows = false;
    return options;
}

// Set by SIGINT, SIGTERM and SIGHUP: the export stops after the message it is writing, so that the
// manifest ends with a whole row and --resume takes up from there.
volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void OnInterrupt(int) { g_interrupted = 1; }

// Messages done, the total when known, the rate and the time left, on one line of a terminal. The
// total counts every source's rows.
class Progress {
  public:
    explicit Progress(bool on) : on_(on), start_(Clock::now()), last_(start_) {}
    ~Progress() { Clear(); }

    bool on() const { return on_; }

    // Before anything else goes to stderr: the line is taken off, so a message starts a line of its own.
    void Clear() {
        if (on_ && shown_) std::fprintf(stderr, "\r\033[K");
        shown_ = false;
    }

    void Show(const tarnpst::ExportProgress& p) {
        if (!on_) return;
        const auto now = Clock::now();
        if (now - last_ < std::chrono::milliseconds(200)) return;
        last_ = now;
        shown_ = true;
        const double seconds = std::chrono::duration<double>(now - start_).count();
        const double rate = seconds > 0 ? static_cast<double>(p.done) / seconds : 0;
        if (p.total > 0 && rate > 0) {
            const double left = static_cast<double>(std::max<int64_t>(p.total - p.done, 0)) / rate;
            std::fprintf(stderr, "\r\033[Ktarnview export: %lld/%lld messages, %.0f/s, %.0f s left",
                         static_cast<long long>(p.done), static_cast<long long>(p.total), rate, left);
        } else {
            std::fprintf(stderr, "\r\033[Ktarnview export: %lld messages, %.0f/s",
                         static_cast<long long>(p.done), rate);
        }
    }

  private:
    using Clock = std::chrono::steady_clock;
    bool on_;
    Clock::time_point start_;
    Clock::time_point last_;
    bool shown_ = false;
};

}  // namespace

int RunExport(const Args& args) {
    std::optional<Options> options = Parse(args);
    if (!options) return 2;
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);

    Progress progress(isatty(STDERR_FILENO) != 0);
    tarnpst::ExportOptions& e = options->export_options;
    e.progress_total = progress.on();
    e.progress = [&progress](const tarnpst::ExportProgress& p) {
        progress.Show(p);
        return g_interrupted == 0;
    };
    const std::string manifest_path = (std::filesystem::path(options->out) / "manifest.jsonl").string();
    tarnpst::ExportResult result;
    try {
        result = tarnpst::Export(options->sources, options->out, e);
    } catch (const tarnpst::Error& error) {
        progress.Clear();
        std::fprintf(stderr, "tarnview export: %s\n", error.what());
        return 1;
    }
    progress.Clear();
    if (!result.stopped.empty()) {
        std::fprintf(stderr, "tarnview export: stopped (%s); %s lists what was done, and --resume goes on\n",
                     result.stopped.c_str(), manifest_path.c_str());
        return 1;
    }
    if (result.failures > 0) {
        std::fprintf(stderr, "tarnview export: %d of %d manifest lines record a failure; see %s\n",
                     result.failures, result.row_count, manifest_path.c_str());
        return 1;
    }
    return 0;
}

}  // namespace tarnview
