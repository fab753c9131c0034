// Writes samples/sample.pst, the small store the demo renders: two folders, messages with an HTML, a
// compressed-RTF and a plain-text body, header fields and an attachment. Made with the fixture writer
// so that every byte of it is ours. Usage: make_sample_store [--ansi] OUT.pst (--ansi: the 8-bit layout,
// which the fuzz seeds use besides the sample itself).
#include <cstdio>
#include <string>

#include "tests/support/rtf_writer.h"
#include "tests/support/store_writer.h"

namespace {

using namespace tarn::fixture;

Bytes AsBytes(std::string_view text) {
    const auto* p = reinterpret_cast<const std::byte*>(text.data());
    return Bytes(p, p + text.size());
}

// 2026-03-02 09:15 UTC and a few days later, as Windows file times.
constexpr uint64_t FileTime(int64_t unix_seconds) {
    return static_cast<uint64_t>(unix_seconds + 11644473600LL) * 10'000'000u;
}

StoreDescription Sample(PstLayout layout) {
    StoreMessage welcome;
    welcome.subject = "Welcome to Tarnpst";
    welcome.sender_name = "Tarnpst Team";
    welcome.display_to = "Ada Lovelace";
    welcome.submit_time = FileTime(1772442900);
    welcome.importance = 2;
    welcome.body = StoreText(layout, "Welcome! This store was written by our fixture writer.\r\n");
    welcome.html = AsBytes(
        "<body><h1>Welcome</h1><p>This store was written byte by byte by Tarnpst's own fixture writer. "
        "The filter walks its folders, picks this message and hands its document to the toolkit.</p></body>");

    const std::string rtf =
        "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0 Arial;}}\\pard\\f0 Minutes of the Monday meeting:\\par "
        "\\b compressed RTF\\b0  bodies are decompressed before the toolkit sees them.\\par}";
    StoreMessage minutes;
    minutes.subject = "Meeting minutes";
    minutes.sender_name = "Charles Babbage";
    minutes.display_to = "Ada Lovelace";
    minutes.display_cc = "Analytical Engine Team";
    minutes.submit_time = FileTime(1772530200);
    minutes.body = StoreText(layout, "Minutes of the Monday meeting.\r\n");
    minutes.rtf_compressed =
        AsBytes(tarn::testing::CompressedRtf(tarn::testing::RtfRuns(tarn::testing::RtfLiterals(rtf)),
                                             {.raw_size = static_cast<uint32_t>(rtf.size())}));

    StoreMessage note;
    note.subject = "Plain text only";
    note.sender_name = "Ada Lovelace";
    note.display_to = "Charles Babbage";
    note.submit_time = FileTime(1772616600);
    note.importance = 0;
    note.body = StoreText(layout, "A note with a plain-text body and nothing else.\r\n");
    note.attachments = {{"notes.txt", "NOTES.TXT", AsBytes("attached notes\r\n")}};

    StoreMessage sent;
    sent.subject = "Re: Welcome to Tarnpst";
    sent.sender_name = "Ada Lovelace";
    sent.display_to = "Tarnpst Team";
    sent.submit_time = FileTime(1772703000);
    sent.html = AsBytes("<p>Thank you, the <b>demo</b> works.</p>");

    StoreDescription store;
    store.layout = layout;
    store.encoding = PstEncoding::kPermute;
    store.folders = {{"Inbox", {welcome, minutes, note}}, {"Sent Items", {sent}}};
    return store;
}

}  // namespace

int main(int argc, char** argv) {
    const bool ansi = argc == 3 && std::string(argv[1]) == "--ansi";
    if (argc != 2 && !ansi) {
        std::fprintf(stderr, "usage: make_sample_store [--ansi] OUT.pst\n");
        return 2;
    }
    const char* path = argv[argc - 1];
    const PstImage image = WritePst(DescribeStore(Sample(ansi ? PstLayout::kAnsi : PstLayout::kUnicode)));
    if (!SaveFile(path, image.bytes)) {
        std::fprintf(stderr, "make_sample_store: %s: cannot write\n", path);
        return 1;
    }
    return 0;
}
