// Fixture writer for whole message stores: the store's own property context, the name-to-id map, a
// root folder and the top of the personal folders with their hierarchy and contents tables, folders
// with display name and content count, messages with the header properties and bodies the message
// model reads, and attachment tables with attachments. Built on the LTP writer (ltp_writer.h) and
// handed to WritePst (pst_writer.h) as a node list.
//
// Strings are given in UTF-8 and stored as UTF-16LE (type 0x001F) in a Unicode store, or as their bytes
// (type 0x001E) in an ANSI one. Bodies are given as bytes and stored as they are: the plain-text body
// with the store's string type, HTML and compressed RTF as binary.
#ifndef TARN_TESTS_SUPPORT_STORE_WRITER_H_
#define TARN_TESTS_SUPPORT_STORE_WRITER_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/ltp_writer.h"
#include "tests/support/pst_writer.h"

namespace tarn::fixture {

struct StoreAttachment {
    std::string long_name;        // 0x3707
    std::string short_name;       // 0x3704
    Bytes data;                   // 0x3701
    bool omit_long_name = false;  // 0x3707 left out of the attachment and its row
};

struct StoreMessage {
    std::string message_class = "IPM.Note";
    std::optional<std::string> subject;      // 0x0037
    std::optional<std::string> sender_name;  // 0x0C1A
    std::optional<std::string> display_to;   // 0x0E04
    std::optional<std::string> display_cc;   // 0x0E03
    std::optional<std::string> display_bcc;  // 0x0E02
    std::optional<uint64_t> submit_time;     // 0x0039, a Windows file time
    std::optional<uint32_t> importance;      // 0x0017
    std::optional<Bytes> body;               // 0x1000
    std::optional<Bytes> html;               // 0x1013
    std::optional<Bytes> rtf_compressed;     // 0x1009
    std::vector<StoreAttachment> attachments;
};

struct StoreFolder {
    std::string name;
    std::vector<StoreMessage> messages;
};

struct StoreDescription {
    PstLayout layout = PstLayout::kUnicode;
    PstEncoding encoding = PstEncoding::kNone;
    std::string display_name = "Personal Folders";
    std::vector<StoreFolder> folders;  // all children of the top of the personal folders
};

// Node ids the writer chose.
struct StoreMap {
    uint32_t root_folder = 0x122;
    uint32_t ipm_subtree = 0;
    std::vector<uint32_t> folders;                // in description order
    std::vector<std::vector<uint32_t>> messages;  // per folder, in description order
};

inline constexpr uint32_t kAttachmentTableSubnode = 0x671;
inline constexpr uint32_t kRecipientTableSubnode = 0x692;

PstDescription DescribeStore(const StoreDescription& store, StoreMap* map = nullptr);
// The same, moving bodies and attachment data out of `store` instead of copying them (for stores of
// gigabytes); `store` keeps its folders and messages, with those values emptied.
PstDescription DescribeStore(StoreDescription&& store, StoreMap* map = nullptr);

// The store's string bytes of UTF-8 text: UTF-16LE in a Unicode store, the bytes themselves in ANSI.
Bytes StoreText(PstLayout layout, const std::string& utf8);
std::u16string Utf8ToUtf16(const std::string& utf8);

}  // namespace tarn::fixture

#endif  // TARN_TESTS_SUPPORT_STORE_WRITER_H_
