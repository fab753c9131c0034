// Putting an HTML body's attached images inside the document: finding the body's reference to an
// image (a "cid:" reference or a file name), replacing every use of it with the image itself (a data
// URI, or the name of a file written beside the document), and blanking noise that mail software leaves
// in HTML bodies.
#ifndef TARN_PST_RENDER_INLINE_IMAGE_H_
#define TARN_PST_RENDER_INLINE_IMAGE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
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

// Inlines a document's images one after another. Each Find and Inline gives exactly what
// FindImageReference and InlineImage would give on the document as the calls before it left it (the
// same statuses, references, counts and files written), and Finish leaves the document with the same
// bytes. The uses are found through an index of the document, so that a document of many images costs
// about its size and its images, not their product. A call whose outcome the index cannot vouch for
// (say, a use outside quotes, or a reference that could be found inside an inserted image) is answered
// by the image-by-image path on the document as it stands.
//
// The work is bounded by a multiple of the documents' sizes: beyond it Find and Inline give -1, as an
// image that would outgrow the document's ceiling does, and the callers end their inlining there.
//
// Requires: `html` outlives the inliner, and between the first call and Finish nothing but the inliner
// edits it; readers see the document as it was until Finish. Discard before `html` is replaced by
// another document.
class ImageInliner {
  public:
    ImageInliner(CountedString* html, ImageFileWriter* files);
    ~ImageInliner();
    ImageInliner(const ImageInliner&) = delete;
    ImageInliner& operator=(const ImageInliner&) = delete;

    // As FindImageReference on the current document; -1 when the work bound is reached.
    int32_t Find(std::string_view file_name, std::string_view content_id, std::string* reference);
    // As InlineImage on the current document, with the writer given at construction.
    int32_t Inline(std::string_view reference, const std::byte* data, size_t size, int32_t* count);
    // Writes what the calls so far have done into the document. 1; -1 when memory runs out, and the
    // document then keeps what it held before the first call since the last Finish.
    int32_t Finish();
    // Forgets what the calls since the last Finish have done, for a document about to be replaced.
    void Discard();

  private:
    class Index;

    int32_t Prepare(std::string_view reference);
    int32_t Contains(std::string_view reference);
    int32_t LeaveIndex();
    void Charge(uint64_t units);

    CountedString* html_;
    ImageFileWriter* files_;
    std::unique_ptr<Index> index_;
    uint64_t work_ = 0;
    uint64_t allowance_;
    bool document_counted_ = false;  // the current document's share is in the allowance
    uint64_t unindexed_work_;        // since the index was last left
};

// "data:image;base64," and the image's bytes in base64 with a final NUL, into `out`. 1; 0 when the
// encoding would not fit the capacity of 18 + size * 1.4 bytes; -13 for a null or empty image; -1 when
// memory runs out.
int32_t EncodeDataUri(const std::byte* data, size_t size, GrowBuffer* out);

// Blanks, in place and without changing the length, the "<div>&nbsp;value=\"/...\">" runs and the
// numeric references of control characters.
void StripHtmlNoise(CountedString* html);

}  // namespace tarn

#endif  // TARN_PST_RENDER_INLINE_IMAGE_H_
