// manifest.jsonl of tarnview export: one JSON object per message, each written out as soon as its
// message is done, so that an export cut short by a crash, a signal or a full disk lists exactly the
// files it finished; a last object records the summary of an export that ran to its end. The reading
// side serves --resume and --force, which take what an earlier export listed.
#ifndef TARN_API_EXPORT_MANIFEST_H_
#define TARN_API_EXPORT_MANIFEST_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnpst/tarnpst.h"

namespace tarn::api {

// The rows as the public interface gives them.
using AttachmentRow = tarnpst::ManifestAttachment;
using Row = tarnpst::ManifestRow;

// A file a manifest lists, relative to the output folder.
struct ListedFile {
    std::string file;
    uint64_t bytes = 0;
    std::string sha256;
};

// A message's row as an earlier export wrote it.
struct ListedRow {
    std::string line;  // as written, without its line end
    std::string source;
    std::optional<int64_t> index;
    std::optional<uint64_t> node;
    // Exported without an error anywhere in the row, every file with its size and checksum: the row
    // stands as it is once its files are found so.
    bool clean = false;
    std::vector<ListedFile> files;  // the files it lists: the document first, its PDF, the attachments
    bool pdf = false;               // a PDF among them
};

// The message rows of the manifest at `path`, in order. A line that is not a whole JSON object (the
// last one of an export that was killed as it wrote it) and the summary are passed over. Nothing when
// the file cannot be read, with the reason in `error`.
std::optional<std::vector<ListedRow>> ReadManifest(const std::filesystem::path& path, std::string* error);

// The manifest being written. Rows wait until Flush(), which writes them in one write: the export
// flushes once the files the rows list have their names, so a row is never ahead of its files.
class Manifest {
  public:
    // Takes `fd`, opened for appending; `name` is how errors name the file.
    Manifest(int fd, std::string name);
    ~Manifest();
    Manifest(const Manifest&) = delete;
    Manifest& operator=(const Manifest&) = delete;

    // Adds `row`, or a row an earlier export wrote as it stands.
    void Add(const Row& row);
    void Keep(const ListedRow& row);
    // Writes the rows added since the last flush; false when they cannot be written, with the reason
    // in error(). Drop() forgets them instead.
    bool Flush();
    void Drop() { waiting_.clear(); }
    // Writes the rows waiting and the summary and closes the file; false when that fails.
    bool Finish();

    int failures() const { return failures_; }
    int rows() const { return rows_; }
    const std::string& error() const { return error_; }

  private:
    bool Write(const std::string& lines);

    int fd_;
    std::string name_;
    std::string error_;
    std::string waiting_;  // rows added and not yet written, each with its line end
    int rows_ = 0;
    int exported_ = 0;
    int attachments_ = 0;
    int failures_ = 0;
    uint64_t bytes_ = 0;
};

}  // namespace tarn::api

#endif  // TARN_API_EXPORT_MANIFEST_H_
