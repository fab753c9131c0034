// Single-part corpus messages in ISO-2022-JP and GB2312, and in Shift_JIS and GB18030, sets beyond the
// table that are converted by their names: the body converted with the charset its header declares, against
// an independent MIME reader (npm mailparser, run as a black box by tests/oracles/mailbody.js). Big5 is not
// compared: that reader's Big5 is the Hong Kong superset, ours is Windows code page 950, and they part on the
// bytes that matter.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "common/status.h"
#include "pst/render/charset.h"
#include "tests/support/counted_text.h"
#include "tests/support/scratch_file.h"

namespace tarn {
namespace {

using testing::Counted;

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(CharsetCorpus, BodiesMatchAnIndependentMimeReader) {
    const fs::path corpus = fs::path(TARN_SHARED_DIR) / "corpus" / "eml";
    struct Message {
        std::string file;
        int32_t code;
    };
    // 7-bit or 8-bit single parts, so that the body is the bytes behind the header block.
    const std::vector<Message> messages = {
        {"iso2022jp-thunderbird-plain.eml", kCharsetIso2022Jp},
        {"gb2312-8bit-chinese.eml", kCharsetGb2312},
        {"shift-jis-8bit-plain.eml", kCharsetOther},
        {"gb18030-8bit-chinese.eml", kCharsetOther},
    };
    testing::ScratchDir work;
    std::string command = "node '" + std::string(TARN_SOURCE_DIR) + "/tests/oracles/mailbody.js'";
    for (const Message& m : messages)
        command += " '" + (corpus / m.file).string() + "' '" + (work.path() / m.file).string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0)
        << "the independent MIME reader did not run (scripts/oracles.sh)";

    for (const Message& m : messages) {
        SCOPED_TRACE(m.file);
        const std::string message = ReadFile(corpus / m.file);
        size_t body_at = message.find("\r\n\r\n");
        body_at = body_at == std::string::npos ? message.find("\n\n") + 2 : body_at + 4;
        ASSERT_LT(body_at, message.size());

        CharsetCode charset;
        ASSERT_EQ(FindCharsetDeclaration(std::string_view(message).substr(0, body_at), &charset), 1);
        ASSERT_EQ(charset.code, m.code);
        CountedString body = Counted(std::string_view(message).substr(body_at));
        if (m.code == kCharsetOther) {
            const size_t name = message.find("charset=\"") + 9;
            ASSERT_EQ(
                ConvertNamedSetToUtf8(&body, message.substr(name, message.find('"', name) - name), true),
                kStatusOk);
        } else {
            ASSERT_EQ(ConvertToUtf8(&body, &charset, true), kStatusOk);
        }

        std::string ours(body.text());
        std::string theirs = ReadFile(work.path() / m.file);
        ASSERT_FALSE(theirs.empty());
        // The reader writes line ends as LF and drops the one that ends the text.
        std::erase(ours, '\r');
        while (!ours.empty() && ours.back() == '\n') ours.pop_back();
        while (!theirs.empty() && theirs.back() == '\n') theirs.pop_back();
        EXPECT_EQ(ours, theirs);
    }
}

}  // namespace
}  // namespace tarn
