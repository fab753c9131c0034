// How tarnview names the documents it writes.
#ifndef TARN_TOOLS_TARNVIEW_DOCUMENTS_H_
#define TARN_TOOLS_TARNVIEW_DOCUMENTS_H_

#include <cstdint>

#include "pst/filter_data.h"

namespace tarnview {

// The file extension of a document of the given format (226, 316 or 369).
inline const char* DocumentExtension(int32_t format) {
    switch (format) {
        case tarn::kDocumentHtml:
            return ".html";
        case tarn::kDocumentRtf:
            return ".rtf";
        default:
            return ".txt";
    }
}

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_DOCUMENTS_H_
