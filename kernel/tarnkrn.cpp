// The kernel stand-in: files on POSIX, a tracking allocator, the object registry, temporary files,
// the mode and language answers, UTF-16 to UTF-8, the memory account, fonts and device contexts, and
// script runs of text.
//
// All state is process-wide and guarded by one mutex: the filter is single-threaded per call, but hosts
// and tests may run several calls side by side.
#include "kernel/tarnkrn.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unicode/uscript.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>

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

struct OpenFile {
    int fd = -1;
    std::string path;
    bool writable = false;
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

struct Kernel {
    std::mutex mutex;
    std::unordered_map<void*, Allocation> allocations;
    std::map<std::pair<int32_t, const void*>, Origin> objects;
    std::map<krn_handle, OpenFile> files;
    std::set<std::string> temp_files;
    krn_handle next_handle = 3;
    uint64_t allocation_count = 0;

    int32_t mode = 0;
    uint16_t language = LanguageFromEnvironment();
    int64_t account_ceiling = 0;
    int64_t accounted = 0;

    Fault fail_allocation;
    Fault fail_open, fail_seek, fail_read, fail_write;

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

int32_t ReadCommon(krn_handle handle, void* buffer, int32_t count) {
    int fd;
    {
        Kernel& k = K();
        std::lock_guard lock(k.mutex);
        if (k.fail_read.Fire()) return -1;
        auto it = k.files.find(handle);
        if (it == k.files.end() || buffer == nullptr || count < 0) return -1;
        fd = it->second.fd;
    }
    int32_t total = 0;
    auto* out = static_cast<unsigned char*>(buffer);
    while (total < count) {
        ssize_t got = ::read(fd, out + total, static_cast<size_t>(count - total));
        if (got < 0) {
            if (errno == EINTR) continue;
            return total > 0 ? total : -1;
        }
        if (got == 0) break;
        total += static_cast<int32_t>(got);
    }
    return total;
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
    std::lock_guard lock(k.mutex);
    krn_handle handle = k.next_handle++;
    k.files[handle] = OpenFile{fd, path, false};
    return handle;
}

void krnCloseFile(krn_handle handle) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    auto it = k.files.find(handle);
    if (it == k.files.end()) return;
    ::close(it->second.fd);
    k.files.erase(it);
}

int64_t krnSeekFile(krn_handle handle, int32_t offset_low, int32_t offset_high, int32_t origin) {
    int fd;
    {
        Kernel& k = K();
        std::lock_guard lock(k.mutex);
        if (k.fail_seek.Fire()) return -1;
        auto it = k.files.find(handle);
        if (it == k.files.end()) return -1;
        fd = it->second.fd;
    }
    int whence = origin == KRN_SEEK_START     ? SEEK_SET
                 : origin == KRN_SEEK_CURRENT ? SEEK_CUR
                 : origin == KRN_SEEK_END     ? SEEK_END
                                              : -1;
    if (whence < 0) return -1;
    uint64_t bits =
        (static_cast<uint64_t>(static_cast<uint32_t>(offset_high)) << 32) | static_cast<uint32_t>(offset_low);
    off_t result = ::lseek(fd, static_cast<off_t>(static_cast<int64_t>(bits)), whence);
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
    krn_handle handle = k.next_handle++;
    k.files[handle] = OpenFile{fd, name, true};
    return handle;
}

int32_t krnWriteFile(krn_handle handle, const void* bytes, int32_t count, int32_t /*flags*/) {
    int fd;
    {
        Kernel& k = K();
        std::lock_guard lock(k.mutex);
        if (k.fail_write.Fire()) return 0;
        auto it = k.files.find(handle);
        if (it == k.files.end() || !it->second.writable || bytes == nullptr || count < 0) return 0;
        fd = it->second.fd;
    }
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
    auto it = k.files.find(handle);
    if (it == k.files.end()) return kStatusBadArgument;
    int rc = ::close(it->second.fd);
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

int32_t krnModeQuery(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.mode;
}

uint16_t krnUiLanguage(void) {
    Kernel& k = K();
    std::lock_guard lock(k.mutex);
    return k.language;
}

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
            break;
        case KRNCTL_READ:
            k.fail_read.countdown = nth;
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
    k.account_ceiling = 0;
    k.fail_allocation = k.fail_open = k.fail_seek = k.fail_read = k.fail_write = Fault{};
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
        for (const auto& [handle, file] : k.files) {
            report += "file handle " + std::to_string(handle) + " still open: " + file.path + "\n";
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
