// The public library against the filter's entry points and against itself: a document is the one fltLoad
// hands the loader under the same settings, whichever thread asks and whatever the process's settings;
// the cursor gives the store's fields in the filter's order; the export writes those same documents,
// whole or folder by folder; and every failure arrives as a tarnpst::Error with the filter's status.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kernel/tarnkrn_control.h"
#include "tarnpst/tarnpst.h"
#include "tests/pst/store_fixture.h"

namespace tarn::testing {
namespace {

StoreMessage Note(const std::string& subject, uint32_t importance, bool html) {
    StoreMessage m;
    m.subject = subject;
    m.sender_name = "Sender " + subject;
    m.display_to = "To " + subject;
    m.display_cc = "Cc " + subject;
    m.submit_time = 132000000000000000ull;  // 2019-04-17T18:40:00Z
    m.importance = importance;
    if (html)
        m.html = AsBytes("<p>" + subject + " &amp; more</p>");
    else
        m.body = AsBytes(subject + " as text");
    return m;
}

// What the entry points give for message `number` with the process-wide kernel settings given.
std::string Reference(const std::string& path, int32_t number, bool text, uint16_t language, bool repairs) {
    krnctlSetLanguage(language);
    krnctlSetRepairs(repairs ? 1 : 0);
    const Loaded loaded = LoadMessage(host::WideFromUtf8(path), number, text);
    EXPECT_EQ(loaded.status, kStatusOk) << loaded.error;
    krnctlReset();
    return loaded.document;
}

// An in-memory sink: what the export writes, by file.
class MemorySink : public tarnpst::Sink {
  public:
    std::string WriteFile(const std::string& file, std::span<const std::byte> bytes) override {
        files[file].assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return {};
    }
    void AddRow(const tarnpst::ManifestRow& row) override { rows.push_back(row); }
    std::map<std::string, std::string> files;
    std::vector<tarnpst::ManifestRow> rows;
};

class Api : public ::testing::Test {
  protected:
    void SetUp() override {
        StoreDescription store;
        store.folders = {{"Inbox", {Note("a1", 2, true), Note("a2", 0, false)}},
                         {"Empty", {}},
                         {"Archive", {Note("LocalFreebusy", 1, true), Note("b1", 1, true)}}};
        store_ = dir_.Write("store.pst", fixture::WritePst(fixture::DescribeStore(store)).bytes).string();
    }
    ScratchDir dir_;
    std::string store_;
};

TEST_F(Api, RenderIsTheEntryPointsDocumentUnderEachCallsOwnSettingsOnAnyThread) {
    struct Case {
        int32_t number;
        tarnpst::RenderOptions options;
        tarnpst::Format format;
    } cases[] = {
        {1, {{tarnpst::Profile::kRepaired, 0x0407}, false}, tarnpst::Format::kHtml},
        {1, {{tarnpst::Profile::kCompat, 0x0411}, false}, tarnpst::Format::kHtml},
        {2, {{tarnpst::Profile::kRepaired, 0x0804}, true}, tarnpst::Format::kText},
        {2, {{tarnpst::Profile::kRepaired, 0x040C}, false}, tarnpst::Format::kText},
        {3, {{tarnpst::Profile::kCompat, 0x0409}, false}, tarnpst::Format::kHtml},
    };
    std::vector<std::string> expected;
    for (const Case& c : cases)
        expected.push_back(Reference(store_, c.number, c.options.text, c.options.settings.language,
                                     c.options.settings.profile == tarnpst::Profile::kRepaired));
    const tarnpst::Source source = tarnpst::Source::Open(store_);
    EXPECT_EQ(source.kind(), tarnpst::Kind::kPstStore);
    // The filter's count takes the folders' own counts, the free/busy message among them.
    EXPECT_EQ(source.MessageCount(), 4);
    // The process answers otherwise; each call's settings hold for it alone, and are gone after it.
    krnctlSetLanguage(0x0412);
    std::vector<std::thread> threads;
    std::vector<std::string> got(std::size(cases) * 4);
    for (size_t t = 0; t < got.size(); ++t) {
        threads.emplace_back([&, t] {
            const Case& c = cases[t % std::size(cases)];
            const tarnpst::Document d = source.Render(c.number, c.options);
            got[t] = d.bytes;
            EXPECT_EQ(d.format, c.format);
            EXPECT_EQ(krnctlThreadSettings(nullptr, nullptr, nullptr), 0);
        });
    }
    for (std::thread& t : threads) t.join();
    for (size_t t = 0; t < got.size(); ++t) EXPECT_EQ(got[t], expected[t % std::size(cases)]) << t;
    EXPECT_EQ(krnUiLanguage(), 0x0412);
    krnctlReset();
}

TEST_F(Api, TheCursorGivesTheFieldsInTheFiltersOrderWithAnyNumberOfJobs) {
    for (const unsigned jobs : {1u, 3u}) {
        tarnpst::CursorOptions options;
        options.jobs = jobs;
        tarnpst::Cursor cursor = tarnpst::Source::Open(store_).Messages(options);
        std::vector<std::string> seen;
        tarnpst::Message m;
        while (cursor.Next(m)) {
            seen.push_back(std::to_string(m.number) + " " + m.folder + " " + m.subject + " " + m.sender +
                           " " + m.to + " " + m.cc + " " + m.importance + " " +
                           std::to_string(m.importance_level.value_or(-1)) + " " +
                           std::to_string(m.sent ? m.sent->time_since_epoch().count() : -1));
            EXPECT_EQ(m.folder_path.back(), m.folder);
        }
        // Normal importance has no wording in the header block.
        EXPECT_EQ(seen, (std::vector<std::string>{"1 Inbox a1 Sender a1 To a1 Cc a1 High 2 1555526400",
                                                  "2 Inbox a2 Sender a2 To a2 Cc a2 Low 0 1555526400",
                                                  "3 Archive b1 Sender b1 To b1 Cc b1  1 1555526400"}));
        EXPECT_TRUE(cursor.warnings().empty());
    }
}

TEST_F(Api, TheExportWritesTheRenderedDocumentsWholeOrByFolder) {
    const tarnpst::Source source = tarnpst::Source::Open(store_);
    std::vector<std::string> archive;
    for (const tarnpst::Folder& folder : source.Folders())
        if (folder.path.ends_with("/Archive")) archive.push_back(folder.path);
    ASSERT_EQ(archive.size(), 1u);
    for (const std::vector<std::string>& subset : {std::vector<std::string>{}, archive}) {
        MemorySink sink;
        tarnpst::ExportOptions options;
        options.folders = subset;
        options.jobs = 2;
        const tarnpst::ExportResult result = tarnpst::Export({store_}, sink, options);
        EXPECT_EQ(result.failures, 0);
        EXPECT_EQ(result.stopped, "");
        ASSERT_EQ(result.rows.size(), subset.empty() ? 3u : 1u);
        for (const tarnpst::ManifestRow& row : result.rows) {
            // Numbered as the whole store is, whichever folders are written.
            EXPECT_EQ(sink.files.at(row.file), source.Render(*row.index).bytes) << row.file;
            EXPECT_EQ(*row.index, subset.empty() ? *row.index : 3);
        }
    }
}

TEST_F(Api, FailuresArriveAsErrorsWithTheFiltersStatus) {
    const std::string missing = (dir_.path() / "missing.pst").string();
    const std::string eml = dir_.Write("body.eml", AsBytes("Subject: hi\r\n\r\nhello\r\n")).string();
    const std::string text = dir_.Write("text.pst", AsBytes("not a store")).string();
    const tarnpst::Source store = tarnpst::Source::Open(store_);
    struct Case {
        const char* what;
        std::function<void()> call;
        int32_t status;
    } cases[] = {
        {"a missing file", [&] { tarnpst::Source::Open(missing); }, tarnpst::kStatusCannotOpen},
        {"a message beyond the store", [&] { store.Render(9); }, tarnpst::kStatusUnsupported},
        {"a store that is not one",
         [&] {
             tarnpst::CursorOptions o;
             o.as_store = true;
             tarnpst::Source::Open(text).Messages(o);
         },
         tarnpst::kStatusUnsupported},
        {"an export into a file", [&] { tarnpst::Export({eml}, eml, {}); }, tarnpst::kStatusCannotOpen},
    };
    for (const Case& c : cases) {
        try {
            c.call();
            ADD_FAILURE() << c.what << ": no error";
        } catch (const tarnpst::Error& e) {
            EXPECT_EQ(e.status(), c.status) << c.what << ": " << e.what();
        }
    }
    // The one message of an Internet message, as its reader gives it.
    tarnpst::Cursor cursor = tarnpst::Source::Open(eml).Messages();
    tarnpst::Message m;
    ASSERT_TRUE(cursor.Next(m));
    EXPECT_EQ(m.subject, "hi");
    EXPECT_FALSE(cursor.Next(m));
}

}  // namespace
}  // namespace tarn::testing
