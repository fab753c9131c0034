// tarnview export: every message of each source written as the document the filter makes of it, in one
// pass. A PST is walked once with the filter's own walk and numbering, and each message goes through the
// filter's composer and assembly, so the document for message N is the one fltLoad hands the loader
// for message N. A message file or an Internet message goes through the filter library like `render`.
//
// Layout under DIR: one folder per store folder (its path in the store's folder tree), one file per
// message named NNNNNN-subject.EXT, the attachments of a message (with --attachments) beside it in
// NNNNNN-subject.attachments/, and manifest.jsonl with one line per message.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/little_endian.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/composer.h"
#include "pst/filter_data.h"
#include "pst/message_model.h"
#include "pst/message_walk.h"
#include "pst/probe.h"
#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"
#include "store/ndb/database.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"
#include "tools/tarnview/documents.h"
#include "tools/tarnview/export_names.h"
#include "tools/tarnview/filter_library.h"
#include "tools/tarnview/json.h"
#include "tools/tarnview/language.h"
#include "tools/tarnview/parallel_walk.h"
#include "tools/tarnview/store_text.h"

namespace tarnview {
namespace {

namespace fs = std::filesystem;
using tarn::ndb::node_id;

constexpr char kManifestName[] = "manifest.jsonl";
constexpr char kAttachmentsSuffix[] = ".attachments";
constexpr int kIndexDigits = 6;
// Embedded messages inside embedded messages: a depth the file cannot push further.
constexpr int kMaxEmbeddingDepth = 8;
// Folder chains longer than this are damage (a loop the visited set has not closed yet is cut here too).
constexpr int kMaxFolderDepth = 64;
constexpr tarn::ltp::prop_id kPropAttachMethod = 0x3705;
constexpr uint32_t kAttachEmbeddedMessage = 5;
constexpr tarn::ltp::prop_type kPropTypeObject = 0x000D;
constexpr node_id kRootFolder = 0x122;

struct Options {
    std::vector<std::string> sources;
    fs::path out;
    bool text = false;
    bool attachments = false;
    bool force = false;
    unsigned jobs = 1;
};

std::optional<Options> Parse(const Args& args) {
    ArgumentSpec spec{
        "export", {"--text", "--attachments", "--force"}, {"-o", "--lang", "--jobs"}, {"SOURCE"}, {}};
    spec.repeat_last = true;
    const auto parsed = ParseArguments(args, spec);
    if (!parsed) return std::nullopt;
    const std::optional<std::string> out = parsed->Value("-o");
    if (!out || out->empty()) {
        std::fprintf(stderr, "tarnview export: -o DIR is missing (try --help)\n");
        return std::nullopt;
    }
    if (!ApplyLanguage(*parsed, "export")) return std::nullopt;
    const std::optional<unsigned> jobs =
        JobCount(*parsed, "export", DefaultJobs(/*calling_thread_waits=*/false));
    if (!jobs) return std::nullopt;
    return Options{parsed->positional,     *out, parsed->Has("--text"), parsed->Has("--attachments"),
                   parsed->Has("--force"), *jobs};
}

std::string IndexText(int32_t index) {
    std::string digits = std::to_string(index);
    if (digits.size() < kIndexDigits) digits.insert(0, kIndexDigits - digits.size(), '0');
    return digits;
}

std::string Hex(uint32_t id) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", id);
    return text;
}

// Every file and folder written goes through here. Paths are relative to DIR and made of components
// that PortableName made, so none can leave DIR; what is created is checked again here all the same
// (no component is "..", none is absolute), and nothing is followed through a symbolic link.
class OutputTree {
  public:
    OutputTree(fs::path root, bool force) : root_(std::move(root)), force_(force) {}

    // Creates DIR/`dir` and the folders above it; an empty string, or the reason.
    std::string MakeDirectory(const fs::path& dir) {
        if (!Contained(dir)) return "refused path " + dir.string();
        fs::path at = root_;
        for (const fs::path& part : dir) {
            at /= part;
            if (made_.count(at.string()) != 0) continue;
            struct stat info {};
            if (::lstat(at.c_str(), &info) == 0) {
                if (!S_ISDIR(info.st_mode)) return at.string() + ": exists and is not a folder";
            } else if (::mkdir(at.c_str(), 0755) != 0 && errno != EEXIST) {
                return at.string() + ": " + std::strerror(errno);
            }
            made_.insert(at.string());
        }
        return {};
    }

    // Writes `size` bytes to DIR/`file`; an empty string, or the reason. An existing file is replaced
    // only with --force.
    std::string WriteFile(const fs::path& file, const void* bytes, size_t size) {
        if (!Contained(file)) return "refused path " + file.string();
        const fs::path path = root_ / file;
        // Messages come folder by folder: the folder stays open, and each file is opened in it by name.
        if (!folder_fd_ || folder_ != file.parent_path()) {
            folder_fd_.reset();
            if (std::string error = MakeDirectory(file.parent_path()); !error.empty()) return error;
            const fs::path folder = root_ / file.parent_path();
            const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (fd < 0) return folder.string() + ": " + std::strerror(errno);
            folder_fd_.emplace(fd);
            folder_ = file.parent_path();
        }
        const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (force_ ? O_TRUNC : O_EXCL);
        const int fd = ::openat(folder_fd_->get(), file.filename().c_str(), flags, 0644);
        if (fd < 0) {
            if (errno == EEXIST) return path.string() + ": exists (--force replaces it)";
            return path.string() + ": " + std::strerror(errno);
        }
        const char* at = static_cast<const char*>(bytes);
        size_t left = size;
        while (left > 0) {
            const ssize_t n = ::write(fd, at, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                const std::string error = path.string() + ": " + std::strerror(errno);
                ::close(fd);
                return error;
            }
            at += n;
            left -= static_cast<size_t>(n);
        }
        if (::close(fd) != 0) return path.string() + ": " + std::strerror(errno);
        return {};
    }

  private:
    static bool Contained(const fs::path& path) {
        if (path.is_absolute() || path.has_root_name()) return false;
        for (const fs::path& part : path) {
            if (part == ".." || part == "." || part.empty()) return false;
        }
        return true;
    }

    // A descriptor that closes with its holder.
    class Descriptor {
      public:
        explicit Descriptor(int fd) : fd_(fd) {}
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;
        ~Descriptor() { ::close(fd_); }
        int get() const { return fd_; }

      private:
        int fd_;
    };

    fs::path root_;
    bool force_;
    std::set<std::string> made_;
    fs::path folder_;  // the folder the descriptor below is open on, relative to DIR
    std::optional<Descriptor> folder_fd_;
};

// An attachment as the manifest lists it.
struct AttachmentRow {
    std::string file;
    uint64_t bytes = 0;
    bool embedded = false;
    int depth = 1;
    std::optional<int32_t> status;  // embedded messages: the composition's status
    std::string error;
};

// One line of the manifest.
struct Row {
    std::string source;
    std::optional<int32_t> index;  // the filter's message number (counted from 1)
    std::string folder;
    std::optional<node_id> node;
    std::optional<std::string> subject;
    std::optional<std::string> sender;
    std::optional<std::string> sent;
    std::optional<int32_t> format;
    uint64_t bytes = 0;
    std::string file;
    std::optional<int32_t> status;
    bool exported = false;
    bool text_fallback = false;
    std::string error;
    bool filter_reaches = true;
    std::optional<int32_t> filter_status;  // what the entry points give for this number, when not `status`
    std::string filter_note;
    std::vector<AttachmentRow> attachments;
};

// Empty text is written as null.
void WriteOptional(JsonWriter& json, std::string_view key, const std::string& value) {
    json.Key(key);
    if (!value.empty())
        json.Value(value);
    else
        json.Null();
}

class Manifest {
  public:
    explicit Manifest(std::ostream& out) : out_(out) {}

    void Add(const Row& row) {
        JsonWriter json(out_);
        json.BeginObject();
        json.Field("source", row.source);
        json.Field("index", row.index);
        json.Field("folder", row.folder);
        json.Field("node_id", row.node).Field("subject", row.subject).Field("sender", row.sender);
        json.Field("sent", row.sent).Field("format", row.format);
        json.Field("bytes", static_cast<uint64_t>(row.bytes));
        WriteOptional(json, "file", row.file);
        json.Field("status", row.status);
        json.Field("exported", row.exported).Field("text_fallback", row.text_fallback);
        WriteOptional(json, "error", row.error);
        json.Field("filter_reaches", row.filter_reaches);
        json.Field("filter_status", row.filter_status);
        WriteOptional(json, "filter_note", row.filter_note);
        json.Key("attachments").BeginArray();
        for (const AttachmentRow& a : row.attachments) {
            json.BeginObject();
            WriteOptional(json, "file", a.file);
            json.Field("bytes", static_cast<uint64_t>(a.bytes)).Field("embedded", a.embedded);
            json.Field("depth", a.depth);
            json.Field("status", a.status);
            WriteOptional(json, "error", a.error);
            json.EndObject();
        }
        json.EndArray();
        json.EndObject();
        out_ << '\n';
        if (!row.error.empty()) ++failures_;
        for (const AttachmentRow& a : row.attachments) failures_ += a.error.empty() ? 0 : 1;
        ++rows_;
    }

    int failures() const { return failures_; }
    int rows() const { return rows_; }

  private:
    std::ostream& out_;
    int failures_ = 0;
    int rows_ = 0;
};

// Messages done, the total when known, the rate and the time left, on one line of a terminal.
class Progress {
  public:
    explicit Progress(bool on) : on_(on), start_(Clock::now()), last_(start_) {}
    ~Progress() {
        if (on_ && shown_) std::fprintf(stderr, "\r\033[K");
    }

    bool on() const { return on_; }
    void SetTotal(int64_t total) { total_ = total; }

    void Step() {
        ++done_;
        if (!on_) return;
        const auto now = Clock::now();
        if (now - last_ < std::chrono::milliseconds(200)) return;
        last_ = now;
        shown_ = true;
        const double seconds = std::chrono::duration<double>(now - start_).count();
        const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
        if (total_ > 0 && rate > 0) {
            const double left = static_cast<double>(std::max<int64_t>(total_ - done_, 0)) / rate;
            std::fprintf(stderr, "\r\033[Ktarnview export: %lld/%lld messages, %.0f/s, %.0f s left",
                         static_cast<long long>(done_), static_cast<long long>(total_), rate, left);
        } else {
            std::fprintf(stderr, "\r\033[Ktarnview export: %lld messages, %.0f/s",
                         static_cast<long long>(done_), rate);
        }
    }

  private:
    using Clock = std::chrono::steady_clock;
    bool on_;
    Clock::time_point start_;
    Clock::time_point last_;
    int64_t done_ = 0;
    int64_t total_ = 0;
    bool shown_ = false;
};

// A composed document, as the loader would be handed it.
struct Composed {
    int32_t compose_status = tarn::kStatusFailure;  // below 1 ends the filter's walk
    int32_t status = tarn::kStatusFailure;          // the filter's status for it, as its target
    bool text_fallback = false;
    bool has_document = false;
    int32_t format = 0;
};

// Composes `message` as the filter composes its target and assembles the document into `record`.
// Without --text a message that has no HTML or RTF body gets the plain-text document the filter makes
// with the flag. Store errors propagate.
Composed ComposeDocument(tarn::PstMessage& message, bool text, tarn::PstFilterData* record) {
    Composed out;
    tarn::MessageDocument entry;
    int32_t body_format = tarn::kBodyNone;
    out.compose_status = tarn::ComposeMessage(message, entry, /*is_target=*/true, &body_format, record);
    out.status = out.compose_status;
    if (out.status != tarn::kStatusOk) return out;
    out.status = tarn::AssemblePstDocument(entry, &body_format, text, record);
    if (out.status == tarn::kStatusUnsupported && !text) {
        // Only an entry without a document gives -9 here, before anything of it was touched, so the
        // same entry assembles as the filter's plain-text request would.
        if (tarn::AssemblePstDocument(entry, &body_format, true, record) == tarn::kStatusOk) {
            out.text_fallback = true;
            out.has_document = true;
            out.format = tarn::kDocumentText;
        }
        return out;
    }
    if (out.status == tarn::kStatusOk) {
        out.has_document = true;
        out.format = tarn::ChooseDocumentFormat(body_format, text);
    }
    return out;
}

std::optional<std::string> Quietly(const std::function<std::optional<std::string>()>& read) {
    try {
        return read();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// What a message gives the export, read and composed on a worker; the calling thread numbers it, names
// its file and writes it.
struct ComposedMessage {
    bool skipped = false;  // the filter passes it over: no index, no document
    uint32_t code_page = kDefaultCodePage;
    std::optional<std::string> unreadable_subject;  // the store error that ends the folder here
    node_id node = 0;
    std::optional<std::string> subject;
    std::optional<std::string> sender;
    std::optional<std::string> sent;
    Composed composed;
    tarn::FilterDataHolder record;
    // As the filter's target the composition threw: the error, and the status it gives as an earlier
    // message (below 1 ends the filter's walk there).
    std::optional<std::string> thrown;
    int32_t earlier_status = tarn::kStatusOk;
};

// Reads and composes one message. A subject that cannot be read ends the folder in the filter's
// composer too; the store's own errors in reaching the message propagate.
ComposedMessage ComposeForExport(tarn::PstMessage& message, bool text) {
    ComposedMessage out;
    const tarn::ltp::property_bag& properties = message.properties();
    out.code_page = [&] {
        try {
            return StringCodePage(properties);
        } catch (const std::exception&) {
            return kDefaultCodePage;
        }
    }();
    std::u16string subject;
    try {
        subject = tarn::ReadSubject(properties);
    } catch (const std::exception& e) {
        // It ends the folder once the calling thread has taken the message's code page.
        out.unreadable_subject = e.what();
        return out;
    }
    if (subject == tarn::kLocalFreebusySubject) {
        out.skipped = true;
        return out;
    }
    out.node = properties.get_node().get_id();
    out.subject = Quietly([&] { return std::optional(SubjectText(properties, out.code_page, subject)); });
    out.sender = Quietly([&] { return ReadText(properties, tarn::kPropSenderName, out.code_page); });
    out.sent = Quietly([&] { return SentTimeUtc(properties); });
    out.record.reset(tarn::NewFilterData());
    if (out.record == nullptr) throw std::bad_alloc();
    try {
        out.composed = ComposeDocument(message, text, out.record.get());
    } catch (const std::exception& e) {
        // Whether the filter's walk gets past this message depends on how it fares as an earlier
        // message, which reads no header fields: composed so, a throw ends the folder there as it does
        // in the filter, and anything else keeps the numbering going.
        out.thrown = e.what();
        tarn::MessageDocument probe;
        int32_t body_format = tarn::kBodyNone;
        out.earlier_status = tarn::ComposeMessage(message, probe, false, &body_format, out.record.get());
    }
    return out;
}

class StoreExport {
  public:
    StoreExport(const Options& options, std::string source, fs::path base, OutputTree& tree,
                NameRegistry& names, Manifest& manifest, Progress& progress)
        : options_(options),
          source_(std::move(source)),
          base_(std::move(base)),
          tree_(tree),
          names_(names),
          manifest_(manifest),
          progress_(progress) {}

    // A store that cannot be opened gets one manifest line.
    void Run() {
        try {
            db_ = tarn::ndb::open_database(tarn::host::WideFromUtf8(source_));
        } catch (const std::exception& e) {
            Row row;
            row.source = source_;
            row.error = std::string("not a readable PST store: ") + e.what();
            row.filter_reaches = false;
            manifest_.Add(row);
            return;
        }
        CountAsTheFilterDoes();
        if (progress_.on()) progress_.SetTotal(RowsToWalk());
        const std::u16string path = tarn::host::WideFromUtf8(source_);
        const bool text = options_.text;
        ParallelWalk<ComposedMessage> walk(
            {WorkersFor(options_.jobs)}, [&] { return tarn::ndb::open_database(path); },
            [text](node_id, tarn::PstMessage& message) { return ComposeForExport(message, text); },
            [](const ComposedMessage& m) { return m.record != nullptr ? m.record->document.length() : 0; });
        walk.Run(
            db_, [this](node_id folder, uint32_t, ComposedMessage& message) { Visit(folder, message); },
            [this](const RowFailure& failure) { ListFailure(failure); });
    }

  private:
    struct Folder {
        std::string path;  // display names from the top, "/" between them
        fs::path dir;      // relative to DIR
    };

    // The count the entry points would number against; the export itself does not depend on it.
    void CountAsTheFilterDoes() {
        try {
            tarn::MessageListPtr list;
            const int32_t status = tarn::CountMessages(db_, &list);
            if (status == tarn::kStatusOk) {
                filter_count_ = list->count;
            } else {
                count_note_ = "the filter counts no messages here (status " + std::to_string(status) + ")";
                count_status_ = status;
            }
        } catch (const std::exception& e) {
            count_note_ = std::string("the filter cannot count this store: ") + e.what();
        }
    }

    int64_t RowsToWalk() {
        int64_t total = 0;
        try {
            for (const tarn::ndb::node_info& info : tarn::ndb::page_range(db_->read_nbt_root())) {
                if (!tarn::IsNormalFolder(info.id)) continue;
                try {
                    total += tarn::ltp::table(db_->lookup_node(tarn::ContentsTableOf(info.id))).size();
                } catch (const std::exception&) {
                    // The walk meets this folder's damage itself; the estimate goes without it.
                }
            }
        } catch (const std::exception&) {
        }
        return total;
    }

    std::string FolderName(node_id id) {
        try {
            const tarn::ltp::property_bag bag(db_->lookup_node(id));
            if (std::optional<std::string> name =
                    ReadText(bag, tarn::kPropDisplayName, store_code_page_.value_or(kDefaultCodePage)))
                return *name;
        } catch (const std::exception&) {
        }
        return "folder " + Hex(id);
    }

    // The folder's place in the tree: parents from the node B-tree up to the root folder, which is its
    // own parent and gives no component. A chain that loops or cannot be read ends where it does.
    const Folder& FolderOf(node_id id) {
        if (auto found = folders_.find(id); found != folders_.end()) return found->second;
        std::vector<node_id> chain{id};
        std::set<node_id> seen{id};
        for (node_id at = id; static_cast<int>(chain.size()) < kMaxFolderDepth;) {
            node_id parent = 0;
            try {
                parent = db_->lookup_node_info(at).parent_id;
            } catch (const std::exception&) {
                break;
            }
            if (parent == at || parent == kRootFolder || parent == 0 || !seen.insert(parent).second) break;
            chain.push_back(parent);
            at = parent;
        }
        // Each ancestor is a folder of its own, resolved (and named uniquely) once.
        Folder folder{"", base_};
        for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
            if (*it == kRootFolder) continue;
            if (auto known = folders_.find(*it); known != folders_.end()) {
                folder = known->second;
                continue;
            }
            const std::string name = FolderName(*it);
            const std::string dir_name =
                names_.Claim(folder.dir.string(), PortableName(name, kFolderNameBytes, "folder"));
            folder = Folder{folder.path.empty() ? name : folder.path + "/" + name, folder.dir / dir_name};
            folders_.emplace(*it, folder);
        }
        return folders_.emplace(id, folder).first->second;
    }

    void Visit(node_id folder_id, ComposedMessage& message) {
        // Folders carry no code page of their own; a store is written by one client in one page, which
        // its first message names.
        if (!store_code_page_) store_code_page_ = message.code_page;
        if (message.unreadable_subject) throw std::runtime_error(*message.unreadable_subject);
        if (message.skipped) return;

        Row row;
        row.source = source_;
        row.node = message.node;
        const Folder& folder = FolderOf(folder_id);
        row.folder = folder.path;
        row.subject = std::move(message.subject);
        row.sender = std::move(message.sender);
        row.sent = std::move(message.sent);
        row.index = ++running_;
        if (message.thrown) {
            row.error = *message.thrown;
            row.filter_reaches = false;
            row.filter_note =
                "as the target its composition throws, which ends the filter's walk of the folder";
            if (message.earlier_status < tarn::kStatusOk) NoteWalkEnd(*row.index, message.earlier_status);
            Finish(row);
            return;
        }
        const Composed& composed = message.composed;
        const tarn::PstFilterData& record = *message.record;
        row.status = composed.status;
        row.text_fallback = composed.text_fallback;
        if (composed.has_document) {
            row.format = composed.format;
            const auto [name, attachments] =
                ClaimDocument(folder.dir,
                              IndexText(*row.index) + "-" +
                                  PortableName(row.subject.value_or(""), kSubjectNameBytes, "message"),
                              composed.format);
            const fs::path file = folder.dir / name;
            if (std::string error = tree_.WriteFile(file, record.document.data(), record.document.length());
                error.empty()) {
                row.exported = true;
                row.file = file.string();
                row.bytes = record.document.length();
            } else {
                row.error = error;
            }
            // The worker's reader and message are its own: the attachments are read again here.
            if (options_.attachments) {
                try {
                    tarn::PstMessage again(db_->lookup_node(message.node));
                    WriteAttachments(again, folder.dir / attachments, 1, row);
                } catch (const std::exception& e) {
                    row.attachments.push_back(
                        {"", 0, false, 1, std::nullopt, std::string("attachment table: ") + e.what()});
                }
            }
        } else {
            row.error = composed.status == tarn::kStatusUnsupported
                            ? "no body the filter can make a document of"
                            : "composition gives status " + std::to_string(composed.status);
        }
        ReachedByTheFilter(row);
        if (composed.compose_status < tarn::kStatusOk) NoteWalkEnd(*row.index, composed.compose_status);
        Finish(row);
    }

    // Where the entry points cannot reach this number: beyond their count, or past a message whose
    // failure ends their walk.
    void ReachedByTheFilter(Row& row) {
        if (!row.index) return;
        if (!count_note_.empty()) {
            row.filter_reaches = false;
            row.filter_note = count_note_;
            row.filter_status = count_status_;
        } else if (*row.index > filter_count_) {
            row.filter_reaches = false;
            row.filter_note = "beyond the filter's count of " + std::to_string(filter_count_);
        } else if (walk_end_index_ != 0 && *row.index > walk_end_index_) {
            row.filter_reaches = false;
            row.filter_status = walk_end_status_;
            row.filter_note = "the filter's walk ends at message " + std::to_string(walk_end_index_) +
                              " (status " + std::to_string(walk_end_status_) + ")";
        }
    }

    void NoteWalkEnd(int32_t index, int32_t status) {
        if (walk_end_index_ != 0) return;
        walk_end_index_ = index;
        walk_end_status_ = status;
    }

    void Finish(Row& row) {
        manifest_.Add(row);
        progress_.Step();
    }

    // A document's file name in `dir` and the name of the folder for its attachments beside it, both
    // claimed there, so that neither clashes with a folder, an attachment or another document.
    std::pair<std::string, std::string> ClaimDocument(const fs::path& dir, const std::string& stem,
                                                      int32_t format) {
        const std::string extension = DocumentExtension(format);
        const std::string file = names_.Claim(dir.string(), stem + extension);
        const std::string claimed = file.substr(0, file.size() - extension.size());
        return {file, names_.Claim(dir.string(), claimed + kAttachmentsSuffix)};
    }

    // The attachments of `message` into `dir`; embedded messages composed as documents, to `depth`.
    void WriteAttachments(tarn::PstMessage& message, const fs::path& dir, int depth, Row& row) {
        uint32_t count = 0;
        try {
            count = message.AttachmentCount();
        } catch (const std::exception& e) {
            row.attachments.push_back(
                {"", 0, false, depth, std::nullopt, std::string("attachment table: ") + e.what()});
            return;
        }
        for (uint32_t i = 0; i < count; ++i) {
            AttachmentRow out;
            out.depth = depth;
            try {
                WriteAttachment(message, i, dir, depth, out, row);
            } catch (const std::exception& e) {
                out.error = "attachment " + std::to_string(i + 1) + ": " + e.what();
            }
            row.attachments.push_back(std::move(out));
        }
    }

    void WriteAttachment(tarn::PstMessage& message, uint32_t i, const fs::path& dir, int depth,
                         AttachmentRow& out, Row& row) {
        const node_id id = message.Attachment(i).get_row_id();
        const tarn::ltp::property_bag attachment(message.properties().get_node().lookup(id));
        const uint32_t code_page = StringCodePage(attachment);
        std::optional<std::string> name = ReadText(attachment, tarn::kPropAttachLongName, code_page);
        if (!name || name->empty()) name = ReadText(attachment, tarn::kPropAttachShortName, code_page);
        const std::string fallback = "attachment-" + std::to_string(i + 1);

        const bool embedded = attachment.prop_exists(kPropAttachMethod) &&
                              attachment.get_value_4(kPropAttachMethod) == kAttachEmbeddedMessage &&
                              attachment.prop_exists(tarn::kPropAttachData) &&
                              attachment.get_prop_type(tarn::kPropAttachData) == kPropTypeObject;
        if (!embedded) {
            tarn::CountedString data;
            if (attachment.prop_exists(tarn::kPropAttachData) &&
                tarn::ReadWholeStream(attachment, tarn::kPropAttachData, data) != tarn::kStatusOk) {
                out.error = "attachment " + std::to_string(i + 1) + ": out of memory";
                return;
            }
            const std::string file_name =
                names_.Claim(dir.string(), PortableName(name.value_or(""), kAttachmentNameBytes, fallback));
            const fs::path file = dir / file_name;
            if (std::string error = tree_.WriteFile(file, data.data(), data.size()); !error.empty()) {
                out.error = error;
                return;
            }
            out.file = file.string();
            out.bytes = data.size();
            return;
        }

        // The object's value: the embedded message's subnode id, then its size.
        out.embedded = true;
        if (depth > kMaxEmbeddingDepth) {
            out.error =
                "embedded message nested deeper than " + std::to_string(kMaxEmbeddingDepth) + " levels";
            return;
        }
        const std::vector<std::byte> object = attachment.get_value_variable(tarn::kPropAttachData);
        if (object.size() < 4) {
            out.error = "attachment " + std::to_string(i + 1) + ": embedded object value shorter than its id";
            return;
        }
        tarn::PstMessage inner(attachment.get_node().lookup(tarn::LoadLe32(object.data())));
        tarn::FilterDataHolder record(tarn::NewFilterData());
        if (record == nullptr) throw std::bad_alloc();
        const Composed composed = ComposeDocument(inner, options_.text, record.get());
        out.status = composed.status;
        const std::string subject =
            Quietly([&] {
                return std::optional(SubjectText(inner.properties(), StringCodePage(inner.properties())));
            }).value_or("");
        if (!composed.has_document) {
            out.error = "embedded message: composition gives status " + std::to_string(composed.status);
            return;
        }
        const auto [file_name, attachments] = ClaimDocument(
            dir, PortableName(subject.empty() ? name.value_or("") : subject, kSubjectNameBytes, fallback),
            composed.format);
        const fs::path file = dir / file_name;
        if (std::string error = tree_.WriteFile(file, record->document.data(), record->document.length());
            !error.empty()) {
            out.error = error;
            return;
        }
        out.file = file.string();
        out.bytes = record->document.length();
        WriteAttachments(inner, dir / attachments, depth + 1, row);
    }

    // A store error ended a folder (or the whole walk). The folder's rows from the one that failed on get
    // no index, as in the filter; each is listed with the error.
    void ListFailure(const RowFailure& failure) {
        Row row;
        row.source = source_;
        row.error = failure.error;
        row.filter_reaches = false;
        if (!failure.folder) {
            row.filter_note = "the node b-tree cannot be read further; the walk ends here";
            manifest_.Add(row);
            return;
        }
        const uint32_t first = failure.row;
        row.folder = FolderOf(*failure.folder).path;
        row.filter_note = "the filter's walk leaves the rest of this folder";
        std::optional<tarn::ltp::table> contents;
        try {
            contents.emplace(db_->lookup_node(tarn::ContentsTableOf(*failure.folder)));
        } catch (const std::exception&) {
        }
        if (!contents || first >= contents->size()) {
            manifest_.Add(row);
            return;
        }
        for (uint32_t r = first; r < contents->size(); ++r) {
            Row rest = row;
            try {
                rest.node = (*contents)[r].get_row_id();
            } catch (const std::exception&) {
            }
            manifest_.Add(rest);
        }
    }

    const Options& options_;
    std::string source_;
    fs::path base_;
    OutputTree& tree_;
    NameRegistry& names_;
    Manifest& manifest_;
    Progress& progress_;
    tarn::ndb::db_ptr db_;
    std::map<node_id, Folder> folders_;

    int32_t running_ = 0;
    std::optional<uint32_t> store_code_page_;  // the first message's
    int64_t filter_count_ = 0;
    std::string count_note_;
    std::optional<int32_t> count_status_;
    int32_t walk_end_index_ = 0;
    int32_t walk_end_status_ = 0;
};

// A message file or an Internet message: one document through the filter library, as `render` makes it.
void ExportSingle(const Options& options, const std::string& source, const fs::path& base, OutputTree& tree,
                  Manifest& manifest, Progress& progress) {
    Row row;
    row.source = source;
    row.index = 1;
    tarn::host::EntryPoints entries;
    std::string error;
    if (!LoadFilter(FilterLibraryPath(), &entries, &error)) {
        row.error = "cannot load the filter: " + error;
        manifest.Add(row);
        return;
    }
    std::vector<std::byte> document;
    int32_t format = 0;
    const auto load = [&](bool text) {
        tarn::host::Toolkit toolkit;
        tarn::host::SourceSession session(tarn::host::WideFromUtf8(source));
        tarn::LoadRequest& request = session.BuildLoadRequest(1, text, /*with_slot=*/false);
        const tarn::host::CallOutcome outcome = tarn::host::CallLoad(entries, &request);
        if (!outcome.returned()) {
            error = outcome.error;
            return tarn::kStatusFailure;
        }
        for (const auto& call : toolkit.calls()) {
            if (call.kind == tarn::host::LoaderKind::kLoadInMemory ||
                call.kind == tarn::host::LoaderKind::kLoadByName) {
                document = call.document;
                format = call.info != nullptr ? call.info->format : 0;
            }
        }
        return outcome.status;
    };
    row.status = load(options.text);
    if (row.status == tarn::kStatusUnsupported && !options.text && error.empty() &&
        load(true) == tarn::kStatusOk) {
        row.text_fallback = true;
    } else if (row.status != tarn::kStatusOk) {
        row.error = !error.empty() ? error : "the filter gives status " + std::to_string(*row.status);
        manifest.Add(row);
        progress.Step();
        return;
    }
    row.format = format;
    const fs::path file =
        base /
        (IndexText(1) + "-" + PortableName(fs::path(source).stem().string(), kSubjectNameBytes, "message") +
         DocumentExtension(format));
    if (std::string written = tree.WriteFile(file, document.data(), document.size()); written.empty()) {
        row.exported = true;
        row.file = file.string();
        row.bytes = document.size();
    } else {
        row.error = written;
    }
    manifest.Add(row);
    progress.Step();
}

// Classified as the filter classifies its source.
bool IsPst(const std::string& source) {
    const tarn::KernelFileHandle handle(
        krnOpenFile(tarn::host::WideFromUtf8(source).c_str(), 0, tarn::kOpenShareMode));
    tarn::InputKind kind = tarn::kInputUnsupported;
    return handle.valid() && tarn::ProbeSource(handle.get(), &kind) == tarn::kStatusOk &&
           kind == tarn::kInputPstStore;
}

}  // namespace

int RunExport(const Args& args) {
    const std::optional<Options> options = Parse(args);
    if (!options) return 2;
    // HTML documents stay in memory, as `render` has them.
    krnctlSetMode(tarn::kKernelModeInMemory);

    std::error_code ec;
    fs::create_directories(options->out, ec);
    if (ec || !fs::is_directory(options->out)) {
        std::fprintf(stderr, "tarnview export: %s: cannot make the folder: %s\n", options->out.c_str(),
                     ec.message().c_str());
        return 1;
    }
    const fs::path manifest_path = options->out / kManifestName;
    const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (options->force ? O_TRUNC : O_EXCL);
    const int fd = ::open(manifest_path.c_str(), flags, 0644);
    if (fd < 0) {
        std::fprintf(stderr, "tarnview export: %s: %s\n", manifest_path.c_str(),
                     errno == EEXIST ? "exists (--force replaces it)" : std::strerror(errno));
        return 1;
    }
    ::close(fd);
    std::ofstream manifest_file(manifest_path, std::ios::binary | std::ios::trunc);
    Manifest manifest(manifest_file);

    OutputTree tree(options->out, options->force);
    NameRegistry names;
    names.Claim("", kManifestName);
    Progress progress(isatty(STDERR_FILENO) != 0);
    for (const std::string& source : options->sources) {
        // Several sources each get a folder of their own, named after the file.
        fs::path base;
        if (options->sources.size() > 1)
            base = names.Claim(
                "", PortableName(fs::path(source).filename().string(), kFolderNameBytes, "source"));
        if (IsPst(source)) {
            StoreExport(*options, source, base, tree, names, manifest, progress).Run();
        } else {
            ExportSingle(*options, source, base, tree, manifest, progress);
        }
    }
    manifest_file.close();
    if (!manifest_file) {
        std::fprintf(stderr, "tarnview export: %s: cannot write\n", manifest_path.c_str());
        return 1;
    }
    if (manifest.failures() > 0) {
        std::fprintf(stderr, "tarnview export: %d of %d manifest lines record a failure; see %s\n",
                     manifest.failures(), manifest.rows(), manifest_path.c_str());
        return 1;
    }
    return 0;
}

}  // namespace tarnview
