// The growable byte buffer that every part of document assembly writes into, and the counted byte
// string that message fields are edited as. Both hold memory from the kernel allocator.
//
// A GrowBuffer's status is sticky: writers append without checking each step and, when an append
// fails, return the buffer's status (-1 unless the kernel reported something more specific).
#ifndef TARN_PST_RENDER_TEXT_BUFFER_H_
#define TARN_PST_RENDER_TEXT_BUFFER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <string_view>

#include "common/status.h"

namespace tarn {

class CountedString;

// Buffers at or above this many bytes are registered with the kernel's memory-usage accounting, which
// may refuse them.
constexpr size_t kAccountThreshold = 8'000'000;
// The toolkit measures lengths in signed 32 bits; no buffer grows beyond that.
constexpr size_t kMaxBufferBytes = 0x7FFFFFFF;
// Every this many reallocations the growth step doubles, so that long documents grow in fewer steps.
constexpr uint32_t kReallocationsPerDoubling = 21;
// What a step of 0 becomes where others double, so that it does not stay 0.
constexpr size_t kStepAfterZero = 32;

class GrowBuffer {
  public:
    GrowBuffer() = default;
    ~GrowBuffer() { Release(); }
    GrowBuffer(const GrowBuffer&) = delete;
    GrowBuffer& operator=(const GrowBuffer&) = delete;

    // Empties the buffer (releasing what it held) and sets its growth step (bytes added beyond the need
    // at each reallocation) and whether new space is cleared; reserves `initial_size` when it is not 0.
    // 1, or the status of the failed reserve.
    int32_t Init(size_t initial_size, size_t growth_step, bool zero_fill = false);
    // True when the capacity is at least `needed` afterwards.
    bool Reserve(size_t needed);
    // 1 on success (count 0 too); -814 for a null source; the buffer's status when it cannot grow.
    int32_t Append(const void* bytes, size_t count);
    int32_t Append(std::string_view text) { return Append(text.data(), text.size()); }
    int32_t AppendByte(uint8_t byte);
    // Replaces the contents.
    int32_t Assign(const void* bytes, size_t count);
    // Appends one NUL unless the last byte already is one (an empty buffer gets one).
    int32_t Terminate();
    // Frees the data and gives any accounted size back to the kernel. The growth step stays.
    void Release();
    // `target` takes over the data and length (its own data is freed); the buffer is left empty.
    void MoveInto(CountedString& target);
    // Takes over `source`'s memory (its own is freed first) as contents of its text length, a final NUL
    // kept beyond the length; nothing is copied. 1; the kernel's refusal to account a large block (the
    // string then keeps its memory and the buffer is left empty).
    int32_t Adopt(CountedString& source);
    // Shortens the contents to `length` bytes; a longer value is ignored.
    void Truncate(size_t length);
    // Counts `count` more bytes as contents, written in place behind them (at data() + length()) by
    // the caller. Requires: length() + count <= capacity().
    void Extend(size_t count) { length_ += count; }

    std::byte* data() { return data_; }
    const std::byte* data() const { return data_; }
    size_t length() const { return length_; }
    size_t capacity() const { return capacity_; }
    size_t growth_step() const { return growth_step_; }
    int32_t status() const { return status_; }
    std::string_view view() const { return {reinterpret_cast<const char*>(data_), length_}; }

  private:
    std::byte* data_ = nullptr;
    size_t length_ = 0;
    size_t capacity_ = 0;
    size_t growth_step_ = 0;
    bool zero_fill_ = false;
    int32_t status_ = kStatusFailure;
    int64_t accounted_ = 0;       // bytes registered with the kernel's accounting
    bool accounting_ = false;     // registering has started
    uint32_t reallocations_ = 0;  // since the step last doubled
};

// A byte string in kernel memory whose size may include one terminating NUL.
class CountedString {
  public:
    CountedString() = default;
    ~CountedString() { Release(); }
    CountedString(CountedString&& other) noexcept;
    CountedString& operator=(CountedString&& other) noexcept;
    CountedString(const CountedString&) = delete;
    CountedString& operator=(const CountedString&) = delete;

    const std::byte* data() const { return data_; }
    size_t size() const { return size_; }
    // The size without a terminating NUL.
    size_t TextLength() const;
    std::string_view text() const { return {reinterpret_cast<const char*>(data_), TextLength()}; }
    void Release();

  private:
    friend class GrowBuffer;
    friend int32_t InsertAt(CountedString* string, size_t offset, const void* bytes, size_t count);

    std::byte* data_ = nullptr;
    size_t size_ = 0;
};

// Grows the string to max(size, offset) + count (a gap beyond the old end is zero-filled), moves the
// tail from `offset` up and copies the bytes in. 1; -814 for a null string or source; -1 when memory
// runs out.
int32_t InsertAt(CountedString* string, size_t offset, const void* bytes, size_t count);

// Appends the next `size` bytes of `in` to `out`, piece by piece, so that the buffer grows with what the
// stream actually yields rather than with what it was said to hold. The stream's exception mask gains
// badbit first: an error thrown by the stream's source then leaves this function as itself, instead of
// turning into a state bit that reads like the end of the data. 1; -7 when the stream ends before
// `size` bytes; the buffer's status (-1) when it cannot grow.
int32_t AppendFromStream(std::istream& in, uint64_t size, GrowBuffer& out);
// The same for a source read directly, without a stream's buffer between it and `out`: `read(into,
// count)` puts up to `count` bytes at `into` and returns how many, 0 when the source has no more. An
// error of the source is thrown by `read` and leaves as itself. Same statuses as AppendFromStream.
template <typename Reader>
int32_t AppendFromReader(Reader&& read, uint64_t size, GrowBuffer& out) {
    constexpr size_t kPiece = 64 * 1024;
    if (size > kMaxBufferBytes - out.length()) return kStatusFailure;
    const size_t end = out.length() + static_cast<size_t>(size);
    while (out.length() < end) {
        const size_t want = std::min(kPiece, end - out.length());
        // Room for a piece is made before it is read, so that it is read in place. Doubling keeps the
        // copies linear; the end stays the cap, so a source that stops early has cost at most twice
        // what it gave, and one piece.
        const size_t needed = out.length() + want;
        if (needed > out.capacity() && !out.Reserve(std::min(end, std::max(needed, 2 * out.capacity()))))
            return out.status();
        const size_t got = read(reinterpret_cast<char*>(out.data() + out.length()), want);
        if (got == 0) return kStatusShortRead;
        out.Extend(got);
    }
    return kStatusOk;
}
// The count that AppendCounted reads as "up to the first NUL".
constexpr int32_t kUpToNul = -1;

// Appends before the string's terminating NUL and keeps it terminated. Same statuses as InsertAt, and
// -13 for a negative count other than kUpToNul.
int32_t AppendCounted(CountedString* string, const void* bytes, int32_t count);

}  // namespace tarn

#endif  // TARN_PST_RENDER_TEXT_BUFFER_H_
