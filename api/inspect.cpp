// The inspection of containers: a PST store's header and node B-tree, and a compound file's directory
// and streams.
#include "tarnpst/inspect.h"

#include <cinttypes>
#include <cstdio>
#include <exception>
#include <utility>
#include <vector>

#include "api/edge.h"
#include "api/settings_scope.h"
#include "cfb/compound_storage.h"
#include "cfb/compound_stream.h"
#include "cfb/format.h"
#include "common/apiutils.h"
#include "common/signatures.h"
#include "host/toolkit_host.h"
#include "platform/unicode.h"
#include "pst/render/message_document.h"
#include "pst/render/mime_reader.h"
#include "pst/render/repairs.h"
#include "store/ndb/database.h"
#include "store/ndb/format.h"

namespace tarn::api {
namespace {

namespace ndb = tarn::ndb;
namespace fmt = tarn::ndb::format;
using tarn::cfb::CompoundStorage;
using tarn::cfb::CompoundStream;
using tarn::cfb::DirectoryEntry;
using tarn::cfb::EntryType;
using tarn::cfb::OpenResult;

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

// Counts every subnode entry of the node's tree (all levels), reading its data size on the way.
tarnpst::StoreNode ReadNode(ndb::db_context& db, const ndb::node_info& info) {
    tarnpst::StoreNode line;
    line.id = info.id;
    line.type = TypeName(info.id);
    line.parent = info.parent_id;
    line.data_bid = info.data_bid;
    line.subnode_bid = info.sub_bid;
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
void WalkNodes(ndb::db_context& db, const std::function<void(const tarnpst::StoreNode&)>& emit,
               const std::function<void(uint64_t, const std::string&)>& page_error) {
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

const char* EntryTypeName(const DirectoryEntry& e) {
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

}  // namespace
}  // namespace tarn::api

namespace tarnpst {

using tarn::api::AtEdge;

StoreHeader ReadStoreHeader(const std::string& path) {
    return AtEdge(path, [&] {
        // Ill-formed UTF-8 becomes U+FFFD, which then fails to open cleanly.
        const tarn::ndb::header_fields f = tarn::ndb::read_header_fields(tarn::platform::Utf16FromUtf8(path));
        StoreHeader h;
        h.unicode = f.unicode;
        h.version = f.version;
        h.magic = f.magic;
        h.magic_ok = f.magic == tarn::kPstSignatureWord;
        h.crypt_method = f.crypt_method;
        h.encoding = tarn::api::EncodingName(f.crypt_method);
        h.file_eof = f.file_eof;
        h.next_block_id = f.next_block_id;
        h.nbt_root_id = f.nbt_root.id;
        h.nbt_root_address = f.nbt_root.address;
        h.bbt_root_id = f.bbt_root.id;
        h.bbt_root_address = f.bbt_root.address;
        return h;
    });
}

StoreNodes StoreNodes::Open(const std::string& path) {
    StoreNodes nodes;
    try {
        nodes.db_ = tarn::ndb::open_database(tarn::platform::Utf16FromUtf8(path));
    } catch (const std::exception& e) {
        throw Error(kStatusUnsupported, std::string("cannot open the store: ") + e.what());
    }
    return nodes;
}

void StoreNodes::Walk(
    const std::function<void(const StoreNode&)>& node,
    const std::function<void(uint64_t page_address, const std::string& error)>& page_error) const {
    AtEdge("store",
           [&] { tarn::api::WalkNodes(*static_cast<tarn::ndb::db_context*>(db_.get()), node, page_error); });
}

class CompoundFile::Impl {
  public:
    explicit Impl(krn_handle handle) : handle_(handle), storage(handle) {}
    tarn::KernelFileHandle handle_;  // closed after the storage that reads it
    tarn::cfb::CompoundStorage storage;
};

CompoundFile::CompoundFile(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
CompoundFile::~CompoundFile() = default;
CompoundFile::CompoundFile(CompoundFile&&) noexcept = default;
CompoundFile& CompoundFile::operator=(CompoundFile&&) noexcept = default;

CompoundFile CompoundFile::Open(const std::string& path) {
    return AtEdge(path, [&] {
        const std::u16string wide = tarn::host::WideFromUtf8(path);
        const krn_handle handle = krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode);
        if (handle == KRN_NO_HANDLE) throw Error(kStatusCannotOpen, path + ": cannot open");
        auto impl = std::make_unique<Impl>(handle);
        if (!impl->storage.open())
            throw Error(kStatusUnsupported, path + ": " + tarn::api::Reason(impl->storage.result()));
        return CompoundFile(std::move(impl));
    });
}

namespace {

CompoundEntry EntryOf(std::string_view path, const tarn::cfb::DirectoryEntry& e, size_t depth) {
    CompoundEntry out;
    out.name = tarn::api::Printable(e.name());
    out.path = tarn::api::Printable(path);
    out.type = tarn::api::EntryTypeName(e);
    out.is_directory = e.is_directory;
    out.size = e.size;
    out.start_sector = e.start_sector;
    out.start = tarn::api::StartText(e.start_sector);
    out.depth = depth;
    return out;
}

}  // namespace

std::optional<CompoundEntry> CompoundFile::Root() const {
    // A file whose directory chain holds no entry opens with nothing in it, not even a root.
    if (impl_->storage.directory().size() == 0) return std::nullopt;
    return EntryOf("", impl_->storage.directory().entry(0), 0);
}

bool CompoundFile::Walk(const std::function<void(const CompoundEntry&)>& visit) const {
    return AtEdge("compound file", [&] {
        return impl_->storage.directory().walk([&](std::string_view path, const tarn::cfb::DirectoryEntry& e,
                                                   size_t, size_t depth) { visit(EntryOf(path, e, depth)); });
    });
}

void CompoundFile::ReadStream(const std::string& path,
                              const std::function<void(std::string_view bytes)>& write) const {
    const tarn::cfb::DirectoryEntry* e = impl_->storage.find_entry(path);
    if (e == nullptr) throw Error(kStatusUnsupported, "no entry '" + path + "'");
    if (e->is_directory) throw Error(kStatusUnsupported, "'" + path + "' is a storage, not a stream");
    auto stream = tarn::cfb::CompoundStream::open(impl_->storage, path);
    if (!stream) throw Error(kStatusFailure, "'" + path + "': out of memory");
    std::vector<char> buffer(1 << 16);
    uint64_t at = 0;
    while (size_t got = stream->read(at, buffer.data(), buffer.size())) {
        write(std::string_view(buffer.data(), got));
        at += got;
    }
    if (at < stream->size())
        throw Error(kStatusShortRead, "'" + path + "': short stream, " + std::to_string(at) + " of " +
                                          std::to_string(stream->size()) + " bytes");
}

MimeParts ListMimeParts(const std::string& path, const Settings* settings) {
    return AtEdge(path, [&] {
        std::optional<tarn::api::SettingsScope> scope;
        if (settings != nullptr) scope.emplace(*settings);
        const std::u16string wide = tarn::host::WideFromUtf8(path);
        const tarn::KernelFileHandle handle(krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode));
        if (!handle.valid()) throw Error(kStatusCannotOpen, path + ": cannot be opened");
        tarn::MessageDocument record;
        record.repairs = tarn::Repairs::Requested();  // the parts as the documents read them
        std::vector<tarn::MimePartReport> reports;
        tarn::MimeReadOptions read_options;
        read_options.parts = &reports;
        int32_t format = tarn::kBodyNone;
        MimeParts out;
        out.status = tarn::ReadEmlMessage(handle.get(), record, &format, read_options);
        for (tarn::MimePartReport& r : reports) {
            out.parts.push_back({r.depth, std::move(r.content_type), static_cast<int32_t>(r.type),
                                 std::move(r.charset), std::move(r.transfer_encoding),
                                 std::move(r.content_id), std::move(r.location), r.decoded_size,
                                 std::move(r.fate)});
        }
        // What was walked before the reader gave up still helps to see why; the body is not there.
        if (out.status != tarn::kStatusOk) return out;
        out.body = format == tarn::kBodyHtml ? "html" : format == tarn::kBodyPlainText ? "text" : "none";
        out.body_size = format == tarn::kBodyHtml        ? record.document.TextLength()
                        : format == tarn::kBodyPlainText ? record.text_body.TextLength()
                                                         : 0;
        return out;
    });
}

}  // namespace tarnpst
