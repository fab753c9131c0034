// Tarnpst's public interface: open a PST store, an Outlook message file or an Internet message, read its
// messages' fields in the filter's order, render one message as the toolkit's loader is handed it, and
// export every message as a document file with a manifest.
//
// Settings (profile, header language) travel with each call, never through process-wide state, so
// calls on several threads, or from several hosts in one process, cannot disturb each other. Every
// function may be called from any thread; a Source may be shared between threads once opened. Every
// failure reaches the caller as a tarnpst::Error, whatever went wrong underneath.
#ifndef TARNPST_TARNPST_H_
#define TARNPST_TARNPST_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarnpst {

// The filter's status codes that callers meet most; Error::status() may carry any other of its codes.
constexpr int32_t kStatusOk = 1;
constexpr int32_t kStatusFailure = -1;      // out of memory, or a general failure (also: an escaped fault)
constexpr int32_t kStatusShortRead = -7;    // fewer bytes than the file states could be read
constexpr int32_t kStatusUnsupported = -9;  // no document for this message, or not a source the filter takes
constexpr int32_t kStatusCannotOpen = -10;  // the source cannot be opened

// A failure, with the filter's status code and words that name the file and what went wrong.
class Error : public std::runtime_error {
  public:
    Error(int32_t status, const std::string& words) : std::runtime_error(words), status_(status) {}
    int32_t status() const { return status_; }

  private:
    int32_t status_;
};

enum class Kind { kUnsupported, kPstStore, kMessageFile, kInternetMessage };
const char* KindName(Kind kind);  // "pst", "msg", "eml", "unsupported"

// The document formats, valued as the toolkit numbers them.
enum class Format : int32_t { kRtf = 226, kText = 316, kHtml = 369 };
const char* FormatName(Format format);       // "rtf", "text", "html"
const char* FormatExtension(Format format);  // ".rtf", ".txt", ".html"

enum class Profile {
    kRepaired,  // documents mended where the toolkit's contract gives none or a damaged one (tarnview's
                // default)
    kCompat,    // the contract's documents byte for byte, as the toolkit gets them (tarnview --compat)
};

// What one call runs under.
struct Settings {
    Profile profile = Profile::kRepaired;
    // The header block's language (a Windows LANGID); 0 takes the kernel's answer (TARNKRN_LANGUAGE,
    // else 0x0409).
    uint16_t language = 0;
};

// An attachment as a message lists it.
struct Attachment {
    std::string name;  // UTF-8; empty when the message gives none
    uint64_t bytes = 0;
    bool embedded = false;  // an enclosed message
};

// One message, in the filter's order. Text is UTF-8 with 8-bit strings read in the message's own code
// page, as people read it (the documents themselves may read them otherwise).
struct Message {
    int32_t number = 0;  // the filter's message number, counted from 1 (the one Render takes)
    // The display name of the message's folder, as `tarnview list` shows it; empty for a message file or
    // an Internet message.
    std::string folder;
    // The folder's names from the store's top down to it (the folder itself last).
    std::vector<std::string> folder_path;
    std::string subject;  // as the filter takes it ("No Subject" when absent, its prefix marker dropped)
    std::string sender;
    std::string to, cc, bcc;                       // display lists, as the message stores them
    std::optional<std::chrono::sys_seconds> sent;  // the submit time in UTC; nothing when absent
    std::string sent_text;   // the header block's wording of it, as `tarnview list` shows it; empty when none
    std::string importance;  // the header block's wording ("High", ...); empty when the message gives none
    std::optional<int32_t> importance_level;  // 0 low, 1 normal, 2 high, as stored; nothing when absent
    // Filled only when the cursor was asked for attachments (Cursor options).
    std::vector<Attachment> attachments;
};

struct CursorOptions {
    bool attachments = false;  // fill Message::attachments (reads each message's attachment table)
    unsigned jobs = 1;         // threads that read a store's messages, the caller's included; 0: one per core
    // Read the source as a PST store whatever it was classified as: one that is not gives an Error
    // with the store's own words (tarnview list does so).
    bool as_store = false;
};

// Messages one by one, in the filter's order. A store is walked with the filter's own walk: a folder
// the walk cannot read is skipped, as the filter skips it, and named in warnings(). Movable, not
// copyable; not to be used from two threads at once.
class Cursor {
  public:
    ~Cursor();
    Cursor(Cursor&&) noexcept;
    Cursor& operator=(Cursor&&) noexcept;

    // The next message into `out`; false at the end. Throws Error when the source cannot be read at all.
    bool Next(Message& out);
    // What the walk could not read, one line each ("folder \"Inbox\" (nid 0x8022): ..."); whole once
    // Next() has returned false.
    const std::vector<std::string>& warnings() const;

    class Impl;
    explicit Cursor(std::unique_ptr<Impl> impl);

  private:
    std::unique_ptr<Impl> impl_;
};

struct RenderOptions {
    Settings settings;
    bool text = false;  // the plain-text document (tarnview render --text)
};

// A document as the toolkit's loader is handed it.
struct Document {
    std::string bytes;
    Format format = Format::kText;
    int32_t status = kStatusOk;  // always kStatusOk: any other status is thrown as an Error
    std::string repairs;         // the repairs made, comma-separated; empty when none (or with kCompat)
};

// A folder of a store, for choosing a subset to export.
struct Folder {
    // Display names from the store's top, "/" between them ("Top of Personal Folders/Inbox"), as the
    // manifest's `folder` and ExportOptions::folders name it.
    std::string path;
    int64_t messages = 0;  // the rows of its contents table, as far as they can be read
};

class Source {
  public:
    // Opens `path` (UTF-8) and classifies it as the filter does. Throws Error when the file cannot be
    // opened; a file the filter does not take or cannot classify opens with Kind::kUnsupported (and a
    // warning saying why).
    static Source Open(const std::string& path);

    ~Source();
    Source(Source&&) noexcept;
    Source& operator=(Source&&) noexcept;

    const std::string& path() const;
    Kind kind() const;
    // The number of messages the filter reports for the source (fltInfo's count; 1 for a message file
    // or an Internet message). Throws Error with the filter's status when it reports none.
    int32_t MessageCount(const Settings& settings = {}) const;
    // What opening the source noted without failing (a store's header oddities, ...).
    const std::vector<std::string>& warnings() const;

    // The messages, in the filter's order.
    Cursor Messages(const CursorOptions& options = {}) const;
    // A store's normal folders in the walk's order; empty for other sources.
    std::vector<Folder> Folders() const;

    // Message `number` (from 1) as `tarnview render` writes it. Throws Error with the filter's status.
    Document Render(int32_t number, const RenderOptions& options = {}) const;

    class Impl;

  private:
    explicit Source(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// ---- Export ----

// An attachment as the manifest lists it.
struct ManifestAttachment {
    std::string file;  // relative to the export's root; empty when not written
    uint64_t bytes = 0;
    std::string sha256;
    bool embedded = false;
    int depth = 1;
    std::optional<int32_t> status;  // embedded messages: the composition's status
    std::string error;
};

// One line of the manifest: a message and what became of it.
struct ManifestRow {
    std::string source;
    std::optional<int32_t> index;  // the filter's message number (counted from 1)
    std::string folder;            // the message's folder, as Folder::path names it
    std::optional<uint32_t> node;  // a store message's node id
    std::optional<std::string> subject;
    std::optional<std::string> sender;
    std::optional<std::string> sent;  // ISO 8601 in UTC, "2019-03-05T14:07:00Z"
    std::optional<int32_t> format;    // a Format's value
    uint64_t bytes = 0;
    std::string file;  // the document, relative to the export's root; empty when not written
    std::string sha256;
    std::optional<int32_t> status;
    bool exported = false;
    bool text_fallback = false;  // no HTML or RTF document: the plain-text one was written
    std::string error;
    bool filter_reaches = true;            // the entry points reach this number
    std::optional<int32_t> filter_status;  // what the entry points give for this number, when not `status`
    std::string filter_note;
    std::vector<ManifestAttachment> attachments;
    std::string repairs;  // what was mended for the document, comma-separated; empty when nothing
    // With ExportOptions::pdf, the document laid out as pages beside it: its file (relative to the
    // export's root; empty when not written), size, checksum and page count.
    std::string pdf;
    uint64_t pdf_bytes = 0;
    std::string pdf_sha256;
    std::optional<int32_t> pages;
    bool kept = false;  // an earlier export's row, standing as it was (resume); only `source`, `index`
                        // and `file` are filled
};

// Where an export's files and rows go. Paths are relative and made of portable components (never "..",
// never absolute). Called on the exporting thread only.
class Sink {
  public:
    virtual ~Sink() = default;
    // Writes `bytes` to `file` as a whole or not at all; empty, or the reason (naming the file).
    virtual std::string WriteFile(const std::string& file, std::span<const std::byte> bytes) = 0;
    // The files written since the last commit are whole and the rows added since then are listed;
    // empty, or the reason, after which the export stops.
    virtual std::string Commit() { return {}; }
    // A message's row, once its files are written (listed for good at the next Commit()).
    virtual void AddRow(const ManifestRow& row) = 0;
    // With resume: whether an earlier export's row for this message stands as it is (same node, its
    // document at `file`, its files unchanged); the sink then keeps that row instead of a new one.
    virtual bool KeepEarlier(const std::string& source, int32_t index, std::optional<uint32_t> node,
                             const std::string& file) {
        (void)source, (void)index, (void)node, (void)file;
        return false;
    }
    // Why nothing more can be written (a full disk, a manifest that cannot be written); empty while
    // writing goes on.
    virtual std::string Stopped() const { return {}; }
};

struct ExportProgress {
    int64_t done = 0;   // messages done (written, failed or kept)
    int64_t total = 0;  // the rows the sources' walks will visit, as far as known; 0 when unknown
};

struct ExportOptions {
    Settings settings;
    bool text = false;         // plain-text documents (tarnview export --text)
    bool attachments = false;  // each message's attachments beside it (--attachments)
    bool force = false;        // replace what an earlier export wrote (--force); directory sink only
    bool resume = false;  // keep an earlier export's rows whose files stand (--resume); directory sink only
    unsigned jobs = 0;    // threads, the caller's included; 0: one per core, at most four
    // Only messages in these folders (Folder::path; a folder's subfolders are not included) are
    // written; empty: all. Numbering stays the whole store's.
    std::vector<std::string> folders;
    // Called on the exporting thread after each message; returning false stops the export after it,
    // as an interrupt does (the manifest ends with a whole row and resume goes on from there).
    std::function<bool(const ExportProgress&)> progress;
    // Count the sources' rows first, for ExportProgress::total (a read of every contents table).
    bool progress_total = false;
    // Return the rows in ExportResult::rows; without it an export's memory stays flat however many
    // messages it writes (the manifest lists them all the same).
    bool keep_rows = true;
    // Each document also laid out as a PDF beside it (a browser for HTML and text, an office suite for
    // RTF); a document that cannot be laid out keeps its row's document, with the reason as its error.
    bool pdf = false;
};

struct ExportResult {
    std::vector<ManifestRow> rows;  // every row added or kept, in order (with ExportOptions::keep_rows)
    int row_count = 0;              // the rows added or kept
    int failures = 0;               // the failures the rows record (a message's, an attachment's)
    // Why the export stopped before its end ("interrupted", a full disk, ...); empty when it ran through.
    std::string stopped;
};

// Every message of each source into `sink`. Several sources each get a folder named after the file.
// Throws Error only when the export cannot start; a message's failure is recorded in its row.
ExportResult Export(const std::vector<std::string>& sources, Sink& sink, const ExportOptions& options);

// The same into the folder `out` (made when missing), with manifest.jsonl beside the documents, as
// `tarnview export -o out` writes it. A run that ends without stopping writes the manifest's summary
// and removes the files an earlier export listed that this one did not write again.
ExportResult Export(const std::vector<std::string>& sources, const std::string& out,
                    const ExportOptions& options);

// The languages the header block has labels of (Windows LANGIDs), English first; any other language
// gets the row of its primary language, else English.
std::vector<uint16_t> HeaderLanguages();

// The filter's status code in words ("not enough memory", ...).
const char* StatusText(int32_t status);

}  // namespace tarnpst

#endif  // TARNPST_TARNPST_H_
