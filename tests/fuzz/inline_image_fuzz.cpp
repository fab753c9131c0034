// Finding an image's reference, inlining the image and blanking noise, on arbitrary HTML: no crash, no
// read outside the input, every status one of the named ones, the body unchanged whenever inlining
// fails or replaces nothing, the noise blanking changing bytes only into spaces, nothing left in the
// kernel; and an ImageInliner given the same images gives the same statuses, references, counts and
// bytes as inlining them one by one.
//
// Input: one byte of flags (bit 0: images go to "files" instead of data URIs), then NUL-separated
// pieces: the HTML, then a file name and a content id for each image, and last the image bytes (the
// rest of the input), of which image i takes all but the last i.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "pst/render/inline_image.h"
#include "tests/fuzz/leak_check.h"

namespace {

// Answers with a fixed name and writes nothing, so that runs stay fast and leave no files.
class NamingWriter : public tarn::ImageFileWriter {
  public:
    int32_t Write(const std::byte*, size_t, std::string* name) override {
        *name = "image0001.png";
        return 1;
    }
};

std::string Copy(const tarn::CountedString& s) {
    return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const bool to_files = (data[0] & 1) != 0;
    std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const auto next_piece = [&rest]() {
        const size_t nul = rest.find('\0');
        const std::string_view piece = rest.substr(0, nul);
        rest = nul == std::string_view::npos ? std::string_view() : rest.substr(nul + 1);
        return piece;
    };
    const std::string_view html_text = next_piece();
    std::vector<std::string_view> names;
    while (!rest.empty() && names.size() < 16 && rest.find('\0') != std::string_view::npos)
        names.push_back(next_piece());
    if (names.size() % 2 == 1) names.push_back({});
    const std::string_view image = rest;

    {
        tarn::GrowBuffer buffer;
        buffer.Init(0, 0);
        if (buffer.Assign(html_text.data(), html_text.size()) != 1) std::abort();
        tarn::CountedString html;
        tarn::CountedString inlined;
        buffer.MoveInto(html);
        if (buffer.Assign(html_text.data(), html_text.size()) != 1) std::abort();
        buffer.MoveInto(inlined);
        NamingWriter files;
        tarn::ImageInliner inliner(&inlined, to_files ? &files : nullptr);

        for (size_t i = 0; i < names.size(); i += 2) {
            std::string reference;
            const int32_t found = tarn::FindImageReference(html.text(), names[i], names[i + 1], &reference);
            std::string other;
            if (found != 1 && found != 2) std::abort();
            if (inliner.Find(names[i], names[i + 1], &other) != found || (found == 1 && other != reference))
                std::abort();
            if (found == 1 && (reference.empty() || html.text().find(reference) == std::string_view::npos))
                std::abort();
            if (found != 1) continue;
            const std::string before = Copy(html);
            const auto* bytes = reinterpret_cast<const std::byte*>(image.data());
            const size_t size = image.size() - std::min(image.size(), i / 2);
            int32_t count = -1;
            int32_t other_count = -1;
            const int32_t status =
                tarn::InlineImage(&html, reference, bytes, size, to_files ? &files : nullptr, &count);
            if (status != 1 && status != 0 && status != -13 && status != -1) std::abort();
            if (count < 0 || ((status != 1 || count == 0) && Copy(html) != before)) std::abort();
            if (inliner.Inline(reference, bytes, size, &other_count) != status || other_count != count)
                std::abort();
        }
        if (inliner.Finish() != 1 || Copy(inlined) != Copy(html)) std::abort();

        const std::string before = Copy(html);
        tarn::StripHtmlNoise(&html);
        const std::string after = Copy(html);
        if (after.size() != before.size()) std::abort();
        for (size_t i = 0; i < after.size(); ++i) {
            if (after[i] != before[i] && after[i] != ' ') std::abort();
        }
    }
    tarn::fuzz::AbortOnKernelLeak();
    return 0;
}
