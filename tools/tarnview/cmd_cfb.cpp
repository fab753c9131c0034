// tarnview cfb: a compound file's directory as a tree, or the bytes of one stream. The first thing to
// look at when a message file misbehaves: it shows exactly what the compound-file layer sees.
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "common/json_writer.h"
#include "common/terminal_text.h"
#include "tarnpst/inspect.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    std::optional<std::string> path;
    bool json = false;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"cfb", {"--json"}, {}, {"FILE"}, {"PATH"}});
    if (!parsed) return std::nullopt;
    Options options{parsed->positional[0], std::nullopt, parsed->Has("--json")};
    if (parsed->positional.size() > 1) options.path = parsed->positional[1];
    return options;
}

int ListDirectory(const tarnpst::CompoundFile& file, bool json) {
    if (json) {
        tarn::JsonWriter w(std::cout);
        w.BeginArray();
        const bool ok = file.Walk([&](const tarnpst::CompoundEntry& e) {
            w.BeginObject();
            w.Field("path", e.path);
            w.Field("type", e.type);
            w.Field("size", e.size);
            w.Field("start", e.start_sector);
            w.EndObject();
        });
        w.EndArray();
        std::cout << '\n';
        return ok ? 0 : 1;
    }
    std::printf("%-40s %-8s %10s %10s\n", "NAME", "TYPE", "SIZE", "START");
    const std::optional<tarnpst::CompoundEntry> root = file.Root();
    if (!root) return 0;
    std::printf("%-40s %-8s %10llu %10s\n", tarn::TerminalText(root->name).c_str(), root->type,
                static_cast<unsigned long long>(root->size), root->start.c_str());
    return file.Walk([&](const tarnpst::CompoundEntry& e) {
        std::string label = std::string(2 * e.depth, ' ') + tarn::TerminalText(e.name);
        if (e.is_directory) label += '/';
        std::printf("%-40s %-8s %10llu %10s\n", label.c_str(), e.type,
                    static_cast<unsigned long long>(e.size), e.start.c_str());
    })
               ? 0
               : 1;
}

}  // namespace

int RunCfb(const Args& args) {
    auto options = Parse(args);
    if (!options) return 2;
    try {
        const tarnpst::CompoundFile file = tarnpst::CompoundFile::Open(options->file);
        if (!options->path) return ListDirectory(file, options->json);
        file.ReadStream(*options->path,
                        [](std::string_view bytes) { std::fwrite(bytes.data(), 1, bytes.size(), stdout); });
        return 0;
    } catch (const tarnpst::Error& e) {
        std::fflush(stdout);
        const std::string words = e.what();
        // Opening's words name the file already; a stream's do not.
        const bool named = words.rfind(options->file + ": ", 0) == 0;
        std::fprintf(stderr, "tarnview cfb: %s%s\n",
                     named ? "" : (tarn::TerminalText(options->file) + ": ").c_str(),
                     tarn::TerminalText(words).c_str());
        return 1;
    }
}

}  // namespace tarnview
