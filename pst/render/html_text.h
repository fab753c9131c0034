// The text of an HTML body, for a document that must be plain text: what a reader of the page sees,
// without its markup.
#ifndef TARN_PST_RENDER_HTML_TEXT_H_
#define TARN_PST_RENDER_HTML_TEXT_H_

#include <cstdint>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn {

// Appends the text of `html` (UTF-8) to `*out`: tags and comments removed, and with them the content
// of head, script, style and title; character references decoded to UTF-8 (numeric ones, and the named
// ones of HTML 4 and "&apos;"; a reference that names no character is U+FFFD, an unknown name stays as
// written); white space runs one space, except inside pre; a line break (CR LF) for br and around
// blocks (div, li, tr and the like), an empty line around paragraphs, headings, lists, tables and
// pre; a table's cells on one line, separated by a space. 1; -814 for a null output; -1 when memory
// runs out.
int32_t HtmlToText(std::string_view html, GrowBuffer* out);

}  // namespace tarn

#endif  // TARN_PST_RENDER_HTML_TEXT_H_
