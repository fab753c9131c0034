// Subjects of real Unicode stores read with read_wstring against those pffexport (pff-tools) extracts
// from the same file, run as a black box. Before comparing, our side drops what the message model
// strips later: terminating zeros, and the subject-prefix marker (U+0001 and the unit after it).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/unicode.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"
#include "tests/support/scratch_file.h"
#include "tests/support/test_util.h"

namespace {

using namespace tarn::ltp;
namespace fs = std::filesystem;

std::string Utf8(const std::u16string& text) {
    return tarn::platform::Utf8FromUtf16(text).value_or("(not UTF-16)");
}

class CorpusSubjectTest : public ::testing::TestWithParam<const char*> {};

TEST_P(CorpusSubjectTest, SubjectsMatchPffexport) {
    if (std::system("command -v pffexport >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "pffexport (pff-tools) is not installed";
    const std::string path = std::string(TARN_SHARED_DIR) + "/corpus/pst/" + GetParam();

    std::vector<std::string> ours;
    auto db = tarn::ndb::open_database(tarn::testing::Wide(path));
    for (const auto& info : tarn::ndb::page_range(db->read_nbt_root())) {
        if ((info.id & 0x1F) != 0x04) continue;
        const property_bag message(db->lookup_node(info.id));
        if (!message.prop_exists(0x0037)) continue;
        std::u16string subject = message.read_wstring(0x0037);
        while (!subject.empty() && subject.back() == 0) subject.pop_back();
        if (subject.size() >= 2 && subject[0] == 0x0001) subject.erase(0, 2);
        ours.push_back(Utf8(subject));
    }

    tarn::testing::ScratchDir dir;
    const fs::path out = dir.path() / "out";
    const std::string run =
        "pffexport -q -f all -m items -t '" + out.string() + "' '" + path + "' >/dev/null 2>&1";
    ASSERT_EQ(std::system(run.c_str()), 0) << run;
    std::vector<std::string> theirs;
    for (const auto& entry : fs::recursive_directory_iterator(out.string() + ".export")) {
        if (entry.path().filename() != "OutlookHeaders.txt") continue;
        std::ifstream in(entry.path(), std::ios::binary);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("Subject:", 0) == 0)
                theirs.push_back(line.substr(std::min(line.size(), line.find_first_not_of('\t', 8))));
        }
    }
    std::sort(ours.begin(), ours.end());
    std::sort(theirs.begin(), theirs.end());
    EXPECT_FALSE(ours.empty());
    EXPECT_EQ(ours, theirs);
}

// Stores in which every item pffexport exports is a message (no contacts or appointments).
INSTANTIATE_TEST_SUITE_P(UnicodeCorpus, CorpusSubjectTest,
                         ::testing::Values("unicode-dfrws2009-rodeo.pst", "unicode-gopst-support-html.pst",
                                           "unicode-hello-cjk.pst",
                                           "unicode-nocrypt-pst2john-quickquick.pst"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return tarn::testing::CorpusCaseName(info.param);
                         });

}  // namespace
