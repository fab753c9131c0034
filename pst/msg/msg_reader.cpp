#include "pst/msg/msg_reader.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "cfb/compound_stream.h"
#include "common/apiutils.h"
#include "common/little_endian.h"
#include "common/status.h"
#include "platform/codepage.h"
#include "pst/render/compressed_rtf.h"
#include "pst/render/header_labels.h"

namespace tarn {
namespace {

constexpr std::string_view kUnicodeSuffix = "001F";
constexpr std::string_view kEightBitSuffix = "001E";
// The top-level property stream's header is 32 bytes; nothing is scanned in a shorter stream.
constexpr size_t kPropertyHeaderSize = 32;
// Deliberately the header's second half: entries are examined from here on, so a value that happens to
// sit in the header's reserved and count fields is examined like an entry. Files have always been read
// this way, and a property written there by a writer that got the header size wrong is still found.
constexpr size_t kFirstPropertySlot = 16;
constexpr size_t kCompTypeOffset = 8;
// Two zero bytes behind every stream read whole, so that narrow and UTF-16 text alike are terminated.
constexpr size_t kStreamTerminator = 2;
// Streams are copied in pieces of this size; the buffer is reserved once beforehand.
constexpr size_t kReadPiece = 64 * 1024;

// The first entry of the property stream with this type and id: its 8 value bytes, or none.
std::optional<uint64_t> FindFixedProperty(const CountedString& stream, uint16_t type, uint16_t id) {
    const std::byte* data = stream.data();
    const size_t size = stream.size();
    if (data == nullptr || size < kPropertyHeaderSize) return std::nullopt;
    // Only whole entries: one cut short by the end of the stream is not read.
    for (size_t at = kFirstPropertySlot; size - at >= kMsgPropertyEntrySize; at += kMsgPropertyEntrySize) {
        if (LoadLe16(data + at) == type && LoadLe16(data + at + 2) == id) return LoadLe64(data + at + 8);
    }
    return std::nullopt;
}

// Whether the storage holds a storage (not a stream) at `path`.
bool StorageExists(const cfb::CompoundStorage& storage, std::string_view path) {
    const cfb::DirectoryEntry* entry = storage.find_entry(path);
    return entry != nullptr && entry->valid && entry->is_directory;
}

// One attachment storage: when the HTML refers to its image (by "cid:" and the content id, else by the
// file name), the references are replaced by the image. An attachment the body does not mention, or
// whose data stream is missing, is passed over. 1, or a failure that ends the walk.
int32_t InlineAttachment(const cfb::CompoundStorage& storage, const std::string& storage_name,
                         MessageDocument& record, ImageFileWriter* image_files) {
    const std::string prefix = storage_name + "/";
    CountedString file_name;
    CountedString content_id;
    if (const int32_t status =
            ReadStringProperty(storage, prefix + std::string(kMsgAttachNameStream), file_name);
        status < kStatusOk)
        return status;
    if (const int32_t status =
            ReadStringProperty(storage, prefix + std::string(kMsgAttachContentIdStream), content_id);
        status < kStatusOk)
        return status;
    std::string reference;
    if (FindImageReference(record.document.text(), file_name.text(), content_id.text(), &reference) !=
        kStatusOk)
        return kStatusOk;

    CountedString data;
    const int32_t read = ReadWholeStream(storage, prefix + std::string(kMsgAttachDataStream), data);
    if (read == kStatusNotPresent) return kStatusOk;
    if (read != kStatusOk) return read;
    int32_t count = 0;
    const int32_t status =
        InlineImage(&record.document, reference, data.data(), data.size(), image_files, &count);
    // An image too small to encode (0) or empty (-13) stays a reference; the other images are still
    // inlined.
    return status == 0 || status == kStatusBadArgument ? kStatusOk : status;
}

// Inlines the images of every attachment storage. 1, or the first failure, which ends the walk.
int32_t WalkAttachments(const cfb::CompoundStorage& storage, MessageDocument& record,
                        ImageFileWriter* image_files) {
    for (const uint32_t number : AttachmentStorageNumbers(storage)) {
        const int32_t status = InlineAttachment(storage, AttachmentStorageName(number), record, image_files);
        if (status != kStatusOk) return status;
    }
    return kStatusOk;
}

// Reads the compressed-RTF body into record.document. 1 with `*present` set when there is one; 1 and
// not present when the stream is missing or its type is not one we decompress.
int32_t ReadFormattedBody(const cfb::CompoundStorage& storage, MessageDocument& record, bool* present) {
    *present = false;
    CountedString compressed;
    const int32_t read = ReadWholeStream(storage, kMsgRtfCompressedStream, compressed);
    if (read == kStatusNotPresent) return kStatusOk;
    if (read != kStatusOk) return read;
    if (compressed.size() < kCompTypeOffset + 4) return kStatusOk;
    const uint32_t type = LoadLe32(compressed.data() + kCompTypeOffset);
    if (type != kRtfCompressed && type != kRtfUncompressed) return kStatusOk;

    const int32_t status = DecompressRtfBuffer(compressed.data(), compressed.size(), record.document);
    compressed.Release();
    if (status != kStatusOk) return status;
    *present = true;
    // Whatever did not stay RTF was recovered HTML.
    if (!record.document.text().starts_with(kRtfStart)) StripHtmlNoise(&record.document);
    return kStatusOk;
}

// Reads the string properties of the header. 1, or the first failure.
int32_t ReadHeaderStrings(const cfb::CompoundStorage& storage, MessageDocument& record) {
    struct Field {
        std::string_view stream;
        HeaderSlot slot;
    };
    static constexpr Field kFirst[] = {
        {kMsgSubjectStream, kSlotSubject},
        {kMsgSenderNameStream, kSlotFrom},
        {kMsgSenderSmtpStream, kSlotSenderAddress},
    };
    static constexpr Field kSecond[] = {
        {kMsgAuthorStream, kSlotRepresenting},
        {kMsgDisplayToStream, kSlotTo},
        {kMsgDisplayCcStream, kSlotCc},
        {kMsgDisplayBccStream, kSlotBcc},
    };
    for (const Field& field : kFirst) {
        if (const int32_t status = ReadStringProperty(storage, field.stream, record.header[field.slot]);
            status < kStatusOk)
            return status;
    }
    CountedString& address = record.header[kSlotSenderAddress];
    if (address.TextLength() == 0) {
        if (const int32_t status = ReadStringProperty(storage, kMsgRepresentingAddressStream, address);
            status < kStatusOk)
            return status;
    }
    // An Exchange (X.500) address says nothing a reader of the page could use; the name stands alone.
    if (address.text().find('@') == std::string_view::npos) address.Release();
    for (const Field& field : kSecond) {
        if (const int32_t status = ReadStringProperty(storage, field.stream, record.header[field.slot]);
            status < kStatusOk)
            return status;
    }
    return kStatusOk;
}

// Sent and Importance from the fixed-length property stream; a missing entry leaves the field empty.
int32_t ReadFixedProperties(const cfb::CompoundStorage& storage, MessageDocument& record) {
    CountedString properties;
    const int32_t read = ReadWholeStream(storage, kMsgPropertiesStream, properties);
    if (read == kStatusNotPresent) return kStatusOk;
    if (read != kStatusOk) return read;
    if (const auto sent = FindFixedProperty(properties, kMsgTypeFileTime, kMsgPropSubmitTime)) {
        // A time that cannot be formatted leaves Sent empty; memory running out ends the read.
        if (FormatSentTime(*sent, record.header[kSlotSent]) == kStatusFailure) return kStatusFailure;
    }
    if (const auto importance = FindFixedProperty(properties, kMsgTypeLong, kMsgPropImportance)) {
        if (const int32_t status =
                ImportanceText(static_cast<uint32_t>(*importance), record.header[kSlotImportance]);
            status != kStatusOk)
            return status;
    }
    return kStatusOk;
}

int32_t ReadOpenMessage(const cfb::CompoundStorage& storage, MessageDocument& record,
                        const MsgReadOptions& options) {
    bool formatted = false;
    if (const int32_t status = ReadFormattedBody(storage, record, &formatted); status != kStatusOk)
        return status;
    const int32_t text = ReadStringProperty(storage, kMsgBodyStream, record.text_body);
    if (text < kStatusOk) return text;
    if (!formatted && text == kStatusNotPresent) return kStatusUnsupported;

    if (const int32_t status = ReadHeaderStrings(storage, record); status != kStatusOk) return status;
    if (const int32_t status = ReadFixedProperties(storage, record); status != kStatusOk) return status;

    // Images go only into a body that is HTML; an RTF body keeps its own pictures.
    if (options.walk_attachments && formatted && !record.document.text().starts_with(kRtfStart)) {
        const int32_t status = WalkAttachments(storage, record, options.image_files);
        // The message itself is delivered; the walk's failure is reported beside it.
        if (status != kStatusOk && record.reader_status == kStatusOk) record.reader_status = status;
    }
    return kStatusOk;
}

}  // namespace

std::string AttachmentStorageName(uint32_t number) {
    char name[40];
    std::snprintf(name, sizeof name, "__attach_version1.0_#%08X", static_cast<unsigned>(number));
    return name;
}

std::vector<uint32_t> AttachmentStorageNumbers(const cfb::CompoundStorage& storage) {
    std::vector<uint32_t> numbers;
    // The directory cannot hold more storages than it has entries, so neither can the walk go further.
    const size_t limit = storage.directory().size();
    for (uint32_t number = 0; number <= limit; ++number) {
        if (StorageExists(storage, AttachmentStorageName(number))) {
            numbers.push_back(number);
        } else if (!StorageExists(storage, AttachmentStorageName(number + 1))) {
            break;
        }
    }
    return numbers;
}

int32_t ReadWholeStream(const cfb::CompoundStorage& storage, std::string_view path, CountedString& out) {
    out.Release();
    const cfb::DirectoryEntry* entry = storage.find_entry(path);
    if (entry == nullptr || !entry->valid || entry->is_directory) return kStatusNotPresent;
    std::optional<cfb::CompoundStream> stream = cfb::CompoundStream::open(storage, path);
    // The path resolved a moment ago; only memory can fail now.
    if (!stream) return kStatusFailure;

    // The stated size may be anything up to 4 GiB; what the chain and the file hold bounds the buffer.
    const uint64_t readable = std::min(stream->size(), stream->capacity());
    if (readable > kMaxBufferBytes - kStreamTerminator) return kStatusFailure;
    const size_t bound = static_cast<size_t>(readable);
    GrowBuffer buffer;
    if (buffer.Init(bound + kStreamTerminator, 0, /*zero_fill=*/true) != kStatusOk) return kStatusFailure;
    std::vector<std::byte> piece(std::min(bound, kReadPiece));
    size_t position = 0;
    while (position < bound) {
        const size_t want = std::min(piece.size(), bound - position);
        const size_t got = stream->read(position, piece.data(), want);
        if (buffer.Append(piece.data(), got) != kStatusOk) return kStatusFailure;
        position += got;
        // The chain or the file ended early: the stream is what could be read.
        if (got < want) break;
    }
    if (position == 0) return kStatusOk;
    buffer.MoveInto(out);
    return kStatusOk;
}

int32_t ReadStringProperty(const cfb::CompoundStorage& storage, std::string_view name, CountedString& out) {
    out.Release();
    CountedString wide;
    const int32_t read = ReadWholeStream(storage, std::string(name) + std::string(kUnicodeSuffix), wide);
    if (read == kStatusFailure) return read;
    if (read == kStatusOk) {
        const size_t units = wide.size() / 2;
        if (units == 0) return kStatusOk;
        if (units > static_cast<size_t>(INT32_MAX) / 4) return kStatusFailure;
        // Up to 3 bytes a unit in UTF-8 (a pair takes 4 for its 2 units), and the terminator.
        std::string utf8(units * 4 + 1, '\0');
        const int written = platform::WideCharToMultiByte(
            platform::kCpUtf8, 0, reinterpret_cast<const char16_t*>(wide.data()), static_cast<int>(units),
            utf8.data(), static_cast<int>(utf8.size()), nullptr, nullptr);
        if (written <= 0) return kStatusConversionFailed;
        utf8.resize(static_cast<size_t>(written));
        if (utf8.back() != '\0') utf8.push_back('\0');
        return AssignBytes(out, utf8.data(), utf8.size());
    }
    return ReadWholeStream(storage, std::string(name) + std::string(kEightBitSuffix), out);
}

int32_t ReadMsgMessage(MessageDocument& record, const char16_t* file_name, const MsgReadOptions& options) {
    if (file_name == nullptr) return kStatusMessageFileOpen;
    KernelFileHandle file(krnOpenFile(file_name, 0, kOpenShareMode));
    if (!file.valid()) return kStatusMessageFileOpen;
    cfb::CompoundStorage storage(file.get());
    // Not a compound file we can read: nothing is read, and the caller finds no body.
    if (!storage.open()) return kStatusOk;
    return ReadOpenMessage(storage, record, options);
}

}  // namespace tarn
