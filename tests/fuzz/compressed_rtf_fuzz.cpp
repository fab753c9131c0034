// Compressed RTF from arbitrary bytes, through both entry points: no crash, no read outside the input,
// no allocation beyond what the input could expand to, and nothing left in the kernel.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "pst/render/compressed_rtf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    {
        tarn::CountedString document;
        tarn::DecompressRtfBuffer(bytes, size, document);
    }
    {
        std::istringstream stream(std::string(reinterpret_cast<const char*>(data), size));
        tarn::CountedString document;
        tarn::DecompressRtfStream(stream, document);
    }
    return 0;
}
