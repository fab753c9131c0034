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
#include "pst/render/charset.h"
#include "pst/render/compressed_rtf.h"
#include "pst/render/header_labels.h"
#include "pst/render/text_search.h"

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

// The reads of one message, charged against what the file holds: streams of a sound file do not share
// sectors, so together they never take more, however many names point at the same chain.
struct MessageReads {
    const cfb::CompoundStorage& storage;
    uint64_t left;
    // Repaired: 8-bit strings are converted from this code page; 0 keeps their bytes as they are.
    uint32_t eight_bit_code_page = 0;
    Repairs* repairs = nullptr;

    explicit MessageReads(const cfb::CompoundStorage& s) : storage(s), left(s.file_size()) {}
};

// Directory entry `index` read whole into `out`, as ReadWholeStream describes; -9 when the file cannot
// hold it beside what the message has read already.
int32_t ReadEntry(MessageReads& reads, std::optional<size_t> index, CountedString& out) {
    out.Release();
    const cfb::DirectoryTree& tree = reads.storage.directory();
    if (!index || !tree.entry(*index).valid || tree.entry(*index).is_directory) return kStatusNotPresent;
    std::optional<cfb::CompoundStream> stream = cfb::CompoundStream::open(reads.storage, *index);
    // The entry was found a moment ago; only memory can fail now.
    if (!stream) return kStatusFailure;

    // The stated size may be anything up to 4 GiB; what the chain and the file hold bounds the buffer.
    const uint64_t readable = std::min(stream->size(), stream->capacity());
    if (readable > reads.left) return kStatusUnsupported;
    reads.left -= readable;
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

bool HasEightBitBytes(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

// The string property `name` among the children of entry `parent`, as ReadStringProperty describes.
// Repaired, an 8-bit value beyond ASCII is converted from the message's code page.
int32_t ReadString(MessageReads& reads, size_t parent, std::string_view name, CountedString& out) {
    out.Release();
    const cfb::DirectoryTree& tree = reads.storage.directory();
    CountedString wide;
    const int32_t read =
        ReadEntry(reads, tree.find_child(parent, std::string(name) + std::string(kUnicodeSuffix)), wide);
    if (read != kStatusOk && read != kStatusNotPresent) return read;
    if (read == kStatusNotPresent) {
        const int32_t narrow =
            ReadEntry(reads, tree.find_child(parent, std::string(name) + std::string(kEightBitSuffix)), out);
        if (narrow != kStatusOk || reads.eight_bit_code_page == 0 || !HasEightBitBytes(out.text()) ||
            !reads.repairs->Make(Repair::kMsgCodePage))
            return narrow;
        CountedString bytes = std::move(out);
        return EightBitToUtf8(bytes.text(), reads.eight_bit_code_page, out);
    }
    const size_t units = wide.size() / 2;
    if (units == 0) return kStatusOk;
    if (units > static_cast<size_t>(INT32_MAX) / 4) return kStatusFailure;
    const auto* source = reinterpret_cast<const char16_t*>(wide.data());
    // Measured first, so that the text takes what it needs, in memory the kernel accounts for.
    const int needed = platform::WideCharToMultiByte(platform::kCpUtf8, 0, source, static_cast<int>(units),
                                                     nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return kStatusConversionFailed;
    GrowBuffer utf8;
    if (utf8.Init(static_cast<size_t>(needed) + 1, 0) != kStatusOk) return kStatusFailure;
    const int written =
        platform::WideCharToMultiByte(platform::kCpUtf8, 0, source, static_cast<int>(units),
                                      reinterpret_cast<char*>(utf8.data()), needed, nullptr, nullptr);
    if (written != needed) return kStatusConversionFailed;
    utf8.Extend(static_cast<size_t>(written));
    if (utf8.Terminate() != kStatusOk) return kStatusFailure;
    utf8.MoveInto(out);
    return kStatusOk;
}

// "__attach_version1.0_#" and eight upper-case hex digits: the number, or none.
std::optional<uint32_t> AttachmentNumber(std::string_view name) {
    constexpr std::string_view kPrefix = "__attach_version1.0_#";
    if (name.size() != kPrefix.size() + 8 || !name.starts_with(kPrefix)) return std::nullopt;
    uint32_t number = 0;
    for (const char c : name.substr(kPrefix.size())) {
        if (!(c >= '0' && c <= '9') && !(c >= 'A' && c <= 'F')) return std::nullopt;
        number = number << 4 | static_cast<uint32_t>(HexValue(c));
    }
    return number;
}

// Replaces every use of `reference` with the image in the attachment's data stream. An attachment whose
// data stream is missing, or whose image is too small to encode (0) or empty (-13), is passed over and
// stays a reference. 1, or a failure that ends the walk.
int32_t InlineAttachmentData(MessageReads& reads, size_t attachment, const std::string& reference,
                             ImageInliner& images) {
    CountedString data;
    const int32_t read =
        ReadEntry(reads, reads.storage.directory().find_child(attachment, kMsgAttachDataStream), data);
    if (read == kStatusNotPresent) return kStatusOk;
    if (read != kStatusOk) return read;
    int32_t count = 0;
    const int32_t status = images.Inline(reference, data.data(), data.size(), &count);
    return status == 0 || status == kStatusBadArgument ? kStatusOk : status;
}

// An attachment that the body may name by its long file name: found only after all others.
struct LongNamed {
    size_t attachment;
    std::string name;
};

// One attachment storage: when the HTML refers to its image (by "cid:" and the content id, else by the
// file name), the references are replaced by the image. An attachment the body does not mention is
// passed over; repaired, it goes to `long_named` when its long file name differs. 1, or a failure that
// ends the walk.
int32_t InlineAttachment(MessageReads& reads, size_t attachment, ImageInliner& images,
                         std::vector<LongNamed>* long_named) {
    CountedString file_name;
    CountedString content_id;
    if (const int32_t status = ReadString(reads, attachment, kMsgAttachNameStream, file_name);
        status < kStatusOk)
        return status;
    if (const int32_t status = ReadString(reads, attachment, kMsgAttachContentIdStream, content_id);
        status < kStatusOk)
        return status;
    std::string reference;
    const int32_t found = images.Find(file_name.text(), content_id.text(), &reference);
    if (found == kStatusOk) return InlineAttachmentData(reads, attachment, reference, images);
    if (found != kStatusNotPresent) return found;  // a failure
    if (long_named == nullptr) return kStatusOk;
    CountedString long_name;
    if (const int32_t status = ReadString(reads, attachment, kMsgAttachLongNameStream, long_name);
        status < kStatusOk)
        return status;
    if (long_name.TextLength() > 0 && long_name.text() != file_name.text())
        long_named->push_back({attachment, std::string(long_name.text())});
    return kStatusOk;
}

// Inlines the images of every attachment storage. 1, or the first failure, which ends the walk.
int32_t WalkAttachments(MessageReads& reads, MessageDocument& record, ImageFileWriter* image_files) {
    ImageInliner images(&record.document, image_files);
    // Writers that give an image no "cid:" refer to it by its long name (the short one is 8.3). A name
    // is found inside a longer one ("2.jpg" in "12.jpg"), so the longest go first: once inlined, a
    // longer name is gone from the body.
    std::vector<LongNamed> long_named;
    std::vector<LongNamed>* deferred = reads.repairs != nullptr ? &long_named : nullptr;
    int32_t status = kStatusOk;
    for (const AttachmentStorageEntry& attachment : FindAttachmentStorages(reads.storage)) {
        status = InlineAttachment(reads, attachment.entry, images, deferred);
        if (status != kStatusOk) break;
    }
    std::stable_sort(long_named.begin(), long_named.end(),
                     [](const LongNamed& a, const LongNamed& b) { return a.name.size() > b.name.size(); });
    for (size_t i = 0; status == kStatusOk && i < long_named.size(); ++i) {
        std::string reference;
        const int32_t found = images.Find(long_named[i].name, {}, &reference);
        if (found == kStatusOk) {
            reads.repairs->Make(Repair::kMsgAttachLongName);
            status = InlineAttachmentData(reads, long_named[i].attachment, reference, images);
        } else if (found != kStatusNotPresent) {
            status = found;
        }
    }
    // The images put in before a failure stay in the body.
    const int32_t finished = images.Finish();
    return status != kStatusOk ? status : finished;
}

// Reads the compressed-RTF body into record.document. 1 with `*present` set when there is one; 1 and
// not present when the stream is missing or its type is not one we decompress.
int32_t ReadFormattedBody(MessageReads& reads, MessageDocument& record, bool* present) {
    *present = false;
    CountedString compressed;
    const int32_t read =
        ReadEntry(reads, reads.storage.directory().find_child(0, kMsgRtfCompressedStream), compressed);
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

// Repaired, for a message without a compressed-RTF body: its HTML body (binary, else a string) into
// record.document, with `*present` set when there is one. HTML that declares no character set is taken
// to be in the message's code page and converted, so that it can be declared UTF-8.
int32_t ReadHtmlBody(MessageReads& reads, MessageDocument& record, bool* present) {
    const cfb::DirectoryTree& tree = reads.storage.directory();
    int32_t read = ReadEntry(reads, tree.find_child(0, kMsgHtmlBinaryStream), record.document);
    if (read == kStatusOk && record.document.TextLength() > 0) {
        CharsetCode declared;
        const std::string_view html = record.document.text();
        if (FindCharsetDeclaration(html, &declared) != 1 && HasEightBitBytes(html) &&
            reads.eight_bit_code_page != platform::kCpUtf8) {
            CountedString bytes = std::move(record.document);
            if (const int32_t status =
                    EightBitToUtf8(bytes.text(), reads.eight_bit_code_page, record.document);
                status != kStatusOk)
                return status;
        }
    } else if (read == kStatusNotPresent || read == kStatusOk) {
        read = ReadString(reads, 0, kMsgHtmlStringStream, record.document);
    }
    if (read < kStatusOk) return read;
    if (record.document.TextLength() == 0) {
        record.document.Release();
        return kStatusOk;
    }
    *present = true;
    reads.repairs->Make(Repair::kMsgHtmlBody);
    StripHtmlNoise(&record.document);
    return kStatusOk;
}

// Reads the string properties of the header. 1, or the first failure.
int32_t ReadHeaderStrings(MessageReads& reads, MessageDocument& record) {
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
        if (const int32_t status = ReadString(reads, 0, field.stream, record.header[field.slot]);
            status < kStatusOk)
            return status;
    }
    CountedString& address = record.header[kSlotSenderAddress];
    if (address.TextLength() == 0) {
        if (const int32_t status = ReadString(reads, 0, kMsgRepresentingAddressStream, address);
            status < kStatusOk)
            return status;
    }
    // An Exchange (X.500) address says nothing a reader of the page could use; the name stands alone.
    if (address.text().find('@') == std::string_view::npos) address.Release();
    for (const Field& field : kSecond) {
        if (const int32_t status = ReadString(reads, 0, field.stream, record.header[field.slot]);
            status < kStatusOk)
            return status;
    }
    return kStatusOk;
}

// Sent and Importance from the fixed-length property stream; a missing entry leaves the field empty.
// `properties` is the stream when it was read already (the repaired reading needs its code pages first).
int32_t ReadFixedProperties(MessageReads& reads, MessageDocument& record, CountedString* read_already) {
    CountedString properties;
    if (read_already != nullptr) {
        properties = std::move(*read_already);
    } else {
        const int32_t read =
            ReadEntry(reads, reads.storage.directory().find_child(0, kMsgPropertiesStream), properties);
        if (read == kStatusNotPresent) return kStatusOk;
        if (read != kStatusOk) return read;
    }
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
    MessageReads reads(storage);
    // Repaired, the code pages come first: 8-bit strings and HTML are converted from them.
    CountedString properties;
    const bool repaired = record.repairs.wanted();
    if (repaired) {
        const int32_t read =
            ReadEntry(reads, reads.storage.directory().find_child(0, kMsgPropertiesStream), properties);
        if (read != kStatusOk && read != kStatusNotPresent) return read;
        reads.repairs = &record.repairs;
        reads.eight_bit_code_page = platform::kCpWestern;
        for (const uint16_t id : {kMsgPropMessageCodePage, kMsgPropInternetCodePage}) {
            const std::optional<uint64_t> page = FindFixedProperty(properties, kMsgTypeLong, id);
            if (page && static_cast<uint32_t>(*page) != 0) {
                reads.eight_bit_code_page = StoredStringCodePage(static_cast<uint32_t>(*page));
                break;
            }
        }
    }
    bool formatted = false;
    if (const int32_t status = ReadFormattedBody(reads, record, &formatted); status != kStatusOk)
        return status;
    if (!formatted && repaired) {
        if (const int32_t status = ReadHtmlBody(reads, record, &formatted); status != kStatusOk)
            return status;
    }
    const int32_t text = ReadString(reads, 0, kMsgBodyStream, record.text_body);
    if (text < kStatusOk) return text;
    // Repaired, a message without any body still shows its header block.
    if (!formatted && text == kStatusNotPresent && !record.repairs.Make(Repair::kHeaderOnly))
        return kStatusUnsupported;

    if (const int32_t status = ReadHeaderStrings(reads, record); status != kStatusOk) return status;
    if (const int32_t status = ReadFixedProperties(reads, record, repaired ? &properties : nullptr);
        status != kStatusOk)
        return status;

    // Images go only into a body that is HTML; an RTF body keeps its own pictures.
    if (options.walk_attachments && formatted && !record.document.text().starts_with(kRtfStart)) {
        const int32_t status = WalkAttachments(reads, record, options.image_files);
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

std::vector<AttachmentStorageEntry> FindAttachmentStorages(const cfb::CompoundStorage& storage) {
    const cfb::DirectoryTree& tree = storage.directory();
    // The directory cannot hold more storages than it has entries, so neither can the walk go further.
    const size_t limit = tree.size();
    // One pass over the directory for the numbers it names, and one descent of the root's tree for them
    // all: looked up one by one, a root whose tree is one long chain costs the square of its size.
    std::vector<uint32_t> numbers;
    for (size_t i = 0; i < tree.size(); ++i) {
        const std::optional<uint32_t> number = AttachmentNumber(tree.entry(i).name());
        if (number && *number <= limit + 1) numbers.push_back(*number);
    }
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    // One length and upper-case hex digits: the names sort as their numbers do.
    std::vector<std::string> names;
    names.reserve(numbers.size());
    for (const uint32_t number : numbers) names.push_back(AttachmentStorageName(number));
    const std::vector<std::optional<size_t>> found = limit > 0 && tree.entry(0).valid
                                                         ? tree.find_siblings(tree.entry(0).child, names)
                                                         : std::vector<std::optional<size_t>>(names.size());
    // The storage numbered `number`, when there is one (a stream of that name does not count).
    const auto storage_of = [&](uint32_t number) -> std::optional<size_t> {
        const auto at = std::lower_bound(numbers.begin(), numbers.end(), number);
        if (at == numbers.end() || *at != number) return std::nullopt;
        const std::optional<size_t> index = found[static_cast<size_t>(at - numbers.begin())];
        if (!index || !tree.entry(*index).valid || !tree.entry(*index).is_directory) return std::nullopt;
        return index;
    };

    std::vector<AttachmentStorageEntry> storages;
    for (uint32_t number = 0; number <= limit; ++number) {
        if (const std::optional<size_t> index = storage_of(number)) {
            storages.push_back({number, *index});
        } else if (!storage_of(number + 1)) {
            break;
        }
    }
    return storages;
}

int32_t ReadWholeStream(const cfb::CompoundStorage& storage, std::string_view path, CountedString& out) {
    MessageReads reads(storage);
    return ReadEntry(reads, storage.directory().find_index(path), out);
}

int32_t ReadStringProperty(const cfb::CompoundStorage& storage, std::string_view name, CountedString& out) {
    MessageReads reads(storage);
    // A path names a storage of the root and a stream in it.
    size_t parent = 0;
    if (const size_t slash = name.find('/'); slash != std::string_view::npos) {
        const std::optional<size_t> found =
            storage.directory().find_child(0, std::string(name.substr(0, slash)));
        if (!found || !storage.directory().entry(*found).is_directory) {
            out.Release();
            return kStatusNotPresent;
        }
        parent = *found;
        name = name.substr(slash + 1);
    }
    return ReadString(reads, parent, name, out);
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
