// Little-endian integers in file bytes, and a bounds-checked cursor over them.
//
// Every integer that a reader takes from a file goes through these: they never cast a pointer to a
// struct and never depend on host byte order or alignment.
#ifndef TARN_COMMON_LITTLE_ENDIAN_H_
#define TARN_COMMON_LITTLE_ENDIAN_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tarn {

// Requires: at least sizeof(T) bytes at `p`.
template <typename T>
inline T LoadLe(const std::byte* p) {
    static_assert(std::is_unsigned_v<T>);
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(std::to_integer<T>(p[i]) << (8 * i));
    return value;
}

inline uint8_t LoadLe8(const std::byte* p) { return std::to_integer<uint8_t>(*p); }
inline uint16_t LoadLe16(const std::byte* p) { return LoadLe<uint16_t>(p); }
inline uint32_t LoadLe32(const std::byte* p) { return LoadLe<uint32_t>(p); }
inline uint64_t LoadLe64(const std::byte* p) { return LoadLe<uint64_t>(p); }

// Requires: at least sizeof(T) bytes at `p`.
template <typename T>
inline void StoreLe(std::byte* p, T value) {
    static_assert(std::is_unsigned_v<T>);
    for (size_t i = 0; i < sizeof(T); ++i) p[i] = static_cast<std::byte>((value >> (8 * i)) & 0xFF);
}

// The integer of type T at `offset` in `bytes`, or nothing when it does not lie wholly inside them.
template <typename T>
inline std::optional<T> ReadLeAt(std::span<const std::byte> bytes, size_t offset) {
    if (offset > bytes.size() || sizeof(T) > bytes.size() - offset) return std::nullopt;
    return LoadLe<T>(bytes.data() + offset);
}

// A read position over borrowed bytes. Reads that would pass the end fail (return false or nothing)
// and leave the position where it was.
class ByteCursor {
  public:
    explicit ByteCursor(std::span<const std::byte> bytes, size_t position = 0)
        : bytes_(bytes), position_(position > bytes.size() ? bytes.size() : position) {}

    size_t position() const { return position_; }
    size_t remaining() const { return bytes_.size() - position_; }
    std::span<const std::byte> bytes() const { return bytes_; }

    bool Seek(size_t position) {
        if (position > bytes_.size()) return false;
        position_ = position;
        return true;
    }
    bool Skip(size_t count) {
        if (count > remaining()) return false;
        position_ += count;
        return true;
    }

    template <typename T>
    std::optional<T> Read() {
        auto value = ReadLeAt<T>(bytes_, position_);
        if (value) position_ += sizeof(T);
        return value;
    }
    std::optional<uint8_t> Read8() { return Read<uint8_t>(); }
    std::optional<uint16_t> Read16() { return Read<uint16_t>(); }
    std::optional<uint32_t> Read32() { return Read<uint32_t>(); }
    std::optional<uint64_t> Read64() { return Read<uint64_t>(); }

    // The next `count` bytes as a view, valid as long as the underlying bytes.
    std::optional<std::span<const std::byte>> Take(size_t count) {
        if (count > remaining()) return std::nullopt;
        auto view = bytes_.subspan(position_, count);
        position_ += count;
        return view;
    }

  private:
    std::span<const std::byte> bytes_;
    size_t position_;
};

}  // namespace tarn

#endif  // TARN_COMMON_LITTLE_ENDIAN_H_
