// tarnview list: every message of a PST in the order the filter numbers them, with its folder, subject,
// sender and sent time, through the library's message cursor, so the index shown is the one
// `--message` takes (plus one) as long as the message's body is readable. The walk skips a folder it
// cannot read, as the filter does; the list says so on stderr and exits 1, so that a short list is
// never mistaken for the whole store.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
#include <string>

#include "common/json_writer.h"
#include "common/terminal_text.h"
#include "tarnpst/tarnpst.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    bool json = false;
    unsigned jobs = 0;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"list", {"--json"}, {"--jobs"}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    // Without --jobs the library takes one job per core, and one more for this thread, which mostly waits.
    const std::optional<unsigned> jobs = JobCount(*parsed, "list", 0);
    if (!jobs) return std::nullopt;
    return Options{parsed->positional[0], parsed->Has("--json"), *jobs};
}

}  // namespace

int RunList(const Args& args) {
    const std::optional<Options> options = Parse(args);
    if (!options) return 2;

    std::optional<tarnpst::Cursor> cursor;
    try {
        tarnpst::CursorOptions cursor_options;
        cursor_options.jobs = options->jobs;
        cursor_options.as_store = true;
        cursor.emplace(tarnpst::Source::Open(options->file).Messages(cursor_options));
    } catch (const tarnpst::Error& e) {
        std::fprintf(stderr, "tarnview list: %s\n", tarn::TerminalText(e.what()).c_str());
        return 1;
    }
    // Each line goes out as its message is read, so that the list's memory stays flat however large the
    // store; on a terminal the lines show the progress themselves.
    tarn::JsonWriter json(std::cout);
    if (options->json) json.BeginArray();
    std::string line;
    const bool progress = isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) == 0;
    tarnpst::Message m;
    std::optional<std::string> failure;
    for (;;) {
        try {
            if (!cursor->Next(m)) break;
        } catch (const tarnpst::Error& e) {
            failure = e.what();
            break;
        }
        const int32_t index = m.number - 1;
        if (options->json) {
            json.BeginObject();
            json.Field("index", index).Field("folder", m.folder).Field("subject", m.subject);
            json.Field("sender", m.sender).Field("sent", m.sent_text).Field("to", m.to).Field("cc", m.cc);
            json.Field("bcc", m.bcc).Field("importance", m.importance);
            json.EndObject();
        } else {
            // The text lines stay five columns, one message a line; the other fields are in the JSON only.
            line = std::to_string(index);
            for (const std::string* value : {&m.folder, &m.subject, &m.sender, &m.sent_text}) {
                line += '\t';
                tarn::AppendTerminalText(line, *value);
            }
            line += '\n';
            std::cout.write(line.data(), static_cast<std::streamsize>(line.size()));
        }
        if (progress) std::fprintf(stderr, "\rtarnview list: %d messages", m.number);
    }
    if (progress) std::fprintf(stderr, "\r\033[K");
    if (options->json) {
        json.EndArray();
        std::cout << '\n';
    }
    std::cout.flush();
    for (const std::string& warning : cursor->warnings())
        std::fprintf(stderr, "tarnview list: %s\n", tarn::TerminalText(warning).c_str());
    if (failure) std::fprintf(stderr, "tarnview list: %s\n", tarn::TerminalText(*failure).c_str());
    return cursor->warnings().empty() && !failure ? 0 : 1;
}

}  // namespace tarnview
