#include "api/export_output.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace tarn::api {
namespace {

namespace fs = std::filesystem;

bool Contained(const fs::path& path) {
    if (path.empty() || path.is_absolute() || path.has_root_name()) return false;
    for (const fs::path& part : path) {
        if (part == ".." || part == "." || part.empty()) return false;
    }
    return true;
}

std::string Reason(const fs::path& path, int error) { return path.string() + ": " + std::strerror(error); }

// A descriptor that closes with its holder.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

struct DigestContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestPtr = std::unique_ptr<EVP_MD_CTX, DigestContext>;

DigestPtr NewSha256() {
    DigestPtr context(EVP_MD_CTX_new());
    if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 is not available");
    return context;
}

std::string Finish(EVP_MD_CTX* context) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_DigestFinal_ex(context, digest, &size) != 1) throw std::runtime_error("SHA-256 failed");
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < size; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

// The folder root/`dir`, each component entered without following a symbolic link; -1 when any is
// missing or is not a folder.
int OpenFolder(const fs::path& root, const fs::path& dir) {
    int at = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const fs::path& part : dir) {
        if (at < 0) return -1;
        const int next = ::openat(at, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        ::close(at);
        at = next;
    }
    return at;
}

}  // namespace

std::string Sha256Hex(std::span<const std::byte> bytes) {
    DigestPtr context = NewSha256();
    if (EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()) != 1)
        throw std::runtime_error("SHA-256 failed");
    return Finish(context.get());
}

OutputTree::OutputTree(fs::path root, bool replace) : root_(std::move(root)), replace_(replace) {}

OutputTree::~OutputTree() {
    // Files never committed keep no name.
    for (const Pending& p : pending_) ::unlinkat(*p.folder, p.temporary.c_str(), 0);
}

std::string OutputTree::MakeDirectory(const fs::path& dir) {
    if (!dir.empty() && !Contained(dir)) return "refused path " + dir.string();
    fs::path at = root_;
    for (const fs::path& part : dir) {
        at /= part;
        if (made_.count(at.string()) != 0) continue;
        struct stat info {};
        if (::lstat(at.c_str(), &info) == 0) {
            if (!S_ISDIR(info.st_mode)) return at.string() + ": exists and is not a folder";
        } else if (::mkdir(at.c_str(), 0755) != 0 && errno != EEXIST) {
            return Reason(at, errno);
        }
        made_.insert(at.string());
    }
    return {};
}

int OutputTree::Folder(const fs::path& dir, std::string* error) {
    // Messages come folder by folder: the folder stays open, and each file is made in it by name.
    if (folder_fd_ != nullptr && folder_ == dir) return *folder_fd_;
    folder_fd_.reset();
    if (*error = MakeDirectory(dir); !error->empty()) return -1;
    const fs::path folder = root_ / dir;
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        *error = Reason(folder, errno);
        return -1;
    }
    // Shared with the files waiting for their names in it.
    folder_fd_ = std::shared_ptr<int>(new int(fd), [](int* held) {
        ::close(*held);
        delete held;
    });
    folder_ = dir;
    return fd;
}

std::string OutputTree::TemporaryName() {
    // A leading dot: no name PortableName makes starts with one, so a temporary never takes a real
    // output's name, and the process id keeps two exports into one folder apart.
    return ".tarnview-" + std::to_string(::getpid()) + "-" + std::to_string(++temporaries_) + ".part";
}

std::string OutputTree::Publish(int folder, const std::string& temporary, const fs::path& file) {
    const std::string name = file.filename().string();
    if (replace_) {
        if (::renameat(folder, temporary.c_str(), folder, name.c_str()) != 0)
            return Reason(root_ / file, errno);
    } else if (::renameat2(folder, temporary.c_str(), folder, name.c_str(), RENAME_NOREPLACE) != 0) {
        // A file system without the no-replace rename: a hard link fails the same way when the name is taken.
        if (errno != EINVAL && errno != ENOSYS) {
            return errno == EEXIST ? (root_ / file).string() + ": exists (--force replaces it)"
                                   : Reason(root_ / file, errno);
        }
        if (::linkat(folder, temporary.c_str(), folder, name.c_str(), 0) != 0) {
            return errno == EEXIST ? (root_ / file).string() + ": exists (--force replaces it)"
                                   : Reason(root_ / file, errno);
        }
        ::unlinkat(folder, temporary.c_str(), 0);
    }
    if (watched_.count(file.string()) != 0) rewritten_.insert(file.string());
    return {};
}

std::string OutputTree::WriteFile(const fs::path& file, std::span<const std::byte> bytes) {
    if (!Contained(file)) return "refused path " + file.string();
    std::string error;
    const int folder = Folder(file.parent_path(), &error);
    if (folder < 0) return error;
    const fs::path shown = root_ / file;
    struct stat existing {};
    if (!replace_ && ::fstatat(folder, file.filename().c_str(), &existing, AT_SYMLINK_NOFOLLOW) == 0)
        return shown.string() + ": exists (--force replaces it)";
    const std::string temporary = TemporaryName();
    Descriptor fd(
        ::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (fd.get() < 0) return Reason(shown, errno);
    const auto* at = reinterpret_cast<const char*>(bytes.data());
    size_t left = bytes.size();
    int failed = 0;
    while (left > 0 && failed == 0) {
        const ssize_t n = ::write(fd.get(), at, left);
        if (n < 0 && errno == EINTR) continue;
        // A write that makes no progress is a full disk whatever errno says.
        if (n <= 0) failed = n < 0 ? errno : ENOSPC;
        if (n > 0) at += n, left -= static_cast<size_t>(n);
    }
    if (failed == 0 && ::close(fd.release()) != 0) failed = errno;
    if (failed != 0) {
        ::unlinkat(folder, temporary.c_str(), 0);
        error = Reason(shown, failed);
        if (out_of_space_.empty() && (failed == ENOSPC || failed == EFBIG || failed == EDQUOT))
            out_of_space_ = error;
        return error;
    }
    pending_.push_back({folder_fd_, temporary, file});
    pending_bytes_ += bytes.size();
    return {};
}

std::string OutputTree::Commit() {
    if (pending_.empty()) return {};
    // The bytes reach the disk before any name does, so a crash cannot leave a named file cut short;
    // one flush of the file system serves every file waiting.
    std::string error;
    if (::syncfs(*pending_.front().folder) != 0) error = Reason(root_, errno);
    for (const Pending& p : pending_) {
        if (error.empty()) error = Publish(*p.folder, p.temporary, p.file);
        // A temporary not renamed is still there.
        if (!error.empty()) ::unlinkat(*p.folder, p.temporary.c_str(), 0);
    }
    pending_.clear();
    pending_bytes_ = 0;
    return error;
}

int OutputTree::CreateForAppend(const fs::path& file, std::string* error) {
    if (!Contained(file)) {
        *error = "refused path " + file.string();
        return -1;
    }
    const int folder = Folder(file.parent_path(), error);
    if (folder < 0) return -1;
    const std::string temporary = TemporaryName();
    Descriptor fd(::openat(folder, temporary.c_str(),
                           O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (fd.get() < 0) {
        *error = Reason(root_ / file, errno);
        return -1;
    }
    if (*error = Publish(folder, temporary, file); !error->empty()) {
        ::unlinkat(folder, temporary.c_str(), 0);
        return -1;
    }
    return fd.release();
}

std::optional<FileDigest> OutputTree::Digest(const fs::path& file) const {
    if (!Contained(file)) return std::nullopt;
    const Descriptor folder(OpenFolder(root_, file.parent_path()));
    if (folder.get() < 0) return std::nullopt;
    const Descriptor fd(::openat(folder.get(), file.filename().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    DigestPtr context = NewSha256();
    FileDigest digest;
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        if (EVP_DigestUpdate(context.get(), buffer, static_cast<size_t>(n)) != 1) return std::nullopt;
        digest.bytes += static_cast<uint64_t>(n);
    }
    digest.sha256 = Finish(context.get());
    return digest;
}

void OutputTree::Remove(const fs::path& file) {
    if (!Contained(file)) return;
    // A folder removed below may be the one kept open, or one known to exist.
    folder_fd_.reset();
    made_.clear();
    for (fs::path at = file; !at.empty(); at = at.parent_path()) {
        const Descriptor folder(OpenFolder(root_, at.parent_path()));
        if (folder.get() < 0) return;
        if (::unlinkat(folder.get(), at.filename().c_str(), at == file ? 0 : AT_REMOVEDIR) != 0) return;
    }
}

}  // namespace tarn::api
