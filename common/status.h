// The toolkit's 32-bit status codes, named once. The filter's own code (entry points, readers,
// rendering) returns these; the store layers throw instead and never see them.
#ifndef TARN_COMMON_STATUS_H_
#define TARN_COMMON_STATUS_H_

#include <cstdint>

namespace tarn {

constexpr int32_t kStatusOk = 1;
constexpr int32_t kStatusNotPresent = 2;              // not present or skipped, where that is not a failure
constexpr int32_t kStatusFailure = -1;                // out of memory, or a general failure
constexpr int32_t kStatusNoPosition = -4;             // a file position could not be told
constexpr int32_t kStatusShortRead = -7;              // fewer bytes than asked for could be read
constexpr int32_t kStatusUnsupported = -9;            // unsupported or malformed source, no body
constexpr int32_t kStatusCannotOpen = -10;            // the source cannot be opened
constexpr int32_t kStatusBadArgument = -13;           // null argument or record, no messages, too small
constexpr int32_t kStatusMessageFileOpen = -14;       // a message file cannot be opened by name
constexpr int32_t kStatusFormatFailure = -74;         // formatting failed, or a list does not fit
constexpr int32_t kStatusNullPointer = -814;          // a null pointer given to a slot or buffer routine
constexpr int32_t kStatusFileTooLarge = -1778;        // a file larger than 0x7FFFFFFF bytes
constexpr int32_t kStatusConversionFailed = -1851;    // text could not be converted (code page, UTF-8)
constexpr int32_t kStatusIndexOutOfRange = -1860;     // a slot entry index beyond the list
constexpr int32_t kStatusInfoCallbackFailed = -1863;  // the toolkit's info callback failed
constexpr int32_t kStatusSlotOccupied = -1935;        // a slot entry already holds other data

// A few words for a status, for hosts and logs; statuses passed through from a loader that we do
// not know read "toolkit status".
inline const char* StatusText(int32_t status) {
    switch (status) {
        case kStatusOk:
            return "success";
        case kStatusNotPresent:
            return "not present";
        case kStatusFailure:
            return "out of memory or general failure";
        case kStatusNoPosition:
            return "file position could not be told";
        case kStatusShortRead:
            return "short read";
        case kStatusUnsupported:
            return "unsupported or malformed source, no document";
        case kStatusCannotOpen:
            return "source cannot be opened";
        case kStatusBadArgument:
            return "null argument or record, or nothing to show";
        case kStatusMessageFileOpen:
            return "message file cannot be opened";
        case kStatusFormatFailure:
            return "formatting failure or list does not fit";
        case kStatusNullPointer:
            return "null pointer";
        case kStatusFileTooLarge:
            return "file larger than 2 GiB";
        case kStatusConversionFailed:
            return "text conversion failed";
        case kStatusIndexOutOfRange:
            return "slot entry index out of range";
        case kStatusInfoCallbackFailed:
            return "toolkit info callback failed";
        case kStatusSlotOccupied:
            return "slot entry already holds other data";
        default:
            return "toolkit status";
    }
}

}  // namespace tarn

#endif  // TARN_COMMON_STATUS_H_
