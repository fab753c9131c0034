#include "pst/image_files.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/status.h"
#include "kernel/tarnkrn.h"
#include "platform/directory.h"
#include "platform/unicode.h"

namespace tarn {
namespace {

// Internal failure codes the kernel's error routine turns into the status to return.
constexpr int32_t kCannotCreateFile = -1490;
constexpr int32_t kCannotWriteFile = -5;
constexpr char16_t kDirectoryPrefix[] = u"pim";
constexpr char16_t kImagePrefix[] = u"img";
// The kernel's write takes a signed 32-bit count; larger images go in pieces of this size.
constexpr size_t kWritePiece = 1u << 30;

size_t WideLength(const char16_t* text, size_t capacity) {
    return static_cast<size_t>(std::find(text, text + capacity, u'\0') - text);
}

}  // namespace

int32_t RecordImageFiles::MakeDirectory() {
    // The kernel hands out unique names only as files: the file is taken for its name, deleted, and a
    // directory made in its place.
    char16_t* directory = record_->temp_directory;
    if (const int32_t status =
            krnTempFileName(nullptr, directory, kTempPathUnits, 1, kDirectoryPrefix, nullptr);
        status != kStatusOk) {
        directory[0] = u'\0';
        return status;
    }
    krnDeleteTempFile(directory);
    if (!platform::CreateDirectoryW(directory)) {
        directory[0] = u'\0';
        return krnErrorStatus(kCannotCreateFile);
    }
    return kStatusOk;
}

int32_t RecordImageFiles::ListName(const char16_t* path) {
    const size_t units = WideLength(path, kTempPathUnits) + 1;
    auto* copy = static_cast<char16_t*>(krnAlloc(units, sizeof(char16_t), __FILE__, __LINE__));
    if (copy == nullptr) return kStatusFailure;
    std::memcpy(copy, path, units * sizeof(char16_t));
    if (record_->temp_names.Append(&copy, sizeof copy) != kStatusOk) {
        krnFree(copy, __FILE__, __LINE__);
        return kStatusFailure;
    }
    return kStatusOk;
}

int32_t RecordImageFiles::Write(const std::byte* data, size_t size, std::string* name) {
    if (record_ == nullptr || name == nullptr || (data == nullptr && size > 0)) return kStatusBadArgument;
    if (record_->temp_directory[0] == u'\0') {
        if (const int32_t status = MakeDirectory(); status != kStatusOk) return status;
    }

    char16_t path[kTempPathUnits] = {};
    if (const int32_t status =
            krnTempFileName(record_->temp_directory, path, kTempPathUnits, 1, kImagePrefix, nullptr);
        status != kStatusOk)
        return status;
    if (ListName(path) != kStatusOk) {
        krnDeleteTempFile(path);  // not listed, so nothing else would delete it
        return kStatusFailure;
    }

    const krn_handle file = krnCreateFile(path, 0);
    if (file == KRN_NO_HANDLE) return krnErrorStatus(kCannotCreateFile);
    int32_t status = kStatusOk;
    for (size_t done = 0; done < size && status == kStatusOk;) {
        const auto piece = static_cast<int32_t>(std::min(size - done, kWritePiece));
        if (krnWriteFile(file, data + done, piece, 0) != piece) status = krnErrorStatus(kCannotWriteFile);
        done += static_cast<size_t>(piece);
    }
    krnCloseCreatedFile(file, 0);
    if (status != kStatusOk) return status;

    // The document refers to the image by its bare name: the document is written into the same directory.
    const std::u16string_view full(path, WideLength(path, kTempPathUnits));
    const size_t separator = full.find_last_of(u"/\\");
    const auto utf8 =
        platform::Utf8FromUtf16(separator == std::u16string_view::npos ? full : full.substr(separator + 1));
    if (!utf8) return kStatusFailure;  // the kernel made the name, so it is valid UTF-16
    *name = *utf8;
    return kStatusOk;
}

}  // namespace tarn
