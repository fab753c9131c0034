// The exported entry points apart from composing: the statuses of the probe, of opening and of memory,
// the kinds that give no document (a message file, whose reader has not arrived yet, and a MIME text
// without a content type), the record cached in a slot, and its release.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/filterdata.h"
#include "common/status.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn_control.h"
#include "platform/directory.h"
#include "pst/filter_data.h"
#include "pst/pst.h"
#include "tests/support/scratch_file.h"

namespace tarn {
namespace {

using host::SourceSession;
using host::Toolkit;
using testing::ScratchDir;
using testing::Wide;

const host::EntryPoints kLinked{fltInfo, fltLoad, fltFreeData};

std::string Cfb() { return std::string("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8) + std::string(504, '\0'); }
std::string Pst() { return std::string("!BDN") + std::string(508, '\0'); }
std::string Mime() { return "From: a@example.com\r\nSubject: hello\r\n\r\nBody\r\n"; }

// fltInfo as the toolkit makes the call: on an open handle, with a slot.
int32_t InfoOn(SourceSession& session, int32_t message_number = 1) {
    KernelFileHandle handle(krnOpenFile(session.name().c_str(), 0, kOpenShareMode));
    EXPECT_TRUE(handle.valid());
    return fltInfo(&session.BuildInfoRequest(handle.get(), message_number));
}

TEST(EntryPoints, NullArguments) {
    EXPECT_EQ(fltInfo(nullptr), kStatusBadArgument);
    EXPECT_EQ(fltLoad(nullptr), kStatusBadArgument);
    EXPECT_EQ(fltFreeData(nullptr, 0), kStatusBadArgument);
    EXPECT_EQ(fltFreeData(nullptr, 1), kStatusBadArgument);
    SourceSession session(u"unused");
    InfoRequest& request = session.BuildInfoRequest(KRN_NO_HANDLE, 1);
    request.file_info = nullptr;
    EXPECT_EQ(fltInfo(&request), kStatusBadArgument);
}

TEST(EntryPoints, StatusesBeforeDocumentsAreProduced) {
    ScratchDir dir;
    struct Case {
        const char* what;
        std::string bytes;
        int32_t info;
        int32_t load;
    };
    const Case cases[] = {
        {"compound file", Cfb(), kStatusUnsupported, kStatusUnsupported},
        {"MIME text", Mime(), kStatusUnsupported, kStatusUnsupported},
        {"five bytes", "!BDN!", kStatusShortRead, kStatusShortRead},
        {"empty", "", kStatusShortRead, kStatusShortRead},
    };
    int n = 0;
    for (const Case& c : cases) {
        Toolkit toolkit;
        SourceSession session(Wide(dir.Write("source" + std::to_string(n++), c.bytes)));
        EXPECT_EQ(InfoOn(session, 3), c.info) << c.what;
        EXPECT_EQ(session.info_request().message_number, 3) << c.what << ": a failure reports no index";
        EXPECT_EQ(session.slot().data, nullptr) << c.what << ": a failure caches nothing";
        EXPECT_EQ(fltLoad(&session.BuildLoadRequest(1)), c.load) << c.what;
        EXPECT_TRUE(toolkit.calls().empty()) << c.what;
        // The leak check after the test proves that records and handles were released on every path.
    }

    SourceSession missing(Wide(dir.path() / "missing.eml"));
    EXPECT_EQ(fltLoad(&missing.BuildLoadRequest(1)), kStatusCannotOpen);
    krnctlFailFileOperation(KRNCTL_OPEN, 1);
    SourceSession refused(Wide(dir.Write("refused.eml", Mime())));
    EXPECT_EQ(fltLoad(&refused.BuildLoadRequest(1)), kStatusCannotOpen);
}

TEST(EntryPoints, OutOfMemoryForTheRecord) {
    ScratchDir dir;
    SourceSession session(Wide(dir.Write("a.eml", Mime())));
    krnctlFailAllocation(1);
    EXPECT_EQ(InfoOn(session), kStatusFailure);
    krnctlFailAllocation(1);
    EXPECT_EQ(fltLoad(&session.BuildLoadRequest(1)), kStatusFailure);
    EXPECT_EQ(krnctlOutstandingAllocations(), 0u);
}

// A record as a successful fltInfo leaves it in the slot, for the paths that reuse it.
PstFilterData* CachedRecord(SourceSession& session, InputKind kind) {
    PstFilterData* record = NewFilterData();
    record->produced_kind = kind;
    record->reported_kind = kind;
    record->document_format = kDocumentHtml;
    record->width = 801;
    record->height = 1000;
    record->x_resolution = 96;
    record->y_resolution = 96;
    record->total_pages = 3;
    record->message_count = 42;
    record->loader_value_1 = 11;
    record->loader_value_2 = 12;
    EXPECT_EQ(StoreSlotData(&session.slot(), 0, record, 0, kUseDefaultCount), kStatusOk);
    return record;
}

TEST(EntryPoints, CachedRecordAnswersWithoutTheLoader) {
    ScratchDir dir;
    Toolkit toolkit;
    SourceSession session(Wide(dir.Write("a.pst", Pst())));
    PstFilterData* record = CachedRecord(session, kInputPstStore);
    KernelFileHandle handle(krnOpenFile(session.name().c_str(), 0, kOpenShareMode));

    struct Case {
        int32_t message_number;
        int32_t page;
        int32_t expected_page;
    };
    // The message number is reported back as an index without clamping; the page is clamped.
    for (const Case c : {Case{5, 0, 1}, Case{1, 2, 2}, Case{-7, 9, 3}}) {
        InfoRequest& request = session.BuildInfoRequest(handle.get(), c.message_number, false, true, c.page);
        FileInfo& info = session.file_info();
        info.width = 200;  // the caller's own figures feed the unit fields, by integer division
        info.height = 500;
        ASSERT_EQ(fltInfo(&request), kStatusOk);
        EXPECT_EQ(request.message_number, c.message_number - 1);
        EXPECT_EQ(info.page_number, c.expected_page);
        EXPECT_EQ(info.total_pages, 3);
        EXPECT_EQ(info.format, kInputPstStore);
        EXPECT_EQ(info.message_count, 42);
        EXPECT_EQ(info.width, 801);
        EXPECT_EQ(info.height, 1000);
        EXPECT_EQ(info.x_resolution, 96);
        EXPECT_EQ(info.bits_per_pixel, 24);
        EXPECT_DOUBLE_EQ(info.width_units, 2.0);   // 200 / 96
        EXPECT_DOUBLE_EQ(info.height_units, 5.0);  // 500 / 96
        EXPECT_EQ(info.marker_1104, 1);
        EXPECT_EQ(info.marker_2188, 1);
        EXPECT_EQ(info.marker_2208, 1);
        EXPECT_EQ(info.loader_value_1, 11);
        EXPECT_EQ(info.loader_value_2, 12);
    }
    EXPECT_TRUE(toolkit.calls().empty());

    // A source of another kind than the record's, and a record that never got a document, are refused.
    ScratchDir other_dir;
    SourceSession mime(Wide(other_dir.Write("a.eml", Mime())));
    mime.slot().data = record;
    mime.slot().count = 1;
    KernelFileHandle mime_handle(krnOpenFile(mime.name().c_str(), 0, kOpenShareMode));
    EXPECT_EQ(fltInfo(&mime.BuildInfoRequest(mime_handle.get(), 1)), kStatusUnsupported);
    mime.slot().data = nullptr;
    record->produced_kind = kInputUnsupported;
    EXPECT_EQ(fltInfo(&session.BuildInfoRequest(handle.get(), 1)), kStatusUnsupported);

    EXPECT_EQ(session.ReleaseSlot(kLinked).status, kStatusOk);
    EXPECT_EQ(session.slot().data, nullptr);
}

TEST(EntryPoints, CachedRecordRescalesToTheRequestedResolution) {
    ScratchDir dir;
    SourceSession session(Wide(dir.Write("a.eml", Mime())));
    PstFilterData* record = CachedRecord(session, kInputMimeText);
    KernelFileHandle handle(krnOpenFile(session.name().c_str(), 0, kOpenShareMode));

    InfoRequest& request = session.BuildInfoRequest(handle.get(), 1);
    request.render_options[kRenderOptionXResolution] = 48;  // 801 * 48 / 96 = 400.5, rounded up
    request.render_options[kRenderOptionYResolution] = 96;  // the record's own: kept
    std::memcpy(record->render_options, request.render_options, sizeof record->render_options);
    session.file_info().x_resolution = 77;
    ASSERT_EQ(fltInfo(&request), kStatusOk);
    EXPECT_EQ(session.file_info().format, kInputMimeText);
    EXPECT_EQ(session.file_info().message_count, 0);  // only a store reports a count
    EXPECT_EQ(session.file_info().width, 401);
    EXPECT_EQ(session.file_info().x_resolution, 77);  // left as the caller set it
    EXPECT_EQ(session.file_info().height, 1000);
    EXPECT_EQ(session.file_info().y_resolution, 96);
    EXPECT_EQ(record->width, 401);
    EXPECT_EQ(record->x_resolution, 48);

    // Other rendering options ask the loader again; a cached record serves fltLoad whatever message
    // it names, through the loader too.
    Toolkit toolkit;
    request.render_options[0] = 1;
    EXPECT_EQ(fltInfo(&request), kStatusOk);
    EXPECT_EQ(toolkit.calls().size(), 1u);
    EXPECT_EQ(fltLoad(&session.BuildLoadRequest(9)), kStatusOk);
    EXPECT_EQ(toolkit.calls().size(), 2u);

    session.ReleaseSlot(kLinked);
}

TEST(EntryPoints, FreeDataReleasesOnlyOurRecords) {
    // keep != 0, and memory that does not carry our tag, are left alone.
    PstFilterData* record = NewFilterData();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(fltFreeData(record, 1), kStatusOk);
    EXPECT_EQ(record->tag, kPstRecordTag);
    uint32_t foreign[4] = {0x12345678, 1, 2, 3};
    EXPECT_EQ(fltFreeData(foreign, 0), kStatusOk);
    EXPECT_EQ(foreign[0], 0x12345678u);
    EXPECT_EQ(fltFreeData(record, 0), kStatusOk);
    EXPECT_EQ(krnctlOutstandingAllocations(), 0u);
}

// A record that wrote a temporary document, two image files and a directory for them.
PstFilterData* RecordWithTempFiles(const ScratchDir& dir, int32_t temp_file_mode,
                                   std::vector<std::filesystem::path>* files) {
    PstFilterData* record = NewFilterData();
    record->temp_file_mode = temp_file_mode;
    record->document_format = kDocumentHtml;
    const std::u16string image_dir = Wide(dir.path() / "images");
    EXPECT_TRUE(platform::CreateDirectoryW(image_dir.c_str()));
    std::copy(image_dir.begin(), image_dir.end(), record->temp_directory);
    EXPECT_EQ(krnTempFileName(nullptr, record->temp_path, kTempPathUnits, 1, u"pst", u"html"), kStatusOk);
    files->push_back(host::Utf8FromWide(record->temp_path));
    for (int i = 0; i < 2; ++i) {
        auto* name =
            static_cast<char16_t*>(krnAllocZeroed(kTempPathUnits, sizeof(char16_t), __FILE__, __LINE__));
        EXPECT_EQ(krnTempFileName(image_dir.c_str(), name, kTempPathUnits, 1, u"img", u"png"), kStatusOk);
        files->push_back(host::Utf8FromWide(name));
        record->temp_names.Append(&name, sizeof name);
    }
    return record;
}

TEST(EntryPoints, FreeDataDeletesTemporaryFilesInTemporaryFileMode) {
    ScratchDir dir;
    std::vector<std::filesystem::path> files;
    ASSERT_EQ(fltFreeData(RecordWithTempFiles(dir, 1, &files), 0), kStatusOk);
    for (const auto& f : files) EXPECT_FALSE(std::filesystem::exists(f)) << f;
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "images"));

    // In memory mode the files are not ours to delete; only the names are freed.
    files.clear();
    ASSERT_EQ(fltFreeData(RecordWithTempFiles(dir, 0, &files), 0), kStatusOk);
    for (const auto& f : files) {
        EXPECT_TRUE(std::filesystem::exists(f)) << f;
        std::filesystem::remove(f);
    }
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "images"));
}

}  // namespace
}  // namespace tarn
