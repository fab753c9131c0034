// Small helpers that many tests share.
#ifndef TARN_TESTS_SUPPORT_TEST_UTIL_H_
#define TARN_TESTS_SUPPORT_TEST_UTIL_H_

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/unicode.h"

namespace tarn::testing {

// Runs `f` and returns the message of the exception of type E it throws, or "(no error)".
template <typename E>
std::string MessageOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "(no error)";
}

// A path (UTF-8, as the file system gives it) as the UTF-16 the kernel and the store take.
inline std::u16string Wide(const std::filesystem::path& path) {
    return platform::Utf16FromUtf8(path.string());
}

// The bytes that a text of hexadecimal digit pairs (as the oracle scripts print them) stands for.
inline std::string FromHex(const std::string& hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

// A line of `tarnview list`: its fields split at the tabs, with the escapes inside them undone (\t, \r,
// \n and \\; \xHH for a byte, \uHHHH for a character).
inline std::vector<std::string> ListFields(const std::string& line) {
    std::vector<std::string> fields(1);
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\t') {
            fields.emplace_back();
        } else if (line[i] == '\\' && i + 1 < line.size()) {
            const char next = line[++i];
            const size_t digits = next == 'x' ? 2 : next == 'u' ? 4 : 0;
            if (digits != 0 && i + digits < line.size()) {
                const auto value = static_cast<char16_t>(std::stoi(line.substr(i + 1, digits), nullptr, 16));
                fields.back() += digits == 2 ? std::string(1, static_cast<char>(value))
                                             : platform::Utf8FromUtf16(std::u16string(1, value)).value_or("");
                i += digits;
            } else {
                fields.back() += next == 't' ? '\t' : next == 'r' ? '\r' : next == 'n' ? '\n' : next;
            }
        } else {
            fields.back() += line[i];
        }
    }
    return fields;
}

// The names of the files of the shared corpus folder `kind` ("pst", "msg", "eml") with that extension,
// sorted.
inline std::vector<std::string> CorpusFiles(const std::string& kind) {
    std::vector<std::string> files;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(TARN_SHARED_DIR) + "/corpus/" + kind))
        if (entry.path().extension() == "." + kind) files.push_back(entry.path().filename().string());
    std::sort(files.begin(), files.end());
    return files;
}

// A corpus file name as a test name: its stem, every character other than a letter or digit as '_'.
inline std::string CorpusCaseName(std::string file) {
    file = file.substr(0, file.find('.'));
    for (char& ch : file)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return file;
}

// Sets TZ for one test and restores it.
class TimeZone {
  public:
    explicit TimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) old_ = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        if (old_)
            setenv("TZ", old_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

  private:
    std::optional<std::string> old_;
};

}  // namespace tarn::testing

#endif  // TARN_TESTS_SUPPORT_TEST_UTIL_H_
