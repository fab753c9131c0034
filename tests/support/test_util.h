// Small helpers that many tests share.
#ifndef TARN_TESTS_SUPPORT_TEST_UTIL_H_
#define TARN_TESTS_SUPPORT_TEST_UTIL_H_

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

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
