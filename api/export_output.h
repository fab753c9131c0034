// The files tarnview export writes under its output folder. A file appears under its final name only
// when it is whole: its bytes go to a temporary name in the same folder, and at the next commit the
// file system is flushed to the disk and the temporary files are renamed to their names. A full disk,
// a file-size limit or a crash leaves at most temporary files (removed when a write fails), never a
// short file under a name the manifest lists. Replacing an existing name replaces the directory entry
// (a link, a symbolic link) and never writes through it.
#ifndef TARN_API_EXPORT_OUTPUT_H_
#define TARN_API_EXPORT_OUTPUT_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tarn::api {

// The SHA-256 of `bytes`, in lower-case hex.
std::string Sha256Hex(std::span<const std::byte> bytes);

// What a file holds: its size and its SHA-256.
struct FileDigest {
    uint64_t bytes = 0;
    std::string sha256;
};

// Every file and folder written goes through here. Paths are relative to the root and made of
// components that PortableName made, so none can leave it; they are checked again all the same (no
// component is "..", none is absolute), and no folder is entered through a symbolic link.
class OutputTree {
  public:
    // With `replace`, a file that exists is replaced; without it, it stops that write.
    OutputTree(std::filesystem::path root, bool replace);
    ~OutputTree();
    OutputTree(const OutputTree&) = delete;
    OutputTree& operator=(const OutputTree&) = delete;

    // Creates root/`dir` and the folders above it; an empty string, or the reason.
    std::string MakeDirectory(const std::filesystem::path& dir);

    // Writes `bytes` to root/`file` as a whole or not at all: under a temporary name until Commit();
    // an empty string, or the reason (which names the file).
    std::string WriteFile(const std::filesystem::path& file, std::span<const std::byte> bytes);

    // Flushes the files written since the last commit to the disk and gives them their names; an
    // empty string, or the reason, after which the files not named are removed. Batched so, the flush
    // costs one call per batch rather than one per file.
    std::string Commit();
    size_t pending() const { return pending_.size(); }
    uint64_t pending_bytes() const { return pending_bytes_; }

    // Creates root/`file` empty, as WriteFile would, and opens it for appending; the descriptor, or -1
    // and the reason in `error`.
    int CreateForAppend(const std::filesystem::path& file, std::string* error);

    // The size and SHA-256 of root/`file`, when it is a regular file that can be read (not followed
    // through a symbolic link).
    std::optional<FileDigest> Digest(const std::filesystem::path& file) const;

    // Removes root/`file` (a link itself, not what it points to), then its folders up to the root
    // while they are empty. Failures are ignored: what cannot be removed stays.
    void Remove(const std::filesystem::path& file);

    // Whether a write failed for want of space (a full disk, a quota, a file-size limit): nothing
    // more will fit. The first such failure, as WriteFile gave it.
    bool out_of_space() const { return !out_of_space_.empty(); }
    const std::string& space_error() const { return out_of_space_; }

    // Files (relative to the root) to watch for: rewritten() says which of them were written again.
    // Only these are remembered, so that memory does not grow with the files written.
    void Watch(std::set<std::string> files) { watched_ = std::move(files); }
    const std::set<std::string>& rewritten() const { return rewritten_; }

  private:
    // Opens the folder `dir` (relative to the root) and keeps it open; the descriptor, or -1 and the
    // reason.
    int Folder(const std::filesystem::path& dir, std::string* error);
    // Moves the temporary `temporary` in the open folder to `name` there; an empty string, or the reason.
    std::string Publish(int folder_fd, const std::string& temporary, const std::filesystem::path& file);
    std::string TemporaryName();

    std::filesystem::path root_;
    bool replace_;
    std::set<std::string> made_;
    std::set<std::string> watched_;
    std::set<std::string> rewritten_;
    std::filesystem::path folder_;  // the folder the descriptor below is open on, relative to the root
    std::shared_ptr<int> folder_fd_;

    struct Pending {
        std::shared_ptr<int> folder;
        std::string temporary;
        std::filesystem::path file;
    };
    std::vector<Pending> pending_;
    uint64_t pending_bytes_ = 0;
    uint64_t temporaries_ = 0;
    std::string out_of_space_;
};

}  // namespace tarn::api

#endif  // TARN_API_EXPORT_OUTPUT_H_
