// Putting an HTML body's attached images inside the document: finding the body's reference to an
// image (a "cid:" reference or a file name), replacing every use of it with the image itself (a data
// URI, or the name of a file written beside the document), and blanking noise that mail software leaves
// in HTML bodies.
#ifndef TARN_PST_RENDER_INLINE_IMAGE_H_
#define TARN_PST_RENDER_INLINE_IMAGE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn {

// Where images go when the document is handed over as a file: the caller writes the bytes to a file of
// its own (a temporary directory it owns and cleans up) and gives back the name that the document is to
// use for it. 1, or a status below 1 that ends the inlining of this image.
class ImageFileWriter {
  public:
    virtual ~ImageFileWriter() = default;
    virtual int32_t Write(const std::byte* data, size_t size, std::string* name) = 0;
};

// Looks for the body's reference to an image: "cid:" and the content id when there is one, else the
// file name. 1 and the text found in `reference`; 2 when there is none (also for an empty body, or
// neither a name nor an id).
int32_t FindImageReference(std::string_view html, std::string_view file_name, std::string_view content_id,
                           std::string* reference);

// Replaces the whole quoted attribute value around every use of `reference` in `html` (except inside a
// "<v:imagedata" tag) with the image: a data URI, or with `files` the name that the writer gives.
// `*count` receives the number of replacements. 1; 0 when the image cannot be encoded (nothing is
// replaced); -13 for a null or empty image; -1 when memory runs out or the document would outgrow its
// ceiling. On any failure `html` keeps what it held.
int32_t InlineImage(CountedString* html, std::string_view reference, const std::byte* data, size_t size,
                    ImageFileWriter* files, int32_t* count);

// "data:image;base64," and the image's bytes in base64 with a final NUL, into `out`. 1; 0 when the
// encoding would not fit the capacity of 18 + size * 1.4 bytes; -13 for a null or empty image; -1 when
// memory runs out.
int32_t EncodeDataUri(const std::byte* data, size_t size, GrowBuffer* out);

// Blanks, in place and without changing the length, the "<div>&nbsp;value=\"/...\">" runs and the
// numeric references of control characters.
void StripHtmlNoise(CountedString* html);

}  // namespace tarn

#endif  // TARN_PST_RENDER_INLINE_IMAGE_H_
