// tarnview list: every message of a PST in the order the filter numbers them, with its folder, subject,
// sender and sent time. Reads through the store layers directly, with the filter's own walk, so the
// index shown is the one `--message` takes (plus one) as long as the message's body is readable.
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
};

std::string Utf8(const std::u16string& text) { return tarn::host::Utf8FromWide(text.c_str()); }

std::string Text(const tarn::CountedString& s) { return std::string(s.text()); }

}  // namespace

int RunList(const Args& args) {
    const std::optional<Options> options = Parse(args);
    if (!options) return 2;
    const bool progress = isatty(STDERR_FILENO) != 0;

    tarn::ndb::db_ptr db;
    try {
        db = tarn::ndb::open_database(tarn::host::WideFromUtf8(options->file));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarnview list: %s: not a readable PST store: %s\n", options->file.c_str(),
                     e.what());
        return 1;
    }
    std::map<tarn::ndb::node_id, std::string> folder_names;
    std::vector<Entry> entries;
    int32_t running = 0;
    tarn::WalkMessages(db, [&](tarn::ndb::node_id folder, tarn::PstMessage& message) {
        const std::u16string subject = tarn::ReadSubject(message.properties());
        // The filter gives these no page and no index.
        if (subject == tarn::kLocalFreebusySubject) return tarn::kWalkNext;
        auto name = folder_names.find(folder);
        if (name == folder_names.end()) {
            const tarn::ltp::property_bag bag(db->lookup_node(folder));
            name = folder_names.emplace(folder, Utf8(bag.read_wstring(tarn::kPropDisplayName))).first;
        }
        tarn::MessageDocument fields;
        tarn::ReadHeaderFields(message.properties(), fields);
        entries.push_back({running++, name->second, Utf8(subject), Text(fields.header[tarn::kSlotFrom]),
                           Text(fields.header[tarn::kSlotSent])});
        if (progress) std::fprintf(stderr, "\rtarnview list: %d messages", running);
        return tarn::kWalkNext;
    });
    if (progress) std::fprintf(stderr, "\r\033[K");

    if (options->json) {
        JsonWriter json(std::cout);
        json.BeginArray();
        for (const Entry& e : entries) {
            json.BeginObject();
            json.Field("index", e.index).Field("folder", e.folder).Field("subject", e.subject);
            json.Field("sender", e.sender).Field("sent", e.sent);
            json.EndObject();
        }
        json.EndArray();
        std::cout << '\n';
    } else {
        for (const Entry& e : entries) {
            std::cout << e.index << '\t' << e.folder << '\t' << e.subject << '\t' << e.sender << '\t'
                      << e.sent << '\n';
        }
    }
    return 0;
}

}  // namespace tarnview
