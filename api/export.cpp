// Export: every message of each source written as the document the filter makes of it, in one pass. A
// PST is walked once with the filter's own walk and numbering, and each message goes through the
// filter's composer and assembly, so the document for message N is the one fltLoad hands the loader
// for message N. A message file or an Internet message goes through the entry points as Render does.
//
// Layout: one folder per store folder (its path in the store's folder tree), one file per message
// named NNNNNN-subject.EXT, the attachments of a message (when asked for) beside it in
// NNNNNN-subject.attachments/, and, in a folder, manifest.jsonl with one line per message.
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/edge.h"
#include "api/export_composition.h"
#include "api/export_manifest.h"
#include "api/export_names.h"
#include "api/export_output.h"
#include "api/parallel_walk.h"
#include "api/settings_scope.h"
#include "api/source_attachments.h"
#include "api/store_folders.h"
#include "api/store_text.h"
#include "common/apiutils.h"
#include "common/little_endian.h"
#include "common/status.h"
#include "host/page_layout.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "pst/composer.h"
#include "pst/filter_data.h"
#include "pst/message_model.h"
#include "pst/message_walk.h"
#include "pst/probe.h"
#include "pst/pst.h"
#include "store/ltp/property_bag.h"
#include "store/ltp/table.h"
#include "store/ndb/database.h"
#include "tarnpst/tarnpst.h"

namespace tarn::api {
namespace {

namespace fs = std::filesystem;
using tarn::ndb::node_id;
using tarnpst::ExportOptions;
using tarnpst::ExportResult;
using tarnpst::ManifestAttachment;
using tarnpst::ManifestRow;

const tarn::host::EntryPoints kLinkedFilter{&fltInfo, &fltLoad, &fltFreeData};

constexpr char kManifestName[] = "manifest.jsonl";
constexpr char kAttachmentsSuffix[] = ".attachments";
constexpr int kIndexDigits = 6;
// Embedded messages inside embedded messages: a depth the file cannot push further.
constexpr int kMaxEmbeddingDepth = 8;
constexpr tarn::ltp::prop_id kPropAttachMethod = 0x3705;
constexpr uint32_t kAttachEmbeddedMessage = 5;
constexpr tarn::ltp::prop_type kPropTypeObject = 0x000D;

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

const char* Extension(int32_t format) {
    return tarnpst::FormatExtension(static_cast<tarnpst::Format>(format));
}

// The export into a folder: its files through OutputTree, manifest.jsonl beside them, and what an
// earlier export into the same folder listed (for force and resume).
class DirectorySink final : public tarnpst::Sink {
  public:
    DirectorySink(const fs::path& out, bool force, bool resume)
        : out_(out),
          tree_(out, force || resume),
          manifest_(Open(out, force || resume, resume), ManifestPath()) {}

    std::string WriteFile(const std::string& file, std::span<const std::byte> bytes) override {
        return tree_.WriteFile(file, bytes);
    }

    // Gives the files written since the last commit their names, then writes their rows. Should that
    // fail, the rows are dropped with the files: resume makes them again.
    std::string Commit() override {
        last_commit_ = std::chrono::steady_clock::now();
        if (!commit_error_.empty()) return commit_error_;
        commit_error_ = tree_.Commit();
        if (commit_error_.empty())
            manifest_.Flush();
        else
            manifest_.Drop();
        return commit_error_;
    }

    void AddRow(const ManifestRow& row) override {
        manifest_.Add(row);
        Pace();
    }

    // The earlier row of `source`'s message `index` stands when it is clean, for the same node, its
    // document at `file`, and every file it lists there with its recorded size and checksum.
    bool KeepEarlier(const std::string& source, int32_t index, std::optional<uint32_t> node,
                     const std::string& file) override {
        const auto found = earlier_by_index_.find({source, index});
        if (found == earlier_by_index_.end()) return false;
        const ListedRow& row = *found->second;
        if (!row.clean || row.node != node || row.files.empty() || row.files[0].file != file) return false;
        for (const ListedFile& listed : row.files) {
            const std::optional<FileDigest> digest = tree_.Digest(listed.file);
            if (!digest || digest->bytes != listed.bytes || digest->sha256 != listed.sha256) return false;
        }
        for (const ListedFile& listed : row.files) kept_.insert(listed.file);
        manifest_.Keep(row);
        Pace();
        return true;
    }

    // The export stops when the manifest cannot be written, when a batch cannot be committed, and when
    // the disk is full.
    std::string Stopped() const override {
        if (!manifest_.error().empty()) return manifest_.error();
        if (!commit_error_.empty()) return commit_error_;
        return tree_.out_of_space() ? tree_.space_error() : std::string();
    }

    // The nodes of `source`'s messages an earlier export wrote whole (with resume).
    std::set<node_id> CleanNodes(const std::string& source) const {
        std::set<node_id> nodes;
        for (const auto& [key, row] : earlier_by_index_)
            if (key.first == source && row->clean && row->node)
                nodes.insert(static_cast<node_id>(*row->node));
        return nodes;
    }

    // The document an earlier export listed for `source`'s message `index` (with resume).
    std::optional<std::string> EarlierDocument(const std::string& source, int64_t index) const {
        const auto found = earlier_by_index_.find({source, index});
        if (found == earlier_by_index_.end() || found->second->files.empty()) return std::nullopt;
        return found->second->files[0].file;
    }

    // After an export that ran to its end: the summary, and the files an earlier export listed that
    // this one neither wrote nor kept removed, as they are no longer the export's. Empty, or the reason.
    std::string Finish() {
        if (!manifest_.Finish()) return manifest_.error();
        for (const ListedRow& row : earlier_) {
            for (const ListedFile& file : row.files) {
                if (tree_.rewritten().count(file.file) == 0 && kept_.count(file.file) == 0)
                    tree_.Remove(file.file);
            }
        }
        return {};
    }

  private:
    std::string ManifestPath() const { return (out_ / kManifestName).string(); }

    // Reads what an earlier export listed and opens the manifest for appending; runs before the
    // manifest is constructed, the output tree already made.
    int Open(const fs::path& out, bool replace, bool resume) {
        // With resume the rows that may stand, with either flag the files to remove that this export
        // does not write again.
        if (replace) {
            std::string unread;
            if (std::optional<std::vector<ListedRow>> rows = ReadManifest(out / kManifestName, &unread))
                earlier_ = std::move(*rows);
            RemoveTemporaries(out);
        }
        std::set<std::string> listed;
        for (const ListedRow& row : earlier_)
            for (const ListedFile& file : row.files) listed.insert(file.file);
        tree_.Watch(std::move(listed));
        if (resume) {
            for (const ListedRow& row : earlier_)
                if (row.index) earlier_by_index_.emplace(std::pair(row.source, *row.index), &row);
        }
        std::string error;
        const int fd = tree_.CreateForAppend(kManifestName, &error);
        if (fd < 0) throw tarnpst::Error(tarnpst::kStatusCannotOpen, error);
        return fd;
    }

    // A batch is committed after a second, 1024 files or 64 MiB, whichever comes first: a crash loses
    // at most that much work, and the flush costs little beside the writing.
    void Pace() {
        if (tree_.pending() >= 1024 || tree_.pending_bytes() >= (64u << 20) ||
            std::chrono::steady_clock::now() - last_commit_ >= std::chrono::seconds(1))
            Commit();
    }

    static void RemoveTemporaries(const fs::path& out);

    fs::path out_;
    std::vector<ListedRow> earlier_;
    std::map<std::pair<std::string, int64_t>, const ListedRow*> earlier_by_index_;
    OutputTree tree_;
    Manifest manifest_;
    std::set<std::string> kept_;  // files of earlier rows kept as they are
    std::string commit_error_;    // the files of a batch could not be flushed or named
    std::chrono::steady_clock::time_point last_commit_ = std::chrono::steady_clock::now();
};

// What every source of one export shares: the sink, the names given out, the rows and the progress.
struct ExportRun {
    ExportRun(tarnpst::Sink& s, const ExportOptions& o)
        : sink(s), options(o), directory(dynamic_cast<DirectorySink*>(&s)) {}

    tarnpst::Sink& sink;
    const ExportOptions& options;
    DirectorySink* directory;  // resume's earlier rows, when the sink is a folder
    NameRegistry names;
    ExportResult result;
    tarnpst::ExportProgress progress;
    bool cancelled = false;  // the progress callback asked to stop

    bool Stopped() const { return cancelled || !sink.Stopped().empty(); }

    // With ExportOptions::pdf: lays out the document just written at `file` (of the toolkit's `format`)
    // and writes the PDF beside it under a name of its own, noting it in `row`, or why not as its error.
    void WritePdf(const fs::path& file, std::span<const std::byte> document, int32_t format,
                  ManifestRow& row) {
        if (!options.pdf || !row.error.empty() || Stopped()) return;
        // One browser for the whole export, started at the first document.
        if (!layout) layout = std::make_unique<tarn::host::PageLayout>(tarn::host::PageLayout::Options{true});
        tarn::host::LaidOutDocument laid;
        std::string why;
        if (!layout->Lay(document, format, &laid, &why)) {
            row.error = "layout: " + why;
            return;
        }
        const fs::path dir = file.parent_path();
        const fs::path pdf = dir / names.Claim(dir.string(), file.stem().string() + ".pdf");
        const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(laid.pdf.data()),
                                               laid.pdf.size());
        row.error = sink.WriteFile(pdf.string(), bytes);
        if (!row.error.empty()) return;
        row.pdf = pdf.string();
        row.pdf_bytes = bytes.size();
        row.pdf_sha256 = Sha256Hex(bytes);
        row.pages = laid.pages;
    }
    std::unique_ptr<tarn::host::PageLayout> layout;  // with ExportOptions::pdf, once a document needs it

    // A row that does not count as a message done (a store that cannot be walked, rows a failure ends).
    void AddRow(const ManifestRow& row) {
        sink.AddRow(row);
        ++result.row_count;
        if (!row.error.empty()) ++result.failures;
        for (const ManifestAttachment& a : row.attachments)
            if (!a.error.empty()) ++result.failures;
        if (options.keep_rows) result.rows.push_back(row);
    }
    void Add(const ManifestRow& row) {
        AddRow(row);
        Step();
    }
    bool KeepEarlier(const std::string& source, int32_t index, std::optional<uint32_t> node,
                     const std::string& file) {
        if (!sink.KeepEarlier(source, index, node, file)) return false;
        ++result.row_count;
        if (options.keep_rows) {
            ManifestRow kept;
            kept.source = source;
            kept.index = index;
            kept.node = node;
            kept.file = file;
            kept.exported = true;
            kept.kept = true;
            result.rows.push_back(std::move(kept));
        }
        Step();
        return true;
    }
    void Step() {
        ++progress.done;
        if (options.progress && !options.progress(progress)) cancelled = true;
    }

    std::set<node_id> CleanEarlierNodes(const std::string& source) const {
        return directory != nullptr ? directory->CleanNodes(source) : std::set<node_id>();
    }
    std::optional<std::string> EarlierDocument(const std::string& source, int64_t index) const {
        return directory != nullptr ? directory->EarlierDocument(source, index) : std::nullopt;
    }
};

class StoreExport {
  public:
    StoreExport(ExportRun& run, std::string source, fs::path base)
        : run_(run),
          options_(run.options),
          source_(std::move(source)),
          base_(std::move(base)),
          path_(tarn::host::WideFromUtf8(source_)),
          names_(run.names) {}

    // A store that cannot be opened gets one manifest line.
    void Run() {
        try {
            db_ = tarn::ndb::open_database(path_);
        } catch (const std::exception& e) {
            ManifestRow row;
            row.source = source_;
            row.error = std::string("not a readable PST store: ") + e.what();
            row.filter_reaches = false;
            run_.AddRow(row);
            return;
        }
        CountAsTheFilterDoes();
        // Messages an earlier export wrote whole are not composed again unless their files fail the check.
        std::set<node_id> deferred = run_.CleanEarlierNodes(source_);
        SelectFolders();
        const bool text = options_.text;
        ParallelWalk<ComposedMessage> walk(
            {WorkersFor(options_.jobs != 0 ? options_.jobs : DefaultJobs(/*calling_thread_waits=*/false))},
            [this] { return tarn::ndb::open_database(path_); },
            [this, text, &deferred](node_id folder, tarn::PstMessage& message) {
                // Each worker answers the kernel's queries with this call's settings.
                const SettingsScope scope(options_.settings);
                // A message outside the folders asked for is read for its numbering alone.
                return ComposeForExport(
                    message, text,
                    !Selected(folder) || deferred.count(message.properties().get_node().get_id()) != 0);
            },
            [](const ComposedMessage& m) { return m.record != nullptr ? m.record->document.length() : 0; });
        walk.Run(
            db_,
            [this, &walk](node_id folder, uint32_t, ComposedMessage& message) {
                Visit(folder, message);
                if (run_.Stopped()) walk.Stop();
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

    // The normal folders whose paths ExportOptions::folders names.
    void SelectFolders() {
        if (options_.folders.empty()) return;
        const std::set<std::string> wanted(options_.folders.begin(), options_.folders.end());
        selected_.emplace();
        for (const StoreFolder& folder : StoreFolders(db_))
            if (wanted.count(folder.path) != 0) selected_->insert(folder.id);
    }
    bool Selected(node_id folder) const { return !selected_ || selected_->count(folder) != 0; }

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

        ManifestRow row;
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
        if (!Selected(folder_id)) return;
        if (message.deferred) {
            if (const std::optional<std::string> earlier = run_.EarlierDocument(source_, *row.index)) {
                claimed_extension = fs::path(*earlier).extension().string();
                claimed = ClaimDocument(folder.dir, stem, claimed_extension);
                if (run_.KeepEarlier(source_, *row.index, row.node, (folder.dir / claimed->first).string()))
                    return;
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
            run_.Add(row);
            return;
        }
        const Composed& composed = message.composed;
        const tarn::PstFilterData& record = *message.record;
        row.status = composed.status;
        row.text_fallback = composed.text_fallback;
        if (composed.has_document) row.repairs = record.repairs.MadeNames();
        if (composed.has_document) {
            row.format = composed.format;
            const std::string extension = Extension(composed.format);
            const auto [name, attachments] = claimed && claimed_extension == extension
                                                 ? *claimed
                                                 : ClaimDocument(folder.dir, stem, extension);
            const fs::path file = folder.dir / name;
            Write(file, record.document.data(), record.document.length(), row.file, row.bytes, row.sha256,
                  row.error);
            row.exported = row.error.empty();
            run_.WritePdf(file, std::span(record.document.data(), record.document.length()), *row.format,
                          row);
            // The worker's reader and message are its own: the attachments are read again here.
            if (options_.attachments && !run_.Stopped()) {
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
        run_.Add(row);
    }

    // Writes a document or an attachment and notes where, its size and its checksum, or the error.
    void Write(const fs::path& file, const std::byte* bytes, size_t size, std::string& where,
               uint64_t& written, std::string& sha256, std::string& error) {
        const std::span<const std::byte> data(bytes, size);
        error = run_.sink.WriteFile(file.string(), data);
        if (!error.empty()) return;
        where = file.string();
        written = size;
        sha256 = Sha256Hex(data);
    }

    // Where the entry points cannot reach this number: beyond their count, or past a message whose
    // failure ends their walk.
    void ReachedByTheFilter(ManifestRow& row) {
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
    void WriteAttachments(tarn::PstMessage& message, const fs::path& dir, int depth, ManifestRow& row) {
        uint32_t count = 0;
        try {
            count = message.AttachmentCount();
        } catch (const std::exception& e) {
            row.attachments.push_back(
                {"", 0, "", false, depth, std::nullopt, std::string("attachment table: ") + e.what()});
            return;
        }
        for (uint32_t i = 0; i < count && !run_.Stopped(); ++i) {
            ManifestAttachment out;
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
                         ManifestAttachment& out, ManifestRow& row) {
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
            Extension(composed.format));
        Write(dir / file_name, record->document.data(), record->document.length(), out.file, out.bytes,
              out.sha256, out.error);
        if (!out.error.empty()) return;
        WriteAttachments(inner, dir / attachments, depth + 1, row);
    }

    // A store error ended a folder (or the whole walk). The folder's rows from the one that failed on get
    // no index, as in the filter; each is listed with the error.
    void ListFailure(const RowFailure& failure) {
        ManifestRow row;
        row.source = source_;
        row.error = failure.error;
        row.filter_reaches = false;
        if (!failure.folder) {
            row.filter_note = "the node b-tree cannot be read further; the walk ends here";
            run_.AddRow(row);
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
            run_.AddRow(row);
            return;
        }
        for (uint32_t r = first; r < contents->size(); ++r) {
            ManifestRow rest = row;
            try {
                rest.node = (*contents)[r].get_row_id();
            } catch (const std::exception&) {
            }
            run_.AddRow(rest);
        }
    }

    ExportRun& run_;
    const ExportOptions& options_;
    std::string source_;
    fs::path base_;
    std::u16string path_;
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
    std::optional<std::set<node_id>> selected_;  // the folders asked for; nothing: all
};

// A message file or an Internet message: one document through the filter library, as `render` makes it.
void ExportSingle(ExportRun& run, const std::string& source, const fs::path& base, bool message_file) {
    ManifestRow row;
    row.source = source;
    row.index = 1;
    std::string error;
    std::vector<std::byte> document;
    int32_t format = 0;
    const auto load = [&](bool text) {
        tarn::host::Toolkit toolkit;
        tarn::host::SourceSession source_session(tarn::host::WideFromUtf8(source));
        tarn::LoadRequest& request = source_session.BuildLoadRequest(1, text, /*with_slot=*/false);
        const tarn::host::CallOutcome outcome = tarn::host::CallLoad(kLinkedFilter, &request);
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
    krnNoteRepairs("");
    row.status = load(run.options.text);
    if (row.status == tarn::kStatusUnsupported && !run.options.text && error.empty() &&
        load(true) == tarn::kStatusOk) {
        row.text_fallback = true;
    } else if (row.status != tarn::kStatusOk) {
        row.error = !error.empty() ? error
                                   : "the filter gives status " + std::to_string(*row.status) + " (" +
                                         tarn::StatusText(*row.status) + ")";
        run.Add(row);
        return;
    }
    row.format = format;
    row.repairs.resize(krnctlRepairsMade(nullptr, 0));
    krnctlRepairsMade(row.repairs.data(), row.repairs.size() + 1);
    const std::string stem =
        IndexText(1) + "-" + PortableName(fs::path(source).stem().string(), kSubjectNameBytes, "message");
    const fs::path file = base / (stem + Extension(format));
    if (run.KeepEarlier(source, 1, std::nullopt, file.string())) return;
    row.error = run.sink.WriteFile(file.string(), document);
    if (row.error.empty()) {
        row.exported = true;
        row.file = file.string();
        row.bytes = document.size();
        row.sha256 = Sha256Hex(document);
        run.WritePdf(file, document, format, row);
    }
    if (run.options.attachments && !run.Stopped()) {
        const fs::path dir = base / (stem + kAttachmentsSuffix);
        std::string unread;
        for (const SourceAttachment& a : ReadSourceAttachments(source, message_file, &unread)) {
            ManifestAttachment out{"", 0, "", a.embedded, 1, std::nullopt, a.error};
            const std::string fallback = "attachment-" + std::to_string(row.attachments.size() + 1);
            if (out.error.empty()) {
                const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(a.bytes.data()),
                                                       a.bytes.size());
                const fs::path path =
                    dir / run.names.Claim(dir.string(), PortableName(a.name, kAttachmentNameBytes, fallback));
                out.error = run.sink.WriteFile(path.string(), bytes);
                if (out.error.empty())
                    out.file = path.string(), out.bytes = bytes.size(), out.sha256 = Sha256Hex(bytes);
            }
            row.attachments.push_back(std::move(out));
        }
        if (!unread.empty()) row.attachments.push_back({"", 0, "", false, 1, std::nullopt, unread});
    }
    run.Add(row);
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
void DirectorySink::RemoveTemporaries(const fs::path& out) {
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

tarnpst::ExportResult ExportSources(const std::vector<std::string>& sources, tarnpst::Sink& sink,
                                    const ExportOptions& options) {
    const SettingsScope scope(options.settings);
    ExportRun run(sink, options);
    run.names.Claim("", kManifestName);
    if (options.progress && options.progress_total) {
        for (const std::string& source : sources)
            run.progress.total += KindOf(source) == tarn::kInputPstStore ? RowsIn(source) : 1;
    }
    for (const std::string& source : sources) {
        if (run.Stopped()) break;
        // Several sources each get a folder of their own, named after the file.
        fs::path base;
        if (sources.size() > 1)
            base = run.names.Claim(
                "", PortableName(fs::path(source).filename().string(), kFolderNameBytes, "source"));
        const tarn::InputKind kind = KindOf(source);
        if (kind == tarn::kInputPstStore) {
            StoreExport(run, source, base).Run();
        } else {
            ExportSingle(run, source, base, kind == tarn::kInputMessageFile);
        }
    }
    // What is whole gets its name and its row, also when the export stops.
    sink.Commit();
    run.result.stopped = sink.Stopped();
    if (run.result.stopped.empty() && run.cancelled) run.result.stopped = "interrupted";
    return std::move(run.result);
}

}  // namespace
}  // namespace tarn::api

namespace tarnpst {

ExportResult Export(const std::vector<std::string>& sources, Sink& sink, const ExportOptions& options) {
    return tarn::api::AtEdge("export", [&] { return tarn::api::ExportSources(sources, sink, options); });
}

ExportResult Export(const std::vector<std::string>& sources, const std::string& out,
                    const ExportOptions& options) {
    return tarn::api::AtEdge(out, [&] {
        namespace fs = std::filesystem;
        std::error_code ec;
        fs::create_directories(out, ec);
        if (ec || !fs::is_directory(out))
            throw Error(kStatusCannotOpen, out + ": cannot make the folder: " + ec.message());
        tarn::api::DirectorySink sink(out, options.force, options.resume);
        ExportResult result = tarn::api::ExportSources(sources, sink, options);
        if (result.stopped.empty()) {
            if (const std::string error = sink.Finish(); !error.empty()) throw Error(kStatusFailure, error);
        }
        return result;
    });
}

}  // namespace tarnpst
