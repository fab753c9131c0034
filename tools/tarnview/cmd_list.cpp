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

#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/composer.h"
#include "pst/message_model.h"
#include "pst/message_walk.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/json.h"
#include "tools/tarnview/store_text.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    bool json = false;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"list", {"--json"}, {}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    return Options{parsed->positional[0], parsed->Has("--json")};
}

struct Entry {
    int32_t index = 0;
    std::string folder;
    std::string subject;
    std::string sender;
    std::string sent;
    // In the JSON only: the text lines stay five columns.
    std::string to;
    std::string cc;
    std::string bcc;
    std::string importance;
};

std::string Text(const tarn::CountedString& s) { return std::string(s.text()); }

// One message, one line: the characters that would split a line or a field are written as C escapes,
// and the backslash too, so that the value can be recovered exactly.
std::string Escaped(const std::string& value) {
    std::string out;
    out.reserve(value.size());
    for (const char c : value) {
        switch (c) {
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                out += c;
        }
    }
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
            std::fprintf(stderr, "tarnview list: %s: node b-tree: %s; the walk ended there\n", file.c_str(),
                         f.error.c_str());
            continue;
        }
        const std::optional<std::string> name = FolderName(db, *f.folder);
        const std::string named = name ? "\"" + *name + "\" " : "";
        std::fprintf(stderr, "tarnview list: %s: folder %s(nid 0x%x): %s\n", file.c_str(), named.c_str(),
                     static_cast<unsigned>(*f.folder), f.error.c_str());
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
        std::fprintf(stderr, "tarnview list: %s: not a readable PST store: %s\n", options->file.c_str(),
                     e.what());
        return 1;
    }
    std::map<tarn::ndb::node_id, std::string> folder_names;
    std::vector<tarn::WalkFailure> failures;
    // Each line goes out as its message is read, so that the list's memory stays flat however large the
    // store; on a terminal the lines show the progress themselves.
    JsonWriter json(std::cout);
    if (options->json) json.BeginArray();
    const auto print = [&](const Entry& e) {
        if (options->json) {
            json.BeginObject();
            json.Field("index", e.index).Field("folder", e.folder).Field("subject", e.subject);
            json.Field("sender", e.sender).Field("sent", e.sent).Field("to", e.to).Field("cc", e.cc);
            json.Field("bcc", e.bcc).Field("importance", e.importance);
            json.EndObject();
        } else {
            std::cout << e.index << '\t' << Escaped(e.folder) << '\t' << Escaped(e.subject) << '\t'
                      << Escaped(e.sender) << '\t' << Escaped(e.sent) << '\n';
        }
    };
    const bool progress = isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) == 0;
    int32_t running = 0;
    const auto visit = [&](tarn::ndb::node_id folder, tarn::PstMessage& message) {
        const std::u16string subject = tarn::ReadSubject(message.properties());
        // The filter gives these no page and no index.
        if (subject == tarn::kLocalFreebusySubject) return tarn::kWalkNext;
        // People read the 8-bit strings of an ANSI store in the message's own code page; the filter's
        // documents keep their byte-by-byte reading.
        const uint32_t code_page = StringCodePage(message.properties());
        auto name = folder_names.find(folder);
        if (name == folder_names.end())
            name = folder_names.emplace(folder, ReadFolderName(db, folder, code_page)).first;
        tarn::MessageDocument fields;
        tarn::ReadHeaderFields(message.properties(), fields);
        const auto text = [&](tarn::ltp::prop_id id) {
            return ReadText(message.properties(), id, code_page).value_or(std::string());
        };
        print({running++, name->second, SubjectText(message.properties(), code_page),
               text(tarn::kPropSenderName), Text(fields.header[tarn::kSlotSent]), text(tarn::kPropDisplayTo),
               text(tarn::kPropDisplayCc), text(tarn::kPropDisplayBcc),
               Text(fields.header[tarn::kSlotImportance])});
        if (progress) std::fprintf(stderr, "\rtarnview list: %d messages", running);
        return tarn::kWalkNext;
    };
    tarn::WalkMessages(db, visit, [&](const tarn::WalkFailure& f) { failures.push_back(f); });
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
