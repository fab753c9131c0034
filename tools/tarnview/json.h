// A small streaming JSON writer for tarnview's --json output: enough for objects, arrays, strings and
// numbers, with commas and escaping handled here rather than by each command.
#ifndef TARN_TOOLS_TARNVIEW_JSON_H_
#define TARN_TOOLS_TARNVIEW_JSON_H_

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>
#include <vector>

namespace tarnview {

// The length of the well-formed UTF-8 sequence at `text[at]` and its code point, or 0 when ill-formed.
inline size_t Utf8Sequence(std::string_view text, size_t at, uint32_t* code_point) {
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(at);
    size_t length = 0;
    uint32_t value = 0;
    uint32_t least = 0;
    if (lead < 0x80) {
        *code_point = lead;
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, value = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, value = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, value = lead & 0x07, least = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        value = (value << 6) | (byte(at + i) & 0x3F);
    }
    if (value < least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    *code_point = value;
    return length;
}

class JsonWriter {
  public:
    explicit JsonWriter(std::ostream& out) : out_(out) {}

    JsonWriter& BeginObject() { return Open('{'); }
    JsonWriter& EndObject() { return Close('}'); }
    JsonWriter& BeginArray() { return Open('['); }
    JsonWriter& EndArray() { return Close(']'); }

    // Inside an object: the next value's key.
    JsonWriter& Key(std::string_view key) {
        Separate();
        String(key);
        out_ << ':';
        after_key_ = true;
        return *this;
    }

    JsonWriter& Value(std::string_view text) {
        Separate();
        String(text);
        return *this;
    }
    JsonWriter& Value(const char* text) { return Value(std::string_view(text)); }
    JsonWriter& Value(bool b) {
        Separate();
        out_ << (b ? "true" : "false");
        return *this;
    }
    JsonWriter& Value(int64_t n) {
        Separate();
        out_ << n;
        return *this;
    }
    JsonWriter& Value(uint64_t n) {
        Separate();
        out_ << n;
        return *this;
    }
    JsonWriter& Value(int32_t n) { return Value(static_cast<int64_t>(n)); }
    JsonWriter& Value(uint32_t n) { return Value(static_cast<uint64_t>(n)); }
    JsonWriter& Null() {
        Separate();
        out_ << "null";
        return *this;
    }
    // A value that may be absent: null then.
    template <typename T>
    JsonWriter& Value(const std::optional<T>& value) {
        return value ? Value(*value) : Null();
    }

    template <typename T>
    JsonWriter& Field(std::string_view key, const T& value) {
        Key(key);
        return Value(value);
    }

  private:
    JsonWriter& Open(char c) {
        Separate();
        out_ << c;
        first_.push_back(true);
        return *this;
    }
    JsonWriter& Close(char c) {
        out_ << c;
        if (!first_.empty()) first_.pop_back();
        return *this;
    }
    void Separate() {
        if (after_key_) {
            after_key_ = false;
            return;
        }
        if (!first_.empty()) {
            if (!first_.back()) out_ << ',';
            first_.back() = false;
        }
    }
    void String(std::string_view text) {
        out_ << '"';
        // Runs that need no escape go out whole: a manifest of many thousand lines is mostly such runs.
        size_t plain = 0;
        for (size_t i = 0; i < text.size(); ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            uint32_t code_point = 0;
            const size_t length = c >= 0x80 ? Utf8Sequence(text, i, &code_point) : 1;
            if (length > 1) i += length - 1;
            if (length > 0 && c >= 0x20 && c != '"' && c != '\\') continue;
            out_.write(text.data() + plain, static_cast<std::streamsize>(i - plain));
            plain = i + 1;
            // A byte that is not UTF-8 (a file name's, say) cannot be carried: the replacement character
            // keeps the document valid JSON.
            if (length == 0) {
                out_ << "\\ufffd";
                continue;
            }
            switch (c) {
                case '"':
                    out_ << "\\\"";
                    break;
                case '\\':
                    out_ << "\\\\";
                    break;
                case '\n':
                    out_ << "\\n";
                    break;
                case '\r':
                    out_ << "\\r";
                    break;
                case '\t':
                    out_ << "\\t";
                    break;
                default: {
                    static const char* hex = "0123456789abcdef";
                    out_ << "\\u00" << hex[c >> 4] << hex[c & 15];
                }
            }
        }
        // Well-formed UTF-8 passes through.
        out_.write(text.data() + plain, static_cast<std::streamsize>(text.size() - plain));
        out_ << '"';
    }

    std::ostream& out_;
    std::vector<bool> first_;
    bool after_key_ = false;
};

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_JSON_H_
