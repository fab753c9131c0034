// Reading an Outlook message file: a compound file whose streams hold one message's properties, each
// named "__substg1.0_" and the property tag in hexadecimal, with the fixed-length values together in
// "__properties_version1.0" and every attachment in a storage of its own. The reader fills the same
// MessageDocument that a PST message fills, plus the sender address and the "on behalf of" name.
#ifndef TARN_PST_MSG_MSG_READER_H_
#define TARN_PST_MSG_MSG_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cfb/compound_storage.h"
#include "pst/render/inline_image.h"
#include "pst/render/message_document.h"

namespace tarn {

// Stream names of the properties the reader uses. String properties append "001F" (UTF-16LE) or
// "001E" (8-bit) to these.
// How an RTF document begins; anything else the reader hands over is HTML.
inline constexpr std::string_view kRtfStart = "{\\rtf";
inline constexpr std::string_view kMsgRtfCompressedStream = "__substg1.0_10090102";
inline constexpr std::string_view kMsgBodyStream = "__substg1.0_1000";
inline constexpr std::string_view kMsgHtmlBinaryStream = "__substg1.0_10130102";
inline constexpr std::string_view kMsgHtmlStringStream = "__substg1.0_1013";
inline constexpr std::string_view kMsgSubjectStream = "__substg1.0_0037";
inline constexpr std::string_view kMsgSenderNameStream = "__substg1.0_0C1A";
inline constexpr std::string_view kMsgSenderSmtpStream = "__substg1.0_5D01";
inline constexpr std::string_view kMsgRepresentingAddressStream = "__substg1.0_0065";
inline constexpr std::string_view kMsgAuthorStream = "__substg1.0_004D";
inline constexpr std::string_view kMsgDisplayToStream = "__substg1.0_0E04";
inline constexpr std::string_view kMsgDisplayCcStream = "__substg1.0_0E03";
inline constexpr std::string_view kMsgDisplayBccStream = "__substg1.0_0E02";
inline constexpr std::string_view kMsgPropertiesStream = "__properties_version1.0";
inline constexpr std::string_view kMsgAttachNameStream = "__substg1.0_3704";
inline constexpr std::string_view kMsgAttachLongNameStream = "__substg1.0_3707";
inline constexpr std::string_view kMsgAttachContentIdStream = "__substg1.0_3712";
inline constexpr std::string_view kMsgAttachDataStream = "__substg1.0_37010102";

// The property stream's entries: 16 bytes each, a 16-bit type, a 16-bit id, 32-bit flags, 8 value bytes.
inline constexpr size_t kMsgPropertyEntrySize = 16;
inline constexpr uint16_t kMsgTypeLong = 0x0003;
inline constexpr uint16_t kMsgTypeFileTime = 0x0040;
inline constexpr uint16_t kMsgPropImportance = 0x0017;
inline constexpr uint16_t kMsgPropMessageCodePage = 0x3FFD;
inline constexpr uint16_t kMsgPropInternetCodePage = 0x3FDE;
inline constexpr uint16_t kMsgPropSubmitTime = 0x0039;

// The name of attachment storage `number`: "__attach_version1.0_#" and eight upper-case hex digits.
std::string AttachmentStorageName(uint32_t number);

struct AttachmentStorageEntry {
    uint32_t number;
    size_t entry;  // its directory entry
};

// The attachment storages in the order they are walked: from number 0 up, one missing number stepped
// over, two in a row ending the walk (a name that is a stream, not a storage, counts as missing).
// Writers number attachments densely; a removed one leaves a single gap.
std::vector<AttachmentStorageEntry> FindAttachmentStorages(const cfb::CompoundStorage& storage);

// The whole stream at `path` into `out`: its bytes, with two zero bytes behind them that the size does
// not count. The buffer is sized by what the stream's chain of blocks and the file can hold, never by
// the size the directory states alone; a stream whose chain or file ends early yields the bytes that
// are there. 1; 2 when the path does not resolve or names a storage (`out` then empty); -1 when memory
// runs out. While a message is read, its streams together may take no more than the file holds (-9
// beyond that: their chains overlap).
int32_t ReadWholeStream(const cfb::CompoundStorage& storage, std::string_view path, CountedString& out);

// The string property whose stream name is `name` and "001F", else `name` and "001E". A "001F" value is
// converted from UTF-16LE to UTF-8 and ends with one NUL (counted in the size); a "001E" value is kept as
// its bytes, in whatever code page the writer used (deliberate: the message does not reliably say
// which). 1 when read, an empty value too; 2 when neither stream exists (`out` empty); -1 when memory
// runs out; -1851 when the UTF-16 cannot be converted.
int32_t ReadStringProperty(const cfb::CompoundStorage& storage, std::string_view name, CountedString& out);

struct MsgReadOptions {
    // Inline the images that the HTML body refers to from the attachment storages.
    bool walk_attachments = true;
    // Where images go when the document is handed over as a file; null for data URIs.
    ImageFileWriter* image_files = nullptr;
};

// Opens `file_name` through the kernel and reads its message into `record`. A file that is not a
// readable compound file gives 1 with nothing read. 1; -14 when the file cannot be opened; -9 when the
// message has neither a formatted nor a text body; -1 when memory runs out; the decompressor's status
// for a compressed-RTF body it refuses. A failed image walk goes to record.reader_status instead.
int32_t ReadMsgMessage(MessageDocument& record, const char16_t* file_name, const MsgReadOptions& options);

}  // namespace tarn

#endif  // TARN_PST_MSG_MSG_READER_H_
