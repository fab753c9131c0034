// Where a document departs from the toolkit's contract to be right for real files. The toolkit gets
// its contract's documents byte for byte, deliberate oddities included; a host that shows documents to
// people asks the kernel for repairs instead. Readers and the composer consult one Repairs value at
// the few points where the two differ, and note each repair that changed the document, so that a
// host can say what was changed.
#ifndef TARN_PST_RENDER_REPAIRS_H_
#define TARN_PST_RENDER_REPAIRS_H_

#include <cstdint>
#include <string>

namespace tarn {

// Each repair has a name of its own, given to hosts (an export's manifest lists them per document).
enum class Repair : uint32_t {
    kTextWholeLength,    // a text document declares its whole length, not two bytes short
    kTextUtf8,           // a text document is UTF-8 throughout, behind a UTF-8 mark
    kTextBody,           // a message without an HTML or RTF body gives its text body as a text document
    kHeaderOnly,         // a message without any body gives its header block alone
    kHtmlHeaderEscape,   // header values are escaped as HTML text in an HTML document
    kWalkedCounts,       // a store's folders without a content count are counted by their rows
    kRtfHeaderEscape,    // RTF header text in a code page escapes the bytes RTF reads as structure
    kRtfHeaderPlace,     // the RTF header goes in front of a paragraph of the body, never into a
                         // destination, and a body without "\pard" still gets one
    kRtfFontTable,       // a body without a font table gets a well-formed one for the header's fonts
    kRtfUnicodeHeader,   // a body in UTF-8 (code page 65001) takes its header text as Unicode
    kHtmlUtf8Meta,       // an HTML document declares UTF-8 first, where a browser honours it
    kMsgHtmlBody,        // a message file without a compressed-RTF body shows its HTML body
    kMsgCodePage,        // a message file's 8-bit strings are converted from its code page
    kMsgAttachLongName,  // a message file's image is also found by its attachment's long file name
    // Internet messages:
    kLfLineEnds,          // delimiters, soft line breaks and empty lines are found after LF alone too
    kEncodedWordSpace,    // white space between adjacent encoded words is dropped
    kEncodedWordCase,     // an encoded word's "b" or "q" names its encoding in either case
    kRawHeaderCharset,    // a text part's set reads only a header's raw 8-bit bytes, not decoded text
    kCharsetNames,        // sets beyond the table are converted by their names and aliases
    kAttachedText,        // a text part marked as an attachment is not the body
    kSubjectOnlyHeader,   // a header block of Subject, Bcc or Importance alone is shown
    kCidWithoutLocation,  // an image without a location is inlined where "cid:" refers to it
    kEnclosedMessage,     // an enclosed message is shown after the body, with its own header block
    kHtmlAsText,          // with the plain-text flag, an HTML body gives its text
    kUntypedText,         // a part without a Content-Type is plain text, as RFC 2045 says
};

class Repairs {
  public:
    // None wanted: the contract's documents.
    Repairs() = default;
    explicit Repairs(bool wanted) : wanted_(wanted) {}
    // As the kernel's host asks (krnRepairsQuery).
    static Repairs Requested();

    bool wanted() const { return wanted_; }
    // Whether `repair` is to be made. When it is, it is noted as made: call this only where the repair
    // changes what the contract would give.
    bool Make(Repair repair) {
        if (!wanted_) return false;
        made_ |= Bit(repair);
        return true;
    }
    // Whether `repair` was made for this document.
    bool Made(Repair repair) const { return (made_ & Bit(repair)) != 0; }
    // The repairs made for this document, by name, comma-separated, in the order above ("" for none).
    std::string MadeNames() const;

    // Takes the repairs another value made for the same document (a reader's, when it is done).
    void Merge(const Repairs& other) { made_ |= other.made_; }

  private:
    static uint32_t Bit(Repair repair) { return uint32_t{1} << static_cast<uint32_t>(repair); }

    bool wanted_ = false;
    uint32_t made_ = 0;
};

}  // namespace tarn

#endif  // TARN_PST_RENDER_REPAIRS_H_
