// make-store: writes a synthetic PST message store of any size, for benchmarks and for trying the
// readers on stores far larger than the shared samples.
//
//   make-store --messages N --folders M [--body-bytes B] [--ansi] [--encoding none|permute|cyclic] OUT.pst
//
// N messages are spread round-robin over M folders. Each has a subject, a sender, To/Cc recipients, a
// submit time, an importance, a plain-text and an HTML body of about B bytes each, and every seventh
// message an attachment of about B bytes. The store is built by the test fixture writers
// (tests/support/store_writer.h), so it is exactly what the tests read.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/store_writer.h"

namespace {

using namespace tarn::fixture;

constexpr int kStatusUsage = 2;
constexpr int kStatusFailed = 1;

void Usage() {
    std::fprintf(stderr,
                 "usage: make-store --messages N --folders M [--body-bytes B] [--ansi]\n"
                 "                  [--encoding none|permute|cyclic] OUT.pst\n");
}

bool ParseCount(const char* text, uint64_t& out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-') return false;
    out = value;
    return true;
}

// A long run of words that bodies are cut from at different offsets, so no two bodies are alike.
std::string Filler() {
    static const char* const kWords[] = {"store",   "message", "folder", "table",     "heap",
                                         "node",    "block",   "page",   "quarterly", "report",
                                         "meeting", "budget",  "review", "draft"};
    std::string text;
    uint32_t x = 12345;
    while (text.size() < (1u << 20)) {
        x = x * 1103515245u + 12345u;
        text += kWords[(x >> 16) % (sizeof kWords / sizeof *kWords)];
        text += ((x >> 8) % 11 == 0) ? ".\r\n" : " ";
    }
    return text;
}

std::string Slice(const std::string& filler, uint64_t seed, size_t size) {
    std::string out;
    out.reserve(size);
    size_t at = static_cast<size_t>((seed * 2654435761u) % (filler.size() / 2));
    while (out.size() < size) {
        const size_t n = std::min(size - out.size(), filler.size() - at);
        out.append(filler, at, n);
        at = 0;
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    uint64_t messages = 0, folders = 0, body_bytes = 2048;
    bool have_messages = false, have_folders = false;
    StoreDescription d;
    d.encoding = PstEncoding::kPermute;
    const char* out_path = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
        if (arg == "--help" || arg == "-h") {
            Usage();
            return 0;
        } else if (arg == "--messages") {
            const char* v = value();
            if (!v || !ParseCount(v, messages)) return Usage(), kStatusUsage;
            have_messages = true;
        } else if (arg == "--folders") {
            const char* v = value();
            if (!v || !ParseCount(v, folders) || folders == 0) return Usage(), kStatusUsage;
            have_folders = true;
        } else if (arg == "--body-bytes") {
            const char* v = value();
            if (!v || !ParseCount(v, body_bytes)) return Usage(), kStatusUsage;
        } else if (arg == "--ansi") {
            d.layout = PstLayout::kAnsi;
        } else if (arg == "--encoding") {
            const char* v = value();
            const std::string e = v ? v : "";
            if (e == "none") {
                d.encoding = PstEncoding::kNone;
            } else if (e == "permute") {
                d.encoding = PstEncoding::kPermute;
            } else if (e == "cyclic") {
                d.encoding = PstEncoding::kCyclic;
            } else {
                std::fprintf(stderr, "make-store: unknown encoding '%s'\n", e.c_str());
                return kStatusUsage;
            }
        } else if (!arg.empty() && arg[0] != '-' && out_path == nullptr) {
            out_path = argv[i];
        } else {
            std::fprintf(stderr, "make-store: unexpected argument '%s'\n", arg.c_str());
            return Usage(), kStatusUsage;
        }
    }
    if (!have_messages || !have_folders || out_path == nullptr) return Usage(), kStatusUsage;
    // A folder's hierarchy row and a body both live in one store; these bounds keep every id and size
    // inside what the format can number.
    if (messages > 2000000 || folders > 20000 || body_bytes > 64u << 20) {
        std::fprintf(stderr, "make-store: at most 2000000 messages, 20000 folders and 64 MiB bodies\n");
        return kStatusUsage;
    }

    const auto start = std::chrono::steady_clock::now();
    const std::string filler = Filler();
    const bool unicode = d.layout == PstLayout::kUnicode;
    for (uint64_t f = 0; f < folders; ++f) d.folders.push_back({"Folder " + std::to_string(f + 1), {}});
    for (uint64_t i = 0; i < messages; ++i) {
        StoreMessage m;
        m.subject = "Message " + std::to_string(i + 1) + ": " + Slice(filler, i, 40);
        m.sender_name = "Sender " + std::to_string(i % 97);
        m.display_to = "Recipient " + std::to_string(i % 13) + "; Recipient " + std::to_string(i % 17);
        if (i % 3 == 0) m.display_cc = "Copy " + std::to_string(i % 5);
        m.submit_time = 0x01D5000000000000ull + i * 600000000ull;  // a minute apart
        m.importance = static_cast<uint32_t>(i % 3);
        // B bytes of stored text: B/2 characters in a Unicode store.
        m.body = StoreText(d.layout, Slice(filler, i + 1, unicode ? body_bytes / 2 : body_bytes));
        const std::string html_open = "<html><body><p>", html_close = "</p></body></html>";
        const size_t inner = body_bytes > html_open.size() + html_close.size()
                                 ? body_bytes - html_open.size() - html_close.size()
                                 : 0;
        m.html = ToBytes(html_open + Slice(filler, i + 2, inner) + html_close);
        if (i % 7 == 3)
            m.attachments.push_back({"attachment " + std::to_string(i + 1) + ".txt", "ATTACH~1.TXT",
                                     ToBytes(Slice(filler, i + 3, body_bytes))});
        d.folders[i % folders].messages.push_back(std::move(m));
    }
    try {
        const auto t0 = std::chrono::steady_clock::now();
        PstDescription described = DescribeStore(std::move(d));
        const auto t1 = std::chrono::steady_clock::now();
        PstImage image = WritePst(described);
        const auto t2 = std::chrono::steady_clock::now();
        if (std::getenv("MAKE_STORE_TIMING"))
            std::fprintf(stderr, "generate %.1f s, describe %.1f s, write %.1f s\n",
                         std::chrono::duration<double>(t0 - start).count(),
                         std::chrono::duration<double>(t1 - t0).count(),
                         std::chrono::duration<double>(t2 - t1).count());
        if (!SaveFile(out_path, image.bytes)) {
            std::fprintf(stderr, "make-store: %s: cannot write the store\n", out_path);
            return kStatusFailed;
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::fprintf(stderr, "make-store: %s: %llu messages in %llu folders, %zu bytes, %.1f s\n", out_path,
                     static_cast<unsigned long long>(messages), static_cast<unsigned long long>(folders),
                     image.bytes.size(), seconds);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make-store: %s: %s\n", out_path, e.what());
        return kStatusFailed;
    }
    return 0;
}
