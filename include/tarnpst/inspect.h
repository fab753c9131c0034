// Looking inside the containers a source is made of, for people who examine damaged files: a PST
// store's header and node database, and a compound file's directory and streams. Names and text are
// UTF-8; every failure is a tarnpst::Error.
#ifndef TARNPST_INSPECT_H_
#define TARNPST_INSPECT_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnpst/tarnpst.h"

namespace tarnpst {

// ---- A PST store's node database ----

// The header's fields as the file states them, read even where the store refuses them.
struct StoreHeader {
    bool unicode = false;
    uint16_t version = 0;
    uint32_t magic = 0;
    bool magic_ok = false;     // "!BDN"
    uint8_t crypt_method = 0;  // with its name in `encoding` ("none", "permute", "cyclic", "unknown")
    const char* encoding = "";
    uint64_t file_eof = 0;
    uint64_t next_block_id = 0;
    uint64_t nbt_root_id = 0, nbt_root_address = 0;
    uint64_t bbt_root_id = 0, bbt_root_address = 0;
};

// Throws Error with the file reader's words when the header cannot be read.
StoreHeader ReadStoreHeader(const std::string& path);

// A node of the node B-tree.
struct StoreNode {
    uint32_t id = 0;
    const char* type = "";  // the node type of its id's low bits ("folder", "message", ...)
    uint32_t parent = 0;
    uint64_t data_bid = 0, subnode_bid = 0;
    uint64_t size = 0;      // its data's bytes
    uint64_t subnodes = 0;  // its subnode entries, all levels
    std::string error;      // why it cannot be read; empty when it can
};

class StoreNodes {
  public:
    // Throws Error ("cannot open the store: ...") when the store refuses to open.
    static StoreNodes Open(const std::string& path);
    // Every node, page by page; an unreadable page (its address, and why) costs only the nodes under it.
    void Walk(const std::function<void(const StoreNode&)>& node,
              const std::function<void(uint64_t page_address, const std::string& error)>& page_error) const;

  private:
    std::shared_ptr<void> db_;
};

// ---- A compound file ----

struct CompoundEntry {
    std::string name;       // the entry's name; each UTF-16 unit's low byte, shown as that Latin-1 character
    std::string path;       // from the root, "/" before each name
    const char* type = "";  // "root", "storage", "stream", "invalid"
    bool is_directory = false;
    uint64_t size = 0;
    uint64_t start_sector = 0;
    std::string start;  // the start sector, or "end", "free", "fat", "difat" for the special numbers
    size_t depth = 0;   // 0 for the root's children
};

class CompoundFile {
  public:
    // Throws Error: kStatusCannotOpen when the file cannot be opened, kStatusUnsupported with the
    // reason when it is not a compound file or its header or layout is refused.
    static CompoundFile Open(const std::string& path);
    ~CompoundFile();
    CompoundFile(CompoundFile&&) noexcept;
    CompoundFile& operator=(CompoundFile&&) noexcept;

    // The root entry; nothing when the directory holds no entry at all.
    std::optional<CompoundEntry> Root() const;
    // Every entry below the root, depth first; false when the directory's walk had to stop early.
    bool Walk(const std::function<void(const CompoundEntry&)>& visit) const;
    // The stream at `path`, handed to `write` piece by piece. Throws Error when there is no such entry,
    // when it is a storage, or when the stream ends short of its size (after the bytes there are).
    void ReadStream(const std::string& path, const std::function<void(std::string_view bytes)>& write) const;

    class Impl;

  private:
    explicit CompoundFile(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// ---- An Internet message's MIME parts ----

// One part as the reader saw it. Header values are the message's own bytes, in whatever set it
// declares. Multipart containers are listed too, in front of their parts.
struct MimePart {
    int depth = 0;             // 0 for the message itself
    std::string content_type;  // up to its first ";", as written
    int32_t type_code = 0;     // the reader's type (-1 for any type it does not show)
    std::string charset;
    std::string transfer_encoding;
    std::string content_id;  // without its angle brackets
    std::string location;    // Content-Location, else the Content-Type's "name=" parameter
    uint64_t decoded_size = 0;
    std::string fate;  // "body", "inlined", "ignored: ..." and the reason
};

struct MimeParts {
    std::vector<MimePart> parts;  // as far as the reader got
    int32_t status = kStatusOk;   // the reader's; any other ends the list where it failed
    const char* body = "none";    // "html", "text" or "none"
    uint64_t body_size = 0;       // the body's bytes before the header block
};

// The parts of the Internet message at `path`, read as the documents read them: with `settings`'
// profile, or without settings as the kernel's own answer asks. Throws Error (kStatusCannotOpen) when
// the file cannot be opened.
MimeParts ListMimeParts(const std::string& path, const Settings* settings = nullptr);

}  // namespace tarnpst

#endif  // TARNPST_INSPECT_H_
