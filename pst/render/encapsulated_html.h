// HTML encapsulated in an RTF body: the RTF that a mail client writes when it keeps an HTML message as
// RTF, with the HTML tags in "{\*\htmltag N ...}" groups, RTF-only material between "\htmlrtf" and
// "\htmlrtf0", and the text as RTF text. This turns such a body back into HTML for the toolkit's HTML
// loader, and tidies two things of that HTML the loader copes badly with.
//
// The reader is a single forward scan that knows a small set of control words, not an RTF parser. Its
// readings of RTF are fixed by what the documents it serves were made with, and several of them differ
// from what an RTF reader would do; each is described where it is made and kept deliberately:
//
// - Control words are matched as prefixes: "\line" is read as "\li" followed by the text "ne".
// - A control word the scan does not know is written as text, backslash and letters included.
// - A carriage return or line feed on its own is kept; a pair of them is dropped.
// - "\\" writes one backslash and lets the second one start a control word of its own.
// - "\u" values are unsigned: "\u-3" writes "&#0;", and the one replacement byte skipped is the "-".
#ifndef TARN_PST_RENDER_ENCAPSULATED_HTML_H_
#define TARN_PST_RENDER_ENCAPSULATED_HTML_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn {

// True iff the first "\from" in `rtf` is followed by "html" (case-sensitive): the body encapsulates
// HTML. A body marked "\fromtext", or without "\from", stays RTF.
bool IsEncapsulatedHtml(std::string_view rtf);

// Replaces the RTF text of `*body` with the HTML it encapsulates, NUL-terminated. 1; -814 for a null
// body; -1 when memory runs out; the font-table reader's status (-9 for a table cut off) when the
// body's font table cannot be read. On failure the body keeps its RTF.
int32_t DeencapsulateHtml(CountedString* body);

// Turns the condition of every downlevel-revealed conditional comment ("<![if !supportLists]>") into
// "!V" ("<![if !V]>"), which no reader knows and so takes as true. A comment whose condition is too
// short to hold "!V" is left alone, and a "<![if" without a "]" behind it ends the pass. One pass over
// the body; a terminating NUL stays. 1; -814 for a null body; -1 when memory runs out (the body then
// unchanged).
int32_t RewriteConditionalComments(CountedString* body);

// Cuts the long filler out of "<div>" elements: where the text between "<div>" and the next "</div>"
// (both in any case) is kLongDivBytes or longer and holds "&nbsp;" (in any case), everything from
// kKeptBehindNbsp bytes behind the start of the first "&nbsp;" up to the "</div>" goes. An "&nbsp;"
// closer than that to its "</div>" leaves the element alone. One pass over the body; a terminating NUL
// stays. Statuses as RewriteConditionalComments.
constexpr size_t kLongDivBytes = 10001;
constexpr size_t kKeptBehindNbsp = 110;
int32_t TrimLongDivs(CountedString* body);

}  // namespace tarn

#endif  // TARN_PST_RENDER_ENCAPSULATED_HTML_H_
