// The toolkit stand-in: what its loaders record and answer, the toolkit object's mode, the slot's
// release, and errors that escape an entry point.
#include "host/toolkit_host.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/filterdata.h"
#include "common/status.h"
#include "kernel/tarnkrn_control.h"
#include "tests/support/scratch_file.h"

namespace tarn::host {
namespace {

TEST(ToolkitHost, LoadersRecordWhatTheyAreHandedAndDescribeIt) {
    Toolkit toolkit;
    toolkit.description().width = 1000;
    toolkit.description().pages = 4;
    int loader_data = 0;
    toolkit.description().loader_data = &loader_data;
    toolkit.description().loader_data_size = 4;

    SourceSession session(u"doc.eml");
    InfoRequest& request = session.BuildInfoRequest(KRN_NO_HANDLE, 1, false, true, 2);
    EXPECT_EQ(session.file_info().size, kFileInfoSize);
    EXPECT_EQ(request.load_options->size, kLoadOptionsSize);
    EXPECT_EQ(request.load_options->page_number, 2);

    FileInfo info{};
    const char html[] = "<html>hi</html>";
    ASSERT_EQ(request.info_in_memory(html, &info, kFileInfoSize, 15, 3, request.load_options), kStatusOk);
    EXPECT_EQ(info.width, 1000);
    EXPECT_EQ(info.total_pages, 4);
    EXPECT_EQ(info.loader_data, &loader_data);

    testing::ScratchDir dir;
    const std::u16string path = testing::Wide(dir.Write("doc.html", std::string("<p>file</p>")));
    ASSERT_EQ(request.info_by_name(path.c_str(), &info, kFileInfoSize, 1, nullptr), kStatusOk);

    LoadRequest& load = session.BuildLoadRequest(1);
    ASSERT_EQ(load.load_in_memory(html, load.bitmap, 216, 24, 1, 32, load.caller_value_1, load.caller_value_2,
                                  15, load.load_options, load.file_info),
              kStatusOk);
    ASSERT_EQ(load.alt_load_by_name(path.c_str(), 77, load.load_options, load.file_info), kStatusOk);

    const auto& calls = toolkit.calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].kind, LoaderKind::kInfoInMemory);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(calls[0].document.data()), calls[0].document.size()),
              "<html>hi</html>");
    EXPECT_EQ(calls[0].flags, 3);
    EXPECT_EQ(calls[0].info_size, kFileInfoSize);
    EXPECT_TRUE(calls[0].had_options);
    EXPECT_EQ(calls[0].options.page_number, 2);
    EXPECT_EQ(calls[1].kind, LoaderKind::kInfoByName);
    EXPECT_TRUE(calls[1].file_readable);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(calls[1].document.data()), calls[1].document.size()),
              "<p>file</p>");
    EXPECT_FALSE(calls[1].had_options);
    EXPECT_EQ(calls[2].kind, LoaderKind::kLoadInMemory);
    EXPECT_EQ(calls[2].constants, (std::array<int32_t, 4>{216, 24, 1, 32}));
    EXPECT_EQ(calls[2].caller_value_1, 0x0C);
    EXPECT_EQ(calls[2].caller_value_2, 0x10);
    EXPECT_EQ(calls[2].bitmap, load.bitmap);
    ASSERT_NE(calls[2].info, nullptr);
    EXPECT_EQ(calls[2].info->size, kFileInfoSize);
    EXPECT_EQ(calls[3].kind, LoaderKind::kAltLoadByName);
    EXPECT_EQ(calls[3].alternative_value, 77);

    // A failing loader answers its status and describes nothing.
    toolkit.description().status = -1490;
    FileInfo untouched{};
    EXPECT_EQ(request.info_in_memory(html, &untouched, kFileInfoSize, 15, 1, nullptr), -1490);
    EXPECT_EQ(untouched.width, 0);
    EXPECT_EQ(load.alt_load_in_memory(html, 0, 15, nullptr, nullptr), -1490);
    EXPECT_EQ(toolkit.calls().size(), 6u);
}

TEST(ToolkitHost, ActiveToolkitNests) {
    EXPECT_EQ(Toolkit::Active(), nullptr);
    Toolkit outer;
    {
        Toolkit inner;
        EXPECT_EQ(Toolkit::Active(), &inner);
    }
    EXPECT_EQ(Toolkit::Active(), &outer);
}

struct Freed {
    std::vector<void*> records;
};
Freed* g_freed = nullptr;
int32_t RecordingFree(void* record, int32_t keep) {
    if (keep == 0) g_freed->records.push_back(record);
    return kStatusOk;
}

TEST(ToolkitHost, ReleasingASlotFreesTheFilterDatumAndTheList) {
    Freed freed;
    g_freed = &freed;
    EntryPoints entries;
    entries.free_data = RecordingFree;
    uint32_t record = kPstRecordTag;
    int loader_data = 0;

    SourceSession single(u"a");
    ASSERT_EQ(StoreSlotData(&single.slot(), 0, &record, 0, 1), kStatusOk);
    EXPECT_EQ(single.ReleaseSlot(entries).status, kStatusOk);

    SourceSession listed(u"b");
    ASSERT_EQ(StoreSlotData(&listed.slot(), 0, &record, 0, 1), kStatusOk);
    ASSERT_EQ(StoreSlotData(&listed.slot(), 2, &loader_data, 4, 1), kStatusOk);
    EXPECT_EQ(listed.ReleaseSlot(entries).status, kStatusOk);  // the list's kernel memory goes too
    EXPECT_EQ(listed.slot().data, nullptr);
    EXPECT_EQ(listed.slot().count, 0);

    SourceSession empty(u"c");
    EXPECT_EQ(empty.ReleaseSlot(entries).status, kStatusOk);
    EXPECT_EQ(freed.records, (std::vector<void*>{&record, &record}));
    g_freed = nullptr;
}

int32_t ThrowingInfo(InfoRequest*) { throw std::out_of_range("fread failed"); }
int32_t ThrowingLoad(LoadRequest*) { throw 42; }

TEST(ToolkitHost, EscapingErrorsBecomeOneLine) {
    EntryPoints entries;
    entries.info = ThrowingInfo;
    entries.load = ThrowingLoad;
    const CallOutcome info = CallInfo(entries, nullptr);
    EXPECT_FALSE(info.returned());
    EXPECT_EQ(info.error, "fltInfo: uncaught exception: fread failed");
    const CallOutcome load = CallLoad(entries, nullptr);
    EXPECT_EQ(load.error, "fltLoad: uncaught exception of unknown type");
}

TEST(ToolkitHost, NamesRoundTripBetweenUtf8AndUtf16) {
    const std::string name = "caf\xC3\xA9 \xF0\x9F\x93\xA7.eml";  // é and an envelope beyond the BMP
    const std::u16string wide = WideFromUtf8(name);
    EXPECT_EQ(wide, u"caf\u00E9 \U0001F4E7.eml");
    EXPECT_EQ(Utf8FromWide(wide.c_str()), name);
    // One replacement for each ill-formed sequence: a stray byte, and a sequence cut short.
    EXPECT_EQ(WideFromUtf8("a\xFF"
                           "b\xE2\x82"),
              u"a\uFFFDb\uFFFD");
    EXPECT_EQ(Utf8FromWide(nullptr), "");
}

}  // namespace
}  // namespace tarn::host
