// Counted strings made from and read back as plain bytes, for tests and harnesses of the routines that
// edit message text in place.
#ifndef TARN_TESTS_SUPPORT_COUNTED_TEXT_H_
#define TARN_TESTS_SUPPORT_COUNTED_TEXT_H_

#include <string>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn::testing {

// A counted string in kernel memory holding exactly `bytes` (an empty one holds no memory).
inline CountedString Counted(std::string_view bytes) {
    GrowBuffer buffer;
    buffer.Init(0, 0);
    buffer.Assign(bytes.data(), bytes.size());
    CountedString out;
    buffer.MoveInto(out);
    return out;
}

// Every byte of the string, a terminating NUL included.
inline std::string Bytes(const CountedString& string) {
    return {reinterpret_cast<const char*>(string.data()), string.size()};
}

}  // namespace tarn::testing

#endif  // TARN_TESTS_SUPPORT_COUNTED_TEXT_H_
