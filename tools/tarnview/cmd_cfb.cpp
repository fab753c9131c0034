// tarnview cfb: a compound file's directory as a tree, or the bytes of one stream. The first thing to
// look at when a message file misbehaves: it shows exactly what the compound-file layer sees.
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "cfb/compound_storage.h"
#include "cfb/compound_stream.h"
#include "cfb/format.h"
#include "common/apiutils.h"
#include "common/json_writer.h"
#include "common/terminal_text.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"

namespace tarnview {
namespace {

using tarn::cfb::CompoundStorage;
using tarn::cfb::CompoundStream;
using tarn::cfb::DirectoryEntry;
using tarn::cfb::EntryType;
using tarn::cfb::OpenResult;

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

// Names are kept as the low bytes of their UTF-16 units; shown here as the Latin-1 characters those
// bytes are, so that the output is UTF-8 whatever the name held.
std::string Printable(std::string_view name) {
    std::string out;
    for (unsigned char c : name) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

const char* TypeName(const DirectoryEntry& e) {
    switch (e.type) {
        case EntryType::Root:
            return "root";
        case EntryType::Storage:
            return "storage";
        case EntryType::Stream:
            return "stream";
        default:
            return "invalid";
    }
}

const char* Reason(OpenResult result) {
    switch (result) {
        case OpenResult::NotCompound:
            return "not a compound file (signature mismatch)";
        case OpenResult::BadCompound:
            return "damaged compound file (header or layout refused)";
        default:
            return "cannot be read";
    }
}

// Start sectors in the table: the special numbers by name, so that an empty stream reads "end".
std::string StartText(uint64_t sector) {
    switch (sector) {
        case tarn::cfb::format::kEndOfChain:
            return "end";
        case tarn::cfb::format::kFreeSector:
            return "free";
        case tarn::cfb::format::kFatSectorMark:
            return "fat";
        case tarn::cfb::format::kDifatSectorMark:
            return "difat";
        default:
            return std::to_string(sector);
    }
}

int ListDirectory(const CompoundStorage& storage, bool json) {
    if (json) {
        tarn::JsonWriter w(std::cout);
        w.BeginArray();
        bool ok =
            storage.directory().walk([&](std::string_view path, const DirectoryEntry& e, size_t, size_t) {
                w.BeginObject();
                w.Field("path", Printable(path));
                w.Field("type", TypeName(e));
                w.Field("size", e.size);
                w.Field("start", e.start_sector);
                w.EndObject();
            });
        w.EndArray();
        std::cout << '\n';
        return ok ? 0 : 1;
    }
    std::printf("%-40s %-8s %10s %10s\n", "NAME", "TYPE", "SIZE", "START");
    // A file whose directory chain holds no entry opens with nothing in it, not even a root.
    if (storage.directory().size() == 0) return 0;
    const DirectoryEntry& root = storage.directory().entry(0);
    std::printf("%-40s %-8s %10llu %10s\n", tarn::TerminalText(Printable(root.name())).c_str(),
                TypeName(root), static_cast<unsigned long long>(root.size),
                StartText(root.start_sector).c_str());
    return storage.directory().walk([&](std::string_view, const DirectoryEntry& e, size_t, size_t depth) {
        std::string label = std::string(2 * depth, ' ') + tarn::TerminalText(Printable(e.name()));
        if (e.is_directory) label += '/';
        std::printf("%-40s %-8s %10llu %10s\n", label.c_str(), TypeName(e),
                    static_cast<unsigned long long>(e.size), StartText(e.start_sector).c_str());
    })
               ? 0
               : 1;
}

int WriteStream(const CompoundStorage& storage, const Options& options) {
    const std::string& path = *options.path;
    const DirectoryEntry* e = storage.find_entry(path);
    if (e == nullptr) {
        std::fprintf(stderr, "tarnview cfb: %s: no entry '%s'\n", tarn::TerminalText(options.file).c_str(),
                     tarn::TerminalText(path).c_str());
        return 1;
    }
    if (e->is_directory) {
        std::fprintf(stderr, "tarnview cfb: %s: '%s' is a storage, not a stream\n",
                     tarn::TerminalText(options.file).c_str(), tarn::TerminalText(path).c_str());
        return 1;
    }
    auto stream = CompoundStream::open(storage, path);
    if (!stream) {
        std::fprintf(stderr, "tarnview cfb: %s: '%s': out of memory\n",
                     tarn::TerminalText(options.file).c_str(), tarn::TerminalText(path).c_str());
        return 1;
    }
    std::vector<char> buffer(1 << 16);
    uint64_t at = 0;
    while (size_t got = stream->read(at, buffer.data(), buffer.size())) {
        std::fwrite(buffer.data(), 1, got, stdout);
        at += got;
    }
    if (at < stream->size()) {
        std::fprintf(stderr, "tarnview cfb: %s: '%s': short stream, %llu of %llu bytes\n",
                     tarn::TerminalText(options.file).c_str(), tarn::TerminalText(path).c_str(),
                     static_cast<unsigned long long>(at), static_cast<unsigned long long>(stream->size()));
        return 1;
    }
    return 0;
}

}  // namespace

int RunCfb(const Args& args) {
    auto options = Parse(args);
    if (!options) return 2;
    std::u16string wide = tarn::host::WideFromUtf8(options->file);
    krn_handle handle = krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode);
    if (handle == KRN_NO_HANDLE) {
        std::fprintf(stderr, "tarnview cfb: %s: cannot open\n", tarn::TerminalText(options->file).c_str());
        return 1;
    }
    int status = 1;
    {
        CompoundStorage storage(handle);
        if (!storage.open())
            std::fprintf(stderr, "tarnview cfb: %s: %s\n", tarn::TerminalText(options->file).c_str(),
                         Reason(storage.result()));
        else
            status = options->path ? WriteStream(storage, *options) : ListDirectory(storage, options->json);
    }
    krnCloseFile(handle);
    return status;
}

}  // namespace tarnview
