// What tarnview prints of a file's text: every control character a terminal would act on, and every
// byte that is not UTF-8, shows as an escape, in the text output and in JSON alike.
#include "common/terminal_text.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "common/json_writer.h"

namespace tarn {
namespace {

TEST(TerminalText, ControlsAndStrayBytesBecomeEscapes) {
    struct Case {
        std::string in;
        std::string text;
        std::string json;
    } cases[] = {
        {"caf\xC3\xA9 \xF0\x9F\x98\x80 \xE2\x80\x8E", "caf\xC3\xA9 \xF0\x9F\x98\x80 \xE2\x80\x8E",
         "caf\xC3\xA9 \xF0\x9F\x98\x80 \xE2\x80\x8E"},
        {"\x1B]0;title\x07\x1B[2J", "\\x1B]0;title\\x07\\x1B[2J", "\\u001b]0;title\\u0007\\u001b[2J"},
        {"t\tr\rn\n\\\"", "t\\tr\\rn\\n\\\\\"", "t\\tr\\rn\\n\\\\\\\""},
        {std::string("nul\0del\x7F", 8), "nul\\x00del\\x7F", "nul\\u0000del\\u007f"},
        {"c1 \xC2\x80\xC2\x9B\xC2\x9F \xC2\xA0", "c1 \\u0080\\u009B\\u009F \xC2\xA0",
         "c1 \\u0080\\u009b\\u009f \xC2\xA0"},
        {"bidi \xE2\x80\xAA\xE2\x80\xAE \xE2\x81\xA6\xE2\x81\xA9 \xE2\x80\xAF",
         "bidi \\u202A\\u202E \\u2066\\u2069 \xE2\x80\xAF",
         "bidi \\u202a\\u202e \\u2066\\u2069 \xE2\x80\xAF"},
        // A raw C1 byte, Latin-1, an overlong ESC, a surrogate, a value beyond Unicode, a cut sequence.
        {"\x9B\xE9 \xC0\x9B \xED\xA0\x80 \xF4\x90\x80\x80 \xE2\x80",
         "\\x9B\\xE9 \\xC0\\x9B \\xED\\xA0\\x80 \\xF4\\x90\\x80\\x80 \\xE2\\x80",
         "\\ufffd\\ufffd \\ufffd\\ufffd \\ufffd\\ufffd\\ufffd \\ufffd\\ufffd\\ufffd\\ufffd \\ufffd\\ufffd"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tarn::TerminalText(c.in), c.text) << c.in;
        std::ostringstream json;
        tarn::JsonWriter(json).Value(c.in);
        EXPECT_EQ(json.str(), "\"" + c.json + "\"") << c.in;
    }
    EXPECT_EQ(tarn::AsciiText("a\\b\xC3\xA9\x1B"), "a\\x5Cb\\xC3\\xA9\\x1B");
}

}  // namespace
}  // namespace tarn
