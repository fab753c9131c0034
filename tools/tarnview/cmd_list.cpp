// tarnview list: every message of a PST in the order the filter numbers them, with its folder, subject,
// sender and sent time. Reads through the store layers directly, with the filter's own walk, so the
// index shown is the one `--message` takes (plus one) as long as the message's body is readable.
// The walk skips a folder it cannot read, as the filter does; the list says so on stderr and exits 1,
// so that a short list is never mistaken for the whole store.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/little_endian.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/composer.h"
#include "pst/message_model.h"
#include "pst/message_walk.h"
#include "pst/render/header_labels.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/json.h"
#include "tools/tarnview/parallel_walk.h"
#include "tools/tarnview/store_text.h"
#include "tools/tarnview/terminal_text.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    bool json = false;
    unsigned jobs = 1;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"list", {"--json"}, {"--jobs"}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    const std::optional<unsigned> jobs =
        JobCount(*parsed, "list", DefaultJobs(/*calling_thread_waits=*/true));
    if (!jobs) return std::nullopt;
    return Options{parsed->positional[0], parsed->Has("--json"), *jobs};
}

// What a message gives the list, read on a worker: its fields, or that the filter passes it over.
struct Fields {
    bool skipped = false;
    uint32_t code_page = kDefaultCodePage;
    std::string subject;
    std::string sender;
    std::string sent;
    std::string to;
    std::string cc;
    std::string bcc;
    std::string importance;
};

std::string Text(const tarn::CountedString& s) { return std::string(s.text()); }

// Each property once. Store errors propagate: they end the folder, as in the filter's walk.
Fields ReadFields(const tarn::ltp::property_bag& message) {
    Fields out;
    const std::u16string subject = tarn::ReadSubject(message);
    // The filter gives these no page and no index.
    if (subject == tarn::kLocalFreebusySubject) {
        out.skipped = true;
        return out;
    }
    // People read the 8-bit strings of an ANSI store in the message's own code page; the filter's
    // documents keep their byte-by-byte reading.
    out.code_page = StringCodePage(message);
    out.subject = SubjectText(message, out.code_page, subject);
    const auto text = [&](tarn::ltp::prop_id id) {
        return ReadText(message, id, out.code_page).value_or(std::string());
    };
    out.sender = text(tarn::kPropSenderName);
    out.to = text(tarn::kPropDisplayTo);
    out.cc = text(tarn::kPropDisplayCc);
    out.bcc = text(tarn::kPropDisplayBcc);
    // The header block's own wording of the time and the importance.
    tarn::CountedString sent;
    tarn::CountedString importance;
    if (message.prop_exists(tarn::kPropSubmitTime)) {
        const std::vector<std::byte> value = message.get_value_variable(tarn::kPropSubmitTime);
        // Any other length is not a file time.
        if (value.size() == sizeof(uint64_t)) (void)tarn::FormatSentTime(tarn::LoadLe64(value.data()), sent);
    }
    if (message.prop_exists(tarn::kPropImportance))
        (void)tarn::ImportanceText(message.get_value_4(tarn::kPropImportance), importance);
    out.sent = Text(sent);
    out.importance = Text(importance);
    return out;
}

// Folders carry no code page of their own: an 8-bit name is read in the page of the message at hand
// (a store is written by one client in one page), or in 1252.
std::string ReadFolderName(const tarn::ndb::db_ptr& db, tarn::ndb::node_id folder,
                           uint32_t code_page = kDefaultCodePage) {
    const tarn::ltp::property_bag bag(db->lookup_node(folder));
    return ReadText(bag, tarn::kPropDisplayName, code_page).value_or(std::string());
}

// The folder's display name for a report, or nothing when its property context cannot say.
std::optional<std::string> FolderName(const tarn::ndb::db_ptr& db, tarn::ndb::node_id folder) {
    try {
        return ReadFolderName(db, folder);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// What the walk could not read, one line each: `FILE: folder "NAME" (nid 0x...): ERROR`.
void ReportFailures(const std::string& file, const tarn::ndb::db_ptr& db,
                    const std::vector<tarn::WalkFailure>& failures) {
    for (const tarn::WalkFailure& f : failures) {
        if (!f.folder) {
            std::fprintf(stderr, "tarnview list: %s: node b-tree: %s; the walk ended there\n",
                         TerminalText(file).c_str(), TerminalText(f.error).c_str());
            continue;
        }
        const std::optional<std::string> name = FolderName(db, *f.folder);
        // Appended piece by piece: GCC 12 at -O3 mistakes a chain of + for overlapping copies.
        std::string named;
        if (name) named.append("\"").append(TerminalText(*name)).append("\" ");
        std::fprintf(stderr, "tarnview list: %s: folder %s(nid 0x%x): %s\n", TerminalText(file).c_str(),
                     named.c_str(), static_cast<unsigned>(*f.folder), TerminalText(f.error).c_str());
    }
}

}  // namespace

int RunList(const Args& args) {
    const std::optional<Options> options = Parse(args);
    if (!options) return 2;

    tarn::ndb::db_ptr db;
    try {
        db = tarn::ndb::open_database(tarn::host::WideFromUtf8(options->file));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarnview list: %s: not a readable PST store: %s\n",
                     TerminalText(options->file).c_str(), TerminalText(e.what()).c_str());
        return 1;
    }
    std::map<tarn::ndb::node_id, std::string> folder_names;
    std::vector<tarn::WalkFailure> failures;
    // Each line goes out as its message is read, so that the list's memory stays flat however large the
    // store; on a terminal the lines show the progress themselves.
    JsonWriter json(std::cout);
    if (options->json) json.BeginArray();
    std::string line;
    const auto print = [&](int32_t index, const std::string& folder, const Fields& e) {
        if (options->json) {
            json.BeginObject();
            json.Field("index", index).Field("folder", folder).Field("subject", e.subject);
            json.Field("sender", e.sender).Field("sent", e.sent).Field("to", e.to).Field("cc", e.cc);
            json.Field("bcc", e.bcc).Field("importance", e.importance);
            json.EndObject();
        } else {
            // The text lines stay five columns, one message a line; the other fields are in the JSON only.
            line = std::to_string(index);
            for (const std::string* value : {&folder, &e.subject, &e.sender, &e.sent}) {
                line += '\t';
                AppendTerminalText(line, *value);
            }
            line += '\n';
            std::cout.write(line.data(), static_cast<std::streamsize>(line.size()));
        }
    };
    const bool progress = isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) == 0;
    int32_t running = 0;
    const auto finish = [&](tarn::ndb::node_id folder, uint32_t, Fields& f) {
        if (f.skipped) return;
        auto name = folder_names.find(folder);
        if (name == folder_names.end())
            name = folder_names.emplace(folder, ReadFolderName(db, folder, f.code_page)).first;
        print(running++, name->second, f);
        if (progress) std::fprintf(stderr, "\rtarnview list: %d messages", running);
    };
    const std::u16string path = tarn::host::WideFromUtf8(options->file);
    ParallelWalk<Fields> walk(
        {WorkersFor(options->jobs)}, [&] { return tarn::ndb::open_database(path); },
        [](tarn::ndb::node_id, tarn::PstMessage& message) { return ReadFields(message.properties()); },
        [](const Fields& f) {
            return f.subject.size() + f.sender.size() + f.to.size() + f.cc.size() + f.bcc.size();
        });
    walk.Run(db, finish, [&](const RowFailure& f) { failures.push_back({f.folder, f.error}); });
    if (progress) std::fprintf(stderr, "\r\033[K");
    if (options->json) {
        json.EndArray();
        std::cout << '\n';
    }
    std::cout.flush();
    ReportFailures(options->file, db, failures);
    return failures.empty() ? 0 : 1;
}

}  // namespace tarnview
