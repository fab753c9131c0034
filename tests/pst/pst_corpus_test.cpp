// Every PST of the shared corpus through the filter: the message count that fltInfo reports against the
// folders' content counts as pypff (python3-pypff) reads them, the first and last message with a
// document (HTML or RTF) and with a plain-text body loaded through fltLoad, and `tarnview list` against
// pffexport (pff-tools). Both peers are run as black boxes on the same file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/status.h"
#include "pst/composer.h"
#include "pst/message_walk.h"
#include "store/ltp/property_bag.h"
#include "store/ndb/database.h"
#include "tests/pst/store_fixture.h"
#include "tests/support/test_util.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;

std::string CorpusPath(const std::string& file) {
    return std::string(TARN_SHARED_DIR) + "/corpus/pst/" + file;
}

std::string Run(const std::string& command, int* exit_status = nullptr) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    const int status = pclose(pipe);
    if (exit_status != nullptr) *exit_status = status;
    return out;
}

// What pypff makes of the folders (tests/pst/pypff_folder_counts.py): the node ids of the folders it
// reaches from the root folder and of those it finds outside the hierarchy, and the sum of the content
// counts of the normal folders reached that are not named "Freebusy Data".
struct PypffCounts {
    bool ran = false;
    std::set<ndb::node_id> reached;
    std::set<ndb::node_id> orphans;
    int64_t total = 0;
    int64_t missing = 0;  // counted folders without a content count
};
PypffCounts CountWithPypff(const std::string& path) {
    PypffCounts out;
    int status = -1;
    std::istringstream lines(Run("/usr/bin/python3 '" + std::string(TARN_SOURCE_DIR) +
                                     "/tests/pst/pypff_folder_counts.py' '" + path + "'",
                                 &status));
    bool totalled = false;
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream split(line);
        for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
        if (fields.size() == 3 && fields[0] == "total") {
            out.total = std::stoll(fields[1]);
            out.missing = std::stoll(fields[2]);
            totalled = true;
        } else if (fields.size() >= 4 && (fields[0] == "folder" || fields[0] == "orphan")) {
            const auto id = static_cast<ndb::node_id>(std::stoul(fields[1]));
            (fields[0] == "folder" ? out.reached : out.orphans).insert(id);
        }
    }
    out.ran = status == 0 && totalled;
    return out;
}

// The normal folders (node type 2) of the node B-tree, which the filter counts, that pypff does not
// reach from the root folder: each by id and display name, and why where pypff says. Empty for every
// store of the corpus, whose folders all hang in the hierarchy. Our store code only lists the ids here;
// the count it is compared with is pypff's alone.
std::vector<std::string> FoldersPypffMisses(const ndb::db_ptr& db, const PypffCounts& pypff) {
    std::vector<std::string> missed;
    for (const ndb::node_info& info : ndb::page_range(db->read_nbt_root())) {
        if ((info.id & 0x1F) != 0x02 || pypff.reached.count(info.id) != 0) continue;
        std::string name = "(display name unreadable)";
        try {
            name =
                host::Utf8FromWide(ltp::property_bag(db->lookup_node(info.id)).read_wstring(0x3001).c_str());
        } catch (const std::exception&) {
            // Only the label of this report; the folder is reported either way.
        }
        std::ostringstream text;
        text << "0x" << std::hex << info.id << " \"" << name << "\"";
        if (pypff.orphans.count(info.id) != 0) text << ": an orphan to pypff, outside the folder hierarchy";
        missed.push_back(text.str());
    }
    return missed;
}

using SubjectAndSender = std::pair<std::string, std::string>;

// Which bodies each message has, by the index the filter gives it.
struct Bodies {
    bool document = false;  // HTML or compressed RTF
    bool text = false;
};
// Appointments, contacts and the like: the filter pages them as it pages mail, pffexport writes other
// files than OutlookHeaders.txt for them.
bool IsNotMail(const std::u16string& message_class) {
    for (const char16_t* prefix : {u"IPM.Appointment", u"IPM.Contact", u"IPM.DistList", u"IPM.Task",
                                   u"IPM.StickyNote", u"IPM.Activity"}) {
        if (message_class.rfind(prefix, 0) == 0) return true;
    }
    return false;
}
std::vector<Bodies> BodiesInWalkOrder(const ndb::db_ptr& db, std::multiset<SubjectAndSender>* not_mail) {
    std::vector<Bodies> out;
    WalkMessages(db, [&](ndb::node_id, PstMessage& message) {
        const ltp::property_bag& p = message.properties();
        const std::u16string subject = ReadSubject(p);
        if (subject == kLocalFreebusySubject) return kWalkNext;
        out.push_back(
            {p.prop_exists(kPropHtmlBody) || p.prop_exists(kPropRtfCompressed), p.prop_exists(kPropBody)});
        if (p.prop_exists(0x001A) && IsNotMail(p.read_wstring(0x001A))) {
            MessageDocument fields;
            ReadHeaderFields(p, fields);
            not_mail->insert(
                {host::Utf8FromWide(subject.c_str()), std::string(fields.header[kSlotFrom].text())});
        }
        return kWalkNext;
    });
    return out;
}

struct Described {
    int32_t status = 0;
    std::string error;
    int32_t message_count = 0;
};
Described Describe(const std::u16string& path, int32_t number) {
    host::Toolkit toolkit;
    host::SourceSession session(path);
    krnctlSetMode(3);
    KernelFileHandle handle(krnOpenFile(path.c_str(), 0, kOpenShareMode));
    const host::CallOutcome outcome =
        host::CallInfo(kLinkedFilter, &session.BuildInfoRequest(handle.get(), number));
    Described d{outcome.status, outcome.error, session.file_info().message_count};
    EXPECT_TRUE(session.ReleaseSlot(kLinkedFilter).returned());
    return d;
}

// tarnview list's subject and sender columns.
std::multiset<SubjectAndSender> Listed(const std::string& path) {
    std::multiset<SubjectAndSender> out;
    std::istringstream lines(Run("'" TARNVIEW_PATH "' list '" + path + "'"));
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> fields = ListFields(line);
        if (fields.size() == 5) out.insert({fields[2], fields[3]});
    }
    return out;
}

// pffexport's: its OutlookHeaders.txt of every item. An item without a subject line shows as
// "No Subject" on our side, deliberately; the calendar's "LocalFreebusy" item takes no page of ours.
std::multiset<SubjectAndSender> Exported(const std::string& path) {
    std::multiset<SubjectAndSender> out;
    ScratchDir dir;
    const fs::path target = dir.path() / "out";
    const std::string run =
        "pffexport -q -f all -m items -t '" + target.string() + "' '" + path + "' >/dev/null 2>&1";
    if (std::system(run.c_str()) != 0) ADD_FAILURE() << run;
    auto value = [](const std::string& line, size_t label) {
        const size_t start = line.find_first_not_of('\t', label);
        return start == std::string::npos ? std::string() : line.substr(start);
    };
    for (const auto& entry : fs::recursive_directory_iterator(target.string() + ".export")) {
        if (entry.path().filename() != "OutlookHeaders.txt") continue;
        // Messages attached to messages are pffexport's items too, but never pages of ours.
        if (entry.path().string().find("/Attachments/") != std::string::npos) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        std::string subject = "No Subject", sender;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("Subject:", 0) == 0) subject = value(line, 8);
            if (line.rfind("Sender name:", 0) == 0) sender = value(line, 12);
        }
        if (subject != "LocalFreebusy") out.insert({subject, sender});
    }
    return out;
}

struct CorpusCase {
    const char* file;
    // Deliberate differences, each named:
    bool count_escapes;   // a folder without a content count: the count fails and nothing is caught
    bool ansi_non_ascii;  // 8-bit strings are widened byte by byte, without the store's code page
};

class PstCorpus : public ::testing::TestWithParam<CorpusCase> {};

TEST_P(PstCorpus, CountRenderAndList) {
    const CorpusCase& c = GetParam();
    const std::string path = CorpusPath(c.file);
    const std::u16string wide(path.begin(), path.end());
    const ndb::db_ptr db = ndb::open_database(wide);
    std::multiset<SubjectAndSender> not_mail;
    const std::vector<Bodies> bodies = BodiesInWalkOrder(db, &not_mail);
    ASSERT_FALSE(bodies.empty());

    std::vector<size_t> documents, texts;
    for (size_t i = 0; i < bodies.size(); ++i) {
        if (bodies[i].document) documents.push_back(i);
        if (bodies[i].text) texts.push_back(i);
    }

    const PypffCounts pypff = CountWithPypff(path);
    ASSERT_TRUE(pypff.ran) << "pypff did not run (scripts/deps.sh test installs python3-pypff)";
    // A folder counted by the filter but out of pypff's reach would make the two sums differ.
    EXPECT_EQ(FoldersPypffMisses(db, pypff), std::vector<std::string>{});
    if (c.count_escapes) {
        // pypff too sees folders without a content count; ours fails there and says why.
        EXPECT_GT(pypff.missing, 0);
        const Described d = Describe(wide, 1);
        EXPECT_NE(d.error.find("key not found"), std::string::npos) << d.error;
        EXPECT_EQ(LoadMessage(wide, 1).error, "fltLoad: uncaught exception: key not found");
        return;
    }
    ASSERT_EQ(pypff.missing, 0);
    const int64_t count = pypff.total;
    ASSERT_GE(count, 1);
    // The count reaches past the pages only where the walk sees more than the folders count.
    auto reachable = [&](size_t index) { return static_cast<int64_t>(index) < count; };

    {
        ASSERT_FALSE(documents.empty());
        size_t counted = 0;  // describes that reported a count to compare with pypff's
        for (const size_t index : {documents.front(), documents.back()}) {
            if (!reachable(index)) continue;
            SCOPED_TRACE("message " + std::to_string(index + 1));
            const Described d = Describe(wide, static_cast<int32_t>(index + 1));
            EXPECT_EQ(d.status, kStatusOk) << d.error;
            EXPECT_EQ(d.message_count, count);
            ++counted;
            const Loaded loaded = LoadMessage(wide, static_cast<int32_t>(index + 1));
            EXPECT_EQ(loaded.status, kStatusOk) << loaded.error;
            EXPECT_TRUE(loaded.format == 369 || loaded.format == 226) << loaded.format;
            EXPECT_FALSE(loaded.document.empty());
            // These messages all have header fields, so each document carries a header block.
            EXPECT_NE(loaded.body.size(), loaded.document.size()) << "no header block";
        }
        EXPECT_GT(counted, 0u) << "no message with a document lies within pypff's count";
    }
    for (const size_t index :
         texts.empty() ? std::vector<size_t>{} : std::vector<size_t>{texts.front(), texts.back()}) {
        if (!reachable(index)) continue;
        SCOPED_TRACE("text of message " + std::to_string(index + 1));
        const Loaded loaded = LoadMessage(wide, static_cast<int32_t>(index + 1), /*plain_text=*/true);
        EXPECT_EQ(loaded.status, kStatusOk) << loaded.error;
        EXPECT_EQ(loaded.format, 316);
        EXPECT_EQ(loaded.document.substr(0, 2), "\xFF\xFE");
    }

    if (std::system("command -v pffexport >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "pffexport (pff-tools) is not installed";
    std::multiset<SubjectAndSender> ours = Listed(path);
    for (const SubjectAndSender& item : not_mail) {
        const auto found = ours.find(item);
        ASSERT_NE(found, ours.end()) << item.first;
        ours.erase(found);
    }
    const std::multiset<SubjectAndSender> theirs = Exported(path);
    if (c.ansi_non_ascii) {
        EXPECT_EQ(ours.size(), theirs.size());
        EXPECT_NE(ours, theirs);
    } else {
        EXPECT_EQ(ours, theirs);
    }
}

const CorpusCase kCorpus[] = {
    {"ansi-cp932-nonunicode.pst", false, true},
    {"ansi-gopst-32bit-minimal.pst", false, false},
    {"ansi-outlook2000-pst2john-73msgs.pst", false, false},
    {"ansi-outlook97-pst2john-294msgs.pst", false, false},
    {"unicode-aspose-outlook-images.pst", false, false},
    {"unicode-attach-and-inline.pst", false, false},
    {"unicode-contacts-dist-list-row-order.pst", false, false},
    {"unicode-cyclic-pst2john-quickquick.pst", false, false},
    {"unicode-dfrws2009-rodeo.pst", false, false},
    {"unicode-gopst-support-html.pst", true, false},
    {"unicode-hello-cjk.pst", false, false},
    {"unicode-libyal-outlook-cjk-folders.pst", false, false},
    {"unicode-msginmsginmsg.pst", false, false},
    {"unicode-nocrypt-pst2john-quickquick.pst", false, false},
    {"unicode-permute-pst2john-quickquick.pst", false, false},
};

INSTANTIATE_TEST_SUITE_P(SharedCorpus, PstCorpus, ::testing::ValuesIn(kCorpus),
                         [](const ::testing::TestParamInfo<CorpusCase>& info) {
                             return tarn::testing::CorpusCaseName(info.param.file);
                         });

}  // namespace
}  // namespace tarn::testing
