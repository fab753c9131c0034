// Finding an image's reference, inlining the image and blanking noise, on arbitrary HTML: no crash, no
// read outside the input, every status one of the named ones, the body unchanged whenever inlining
// fails or replaces nothing, the noise blanking changing bytes only into spaces, and nothing left in
// the kernel.
//
// Input: one byte of flags (bit 0: images go to "files" instead of data URIs), then NUL-separated
// pieces: the HTML, the file name, the content id, and the image bytes (the rest of the input).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

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
    const std::string_view file_name = next_piece();
    const std::string_view content_id = next_piece();
    const std::string_view image = rest;

    {
        tarn::GrowBuffer buffer;
        buffer.Init(0, 0);
        if (buffer.Assign(html_text.data(), html_text.size()) != 1) std::abort();
        tarn::CountedString html;
        buffer.MoveInto(html);

        std::string reference;
        const int32_t found = tarn::FindImageReference(html.text(), file_name, content_id, &reference);
        if (found != 1 && found != 2) std::abort();
        if (found == 1 && (reference.empty() || html.text().find(reference) == std::string_view::npos))
            std::abort();
        if (found == 1) {
            NamingWriter files;
            const std::string before = Copy(html);
            int32_t count = -1;
            const int32_t status =
                tarn::InlineImage(&html, reference, reinterpret_cast<const std::byte*>(image.data()),
                                  image.size(), to_files ? &files : nullptr, &count);
            if (status != 1 && status != 0 && status != -13 && status != -1) std::abort();
            if (count < 0 || ((status != 1 || count == 0) && Copy(html) != before)) std::abort();
        }

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
