// The record that carries one message from a reader (the PST walk, the message-file reader, the MIME
// reader) to the composer and the header block: its bodies, its header fields as UTF-8, and the status
// of a secondary step that failed while the message itself was still delivered.
#ifndef TARN_PST_RENDER_MESSAGE_DOCUMENT_H_
#define TARN_PST_RENDER_MESSAGE_DOCUMENT_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/status.h"
#include "pst/render/repairs.h"
#include "pst/render/text_buffer.h"

namespace tarn {

// The nine header slots, in the record's order. Two are filled only by the message-file reader.
enum HeaderSlot : int {
    kSlotFrom = 0,
    kSlotSenderAddress = 1,
    kSlotTo = 2,
    kSlotSubject = 3,
    kSlotSent = 4,
    kSlotCc = 5,
    kSlotBcc = 6,
    kSlotRepresenting = 7,
    kSlotImportance = 8,
};
constexpr int kHeaderSlots = 9;

// Which body a composed message carries.
enum BodyFormat : int32_t {
    kBodyHtml = 0,
    kBodyRtf = 1,
    kBodyPlainText = 2,
    kBodyNone = 3,  // none chosen yet
};

// The wrapper that an HTML body is put in when it is handed to the toolkit's loader.
inline constexpr std::string_view kHtmlOpen = "<html>";
inline constexpr std::string_view kHtmlClose = "</html>";
// What a repaired HTML document says first, so that a browser reads it as UTF-8 whatever the body's
// own declarations say.
inline constexpr std::string_view kUtf8MetaFirst = "<meta charset=\"utf-8\">";

// Every buffer is kernel memory (CountedString); a null pointer means absent. Constructed empty with
// reader status 1; destruction frees every buffer.
struct MessageDocument {
    uint32_t reserved_head[5] = {};  // for the message-file and MIME readers
    int32_t reader_status = kStatusOk;
    CountedString text_body;       // the plain-text body as stored (UTF-16LE in a Unicode store)
    CountedString compressed_rtf;  // only while a compressed-RTF body is being decompressed
    CountedString document;        // the HTML body, or the decompressed RTF
    uint32_t reserved_middle[5] = {};
    CountedString header[kHeaderSlots];  // UTF-8, indexed by HeaderSlot
    Repairs repairs;                     // what the host wants mended, and what was
    uint32_t text_code_page = 0;         // the text body's: 1200 for UTF-16LE, else an ANSI code page
};

// Replaces `target` with a copy of `count` bytes. Zero bytes leave it absent. 1, or -1 when memory
// runs out (the target is then left as it was).
int32_t AssignBytes(CountedString& target, const void* bytes, size_t count);

// Converts `units` UTF-16 units to UTF-8 through the kernel into `target`, with room for 4 bytes a
// unit. Empty text empties the target. A conversion that yields nothing leaves the target empty and
// gives -1851; -1 when memory runs out.
int32_t AssignUtf8(CountedString& target, const char16_t* text, size_t units);

}  // namespace tarn

#endif  // TARN_PST_RENDER_MESSAGE_DOCUMENT_H_
