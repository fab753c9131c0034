#include "pst/render/message_document.h"

#include <limits>
#include <string>

#include "kernel/tarnkrn.h"

namespace tarn {

int32_t AssignBytes(CountedString& target, const void* bytes, size_t count) {
    if (count == 0) {
        target.Release();
        return kStatusOk;
    }
    GrowBuffer buffer;
    if (buffer.Init(count, 0) != kStatusOk || buffer.Assign(bytes, count) != kStatusOk) return kStatusFailure;
    buffer.MoveInto(target);
    return kStatusOk;
}

int32_t AssignUtf8(CountedString& target, const char16_t* text, size_t units) {
    target.Release();
    if (units == 0 || text == nullptr) return kStatusOk;
    // The kernel counts in signed 32 bits, and the output needs 4 bytes a unit.
    if (units > static_cast<size_t>(std::numeric_limits<int32_t>::max()) / 4) return kStatusConversionFailed;
    // Converted into scratch memory first so that a failure leaves no kernel block behind.
    std::string scratch(units * 4, '\0');
    const int32_t written = krnUtf16ToUtf8(text, static_cast<int32_t>(units), scratch.data(),
                                           static_cast<int32_t>(scratch.size()));
    if (written <= 0) return kStatusConversionFailed;
    return AssignBytes(target, scratch.data(), static_cast<size_t>(written));
}

}  // namespace tarn
