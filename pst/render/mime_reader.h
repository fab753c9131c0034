// The reader of Internet messages (MIME text): the header fields of the message record, and its body,
// chosen from the message's parts, with the images that the HTML body refers to put inside it.
#ifndef TARN_PST_RENDER_MIME_READER_H_
#define TARN_PST_RENDER_MIME_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/tarnkrn.h"
#include "pst/render/inline_image.h"
#include "pst/render/message_document.h"

namespace tarn {

// Multiparts nested deeper than this are skipped, with all their parts: no mail program writes them, and
// the walk keeps one frame a level.
constexpr int kMaxMimeDepth = 32;

// The content types the reader tells apart, compared without regard to case over the name's length
// (so "image/svg" covers "image/svg+xml"). Their values are fixed.
enum MimeType : int32_t {
    kMimeOther = -1,
    kMimeTextHtml = 0,
    kMimeTextPlain = 1,
    kMimeTextXml = 2,
    kMimeOfficeTheme = 3,
    kMimeJavascript = 4,
    kMimeImageSvg = 5,  // deliberately never inlined
    kMimeImagePng = 6,
    kMimeImageGif = 7,
    kMimeImageJpeg = 8,
    kMimeImageWmf = 9,
    kMimeTextCss = 10,
};

// The code of a Content-Type value (leading white space skipped).
MimeType MimeTypeOf(std::string_view content_type);

// One part of the message as the reader saw it, for a person who wants to know why a part did or did
// not show. Multipart containers are listed too, in front of their parts.
struct MimePartReport {
    int depth = 0;             // 0 for the message itself
    std::string content_type;  // the value up to its first ";", as written
    MimeType type = kMimeOther;
    std::string charset;  // the "charset=" parameter's name, for text/html and text/plain
    std::string transfer_encoding;
    std::string content_id;  // without its angle brackets
    std::string location;    // Content-Location, else the Content-Type's "name=" parameter
    size_t decoded_size = 0;
    std::string fate;     // "body", "inlined", "ignored: ..." and the reason
    std::string content;  // the decoded bytes, with MimeReadOptions::keep_content only
};

// How the reader reads one message. `files`, when not null, takes the images instead of data URIs.
// `parts`, when not null, receives one report per part.
struct MimeReadOptions {
    ImageFileWriter* files = nullptr;
    std::vector<MimePartReport>* parts = nullptr;
    bool keep_content = false;
};

// Reads the message in `bytes` into `record`: its header fields From, To, Subject, Date (the Sent slot,
// raw), CC, BCC and Importance (raw), with encoded words decoded; and its body, the last text/html part
// or else the last text/plain part, in record.document (HTML) or record.text_body (text), converted to
// UTF-8 from its declared set; `*body_format` says which (kBodyNone when there is none). The header
// fields are also converted with the set of the first text part that declares one other than UTF-8 and
// US-ASCII, even when they were decoded from encoded words already (deliberate: pages have always been
// made so). PNG, GIF, JPEG and WMF parts with a location are inlined where the HTML read before them
// refers to them; a failure there ends the walk, keeps the body and is left in record.reader_status.
//
// A multipart's parts are found by its delimiter, CR LF "--" and the boundary: a message whose lines
// end in LF alone has no parts found and so no body. A last part whose closing delimiter never comes
// runs to the end. Multiparts nested deeper than kMaxMimeDepth are skipped. Text in a character set
// without a converter is kept as written. 1; -1 when memory runs out, which ends the read.
int32_t ReadEmlBytes(std::string_view bytes, MessageDocument& record, int32_t* body_format,
                     const MimeReadOptions& options = {});

// Reads the whole file behind `handle` (from its start) and then as ReadEmlBytes. -4 when the file
// cannot be positioned, -1778 when it is larger than 0x7FFFFFFF bytes, -7 when fewer bytes can be read
// than its size, -1 when memory runs out.
int32_t ReadEmlMessage(krn_handle handle, MessageDocument& record, int32_t* body_format,
                       const MimeReadOptions& options = {});

}  // namespace tarn

#endif  // TARN_PST_RENDER_MIME_READER_H_
