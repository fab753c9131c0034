// The kernel stand-in: files on POSIX, a tracking allocator, the object registry, temporary files,
// the mode and language answers, UTF-16 to UTF-8, the memory account, fonts and device contexts, and
// script runs of text.
//
// All state is process-wide and guarded by one mutex: the filter is single-threaded per call, but hosts
// and tests may run several calls side by side. The table of open files has a reader-writer lock of its
// own, so that reads and seeks on several threads (each on a handle of its own) do not queue on one lock.
#include "kernel/tarnkrn.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/uscript.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kernel/tarnkrn_control.h"

// The kernel's font and device-context objects; callers see only their addresses.
struct krn_font_object {
    std::u16string face;
    int32_t selections = 0;  // device contexts it is selected into
};

struct krn_dc_object {
    krn_font selected = nullptr;
};

namespace {

// Statuses this stand-in reports. The real kernel's internal codes are the toolkit's; these are the
// generic ones the filter passes through.
constexpr int32_t kStatusOk = 1;
constexpr int32_t kStatusFailure = -1;
constexpr int32_t kStatusBadArgument = -13;
constexpr int32_t kStatusAccountRefused = -1;

struct Origin {
    std::string file;
    int32_t line = 0;
};

struct Allocation {
    size_t size = 0;
    Origin origin;
};

// A read handle of a regular file keeps up to kReadWindows windows of the file, together at most
// kReadWindows * kReadWindowMax bytes (256 KiB). A store reader seeks before every page and block it
// reads, and a walk reads from a few places at once (the tree pages, the blocks, the heap of a table),
// each moving forward; so each place gets a window of its own, and a window that keeps being read
// past its end doubles its next refill. A refill starts at the position rounded down to
// kReadWindowAlign, so that a read just behind the last one (a block's neighbour) is often served too.
constexpr size_t kReadWindows = 8;
constexpr size_t kReadWindowMin = 1024;
constexpr size_t kReadWindowMax = 32 * 1024;
constexpr int64_t kReadWindowAlign = 1024;
// A read at least this large goes straight into the caller's buffer instead of through a window.
constexpr size_t kDirectReadSize = kReadWindowMax / 2;

// Reads into `out` from `at` (or from the descriptor's own position when `at` is negative) until
// `count` bytes, the end of the file, or an error. Returns the bytes read, or -1 when an error came
// before any byte.
int64_t ReadFully(int fd, unsigned char* out, size_t count, int64_t at) {
    size_t total = 0;
    while (total < count) {
        const ssize_t got = at < 0 ? ::read(fd, out + total, count - total)
                                   : ::pread(fd, out + total, count - total,
                                             static_cast<off_t>(at + static_cast<int64_t>(total)));
        if (got < 0) {
            if (errno == EINTR) continue;
            return total > 0 ? static_cast<int64_t>(total) : -1;
        }
        if (got == 0) break;
        total += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(total);
}

// Some bytes of the file, as they were when read.
struct ReadWindow {
    std::unique_ptr<unsigned char[]> bytes;  // kReadWindowMax bytes, plain heap memory
    int64_t start = 0;                       // file offset of bytes[0]
    size_t length = 0;                       // bytes that hold the file; 0: empty
    size_t refill = kReadWindowMin;          // bytes the last refill asked for
    uint64_t used = 0;                       // when last read from, for replacement

    int64_t end() const { return start + static_cast<int64_t>(length); }
    bool Holds(int64_t at) const { return length > 0 && at >= start && at < end(); }
};

// One open file. A read handle of a regular file keeps its own position and its read windows: seeks
// and reads give exactly what the descriptor would (the same positions, short reads and failures),
// but a seek within what the file held when it was opened, or within a window, and a read that a
// window holds make no system call. The windows are plain heap memory, not the tracked allocator's,
// so the allocation counts that tests assert do not see them. Written files and anything that is not
// a regular file go to the descriptor directly. Shared, so that a close on another thread cannot take
// the descriptor from under a read.
struct OpenFile {
    int fd = -1;
    std::string path;
    bool writable = false;
    bool buffered = false;  // a regular file opened for reading

    std::mutex mutex;         // guards what follows; taken after the kernel's mutex is released
    int64_t position = 0;     // the position the handle reports (buffered files)
    int64_t opened_size = 0;  // the size at open: every position up to it is one the file system allows
    std::vector<ReadWindow> windows;
    uint64_t reads = 0;

    OpenFile(int descriptor, std::string name, bool for_writing, bool regular, int64_t size)
        : fd(descriptor),
          path(std::move(name)),
          writable(for_writing),
          buffered(regular && !for_writing),
          opened_size(size) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() {
        if (fd >= 0) ::close(fd);
    }

    // Requires: `mutex` is held and the file is buffered.
    int64_t Seek(int64_t offset, int whence) {
        int64_t target = offset;
        if (whence == SEEK_END) {
            // The end is the file's, asked for every time: it may have changed since the open.
            const off_t moved = ::lseek(fd, static_cast<off_t>(offset), SEEK_END);
            if (moved < 0) return -1;
            position = moved;
            return position;
        }
        if (whence == SEEK_CUR && __builtin_add_overflow(position, offset, &target)) return -1;
        bool known = target >= 0 && target <= opened_size;
        for (const ReadWindow& w : windows)
            known = known || (w.length > 0 && target >= w.start && target <= w.end());
        if (!known) {
            // Let the descriptor judge the position: negative, or beyond what the file system allows.
            const off_t moved = ::lseek(fd, static_cast<off_t>(target), SEEK_SET);
            if (moved < 0) return -1;
            target = moved;
        }
        position = target;
        return position;
    }

    // Requires: `mutex` is held, the file is buffered and `count` is positive.
    int32_t Read(unsigned char* out, int32_t count) {
        const size_t wanted = static_cast<size_t>(count);
        size_t total = 0;
        ++reads;
        // What the windows hold, from the position on (a read may run from one window into the next).
        while (total < wanted) {
            ReadWindow* w = Find(position);
            if (w == nullptr) break;
            total += Take(*w, out + total, wanted - total);
        }
        if (total == wanted) return count;

        const size_t rest = wanted - total;
        if (rest < kDirectReadSize) {
            ReadWindow* w = nullptr;
            // Nothing at all where something was asked for is the end of a regular file.
            if (Refill(rest, w) == 0) return static_cast<int32_t>(total);
            if (w->Holds(position)) total += Take(*w, out + total, rest);
            if (total == wanted) return count;
        }
        // A large read, or one the refill could not complete (an error, a read cut short): straight
        // from the descriptor, as an unbuffered read would.
        const int64_t got = ReadFully(fd, out + total, wanted - total, position);
        if (got < 0) return total > 0 ? static_cast<int32_t>(total) : -1;
        position += got;
        return static_cast<int32_t>(total + static_cast<size_t>(got));
    }

  private:
    ReadWindow* Find(int64_t at) {
        for (ReadWindow& w : windows) {
            if (w.Holds(at)) return &w;
        }
        return nullptr;
    }

    // Copies what `w` holds at the position, up to `count` bytes, and moves the position past it.
    // Requires: w.Holds(position).
    size_t Take(ReadWindow& w, unsigned char* out, size_t count) {
        const size_t skip = static_cast<size_t>(position - w.start);
        const size_t n = std::min(count, w.length - skip);
        std::memcpy(out, w.bytes.get() + skip, n);
        position += static_cast<int64_t>(n);
        w.used = reads;
        return n;
    }

    // Fills a window from the position rounded down, for a read of `count` bytes there, with one
    // system call, and returns what that call returned. The window continues one whose end the
    // position lies just beyond (its refill doubles), or else is a free one or the least recently
    // read. A failed refill leaves it empty.
    ssize_t Refill(size_t count, ReadWindow*& filled) {
        ReadWindow* chosen = nullptr;
        size_t refill = kReadWindowMin;
        for (ReadWindow& w : windows) {
            if (w.length > 0 && position >= w.end() && position - w.end() < static_cast<int64_t>(w.refill)) {
                chosen = &w;
                refill = std::min(w.refill * 2, kReadWindowMax);
                break;
            }
        }
        if (chosen == nullptr && windows.size() < kReadWindows) {
            chosen = &windows.emplace_back();
            chosen->bytes = std::make_unique_for_overwrite<unsigned char[]>(kReadWindowMax);
        }
        if (chosen == nullptr) {
            chosen =
                &*std::min_element(windows.begin(), windows.end(),
                                   [](const ReadWindow& a, const ReadWindow& b) { return a.used < b.used; });
        }
        const int64_t start = position - position % kReadWindowAlign;
        const size_t reach = static_cast<size_t>(position - start) + count;
        refill = std::min(kReadWindowMax,
                          std::max(refill, (reach + kReadWindowMin - 1) / kReadWindowMin * kReadWindowMin));
        ssize_t got;
        do {
            got = ::pread(fd, chosen->bytes.get(), refill, static_cast<off_t>(start));
        } while (got < 0 && errno == EINTR);
        chosen->start = start;
        chosen->length = got > 0 ? static_cast<size_t>(got) : 0;
        chosen->refill = refill;
        chosen->used = reads;
        filled = chosen;
        return got;
    }
};

struct Fault {
    uint32_t countdown = 0;  // 0: disarmed; 1: the next call fails

    // True when this call is the one that must fail.
    bool Fire() {
        if (countdown == 0) return false;
        return --countdown == 0;
    }
};

uint16_t LanguageFromEnvironment() {
    const char* text = std::getenv("TARNKRN_LANGUAGE");
    if (text == nullptr || *text == '\0') return 0x0409;
    char* end = nullptr;
    unsigned long value = std::strtoul(text, &end, 0);
    if (end == text || *end != '\0' || value == 0 || value > 0xFFFF) return 0x0409;
    return static_cast<uint16_t>(value);
}

int32_t RepairsFromEnvironment() {
    const char* text = std::getenv("TARNKRN_REPAIRS");
    return text != nullptr && std::string_view(text) == "1" ? 1 : 0;
}

struct Kernel {
    std::mutex mutex;
    std::unordered_map<void*, Allocation> allocations;
    std::map<std::pair<int32_t, const void*>, Origin> objects;
    // Guards `files` alone, taken after `mutex` where both are held: reads and seeks of several
    // threads look their files up at once, and take `mutex` only while a fault is armed.
    std::shared_mutex files_mutex;
    std::map<krn_handle, std::shared_ptr<OpenFile>> files;
    std::set<std::string> temp_files;
    krn_handle next_handle = 3;
    uint64_t allocation_count = 0;

    int32_t mode = 0;
    uint16_t language = LanguageFromEnvironment();
    int32_t repairs = RepairsFromEnvironment();
    int64_t account_ceiling = 0;
    int64_t accounted = 0;

    Fault fail_allocation;
    Fault fail_open, fail_seek, fail_read, fail_write;
    std::atomic<bool> io_faults{false};  // a seek or read fault may be armed

    std::map<krn_font, std::unique_ptr<krn_font_object>> fonts;
    std::map<krn_dc, std::unique_ptr<krn_dc_object>> dcs;
    // Selected into every new device context, as the system's own default font is; never deleted.
    krn_font_object stock_font{u"System", 0};

    // Requires: the mutex is held. True for a font the caller may select: one of ours, or the stock font.
    bool KnownFont(krn_font font) { return font == &stock_font || fonts.count(font) == 1; }
};

Kernel& K() {
    // Never destroyed: hosts may call in from static destructors.
    static Kernel* kernel = new Kernel;
    return *kernel;
}

// UTF-16 (zero-terminated) to a UTF-8 path; empty on failure.
std::string PathFromUtf16(const char16_t* name) {
    if (name == nullptr) return {};
    int32_t units = 0;
    while (name[units] != 0) ++units;
    if (units == 0) return {};
    std::string out(static_cast<size_t>(units) * 3 + 1, '\0');
    int32_t written = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &written, reinterpret_cast<const UChar*>(name),
                units, &error);
    if (U_FAILURE(error)) return {};
    out.resize(static_cast<size_t>(written));
    return out;
}

// Writes `text` as zero-terminated UTF-16 into out[capacity]; false when it does not fit.
bool Utf16FromPath(const std::string& text, char16_t* out, int32_t capacity) {
    if (out == nullptr || capacity <= 0) return false;
    int32_t written = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8(reinterpret_cast<UChar*>(out), capacity, &written, text.data(),
                  static_cast<int32_t>(text.size()), &error);
    if (U_FAILURE(error) || written >= capacity) return false;
    out[written] = 0;
    return true;
}

// Requires: the kernel's mutex is held.
void* TrackedAllocate(Kernel& k, size_t bytes, bool zeroed, const char* file, int32_t line) {
    if (k.fail_allocation.Fire()) return nullptr;
    // malloc(0) may return null; a one-byte block keeps "null means failure" true.
    void* block = zeroed ? std::calloc(1, bytes == 0 ? 1 : bytes) : std::malloc(bytes == 0 ? 1 : bytes);
    if (block == nullptr) return nullptr;
    k.allocations[block] = Allocation{bytes, Origin{file ? file : "?", line}};
    ++k.allocation_count;
    return block;
}

// True for characters that belong to no one script and so join the run they stand in.
bool JoinsAnyRun(UScriptCode script) { return script == USCRIPT_COMMON || script == USCRIPT_INHERITED; }

// The file behind a handle, or null.
std::shared_ptr<OpenFile> FindFile(Kernel& k, krn_handle handle) {
    std::shared_lock lock(k.files_mutex);
    auto it = k.files.find(handle);
    return it == k.files.end() ? nullptr : it->second;
}

int32_t ReadCommon(krn_handle handle, void* buffer, int32_t count) {
    Kernel& k = K();
    if (k.io_faults.load(std::memory_order_acquire)) {
        std::lock_guard lock(k.mutex);
        if (k.fail_read.Fire()) return -1;
    }
    const std::shared_ptr<OpenFile> file = FindFile(k, handle);
    if (file == nullptr || buffer == nullptr || count < 0) return -1;
    auto* out = static_cast<unsigned char*>(buffer);
    if (count == 0) return 0;
    if (!file->buffered)
        return static_cast<int32_t>(ReadFully(file->fd, out, static_cast<size_t>(count), -1));
    std::lock_guard lock(file->mutex);
    return file->Read(out, count);
}

int32_t DeleteCommon(const char16_t* path) {
    std::string name = PathFromUtf16(path);
    if (name.empty()) return kStatusBadArgument;
    {
        Kernel& k = K();
        std::lock_guard lock(k.mutex);
        k.temp_files.erase(name);
    }
    return ::unlink(name.c_str()) == 0 ? kStatusOk : kStatusFailure;
}

}  // namespace

extern "C" {

krn_handle krnOpenFile(const char16_t* name, int32_t /*mode*/, int32_t /*share*/) {
    Kernel& k = K();
    {
        std::lock_guard lock(k.mutex);
        if (k.fail_open.Fire()) return KRN_NO_HANDLE;
    }
    std::string path = PathFromUtf16(name);
    if (path.empty()) return KRN_NO_HANDLE;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return KRN_NO_HANDLE;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        ::close(fd);
        return KRN_NO_HANDLE;
    }
    auto file = std::make_shared<OpenFile>(fd, std::move(path), false, S_ISREG(st.st_mode) != 0,
                                           static_cast<int64_t>(st.st_size));
    std::lock_guard lock(k.mutex);
    std::unique_lock files(k.files_mutex);
    krn_handle handle = k.next_handle++;
    k.files[handle] = std::move(file);
    return handle;
}

void krnCloseFile(krn_handle handle) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    std::unique_lock files(k.files_mutex);
    // The descriptor closes with the last user of the file.
    k.files.erase(handle);
}

int64_t krnSeekFile(krn_handle handle, int32_t offset_low, int32_t offset_high, int32_t origin) {
    Kernel& k = K();
    if (k.io_faults.load(std::memory_order_acquire)) {
        std::lock_guard lock(k.mutex);
        if (k.fail_seek.Fire()) return -1;
    }
    const std::shared_ptr<OpenFile> file = FindFile(k, handle);
    if (file == nullptr) return -1;
    int whence = origin == KRN_SEEK_START     ? SEEK_SET
                 : origin == KRN_SEEK_CURRENT ? SEEK_CUR
                 : origin == KRN_SEEK_END     ? SEEK_END
                                              : -1;
    if (whence < 0) return -1;
    uint64_t bits =
        (static_cast<uint64_t>(static_cast<uint32_t>(offset_high)) << 32) | static_cast<uint32_t>(offset_low);
    const auto offset = static_cast<int64_t>(bits);
    if (file->buffered) {
        std::lock_guard lock(file->mutex);
        return file->Seek(offset, whence);
    }
    off_t result = ::lseek(file->fd, static_cast<off_t>(offset), whence);
    return result < 0 ? -1 : static_cast<int64_t>(result);
}

int32_t krnReadFile(krn_handle handle, void* buffer, int32_t count) {
    return ReadCommon(handle, buffer, count);
}

int32_t krnReadStoreFile(krn_handle handle, void* buffer, int32_t count) {
    return ReadCommon(handle, buffer, count);
}

krn_handle krnCreateFile(const char16_t* path, int32_t /*flags*/) {
    Kernel& k = K();
    {
        std::lock_guard lock(k.mutex);
        if (k.fail_write.Fire()) return KRN_NO_HANDLE;
    }
    std::string name = PathFromUtf16(path);
    if (name.empty()) return KRN_NO_HANDLE;
    int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return KRN_NO_HANDLE;
    std::lock_guard lock(k.mutex);
    std::unique_lock files(k.files_mutex);
    krn_handle handle = k.next_handle++;
    k.files[handle] = std::make_shared<OpenFile>(fd, std::move(name), true, false, 0);
    return handle;
}

int32_t krnWriteFile(krn_handle handle, const void* bytes, int32_t count, int32_t /*flags*/) {
    std::shared_ptr<OpenFile> file;
    {
        Kernel& k = K();
        std::lock_guard lock(k.mutex);
        if (k.fail_write.Fire()) return 0;
        file = FindFile(k, handle);
        if (file == nullptr || !file->writable || bytes == nullptr || count < 0) return 0;
    }
    const int fd = file->fd;
    int32_t total = 0;
    const auto* in = static_cast<const unsigned char*>(bytes);
    while (total < count) {
        ssize_t put = ::write(fd, in + total, static_cast<size_t>(count - total));
        if (put < 0) {
            if (errno == EINTR) continue;
            break;
        }
        total += static_cast<int32_t>(put);
    }
    return total;
}

int32_t krnCloseCreatedFile(krn_handle handle, int32_t /*flags*/) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    std::unique_lock files(k.files_mutex);
    auto it = k.files.find(handle);
    if (it == k.files.end()) return kStatusBadArgument;
    // Closed here rather than by the last user, so that the caller learns whether the close worked.
    int rc = ::close(it->second->fd);
    it->second->fd = -1;
    k.files.erase(it);
    return rc == 0 ? kStatusOk : kStatusFailure;
}

int32_t krnDeleteFile(const char16_t* path) { return DeleteCommon(path); }

int32_t krnDeleteTempFile(const char16_t* path) { return DeleteCommon(path); }

int32_t krnTempFileName(const char16_t* directory, char16_t* out, int32_t capacity, int32_t /*flag*/,
                        const char16_t* prefix, const char16_t* extension) {
    if (out == nullptr || capacity <= 0) return kStatusBadArgument;
    std::string dir = PathFromUtf16(directory);
    if (dir.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        dir = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    }
    std::string ext = PathFromUtf16(extension);
    std::string suffix = ext.empty() ? std::string() : "." + ext;
    std::string pattern = dir + "/" + PathFromUtf16(prefix) + "XXXXXX" + suffix;
    int fd = ::mkstemps(pattern.data(), static_cast<int>(suffix.size()));
    if (fd < 0) return kStatusFailure;
    ::close(fd);
    if (!Utf16FromPath(pattern, out, capacity)) {
        ::unlink(pattern.c_str());
        return kStatusBadArgument;
    }
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.temp_files.insert(pattern);
    return kStatusOk;
}

int32_t krnErrorStatus(int32_t internal_code) { return internal_code; }

namespace {
// A thread's own settings (krnctlSetThreadSettings), answered without the lock.
struct ThreadSettings {
    bool active = false;
    int32_t mode = 0;
    uint16_t language = 0;
    int32_t repairs = 0;
};
thread_local ThreadSettings thread_settings;
}  // namespace

int32_t krnModeQuery(void) {
    if (thread_settings.active) return thread_settings.mode;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.mode;
}

uint16_t krnUiLanguage(void) {
    if (thread_settings.active) return thread_settings.language;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.language;
}

int32_t krnRepairsQuery(void) {
    if (thread_settings.active) return thread_settings.repairs;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.repairs;
}

namespace {
thread_local std::string repairs_made;
}  // namespace

void krnNoteRepairs(const char* names) { repairs_made = names != nullptr ? names : ""; }

int32_t krnUtf16ToUtf8(const char16_t* source, int32_t units, char* dest, int32_t capacity) {
    if (source == nullptr || dest == nullptr || units <= 0 || capacity <= 0) return 0;
    int32_t written = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(dest, capacity, &written, reinterpret_cast<const UChar*>(source), units, &error);
    // U_STRING_NOT_TERMINATED_WARNING is fine: the caller owns termination.
    if (U_FAILURE(error) || written > capacity) return 0;
    return written;
}

void* krnAlloc(size_t count, size_t size, const char* file, int32_t line) {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return TrackedAllocate(k, count * size, false, file, line);
}

void* krnAllocZeroed(size_t count, size_t size, const char* file, int32_t line) {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return TrackedAllocate(k, count * size, true, file, line);
}

void* krnRealloc(void* block, size_t size, const char* file, int32_t line) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    if (block == nullptr) return TrackedAllocate(k, size, false, file, line);
    auto it = k.allocations.find(block);
    if (it == k.allocations.end()) {
        std::fprintf(stderr, "tarnkrn: realloc of unknown block %p at %s:%d\n", block, file ? file : "?",
                     line);
        return nullptr;
    }
    if (k.fail_allocation.Fire()) return nullptr;
    void* moved = std::realloc(block, size == 0 ? 1 : size);
    if (moved == nullptr) return nullptr;
    k.allocations.erase(it);
    k.allocations[moved] = Allocation{size, Origin{file ? file : "?", line}};
    ++k.allocation_count;
    return moved;
}

void krnFree(void* block, const char* file, int32_t line) {
    if (block == nullptr) return;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto it = k.allocations.find(block);
    if (it == k.allocations.end()) {
        // Freeing what we never handed out is a bug in the caller; refuse rather than corrupt the heap.
        std::fprintf(stderr, "tarnkrn: free of unknown block %p at %s:%d\n", block, file ? file : "?", line);
        return;
    }
    k.allocations.erase(it);
    std::free(block);
}

int32_t krnRegisterObject(int32_t kind, const void* object, int32_t line, const char* file) {
    if (object == nullptr) return kStatusBadArgument;
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto [it, inserted] = k.objects.emplace(std::make_pair(kind, object), Origin{file ? file : "?", line});
    return inserted ? kStatusOk : kStatusFailure;
}

int32_t krnUnregisterObject(int32_t kind, const void* object, int32_t /*line*/, const char* /*file*/) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.objects.erase(std::make_pair(kind, object)) == 1 ? kStatusOk : kStatusFailure;
}

int32_t krnAccountMemory(int64_t delta) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    int64_t next = k.accounted + delta;
    if (delta > 0 && k.account_ceiling > 0 && next > k.account_ceiling) return kStatusAccountRefused;
    k.accounted = next < 0 ? 0 : next;
    return kStatusOk;
}

krn_font krnCreateFont(const KrnFontDescription* description) {
    if (description == nullptr) return nullptr;
    auto font = std::make_unique<krn_font_object>();
    for (int i = 0; i < KRN_FACE_SIZE - 1 && description->face_name[i] != 0; ++i) {
        font->face.push_back(description->face_name[i]);
    }
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    krn_font handle = font.get();
    k.fonts.emplace(handle, std::move(font));
    return handle;
}

int32_t krnDeleteFont(krn_font font) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto it = k.fonts.find(font);
    if (it == k.fonts.end() || it->second->selections != 0) return kStatusBadArgument;
    k.fonts.erase(it);
    return kStatusOk;
}

krn_dc krnScreenDc(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto dc = std::make_unique<krn_dc_object>();
    dc->selected = &k.stock_font;
    krn_dc handle = dc.get();
    k.dcs.emplace(handle, std::move(dc));
    return handle;
}

int32_t krnReleaseScreenDc(krn_dc dc) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto it = k.dcs.find(dc);
    if (it == k.dcs.end()) return kStatusBadArgument;
    // Whatever is still selected is free to be deleted once its context is gone.
    --it->second->selected->selections;
    k.dcs.erase(it);
    return kStatusOk;
}

const char16_t* krnScriptRunEnd(const char16_t* position, int32_t remaining) {
    if (position == nullptr || remaining <= 0) return position;
    UScriptCode run_script = USCRIPT_COMMON;
    int32_t at = 0;
    while (at < remaining) {
        const int32_t start = at;
        UChar32 c;
        U16_NEXT(position, at, remaining, c);  // an unpaired surrogate comes back as itself
        UErrorCode error = U_ZERO_ERROR;
        UScriptCode script = uscript_getScript(c, &error);
        if (U_FAILURE(error) || JoinsAnyRun(script)) continue;
        if (JoinsAnyRun(run_script)) {
            run_script = script;
        } else if (script != run_script) {
            return position + start;
        }
    }
    return position + remaining;
}

krn_font krnSelectFont(krn_dc dc, krn_font font) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto it = k.dcs.find(dc);
    if (it == k.dcs.end() || !k.KnownFont(font)) return nullptr;
    krn_font previous = it->second->selected;
    --previous->selections;
    ++font->selections;
    it->second->selected = font;
    return previous;
}

int32_t krnSelectedFace(krn_dc dc, char16_t* out, int32_t capacity) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto it = k.dcs.find(dc);
    if (it == k.dcs.end() || out == nullptr) return kStatusBadArgument;
    const std::u16string& face = it->second->selected->face;
    if (capacity <= 0 || face.size() >= static_cast<size_t>(capacity)) return kStatusBadArgument;
    std::copy(face.begin(), face.end(), out);
    out[face.size()] = 0;
    return static_cast<int32_t>(face.size());
}

// ---- Controls ------------------------------------------------------------------------------------

void krnctlSetMode(int32_t mode) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.mode = mode;
}

void krnctlSetLanguage(uint16_t langid) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.language = langid;
}

void krnctlSetRepairs(int32_t repairs) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.repairs = repairs != 0 ? 1 : 0;
}

void krnctlSetThreadSettings(int32_t active, int32_t mode, uint16_t langid, int32_t repairs) {
    thread_settings = ThreadSettings{active != 0, mode, langid, repairs != 0 ? 1 : 0};
}

int32_t krnctlThreadSettings(int32_t* mode, uint16_t* langid, int32_t* repairs) {
    if (!thread_settings.active) return 0;
    if (mode != nullptr) *mode = thread_settings.mode;
    if (langid != nullptr) *langid = thread_settings.language;
    if (repairs != nullptr) *repairs = thread_settings.repairs;
    return 1;
}

size_t krnctlRepairsMade(char* out, size_t capacity) {
    if (out != nullptr && capacity > 0) {
        const size_t n = std::min(capacity - 1, repairs_made.size());
        std::memcpy(out, repairs_made.data(), n);
        out[n] = '\0';
    }
    return repairs_made.size();
}

void krnctlSetAccountCeiling(int64_t bytes) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.account_ceiling = bytes < 0 ? 0 : bytes;
}

int64_t krnctlAccountedBytes(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.accounted;
}

void krnctlFailAllocation(uint32_t nth) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.fail_allocation.countdown = nth;
}

void krnctlFailFileOperation(int32_t operation, uint32_t nth) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    switch (operation) {
        case KRNCTL_OPEN:
            k.fail_open.countdown = nth;
            break;
        case KRNCTL_SEEK:
            k.fail_seek.countdown = nth;
            k.io_faults = k.io_faults || nth != 0;
            break;
        case KRNCTL_READ:
            k.fail_read.countdown = nth;
            k.io_faults = k.io_faults || nth != 0;
            break;
        case KRNCTL_WRITE:
            k.fail_write.countdown = nth;
            break;
        default:
            break;
    }
}

void krnctlReset(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    k.mode = 0;
    k.language = LanguageFromEnvironment();
    k.repairs = RepairsFromEnvironment();
    k.account_ceiling = 0;
    k.fail_allocation = k.fail_open = k.fail_seek = k.fail_read = k.fail_write = Fault{};
    k.io_faults = false;
}

size_t krnctlOutstandingAllocations(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.allocations.size();
}

uint64_t krnctlAllocationCount(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.allocation_count;
}

size_t krnctlLeakReport(char* out, size_t capacity) {
    std::string report;
    {
        Kernel& k = K();
        std::lock_guard lock(k.mutex);
        char line[512];
        for (const auto& [block, info] : k.allocations) {
            std::snprintf(line, sizeof line, "allocation of %zu bytes at %s:%d\n", info.size,
                          info.origin.file.c_str(), info.origin.line);
            report += line;
        }
        for (const auto& [key, origin] : k.objects) {
            std::snprintf(line, sizeof line, "object of kind %d registered at %s:%d\n", key.first,
                          origin.file.c_str(), origin.line);
            report += line;
        }
        std::shared_lock files(k.files_mutex);
        for (const auto& [handle, file] : k.files) {
            report += "file handle " + std::to_string(handle) + " still open: " + file->path + "\n";
        }
        for (const auto& [handle, font] : k.fonts) {
            std::string face;
            for (char16_t unit : font->face) face.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
            report += "font \"" + face + "\" not deleted\n";
        }
        if (!k.dcs.empty())
            report += std::to_string(k.dcs.size()) + " screen device context(s) not released\n";
        for (const auto& path : k.temp_files) {
            if (::access(path.c_str(), F_OK) == 0) report += "temporary file not deleted: " + path + "\n";
        }
    }
    if (out != nullptr && capacity > 0) {
        size_t n = report.size() < capacity - 1 ? report.size() : capacity - 1;
        std::memcpy(out, report.data(), n);
        out[n] = '\0';
    }
    return report.size();
}

}  // extern "C"
