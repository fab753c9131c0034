// The toolkit's layout, made real: a document (HTML, RTF or text) becomes PDF pages, and a page becomes
// a 24-bit picture. HTML and text go through headless Chromium, RTF through LibreOffice; poppler counts
// and rasterises the pages. Every child runs in its own process group under a deadline and is killed
// with its group when the deadline passes, so a layout fails with a reason instead of hanging.
#ifndef TARN_HOST_PAGE_LAYOUT_H_
#define TARN_HOST_PAGE_LAYOUT_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarn::host {

// A document laid out: the PDF, its page count and the size of its first page in points (1/72 inch).
struct LaidOutDocument {
    std::string pdf;
    int32_t pages = 0;
    double width_points = 0;
    double height_points = 0;
};

// A page as the toolkit's 24-bit bitmap: rows of RGB triples, top row first, no padding.
struct PageBitmap {
    int32_t width = 0;
    int32_t height = 0;
    std::vector<uint8_t> rgb;
};

// Keeps what laying documents out needs between documents: a scratch folder and, unless told to start
// one per document, one Chromium driven through its DevTools pipe. Not for use from several threads.
class PageLayout {
  public:
    struct Options {
        // One browser kept for every document, driven through its DevTools pipe; a document it fails
        // gets a browser of its own, and after three failures in a row every document does. False
        // starts one per document, which costs the same for a single document and has no state to lose.
        bool keep_browser = false;
        std::chrono::seconds timeout{60};          // for one document, each child
        std::chrono::seconds office_timeout{120};  // LibreOffice's first start builds its profile
    };

    PageLayout();
    explicit PageLayout(Options options);
    ~PageLayout();  // ends the browser with its process group and removes the scratch folder
    PageLayout(const PageLayout&) = delete;
    PageLayout& operator=(const PageLayout&) = delete;

    // Lays out `document` of the toolkit's format (369 HTML, 316 text, 226 RTF) on Letter paper unless
    // its CSS sets the page. False with a one-line reason in *error.
    bool Lay(std::span<const std::byte> document, int32_t format, LaidOutDocument* out, std::string* error);

    // Rasterises page `page` (from 1) of `document` at `dpi` into `bitmap`, scaled to exactly
    // width x height pixels (each 1 to kMaxPagePixels). False with a reason in *error.
    bool Rasterise(const LaidOutDocument& document, int32_t page, int32_t dpi, int32_t width, int32_t height,
                   PageBitmap* bitmap, std::string* error);

    static constexpr int32_t kMaxPagePixels = 20000;

    // Documents that the kept browser failed and a browser of their own laid out instead.
    int fallbacks() const { return fallbacks_; }

  private:
    bool StartBrowser(std::string* error);
    void StopBrowser();
    bool Command(const std::string& method, const std::string& params, std::string* result,
                 std::string* error);
    bool AwaitLoad(std::string* error);
    // Remembers the load event; false when the message says the page is gone.
    bool NoteEvent(const std::string& message, std::string* error);
    bool ReadMessage(std::string* message, std::string* error);
    bool PrintInBrowser(const std::string& html_path, std::string* pdf, std::string* error);
    bool PrintWithNewBrowser(const std::string& html_path, std::string* pdf, std::string* error);
    bool PrintWithOffice(const std::string& rtf_path, std::string* pdf, std::string* error);
    bool Measure(LaidOutDocument* out, std::string* error);

    Options options_;
    std::string scratch_;  // our own folder, removed with everything in it
    uint64_t documents_ = 0;
    int fallbacks_ = 0;
    int kept_failures_ = 0;  // in a row
    pid_t browser_ = -1;     // leads its own process group
    int to_browser_ = -1;
    int from_browser_ = -1;
    std::string pending_;  // bytes read from the browser after the last whole message
    std::string session_;  // the DevTools session of the one page we print through
    int next_id_ = 0;
    bool loaded_ = false;  // the page's load event has come since the last navigation
    std::chrono::steady_clock::time_point deadline_;
};

// Writes `bitmap` as an 8-bit RGB PNG. False when the file cannot be written.
bool WritePng(const PageBitmap& bitmap, const std::string& path);

}  // namespace tarn::host

#endif  // TARN_HOST_PAGE_LAYOUT_H_
