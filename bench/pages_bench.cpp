// Documents laid out per second: one browser kept for every document (the DevTools pipe) against a
// browser started per document. Usage: pages_bench DOCUMENT... (.html, .txt or .rtf, as tarnview
// render writes them). Each document's page count is compared between the two ways.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "host/page_layout.h"

namespace {

struct Document {
    std::string name;
    std::vector<std::byte> bytes;
    int32_t format;
};

int32_t FormatOf(const std::string& name) {
    if (name.ends_with(".rtf")) return 226;
    if (name.ends_with(".txt")) return 316;
    return 369;
}

// Lays every document out once; returns the page counts (0 for a failure) and prints the rate.
std::vector<int32_t> Run(const char* label, bool keep_browser, const std::vector<Document>& documents) {
    tarn::host::PageLayout::Options options;
    options.keep_browser = keep_browser;
    tarn::host::PageLayout layout(options);
    std::vector<int32_t> pages;
    int failures = 0;
    int32_t total = 0;
    const auto start = std::chrono::steady_clock::now();
    for (const Document& d : documents) {
        tarn::host::LaidOutDocument laid;
        std::string error;
        if (!layout.Lay(d.bytes, d.format, &laid, &error)) {
            std::fprintf(stderr, "%s: %s: %s\n", label, d.name.c_str(), error.c_str());
            ++failures;
        }
        pages.push_back(laid.pages);
        total += laid.pages;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%-28s %3zu documents, %4d pages in %6.1f s: %5.2f documents/s, %5.2f pages/s, %d failed",
                label, documents.size(), total, seconds, documents.size() / seconds, total / seconds,
                failures);
    if (keep_browser) std::printf(", %d laid out again by a browser of their own", layout.fallbacks());
    std::printf("\n");
    return pages;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Document> documents;
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        Document d{argv[i], std::vector<std::byte>(bytes.size()), FormatOf(argv[i])};
        std::memcpy(d.bytes.data(), bytes.data(), bytes.size());
        documents.push_back(std::move(d));
    }
    const auto kept = Run("one browser start", true, documents);
    const auto each = Run("a browser per document", false, documents);
    int differ = 0;
    for (size_t i = 0; i < documents.size(); ++i) differ += kept[i] != each[i];
    std::printf("page counts that differ between the two: %d of %zu\n", differ, documents.size());
    return 0;
}
