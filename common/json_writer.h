// A small streaming JSON writer for tarnview's --json output: enough for objects, arrays, strings and
// numbers, with commas and escaping handled here rather than by each command.
#ifndef TARN_COMMON_JSON_WRITER_H_
#define TARN_COMMON_JSON_WRITER_H_

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>
#include <vector>

#include "common/terminal_text.h"

namespace tarn {

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
    // Strings are written as UTF-8 that any reader accepts and that shows nothing raw on a terminal:
    // C0 controls, DEL, C1 controls and the bidirectional controls as \u escapes (JSON itself requires
    // only the C0 ones), and a byte that is not well-formed UTF-8 as \ufffd.
    void String(std::string_view text) {
        out_ << '"';
        // Runs that need no escape go out whole: a manifest of many thousand lines is mostly such runs.
        size_t plain = 0;
        for (size_t i = 0; i < text.size();) {
            const auto c = static_cast<unsigned char>(text[i]);
            if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
                ++i;
                continue;
            }
            char32_t code_point = c;
            const size_t length = c < 0x80 ? 1 : Utf8Sequence(text.substr(i), &code_point);
            if (length > 1 && !IsControlCharacter(code_point)) {
                i += length;
                continue;
            }
            out_.write(text.data() + plain, static_cast<std::streamsize>(i - plain));
            i += length == 0 ? 1 : length;
            plain = i;
            switch (code_point) {
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
                    const char32_t shown = length == 0 ? 0xFFFD : code_point;
                    out_ << "\\u" << hex[shown >> 12 & 15] << hex[shown >> 8 & 15] << hex[shown >> 4 & 15]
                         << hex[shown & 15];
                }
            }
        }
        out_.write(text.data() + plain, static_cast<std::streamsize>(text.size() - plain));
        out_ << '"';
    }

    std::ostream& out_;
    std::vector<bool> first_;
    bool after_key_ = false;
};

}  // namespace tarn

#endif  // TARN_COMMON_JSON_WRITER_H_
