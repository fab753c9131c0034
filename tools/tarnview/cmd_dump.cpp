// tarnview dump: a PST's header fields and every node of its node B-tree. The first thing to reach for
// on a store that misbehaves, so it keeps going: a node (or a B-tree page) that cannot be read is
// reported on its own line and the dump continues; the exit status is 1 when anything failed.
#include <cinttypes>
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
    bool json = false;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"dump", {"--json"}, {}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    return Options{parsed->positional[0], parsed->Has("--json")};
}

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, value);
    return text;
}

int DumpText(const Options& options, const tarnpst::StoreHeader& h,
             const std::optional<tarnpst::StoreNodes>& db, const std::string& open_error) {
    std::printf("file: %s\n", tarn::TerminalText(options.file).c_str());
    std::printf("layout: %s (wVer %u)\n", h.unicode ? "Unicode" : "ANSI", h.version);
    std::printf("encoding: %s (bCryptMethod %u)\n", h.encoding, h.crypt_method);
    std::printf("magic: %s\n", h.magic_ok ? "!BDN" : Hex(h.magic).c_str());
    std::printf("file eof: %" PRIu64 " (%s)\n", h.file_eof, Hex(h.file_eof).c_str());
    std::printf("next block id: %s\n", Hex(h.next_block_id).c_str());
    std::printf("node b-tree root: page %s at %s\n", Hex(h.nbt_root_id).c_str(),
                Hex(h.nbt_root_address).c_str());
    std::printf("block b-tree root: page %s at %s\n", Hex(h.bbt_root_id).c_str(),
                Hex(h.bbt_root_address).c_str());
    if (!db) {
        std::fprintf(stderr, "tarnview dump: %s: %s\n", tarn::TerminalText(options.file).c_str(),
                     tarn::TerminalText(open_error).c_str());
        return 1;
    }
    std::printf("nodes:\n  %-10s  %-26s %-10s  %-10s  %10s  %8s\n", "id", "type", "parent", "data", "size",
                "subnodes");
    size_t count = 0, failed = 0;
    db->Walk(
        [&](const tarnpst::StoreNode& i) {
            ++count;
            if (!i.error.empty()) {
                ++failed;
                std::printf("  0x%08x  %-26s 0x%08x  %-10s  error: %s\n", i.id, i.type, i.parent,
                            Hex(i.data_bid).c_str(), tarn::TerminalText(i.error).c_str());
                std::fprintf(stderr, "tarnview dump: %s: node 0x%x: %s\n",
                             tarn::TerminalText(options.file).c_str(), i.id,
                             tarn::TerminalText(i.error).c_str());
                return;
            }
            std::printf("  0x%08x  %-26s 0x%08x  %-10s  %10zu  %8zu\n", i.id, i.type, i.parent,
                        Hex(i.data_bid).c_str(), static_cast<size_t>(i.size),
                        static_cast<size_t>(i.subnodes));
        },
        [&](uint64_t address, const std::string& error) {
            ++failed;
            std::printf("  node b-tree page at %s  error: %s\n", Hex(address).c_str(),
                        tarn::TerminalText(error).c_str());
            std::fprintf(stderr, "tarnview dump: %s: node b-tree page at %s: %s\n",
                         tarn::TerminalText(options.file).c_str(), Hex(address).c_str(),
                         tarn::TerminalText(error).c_str());
        });
    std::printf("%zu nodes, %zu unreadable\n", count, failed);
    return failed == 0 ? 0 : 1;
}

int DumpJson(const Options& options, const tarnpst::StoreHeader& h,
             const std::optional<tarnpst::StoreNodes>& db, const std::string& open_error) {
    tarn::JsonWriter w(std::cout);
    w.BeginObject();
    w.Field("file", options.file);
    w.Field("layout", h.unicode ? "unicode" : "ansi");
    w.Field("version", static_cast<uint32_t>(h.version));
    w.Field("encoding", h.encoding);
    w.Field("crypt_method", static_cast<uint32_t>(h.crypt_method));
    w.Field("magic", static_cast<uint32_t>(h.magic));
    w.Field("file_eof", h.file_eof);
    w.Field("next_block_id", h.next_block_id);
    w.Key("nbt_root")
        .BeginObject()
        .Field("id", h.nbt_root_id)
        .Field("address", h.nbt_root_address)
        .EndObject();
    w.Key("bbt_root")
        .BeginObject()
        .Field("id", h.bbt_root_id)
        .Field("address", h.bbt_root_address)
        .EndObject();
    size_t failed = 0;
    if (!db) {
        w.Field("error", open_error);
        ++failed;
    } else {
        w.Key("nodes").BeginArray();
        db->Walk(
            [&](const tarnpst::StoreNode& i) {
                w.BeginObject().Field("id", i.id).Field("type", i.type).Field("parent", i.parent);
                w.Field("data_bid", i.data_bid).Field("subnode_bid", i.subnode_bid);
                if (i.error.empty()) {
                    w.Field("size", i.size).Field("subnodes", i.subnodes);
                } else {
                    ++failed;
                    w.Field("error", i.error);
                }
                w.EndObject();
            },
            [&](uint64_t address, const std::string& error) {
                ++failed;
                w.BeginObject().Field("page_address", address).Field("error", error).EndObject();
            });
        w.EndArray();
    }
    w.Field("errors", static_cast<uint64_t>(failed));
    w.EndObject();
    std::cout << "\n";
    std::cout.flush();
    if (!db)
        std::fprintf(stderr, "tarnview dump: %s: %s\n", tarn::TerminalText(options.file).c_str(),
                     tarn::TerminalText(open_error).c_str());
    return failed == 0 ? 0 : 1;
}

}  // namespace

int RunDump(const Args& args) {
    const auto options = Parse(args);
    if (!options) return 2;
    tarnpst::StoreHeader header;
    try {
        header = tarnpst::ReadStoreHeader(options->file);
    } catch (const tarnpst::Error& e) {
        // The library's words name the file already.
        const std::string words = e.what();
        const std::string prefix = options->file + ": ";
        std::fprintf(
            stderr, "tarnview dump: %s: header: %s\n", tarn::TerminalText(options->file).c_str(),
            tarn::TerminalText(words.rfind(prefix, 0) == 0 ? words.substr(prefix.size()) : words).c_str());
        return 1;
    }
    std::optional<tarnpst::StoreNodes> db;
    std::string open_error;
    try {
        db = tarnpst::StoreNodes::Open(options->file);
    } catch (const tarnpst::Error& e) {
        open_error = e.what();
    }
    return options->json ? DumpJson(*options, header, db, open_error)
                         : DumpText(*options, header, db, open_error);
}

}  // namespace tarnview
