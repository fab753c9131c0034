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
#include "common/little_endian.h"
#include "common/signatures.h"
#include "common/store_file.h"
#include "common/terminal_text.h"
#include "platform/unicode.h"
#include "store/ndb/database.h"
#include "store/ndb/format.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"

namespace tarnview {
namespace {

namespace ndb = tarn::ndb;
namespace fmt = tarn::ndb::format;

struct Options {
    std::string file;
    bool json = false;
};

std::optional<Options> Parse(const Args& args) {
    const auto parsed = ParseArguments(args, {"dump", {"--json"}, {}, {"FILE"}, {}});
    if (!parsed) return std::nullopt;
    return Options{parsed->positional[0], parsed->Has("--json")};
}

// The header as the store sees it, read here rather than asked of the database, so that a header the
// database refuses can still be shown.
struct Header {
    bool unicode = false;
    uint32_t magic = 0;
    uint16_t version = 0;
    uint8_t crypt_method = 0;
    uint64_t file_eof = 0;
    uint64_t next_block_id = 0;
    ndb::page_info nbt_root, bbt_root;
};

Header ReadHeader(const std::u16string& path) {
    tarn::StoreFile file(path);
    std::vector<std::byte> bytes(fmt::kAnsiHeader.size);
    file.read_at(bytes, 0);
    Header h;
    h.version = tarn::LoadLe16(bytes.data() + fmt::kVersionOffset);
    h.unicode = h.version >= fmt::kUnicodeVersionThreshold;
    const fmt::HeaderLayout& layout = h.unicode ? fmt::kUnicodeHeader : fmt::kAnsiHeader;
    if (h.unicode) {
        bytes.resize(layout.size);
        file.read_at(bytes, 0);
    }
    auto id = [&](size_t at) -> uint64_t {
        return h.unicode ? tarn::LoadLe64(bytes.data() + at) : tarn::LoadLe32(bytes.data() + at);
    };
    h.magic = tarn::LoadLe32(bytes.data() + fmt::kMagicOffset);
    h.crypt_method = std::to_integer<uint8_t>(bytes[layout.crypt_method]);
    h.file_eof = id(layout.file_eof);
    h.next_block_id = id(layout.bid_next_b);
    h.nbt_root = {id(layout.root_nbt), id(layout.root_nbt + layout.id_width)};
    h.bbt_root = {id(layout.root_bbt), id(layout.root_bbt + layout.id_width)};
    return h;
}

const char* EncodingName(uint8_t method) {
    switch (method) {
        case fmt::kCryptNone:
            return "none";
        case fmt::kCryptPermute:
            return "permute";
        case fmt::kCryptCyclic:
            return "cyclic";
        default:
            return "unknown";
    }
}

// The node type in the low five bits of a node id.
const char* TypeName(ndb::node_id id) {
    static const char* const kNames[32] = {"heap",
                                           "internal",
                                           "folder",
                                           "search folder",
                                           "message",
                                           "attachment",
                                           "search update queue",
                                           "search criteria",
                                           "associated message",
                                           "type 9",
                                           "contents table index",
                                           "receive folder table",
                                           "outgoing queue table",
                                           "hierarchy table",
                                           "contents table",
                                           "associated contents table",
                                           "search contents table",
                                           "attachment table",
                                           "recipient table",
                                           "search table index",
                                           "type 0x14",
                                           "type 0x15",
                                           "type 0x16",
                                           "type 0x17",
                                           "type 0x18",
                                           "type 0x19",
                                           "type 0x1a",
                                           "type 0x1b",
                                           "type 0x1c",
                                           "type 0x1d",
                                           "type 0x1e",
                                           "ltp"};
    return kNames[id & 0x1F];
}

std::string Hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, value);
    return text;
}

// What an error says, with where it happened when the error knows.
std::string Describe(const std::exception& e) {
    std::string text = e.what();
    if (const auto* sig = dynamic_cast<const ndb::sig_mismatch*>(&e)) {
        text += " (id " + Hex(sig->id()) + " at " + Hex(sig->location()) + ")";
    }
    return text;
}

struct NodeLine {
    ndb::node_info info;
    size_t size = 0;
    size_t subnodes = 0;
    std::string error;  // empty when the node read
};

// Counts every subnode entry of the node's tree (all levels), reading its data size on the way.
NodeLine ReadNode(ndb::db_context& db, const ndb::node_info& info) {
    NodeLine line;
    line.info = info;
    try {
        ndb::node n = db.lookup_node(info.id);
        line.size = n.size();
        for (const ndb::subnode_info& sub : n.subnodes()) {
            (void)sub;
            ++line.subnodes;
        }
    } catch (const std::exception& e) {
        line.error = Describe(e);
    }
    return line;
}

// Walks the node B-tree page by page with an explicit stack, so that a page that cannot be read costs
// only the nodes under it. `emit` gets every node line; `page_error` every unreadable page.
template <typename Emit, typename PageError>
void WalkNodes(ndb::db_context& db, Emit emit, PageError page_error) {
    std::shared_ptr<ndb::nbt_page> root;
    try {
        root = db.read_nbt_root();
    } catch (const std::exception& e) {
        page_error(0, Describe(e));
        return;
    }
    struct Frame {
        const ndb::btree_node<ndb::node_id, ndb::node_info>* node;
        size_t next;
    };
    std::vector<Frame> stack{{root.get(), 0}};
    while (!stack.empty()) {
        Frame& top = stack.back();
        if (const auto* leaf = dynamic_cast<const ndb::nbt_leaf_page*>(top.node)) {
            for (size_t i = 0; i < leaf->num_values(); ++i) emit(ReadNode(db, leaf->get_value(i)));
            stack.pop_back();
            continue;
        }
        const auto* nonleaf = dynamic_cast<const ndb::nbt_nonleaf_page*>(top.node);
        if (nonleaf == nullptr || top.next >= nonleaf->num_values()) {
            stack.pop_back();
            continue;
        }
        const size_t position = top.next++;
        if (stack.size() >= ndb::kMaxBtreeDepth) {
            page_error(nonleaf->get_child_info(position).address, "b-tree nests deeper than any store can");
            continue;
        }
        try {
            stack.push_back({nonleaf->get_child(position), 0});
        } catch (const std::exception& e) {
            page_error(nonleaf->get_child_info(position).address, Describe(e));
        }
    }
}

int DumpText(const Options& options, const Header& h, const std::shared_ptr<ndb::db_context>& db,
             const std::string& open_error) {
    std::printf("file: %s\n", tarn::TerminalText(options.file).c_str());
    std::printf("layout: %s (wVer %u)\n", h.unicode ? "Unicode" : "ANSI", h.version);
    std::printf("encoding: %s (bCryptMethod %u)\n", EncodingName(h.crypt_method), h.crypt_method);
    std::printf("magic: %s\n", h.magic == tarn::kPstSignatureWord ? "!BDN" : Hex(h.magic).c_str());
    std::printf("file eof: %" PRIu64 " (%s)\n", h.file_eof, Hex(h.file_eof).c_str());
    std::printf("next block id: %s\n", Hex(h.next_block_id).c_str());
    std::printf("node b-tree root: page %s at %s\n", Hex(h.nbt_root.id).c_str(),
                Hex(h.nbt_root.address).c_str());
    std::printf("block b-tree root: page %s at %s\n", Hex(h.bbt_root.id).c_str(),
                Hex(h.bbt_root.address).c_str());
    if (!db) {
        std::fprintf(stderr, "tarnview dump: %s: %s\n", tarn::TerminalText(options.file).c_str(),
                     tarn::TerminalText(open_error).c_str());
        return 1;
    }
    std::printf("nodes:\n  %-10s  %-26s %-10s  %-10s  %10s  %8s\n", "id", "type", "parent", "data", "size",
                "subnodes");
    size_t count = 0, failed = 0;
    WalkNodes(
        *db,
        [&](const NodeLine& line) {
            ++count;
            const ndb::node_info& i = line.info;
            if (!line.error.empty()) {
                ++failed;
                std::printf("  0x%08x  %-26s 0x%08x  %-10s  error: %s\n", i.id, TypeName(i.id), i.parent_id,
                            Hex(i.data_bid).c_str(), tarn::TerminalText(line.error).c_str());
                std::fprintf(stderr, "tarnview dump: %s: node 0x%x: %s\n",
                             tarn::TerminalText(options.file).c_str(), i.id,
                             tarn::TerminalText(line.error).c_str());
                return;
            }
            std::printf("  0x%08x  %-26s 0x%08x  %-10s  %10zu  %8zu\n", i.id, TypeName(i.id), i.parent_id,
                        Hex(i.data_bid).c_str(), line.size, line.subnodes);
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

int DumpJson(const Options& options, const Header& h, const std::shared_ptr<ndb::db_context>& db,
             const std::string& open_error) {
    tarn::JsonWriter w(std::cout);
    w.BeginObject();
    w.Field("file", options.file);
    w.Field("layout", h.unicode ? "unicode" : "ansi");
    w.Field("version", static_cast<uint32_t>(h.version));
    w.Field("encoding", EncodingName(h.crypt_method));
    w.Field("crypt_method", static_cast<uint32_t>(h.crypt_method));
    w.Field("magic", static_cast<uint32_t>(h.magic));
    w.Field("file_eof", h.file_eof);
    w.Field("next_block_id", h.next_block_id);
    w.Key("nbt_root")
        .BeginObject()
        .Field("id", h.nbt_root.id)
        .Field("address", h.nbt_root.address)
        .EndObject();
    w.Key("bbt_root")
        .BeginObject()
        .Field("id", h.bbt_root.id)
        .Field("address", h.bbt_root.address)
        .EndObject();
    size_t failed = 0;
    if (!db) {
        w.Field("error", open_error);
        ++failed;
    } else {
        w.Key("nodes").BeginArray();
        WalkNodes(
            *db,
            [&](const NodeLine& line) {
                const ndb::node_info& i = line.info;
                w.BeginObject().Field("id", i.id).Field("type", TypeName(i.id)).Field("parent", i.parent_id);
                w.Field("data_bid", i.data_bid).Field("subnode_bid", i.sub_bid);
                if (line.error.empty()) {
                    w.Field("size", static_cast<uint64_t>(line.size))
                        .Field("subnodes", static_cast<uint64_t>(line.subnodes));
                } else {
                    ++failed;
                    w.Field("error", line.error);
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
    // Ill-formed UTF-8 becomes U+FFFD, which then fails to open cleanly.
    const std::u16string path = tarn::platform::Utf16FromUtf8(options->file);
    Header header;
    try {
        header = ReadHeader(path);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarnview dump: %s: header: %s\n", tarn::TerminalText(options->file).c_str(),
                     tarn::TerminalText(e.what()).c_str());
        return 1;
    }
    std::shared_ptr<ndb::db_context> db;
    std::string open_error;
    try {
        db = ndb::open_database(path);
    } catch (const std::exception& e) {
        open_error = std::string("cannot open the store: ") + e.what();
    }
    return options->json ? DumpJson(*options, header, db, open_error)
                         : DumpText(*options, header, db, open_error);
}

}  // namespace tarnview
