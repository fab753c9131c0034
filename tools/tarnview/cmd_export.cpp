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
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
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
#include "tools/tarnview/export_manifest.h"
#include "tools/tarnview/export_names.h"
#include "tools/tarnview/export_output.h"
#include "tools/tarnview/filter_library.h"
#include "tools/tarnview/json.h"
#include "tools/tarnview/language.h"
#include "tools/tarnview/parallel_walk.h"
#include "tools/tarnview/source_attachments.h"
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
    bool resume = false;
    unsigned jobs = 1;
};

std::optional<Options> Parse(const Args& args) {
    ArgumentSpec spec{"export",
                      {"--text", "--attachments", "--force", "--resume", "--compat"},
                      {"-o", "--lang", "--jobs"},
                      {"SOURCE"},
                      {}};
    spec.repeat_last = true;
    const auto parsed = ParseArguments(args, spec);
    if (!parsed) return std::nullopt;
    const std::optional<std::string> out = parsed->Value("-o");
    if (!out || out->empty()) {
        std::fprintf(stderr, "tarnview export: -o DIR is missing (try --help)\n");
        return std::nullopt;
    }
    if (!ApplyLanguage(*parsed, "export")) return std::nullopt;
    ApplyProfile(*parsed);
    const std::optional<unsigned> jobs =
        JobCount(*parsed, "export", DefaultJobs(/*calling_thread_waits=*/false));
    if (!jobs) return std::nullopt;
    return Options{parsed->positional,
                   *out,
                   parsed->Has("--text"),
                   parsed->Has("--attachments"),
                   parsed->Has("--force"),
                   parsed->Has("--resume"),
                   *jobs};
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

// Set by SIGINT, SIGTERM and SIGHUP: the export stops after the message it is writing, so that the
// manifest ends with a whole row and --resume takes up from there.
volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void OnInterrupt(int) { g_interrupted = 1; }

// Messages done, the total when known, the rate and the time left, on one line of a terminal. The
// total counts every source's rows.
class Progress {
  public:
    explicit Progress(bool on) : on_(on), start_(Clock::now()), last_(start_) {}
    ~Progress() { Clear(); }

    bool on() const { return on_; }
    void AddToTotal(int64_t rows) { total_ += rows; }

    // Before anything else goes to stderr: the line is taken off, so a message starts a line of its own.
    void Clear() {
        if (on_ && shown_) std::fprintf(stderr, "\r\033[K");
        shown_ = false;
    }

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

// What every source of one export shares: the output, its names, the manifest, and what an earlier
// export into the same folder listed.
struct Session {
    const Options& options;
    OutputTree& tree;
    NameRegistry& names;
    Manifest& manifest;
    Progress& progress;
    // The earlier manifest's rows by source and message number (with --resume).
    std::map<std::pair<std::string, int64_t>, const ListedRow*> earlier;
    std::set<std::string> kept;  // files of earlier rows kept as they are
    std::string commit_error;    // the files of a batch could not be flushed or named
    std::chrono::steady_clock::time_point last_commit = std::chrono::steady_clock::now();

    // The export stops at a signal, when the manifest cannot be written, when the disk is full, and
    // when a batch cannot be committed.
    bool Stopped() const {
        return g_interrupted != 0 || !manifest.error().empty() || tree.out_of_space() ||
               !commit_error.empty();
    }

    // Gives the files written since the last commit their names, then writes their rows. Should that
    // fail, the rows are dropped with the files: --resume makes them again.
    void Commit() {
        last_commit = std::chrono::steady_clock::now();
        if (!commit_error.empty()) return;
        commit_error = tree.Commit();
        if (commit_error.empty())
            manifest.Flush();
        else
            manifest.Drop();
    }

    // The earlier row of `source`'s message `index` when it stands: clean, for the same node, its
    // document at `file`, and every file it lists there with its recorded size and checksum.
    const ListedRow* Standing(const std::string& source, int64_t index, std::optional<uint32_t> node,
                              const std::string& file) {
        const auto found = earlier.find({source, index});
        if (found == earlier.end()) return nullptr;
        const ListedRow& row = *found->second;
        if (!row.clean || row.node != node || row.files.empty() || row.files[0].file != file) return nullptr;
        for (const ListedFile& listed : row.files) {
            const std::optional<FileDigest> digest = tree.Digest(listed.file);
            if (!digest || digest->bytes != listed.bytes || digest->sha256 != listed.sha256) return nullptr;
        }
        for (const ListedFile& listed : row.files) kept.insert(listed.file);
        return &row;
    }

    void Add(const Row& row) {
        manifest.Add(row);
        progress.Step();
        Pace();
    }
    void Keep(const ListedRow& row) {
        manifest.Keep(row);
        progress.Step();
        Pace();
    }

    // A batch is committed after a second, 1024 files or 64 MiB, whichever comes first: a crash loses
    // at most that much work, and the flush costs little beside the writing.
    void Pace() {
        if (tree.pending() >= 1024 || tree.pending_bytes() >= (64u << 20) ||
            std::chrono::steady_clock::now() - last_commit >= std::chrono::seconds(1))
            Commit();
    }
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
    bool deferred = false;  // not composed: an earlier export's row may stand for it
};

// Reads and composes one message; with `defer`, reads its header fields only. A subject that cannot be
// read ends the folder in the filter's composer too; the store's own errors in reaching the message
// propagate.
ComposedMessage ComposeForExport(tarn::PstMessage& message, bool text, bool defer = false) {
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
    if (defer) {
        out.deferred = true;
        return out;
    }
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
    StoreExport(Session& session, std::string source, fs::path base)
        : session_(session),
          options_(session.options),
          source_(std::move(source)),
          base_(std::move(base)),
          path_(tarn::host::WideFromUtf8(source_)),
          tree_(session.tree),
          names_(session.names) {}

    // A store that cannot be opened gets one manifest line.
    void Run() {
        try {
            db_ = tarn::ndb::open_database(path_);
        } catch (const std::exception& e) {
            Row row;
            row.source = source_;
            row.error = std::string("not a readable PST store: ") + e.what();
            row.filter_reaches = false;
            session_.manifest.Add(row);
            return;
        }
        CountAsTheFilterDoes();
        // Messages an earlier export wrote whole are not composed again unless their files fail the check.
        std::set<node_id> deferred;
        for (const auto& [key, row] : session_.earlier) {
            if (key.first == source_ && row->clean && row->node)
                deferred.insert(static_cast<node_id>(*row->node));
        }
        const bool text = options_.text;
        ParallelWalk<ComposedMessage> walk(
            {WorkersFor(options_.jobs)}, [this] { return tarn::ndb::open_database(path_); },
            [text, &deferred](node_id, tarn::PstMessage& message) {
                return ComposeForExport(message, text,
                                        deferred.count(message.properties().get_node().get_id()) != 0);
            },
            [](const ComposedMessage& m) { return m.record != nullptr ? m.record->document.length() : 0; });
        walk.Run(
            db_,
            [this, &walk](node_id folder, uint32_t, ComposedMessage& message) {
                Visit(folder, message);
                if (session_.Stopped()) walk.Stop();
            },
            [this](const RowFailure& failure) { ListFailure(failure); });
    }

  private:
    struct Folder {
        std::string path;  // display names from the top, "/" between them
        fs::path dir;      // relative to DIR
    };

    // The count the entry points would number against; the export itself does not depend on it. It is
    // taken on a reader of its own, whose pages go with it.
    void CountAsTheFilterDoes() {
        try {
            tarn::MessageListPtr list;
            // In the profile the export was asked for, as the entry points would count.
            tarn::Repairs repairs = tarn::Repairs::Requested();
            const int32_t status = tarn::CountMessages(tarn::ndb::open_database(path_), &list, &repairs);
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

    // The calling thread's reader, reopened after as many messages as a worker's, so that the pages it
    // keeps stay those of the last few messages however large the store.
    const tarn::ndb::db_ptr& Reader() {
        if (++reads_ >= WalkSettings{}.messages_per_reader) {
            reads_ = 0;
            try {
                db_ = tarn::ndb::open_database(path_);
            } catch (const std::exception&) {
                // The reader in hand serves on.
            }
        }
        return db_;
    }

    std::string FolderName(node_id id) {
        try {
            const tarn::ltp::property_bag bag(Reader()->lookup_node(id));
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
                parent = Reader()->lookup_node_info(at).parent_id;
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
        const std::string stem = IndexText(*row.index) + "-" +
                                 PortableName(row.subject.value_or(""), kSubjectNameBytes, "message");
        // The names an earlier export's row was checked under; they are this message's names whatever
        // the check found.
        std::optional<std::pair<std::string, std::string>> claimed;
        std::string claimed_extension;
        if (message.deferred) {
            const auto found = session_.earlier.find({source_, *row.index});
            if (found != session_.earlier.end() && !found->second->files.empty()) {
                claimed_extension = fs::path(found->second->files[0].file).extension().string();
                claimed = ClaimDocument(folder.dir, stem, claimed_extension);
                if (const ListedRow* standing = session_.Standing(source_, *row.index, row.node,
                                                                  (folder.dir / claimed->first).string())) {
                    session_.Keep(*standing);
                    return;
                }
            }
            // Its files are not as listed: composed here after all, on this thread's reader.
            tarn::PstMessage again(Reader()->lookup_node(message.node));
            message = ComposeForExport(again, options_.text);
        }
        if (message.thrown) {
            row.error = *message.thrown;
            row.filter_reaches = false;
            row.filter_note =
                "as the target its composition throws, which ends the filter's walk of the folder";
            if (message.earlier_status < tarn::kStatusOk) NoteWalkEnd(*row.index, message.earlier_status);
            session_.Add(row);
            return;
        }
        const Composed& composed = message.composed;
        const tarn::PstFilterData& record = *message.record;
        row.status = composed.status;
        row.text_fallback = composed.text_fallback;
        if (composed.has_document) row.repairs = record.repairs.MadeNames();
        if (composed.has_document) {
            row.format = composed.format;
            const std::string extension = DocumentExtension(composed.format);
            const auto [name, attachments] = claimed && claimed_extension == extension
                                                 ? *claimed
                                                 : ClaimDocument(folder.dir, stem, extension);
            const fs::path file = folder.dir / name;
            Write(file, record.document.data(), record.document.length(), row.file, row.bytes, row.sha256,
                  row.error);
            row.exported = row.error.empty();
            // The worker's reader and message are its own: the attachments are read again here.
            if (options_.attachments && !session_.Stopped()) {
                try {
                    tarn::PstMessage again(Reader()->lookup_node(message.node));
                    WriteAttachments(again, folder.dir / attachments, 1, row);
                } catch (const std::exception& e) {
                    row.attachments.push_back(
                        {"", 0, "", false, 1, std::nullopt, std::string("attachment table: ") + e.what()});
                }
                names_.Forget((folder.dir / attachments).string());
            }
        } else {
            row.error = composed.status == tarn::kStatusUnsupported
                            ? "no body the filter can make a document of"
                            : "composition gives status " + std::to_string(composed.status) + " (" +
                                  tarn::StatusText(composed.status) + ")";
        }
        ReachedByTheFilter(row);
        if (composed.compose_status < tarn::kStatusOk) NoteWalkEnd(*row.index, composed.compose_status);
        session_.Add(row);
    }

    // Writes a document or an attachment and notes where, its size and its checksum, or the error.
    void Write(const fs::path& file, const std::byte* bytes, size_t size, std::string& where,
               uint64_t& written, std::string& sha256, std::string& error) {
        const std::span<const std::byte> data(bytes, size);
        error = tree_.WriteFile(file, data);
        if (!error.empty()) return;
        where = file.string();
        written = size;
        sha256 = Sha256Hex(data);
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

    // A document's file name in `dir` and the name of the folder for its attachments beside it, both
    // claimed there, so that neither clashes with a folder, an attachment or another document.
    std::pair<std::string, std::string> ClaimDocument(const fs::path& dir, const std::string& stem,
                                                      const std::string& extension) {
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
                {"", 0, "", false, depth, std::nullopt, std::string("attachment table: ") + e.what()});
            return;
        }
        for (uint32_t i = 0; i < count && !session_.Stopped(); ++i) {
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
            Write(dir / file_name, data.data(), data.size(), out.file, out.bytes, out.sha256, out.error);
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
            out.error = "embedded message: composition gives status " + std::to_string(composed.status) +
                        " (" + tarn::StatusText(composed.status) + ")";
            return;
        }
        const auto [file_name, attachments] = ClaimDocument(
            dir, PortableName(subject.empty() ? name.value_or("") : subject, kSubjectNameBytes, fallback),
            DocumentExtension(composed.format));
        Write(dir / file_name, record->document.data(), record->document.length(), out.file, out.bytes,
              out.sha256, out.error);
        if (!out.error.empty()) return;
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
            session_.manifest.Add(row);
            return;
        }
        const uint32_t first = failure.row;
        row.folder = FolderOf(*failure.folder).path;
        row.filter_note = "the filter's walk leaves the rest of this folder";
        std::optional<tarn::ltp::table> contents;
        try {
            contents.emplace(Reader()->lookup_node(tarn::ContentsTableOf(*failure.folder)));
        } catch (const std::exception&) {
        }
        if (!contents || first >= contents->size()) {
            session_.manifest.Add(row);
            return;
        }
        for (uint32_t r = first; r < contents->size(); ++r) {
            Row rest = row;
            try {
                rest.node = (*contents)[r].get_row_id();
            } catch (const std::exception&) {
            }
            session_.manifest.Add(rest);
        }
    }

    Session& session_;
    const Options& options_;
    std::string source_;
    fs::path base_;
    std::u16string path_;
    OutputTree& tree_;
    NameRegistry& names_;
    tarn::ndb::db_ptr db_;
    size_t reads_ = 0;
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
void ExportSingle(Session& session, const std::string& source, const fs::path& base, bool message_file) {
    Row row;
    row.source = source;
    row.index = 1;
    tarn::host::EntryPoints entries;
    std::string error;
    if (!LoadFilter(FilterLibraryPath(), &entries, &error)) {
        row.error = "cannot load the filter: " + error;
        session.Add(row);
        return;
    }
    std::vector<std::byte> document;
    int32_t format = 0;
    const auto load = [&](bool text) {
        tarn::host::Toolkit toolkit;
        tarn::host::SourceSession source_session(tarn::host::WideFromUtf8(source));
        tarn::LoadRequest& request = source_session.BuildLoadRequest(1, text, /*with_slot=*/false);
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
    row.status = load(session.options.text);
    if (row.status == tarn::kStatusUnsupported && !session.options.text && error.empty() &&
        load(true) == tarn::kStatusOk) {
        row.text_fallback = true;
    } else if (row.status != tarn::kStatusOk) {
        row.error = !error.empty() ? error
                                   : "the filter gives status " + std::to_string(*row.status) + " (" +
                                         tarn::StatusText(*row.status) + ")";
        session.Add(row);
        return;
    }
    row.format = format;
    row.repairs.resize(krnctlRepairsMade(nullptr, 0));
    krnctlRepairsMade(row.repairs.data(), row.repairs.size() + 1);
    const std::string stem =
        IndexText(1) + "-" + PortableName(fs::path(source).stem().string(), kSubjectNameBytes, "message");
    const fs::path file = base / (stem + DocumentExtension(format));
    if (const ListedRow* standing = session.Standing(source, 1, std::nullopt, file.string())) {
        session.Keep(*standing);
        return;
    }
    row.error = session.tree.WriteFile(file, document);
    if (row.error.empty()) {
        row.exported = true;
        row.file = file.string();
        row.bytes = document.size();
        row.sha256 = Sha256Hex(document);
    }
    if (session.options.attachments && !session.Stopped()) {
        const fs::path dir = base / (stem + kAttachmentsSuffix);
        std::string unread;
        for (const SourceAttachment& a : ReadSourceAttachments(source, message_file, &unread)) {
            AttachmentRow out{"", 0, "", a.embedded, 1, std::nullopt, a.error};
            const std::string fallback = "attachment-" + std::to_string(row.attachments.size() + 1);
            if (out.error.empty()) {
                const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(a.bytes.data()),
                                                       a.bytes.size());
                const fs::path path =
                    dir /
                    session.names.Claim(dir.string(), PortableName(a.name, kAttachmentNameBytes, fallback));
                out.error = session.tree.WriteFile(path, bytes);
                if (out.error.empty())
                    out.file = path.string(), out.bytes = bytes.size(), out.sha256 = Sha256Hex(bytes);
            }
            row.attachments.push_back(std::move(out));
        }
        if (!unread.empty()) row.attachments.push_back({"", 0, "", false, 1, std::nullopt, unread});
    }
    session.Add(row);
}

// Classified as the filter classifies its source.
tarn::InputKind KindOf(const std::string& source) {
    const tarn::KernelFileHandle handle(
        krnOpenFile(tarn::host::WideFromUtf8(source).c_str(), 0, tarn::kOpenShareMode));
    tarn::InputKind kind = tarn::kInputUnsupported;
    if (!handle.valid() || tarn::ProbeSource(handle.get(), &kind) != tarn::kStatusOk)
        return tarn::kInputUnsupported;
    return kind;
}

// The rows a store's walk will visit, for the progress line: its folders' contents tables, as far as
// they can be read.
int64_t RowsIn(const std::string& source) {
    int64_t total = 0;
    try {
        const tarn::ndb::db_ptr db = tarn::ndb::open_database(tarn::host::WideFromUtf8(source));
        for (const tarn::ndb::node_info& info : tarn::ndb::page_range(db->read_nbt_root())) {
            if (!tarn::IsNormalFolder(info.id)) continue;
            try {
                total += tarn::ltp::table(db->lookup_node(tarn::ContentsTableOf(info.id))).size();
            } catch (const std::exception&) {
                // The walk meets this folder's damage itself; the estimate goes without it.
            }
        }
    } catch (const std::exception&) {
    }
    return total;
}

// The temporary files an export that was killed left behind (see OutputTree).
void RemoveTemporaries(const fs::path& out) {
    std::error_code ec;
    std::vector<fs::path> found;
    for (auto it = fs::recursive_directory_iterator(out, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.rfind(".tarnview-", 0) == 0 && name.size() > 5 && name.substr(name.size() - 5) == ".part" &&
            it->symlink_status().type() == fs::file_type::regular)
            found.push_back(it->path());
    }
    for (const fs::path& path : found) fs::remove(path, ec);
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
    const bool replace = options->force || options->resume;
    // What an earlier export listed: with --resume the rows that may stand, with either flag the files
    // to remove that this export does not write again.
    std::vector<ListedRow> earlier;
    if (replace) {
        std::string unread;
        if (std::optional<std::vector<ListedRow>> rows = ReadManifest(options->out / kManifestName, &unread))
            earlier = std::move(*rows);
        RemoveTemporaries(options->out);
    }
    OutputTree tree(options->out, replace);
    std::set<std::string> listed;
    for (const ListedRow& row : earlier)
        for (const ListedFile& file : row.files) listed.insert(file.file);
    tree.Watch(std::move(listed));
    std::string error;
    const int fd = tree.CreateForAppend(kManifestName, &error);
    if (fd < 0) {
        std::fprintf(stderr, "tarnview export: %s\n", error.c_str());
        return 1;
    }
    Manifest manifest(fd, (options->out / kManifestName).string());
    NameRegistry names;
    names.Claim("", kManifestName);
    Progress progress(isatty(STDERR_FILENO) != 0);
    Session session{*options, tree, names, manifest, progress, {}, {}, {}};
    if (options->resume) {
        for (const ListedRow& row : earlier)
            if (row.index) session.earlier.emplace(std::pair(row.source, *row.index), &row);
    }
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);

    if (progress.on()) {
        for (const std::string& source : options->sources)
            progress.AddToTotal(KindOf(source) == tarn::kInputPstStore ? RowsIn(source) : 1);
    }
    for (const std::string& source : options->sources) {
        if (session.Stopped()) break;
        // Several sources each get a folder of their own, named after the file.
        fs::path base;
        if (options->sources.size() > 1)
            base = names.Claim(
                "", PortableName(fs::path(source).filename().string(), kFolderNameBytes, "source"));
        const tarn::InputKind kind = KindOf(source);
        if (kind == tarn::kInputPstStore) {
            StoreExport(session, source, base).Run();
        } else {
            ExportSingle(session, source, base, kind == tarn::kInputMessageFile);
        }
    }
    // What is whole gets its name and its row, also when the export stops.
    session.Commit();
    progress.Clear();
    const std::string manifest_path = (options->out / kManifestName).string();
    if (session.Stopped()) {
        const std::string reason = !manifest.error().empty()       ? manifest.error()
                                   : !session.commit_error.empty() ? session.commit_error
                                   : g_interrupted != 0            ? std::string("interrupted")
                                                                   : tree.space_error();
        std::fprintf(stderr, "tarnview export: stopped (%s); %s lists what was done, and --resume goes on\n",
                     reason.c_str(), manifest_path.c_str());
        return 1;
    }
    if (!manifest.Finish()) {
        std::fprintf(stderr, "tarnview export: %s\n", manifest.error().c_str());
        return 1;
    }
    // Files an earlier export listed that this one neither wrote nor kept are no longer the export's.
    for (const ListedRow& row : earlier) {
        for (const ListedFile& file : row.files) {
            if (tree.rewritten().count(file.file) == 0 && session.kept.count(file.file) == 0)
                tree.Remove(file.file);
        }
    }
    if (manifest.failures() > 0) {
        std::fprintf(stderr, "tarnview export: %d of %d manifest lines record a failure; see %s\n",
                     manifest.failures(), manifest.rows(), manifest_path.c_str());
        return 1;
    }
    return 0;
}

}  // namespace tarnview
