#include "pst/render/inline_image.h"

#include "common/status.h"

namespace tarn {

// Placeholders until the inlining lands: no reference is ever found, and nothing is changed.
int32_t FindImageReference(std::string_view /*html*/, std::string_view /*file_name*/,
                           std::string_view /*content_id*/, std::string* /*reference*/) {
    return kStatusNotPresent;
}

int32_t InlineImage(CountedString* /*html*/, std::string_view /*reference*/, const std::byte* /*data*/,
                    size_t /*size*/, ImageFileWriter* /*files*/, int32_t* count) {
    if (count != nullptr) *count = 0;
    return kStatusOk;
}

int32_t EncodeDataUri(const std::byte* /*data*/, size_t /*size*/, GrowBuffer* /*out*/) { return 0; }

void StripHtmlNoise(CountedString* /*html*/) {}

}  // namespace tarn
