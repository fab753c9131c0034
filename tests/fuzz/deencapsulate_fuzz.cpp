// HTML recovery from arbitrary RTF: the de-encapsulation and both clean-ups on the bytes as they are,
// and the message file's whole path (decompression and hand-on) on the same bytes stored as "MELA"
// data. No crash, no read outside the input, nothing left in the kernel.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "kernel/tarnkrn.h"
#include "pst/render/compressed_rtf.h"
#include "pst/render/encapsulated_html.h"

namespace {

// A CountedString holding a copy of `size` bytes, the way a reader hands a body on.
tarn::CountedString Body(const uint8_t* data, size_t size) {
    tarn::GrowBuffer buffer;
    tarn::CountedString body;
    if (buffer.Init(size + 1, 0) == 1 && buffer.Append(data, size) == 1) buffer.MoveInto(body);
    return body;
}

void PutLe32(std::string& out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        tarn::CountedString body = Body(data, size);
        tarn::DeencapsulateHtml(&body);
        tarn::RewriteConditionalComments(&body);
        tarn::TrimLongDivs(&body);
    }
    {
        // The clean-ups on their own see the markup as it was written.
        tarn::CountedString body = Body(data, size);
        tarn::RewriteConditionalComments(&body);
        tarn::TrimLongDivs(&body);
    }
    {
        std::string stored;
        PutLe32(stored, static_cast<uint32_t>(size + 12));
        PutLe32(stored, static_cast<uint32_t>(size));
        PutLe32(stored, 0x414C454D);  // "MELA": stored as it is, no CRC asked
        PutLe32(stored, 0);
        stored.append(reinterpret_cast<const char*>(data), size);
        tarn::CountedString document;
        tarn::DecompressRtfBuffer(reinterpret_cast<const std::byte*>(stored.data()), stored.size(), document);
    }
    return 0;
}
