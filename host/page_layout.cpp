#include "host/page_layout.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "platform/unicode.h"

namespace tarn::host {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kFormatRtf = 226;
constexpr int32_t kFormatText = 316;
// A DevTools message larger than this (a PDF of hundreds of MB) is refused rather than buffered.
constexpr size_t kMaxMessageBytes = size_t{256} << 20;
// What a child may print that we keep; a page picture is capped by its own size instead.
constexpr size_t kMaxChildText = size_t{1} << 20;
constexpr int64_t kMaxPageArea = int64_t{1} << 26;
// Losses of the kept browser in a row after which it is given up for a browser per document.
constexpr int kMaxKeptFailures = 3;

// Chromium on this kind of machine runs as root, without a GPU, and must not reach out to the network:
// its background connections are refused, and many at once make it stall.
const char* const kBrowserFlags[] = {"--headless",
                                     "--no-sandbox",
                                     "--disable-gpu",
                                     "--disable-quic",
                                     "--no-first-run",
                                     "--disable-background-networking",
                                     "--disable-component-update",
                                     "--disable-sync",
                                     "--no-pdf-header-footer"};

std::string SecondsText(std::chrono::seconds s) { return std::to_string(s.count()) + " s"; }

bool OnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "");
    std::string dir;
    while (std::getline(dirs, dir, ':'))
        if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

std::string Missing(const std::string& program) {
    return program + " is not installed (scripts/deps.sh layout installs it)";
}

// The first line of what a child said, for a one-line reason.
std::string FirstLine(const std::string& text) {
    const size_t end = text.find('\n');
    return text.substr(0, std::min<size_t>(end, 200));
}

void KillGroup(pid_t leader) {
    if (leader > 0) kill(-leader, SIGKILL);
}

// In the child, after fork: its own process group (so that it dies with everything it starts), no
// stdin, and `out`/`err` (or /dev/null) as stdout and stderr.
void EnterChild(int out, int err) {
    setpgid(0, 0);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(out >= 0 ? out : null, 1);
    dup2(err >= 0 ? err : null, 2);
}

[[noreturn]] void Exec(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

struct ChildResult {
    bool timed_out = false;
    bool too_much = false;
    int exit_status = -1;
    std::string out;
    std::string err;
};

// Runs `argv` to its end or its deadline, keeping up to `out_limit` bytes of stdout. The whole process
// group is killed afterwards: helpers a program leaves behind (an office suite's, a browser's) go too.
ChildResult RunChild(const std::vector<std::string>& argv, std::chrono::seconds timeout, size_t out_limit) {
    ChildResult result;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return result;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]), close(out[1]);
        return result;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        EnterChild(out[1], err[1]);
        Exec(argv);
    }
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(out[0]), close(err[0]);
        return result;
    }
    setpgid(pid, pid);
    const auto deadline = Clock::now() + timeout;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    const size_t limits[2] = {out_limit, kMaxChildText};
    int status = 0;
    bool exited = false;
    for (int open_pipes = 2; open_pipes > 0;) {
        if (Clock::now() >= deadline) {
            result.timed_out = true;
            break;
        }
        if (poll(fds, 2, 50) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[65536];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_pipes;
            } else if (sinks[i]->size() + static_cast<size_t>(n) > limits[i]) {
                result.too_much = i == 0;
                if (i == 0) open_pipes = 0;
            } else {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            }
        }
        // A helper of the child may hold the pipes open after the child is gone; stop at its exit.
        if (!exited && waitpid(pid, &status, WNOHANG) == pid) exited = true;
        if (exited && poll(fds, 2, 0) <= 0) break;
    }
    for (auto& f : fds)
        if (f.fd >= 0) close(f.fd);
    KillGroup(pid);
    if (!exited) waitpid(pid, &status, 0);
    if (!result.timed_out && !result.too_much)
        result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

// One line saying why a child failed, or empty when it ran to a zero exit.
std::string ChildFailure(const std::string& program, const ChildResult& r, std::chrono::seconds timeout) {
    if (r.timed_out) return program + " timed out after " + SecondsText(timeout) + " and was stopped";
    if (r.too_much) return program + " printed more than expected and was stopped";
    if (r.exit_status == 127) return Missing(program);
    if (r.exit_status != 0) {
        const std::string said = FirstLine(r.err);
        return program + " failed with status " + std::to_string(r.exit_status) +
               (said.empty() ? "" : ": " + said);
    }
    return {};
}

bool WriteFile(const std::string& path, std::string_view bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    return static_cast<bool>(file);
}

bool ReadFile(const std::string& path, std::string* bytes) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::ostringstream all;
    all << file.rdbuf();
    *bytes = std::move(all).str();
    return true;
}

// A file URL for a path of our own scratch folder; anything but plain characters is percent-encoded.
std::string FileUrl(const std::string& path) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (unsigned char c : path) {
        if (std::isalnum(c) || std::strchr("/-._~", c) != nullptr) {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += kHex[c >> 4];
            url += kHex[c & 15];
        }
    }
    return url;
}

// Mail is shown, never run: no script, and nothing fetched but what the document carries as data: URIs.
// Neither the network nor, through file: references, other files of this machine reach the page.
constexpr std::string_view kPagePolicy =
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
    "style-src 'unsafe-inline' data:; font-src data:\">";

// An HTML document with the policy in front, where the parser takes it into the head whatever follows;
// behind a byte-order mark, and in UTF-16 when the mark says so.
std::string GuardedHtml(std::string_view bytes) {
    std::string mark;
    bool utf16 = false, big_endian = false;
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") {
        mark = bytes.substr(0, 3);
    } else if (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF") {
        mark = bytes.substr(0, 2);
        utf16 = true;
        big_endian = bytes[0] == '\xFE';
    }
    std::string policy;
    for (char c : kPagePolicy) {
        if (utf16 && big_endian) policy += '\0';
        policy += c;
        if (utf16 && !big_endian) policy += '\0';
    }
    return mark + policy + std::string(bytes.substr(mark.size()));
}

// A text document as a page of preformatted HTML, or nothing when its UTF-16 is broken. The text is
// UTF-16 behind FF FE, UTF-8 behind its mark or without one; trailing NULs (a counted terminator) are
// not text.
std::optional<std::string> TextAsHtml(std::span<const std::byte> document) {
    std::string_view bytes(reinterpret_cast<const char*>(document.data()), document.size());
    std::string text;
    if (bytes.size() >= 2 && bytes[0] == '\xFF' && bytes[1] == '\xFE') {
        std::u16string units((bytes.size() - 2) / 2, u'\0');
        for (size_t i = 0; i < units.size(); ++i)
            units[i] = static_cast<char16_t>(static_cast<uint8_t>(bytes[2 + 2 * i]) |
                                             static_cast<uint8_t>(bytes[3 + 2 * i]) << 8);
        std::optional<std::string> utf8 = platform::Utf8FromUtf16(units);
        if (!utf8) return std::nullopt;
        text = std::move(*utf8);
    } else {
        if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
        text.assign(bytes);
    }
    while (!text.empty() && text.back() == '\0') text.pop_back();
    std::string html = "<!DOCTYPE html><html><head><meta charset=\"utf-8\">" + std::string(kPagePolicy) +
                       "</head><body>"
                       "<pre style=\"white-space:pre-wrap;font-family:'Liberation Mono','Noto Sans Mono CJK "
                       "SC',monospace\">";
    for (char c : text) {
        switch (c) {
            case '&':
                html += "&amp;";
                break;
            case '<':
                html += "&lt;";
                break;
            case '>':
                html += "&gt;";
                break;
            case '\0':
                break;
            default:
                html += c;
        }
    }
    return html + "</pre></body></html>";
}

// The string value of the first "name":"..." in a DevTools message (ids and base64 carry no escapes
// we need to undo; an escaped quote does not end the value).
std::string StringField(const std::string& message, const std::string& name) {
    const std::string key = "\"" + name + "\":\"";
    const size_t start = message.find(key);
    if (start == std::string::npos) return {};
    std::string value;
    for (size_t i = start + key.size(); i < message.size() && message[i] != '"'; ++i) {
        if (message[i] == '\\' && i + 1 < message.size()) ++i;
        value += message[i];
    }
    return value;
}

bool DecodeBase64(const std::string& text, std::string* bytes) {
    bytes->clear();
    bytes->reserve(text.size() / 4 * 3);
    uint32_t bits = 0;
    int count = 0;
    for (unsigned char c : text) {
        int v;
        if (c >= 'A' && c <= 'Z')
            v = c - 'A';
        else if (c >= 'a' && c <= 'z')
            v = c - 'a' + 26;
        else if (c >= '0' && c <= '9')
            v = c - '0' + 52;
        else if (c == '+')
            v = 62;
        else if (c == '/')
            v = 63;
        else if (c == '=')
            break;
        else
            return false;
        bits = bits << 6 | static_cast<uint32_t>(v);
        if (++count == 4) {
            bytes->push_back(static_cast<char>(bits >> 16));
            bytes->push_back(static_cast<char>(bits >> 8));
            bytes->push_back(static_cast<char>(bits));
            bits = 0;
            count = 0;
        }
    }
    if (count == 1) return false;
    if (count >= 2) bytes->push_back(static_cast<char>(bits >> (count == 2 ? 4 : 10)));
    if (count == 3) bytes->push_back(static_cast<char>(bits >> 2));
    return true;
}

// Width and height of a binary PPM (P6, 8-bit) and where its pixels start; false when it is not one.
bool ReadPpmHeader(const std::string& ppm, int64_t* width, int64_t* height, size_t* pixels) {
    std::istringstream in(ppm);
    std::string magic;
    int64_t max = 0;
    if (!(in >> magic >> *width >> *height >> max) || magic != "P6" || max != 255) return false;
    in.get();  // the one white-space byte before the pixels
    if (!in) return false;
    *pixels = static_cast<size_t>(in.tellg());
    return true;
}

}  // namespace

PageLayout::PageLayout() : PageLayout(Options{}) {}

PageLayout::PageLayout(Options options) : options_(options) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tarn-layout-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) scratch_ = pattern;
}

PageLayout::~PageLayout() {
    StopBrowser();
    if (!scratch_.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(scratch_, ignored);
    }
}

bool PageLayout::Lay(std::span<const std::byte> document, int32_t format, LaidOutDocument* out,
                     std::string* error) {
    *out = LaidOutDocument{};
    if (scratch_.empty()) {
        *error = "cannot make a scratch folder for the layout";
        return false;
    }
    const std::string stem = scratch_ + "/doc-" + std::to_string(++documents_);
    const bool rtf = format == kFormatRtf;
    const std::string path = stem + (rtf ? ".rtf" : ".html");
    const std::string_view bytes(reinterpret_cast<const char*>(document.data()), document.size());
    std::optional<std::string> page = rtf                     ? std::string(bytes)
                                      : format == kFormatText ? TextAsHtml(document)
                                                              : GuardedHtml(bytes);
    if (!page) {
        *error = "the text document's UTF-16 is broken";
        return false;
    }
    if (!WriteFile(path, *page)) {
        *error = path + ": cannot write";
        return false;
    }
    bool ok;
    if (rtf) {
        ok = PrintWithOffice(path, &out->pdf, error);
    } else if (!options_.keep_browser || kept_failures_ >= kMaxKeptFailures) {
        ok = PrintWithNewBrowser(path, &out->pdf, error);
    } else if ((ok = PrintInBrowser(path, &out->pdf, error))) {
        kept_failures_ = 0;
    } else if (OnPath("chromium")) {
        // The kept browser lost the page (its renderer gone, a print refused): this document gets a
        // browser of its own, and after a few such losses in a row every later one does.
        ++fallbacks_;
        ++kept_failures_;
        ok = PrintWithNewBrowser(path, &out->pdf, error);
    }
    std::remove(path.c_str());
    return ok && Measure(out, error);
}

bool PageLayout::PrintWithOffice(const std::string& rtf_path, std::string* pdf, std::string* error) {
    if (!OnPath("soffice")) {
        *error = Missing("soffice");
        return false;
    }
    const std::vector<std::string> argv = {
        "soffice",    "-env:UserInstallation=" + FileUrl(scratch_ + "/office"),
        "--headless", "--convert-to",
        "pdf",        "--outdir",
        scratch_,     rtf_path};
    const ChildResult r = RunChild(argv, options_.office_timeout, kMaxChildText);
    *error = ChildFailure("soffice", r, options_.office_timeout);
    const std::string pdf_path = rtf_path.substr(0, rtf_path.size() - 4) + ".pdf";
    if (error->empty() && !ReadFile(pdf_path, pdf)) *error = "soffice wrote no PDF: " + FirstLine(r.err);
    std::remove(pdf_path.c_str());
    return error->empty();
}

bool PageLayout::PrintWithNewBrowser(const std::string& html_path, std::string* pdf, std::string* error) {
    if (!OnPath("chromium")) {
        *error = Missing("chromium");
        return false;
    }
    const std::string profile = scratch_ + "/profile-" + std::to_string(documents_);
    const std::string pdf_path = html_path + ".pdf";
    std::vector<std::string> argv = {"chromium"};
    argv.insert(argv.end(), std::begin(kBrowserFlags), std::end(kBrowserFlags));
    argv.push_back("--user-data-dir=" + profile);
    argv.push_back("--print-to-pdf=" + pdf_path);
    argv.push_back(FileUrl(html_path));
    const ChildResult r = RunChild(argv, options_.timeout, kMaxChildText);
    *error = ChildFailure("chromium", r, options_.timeout);
    if (error->empty() && !ReadFile(pdf_path, pdf)) *error = "chromium wrote no PDF";
    std::remove(pdf_path.c_str());
    std::error_code ignored;
    std::filesystem::remove_all(profile, ignored);
    return error->empty();
}

bool PageLayout::StartBrowser(std::string* error) {
    if (!OnPath("chromium")) {
        *error = Missing("chromium");
        return false;
    }
    // The DevTools pipe: the browser reads commands on its fd 3 and writes answers on its fd 4. Sockets
    // rather than pipes, so that a browser that dies under us gives an error, not SIGPIPE.
    int commands[2], answers[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, commands) != 0) {
        *error = "cannot make the browser's pipe";
        return false;
    }
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, answers) != 0) {
        close(commands[0]), close(commands[1]);
        *error = "cannot make the browser's pipe";
        return false;
    }
    std::vector<std::string> argv = {"chromium"};
    argv.insert(argv.end(), std::begin(kBrowserFlags), std::end(kBrowserFlags));
    argv.push_back("--remote-debugging-pipe");
    argv.push_back("--user-data-dir=" + scratch_ + "/profile");
    const pid_t pid = fork();
    if (pid == 0) {
        // Out of the way of 3 and 4 first, so that neither dup2 overwrites the other's source.
        const int in = fcntl(commands[1], F_DUPFD, 10);
        const int out = fcntl(answers[1], F_DUPFD, 10);
        EnterChild(-1, -1);
        dup2(in, 3);
        dup2(out, 4);
        Exec(argv);
    }
    close(commands[1]);
    close(answers[1]);
    if (pid < 0) {
        close(commands[0]), close(answers[0]);
        *error = "cannot start chromium";
        return false;
    }
    setpgid(pid, pid);
    browser_ = pid;
    to_browser_ = commands[0];
    from_browser_ = answers[0];
    pending_.clear();
    session_.clear();
    std::string result;
    if (!Command("Target.createTarget", R"({"url":"about:blank"})", &result, error)) return false;
    const std::string target = StringField(result, "targetId");
    if (!Command("Target.attachToTarget", R"({"targetId":")" + target + R"(","flatten":true})", &result,
                 error))
        return false;
    session_ = StringField(result, "sessionId");
    if (session_.empty()) {
        *error = "chromium gave no page to print through";
        return false;
    }
    return Command("Page.enable", "{}", &result, error);
}

void PageLayout::StopBrowser() {
    if (browser_ <= 0) return;
    close(to_browser_);
    close(from_browser_);
    KillGroup(browser_);
    waitpid(browser_, nullptr, 0);
    browser_ = -1;
    to_browser_ = from_browser_ = -1;
}

bool PageLayout::ReadMessage(std::string* message, std::string* error) {
    for (;;) {
        const size_t end = pending_.find('\0');
        if (end != std::string::npos) {
            *message = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
        if (left.count() <= 0) {
            *error = "chromium timed out after " + SecondsText(options_.timeout) + " and was stopped";
            return false;
        }
        pollfd fd{from_browser_, POLLIN, 0};
        if (poll(&fd, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[65536];
        const ssize_t n = read(from_browser_, buffer, sizeof buffer);
        if (n <= 0) {
            *error = "chromium ended unexpectedly";
            return false;
        }
        if (pending_.size() + static_cast<size_t>(n) > kMaxMessageBytes) {
            *error = "chromium sent a message larger than " + std::to_string(kMaxMessageBytes >> 20) + " MiB";
            return false;
        }
        pending_.append(buffer, static_cast<size_t>(n));
    }
}

bool PageLayout::Command(const std::string& method, const std::string& params, std::string* result,
                         std::string* error) {
    const int id = ++next_id_;
    std::string message = R"({"id":)" + std::to_string(id) + R"(,"method":")" + method + R"(","params":)" +
                          params + (session_.empty() ? "" : R"(,"sessionId":")" + session_ + "\"") + "}";
    message += '\0';
    for (size_t sent = 0; sent < message.size();) {
        const ssize_t n = send(to_browser_, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            *error = "chromium stopped reading its pipe";
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    // Answers carry their id first; events in between are skipped, the load event remembered.
    const std::string prefix = R"({"id":)" + std::to_string(id) + ",";
    for (;;) {
        if (!ReadMessage(result, error) || !NoteEvent(*result, error)) return false;
        if (result->compare(0, prefix.size(), prefix) != 0) continue;
        if (result->compare(prefix.size(), 8, R"("error")") == 0) {
            *error = "chromium: " + method + ": " + StringField(*result, "message");
            return false;
        }
        return true;
    }
}

bool PageLayout::NoteEvent(const std::string& message, std::string* error) {
    if (message.find(R"("method":"Page.loadEventFired")") != std::string::npos) loaded_ = true;
    // The page's renderer can go away under us; no answer or load event will come after that.
    if (message.find(R"("method":"Inspector.detached")") != std::string::npos ||
        message.find(R"("method":"Target.detachedFromTarget")") != std::string::npos) {
        *error = "chromium lost the page: " + StringField(message, "reason");
        return false;
    }
    return true;
}

bool PageLayout::AwaitLoad(std::string* error) {
    std::string message;
    while (!loaded_) {
        if (!ReadMessage(&message, error) || !NoteEvent(message, error)) return false;
    }
    return true;
}

bool PageLayout::PrintInBrowser(const std::string& html_path, std::string* pdf, std::string* error) {
    deadline_ = Clock::now() + options_.timeout;
    // A browser that failed before is started afresh.
    if (browser_ <= 0 && !StartBrowser(error)) {
        StopBrowser();
        return false;
    }
    std::string result;
    loaded_ = false;
    bool ok = Command("Page.navigate", R"({"url":")" + FileUrl(html_path) + "\"}", &result, error);
    if (ok && !StringField(result, "errorText").empty()) {
        *error = "chromium: " + html_path + ": " + StringField(result, "errorText");
        return false;  // the page failed, the browser is well
    }
    ok = ok && AwaitLoad(error) &&
         Command("Page.printToPDF",
                 R"({"paperWidth":8.5,"paperHeight":11,"printBackground":true,"preferCSSPageSize":true})",
                 &result, error);
    if (ok && (!DecodeBase64(StringField(result, "data"), pdf) || pdf->empty())) {
        *error = "chromium sent no PDF, or one that is not base64";
        ok = false;
    }
    if (!ok) StopBrowser();
    return ok;
}

bool PageLayout::Measure(LaidOutDocument* out, std::string* error) {
    if (!OnPath("pdfinfo")) {
        *error = Missing("pdfinfo");
        return false;
    }
    const std::string path = scratch_ + "/measure.pdf";
    if (!WriteFile(path, out->pdf)) {
        *error = path + ": cannot write";
        return false;
    }
    const ChildResult r = RunChild({"pdfinfo", path}, options_.timeout, kMaxChildText);
    *error = ChildFailure("pdfinfo", r, options_.timeout);
    if (!error->empty()) return false;
    std::istringstream lines(r.out);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("Pages:", 0) == 0) out->pages = std::atoi(line.c_str() + 6);
        if (line.rfind("Page size:", 0) == 0)
            std::sscanf(line.c_str() + 10, " %lf x %lf", &out->width_points, &out->height_points);
    }
    if (out->pages < 1 || !(out->width_points > 0) || !(out->height_points > 0)) {
        *error = "pdfinfo found no pages in the laid-out PDF";
        return false;
    }
    return true;
}

bool PageLayout::Rasterise(const LaidOutDocument& document, int32_t page, int32_t dpi, int32_t width,
                           int32_t height, PageBitmap* bitmap, std::string* error) {
    if (page < 1 || page > document.pages) {
        *error = "page " + std::to_string(page) + " asked of a document of " +
                 std::to_string(document.pages) + " pages";
        return false;
    }
    if (width < 1 || height < 1 || width > kMaxPagePixels || height > kMaxPagePixels ||
        int64_t{width} * height > kMaxPageArea || dpi < 1 || dpi > 4800) {
        *error = "a page of " + std::to_string(width) + " x " + std::to_string(height) + " pixels at " +
                 std::to_string(dpi) + " dpi is out of range";
        return false;
    }
    if (!OnPath("pdftoppm")) {
        *error = Missing("pdftoppm");
        return false;
    }
    const std::string path = scratch_ + "/page.pdf";
    if (!WriteFile(path, document.pdf)) {
        *error = path + ": cannot write";
        return false;
    }
    const std::string n = std::to_string(page);
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height) * 3;
    const ChildResult r = RunChild({"pdftoppm", "-r", std::to_string(dpi), "-f", n, "-l", n, "-scale-to-x",
                                    std::to_string(width), "-scale-to-y", std::to_string(height), path},
                                   options_.timeout, pixels + 64);
    *error = ChildFailure("pdftoppm", r, options_.timeout);
    if (!error->empty()) return false;
    int64_t w = 0, h = 0;
    size_t start = 0;
    if (!ReadPpmHeader(r.out, &w, &h, &start) || w != width || h != height ||
        r.out.size() - start != pixels) {
        *error = "pdftoppm gave a picture other than the " + std::to_string(width) + " x " +
                 std::to_string(height) + " page asked for";
        return false;
    }
    bitmap->width = width;
    bitmap->height = height;
    bitmap->rgb.assign(r.out.begin() + static_cast<std::ptrdiff_t>(start), r.out.end());
    return true;
}

bool WritePng(const PageBitmap& bitmap, const std::string& path) {
    const size_t row = static_cast<size_t>(bitmap.width) * 3;
    if (bitmap.width < 1 || bitmap.height < 1 ||
        bitmap.rgb.size() != row * static_cast<size_t>(bitmap.height))
        return false;
    // Every row behind filter type 0 (none).
    std::string raw;
    raw.reserve((row + 1) * static_cast<size_t>(bitmap.height));
    for (int32_t y = 0; y < bitmap.height; ++y) {
        raw += '\0';
        raw.append(reinterpret_cast<const char*>(bitmap.rgb.data()) + row * static_cast<size_t>(y), row);
    }
    uLongf packed_size = compressBound(static_cast<uLong>(raw.size()));
    std::string packed(packed_size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(packed.data()), &packed_size,
                  reinterpret_cast<const Bytef*>(raw.data()), static_cast<uLong>(raw.size()), 9) != Z_OK)
        return false;
    packed.resize(packed_size);

    std::string png = "\x89PNG\r\n\x1a\n";
    const auto chunk = [&png](const char* type, const std::string& data) {
        const auto be32 = [&png](uint32_t v) {
            for (int shift = 24; shift >= 0; shift -= 8) png += static_cast<char>(v >> shift);
        };
        be32(static_cast<uint32_t>(data.size()));
        const std::string body = std::string(type, 4) + data;
        png += body;
        be32(static_cast<uint32_t>(
            crc32(0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size()))));
    };
    std::string header;
    for (uint32_t v : {static_cast<uint32_t>(bitmap.width), static_cast<uint32_t>(bitmap.height)})
        for (int shift = 24; shift >= 0; shift -= 8) header += static_cast<char>(v >> shift);
    header += std::string("\x08\x02\x00\x00\x00", 5);  // 8 bits, RGB, deflate, no filter, no interlace
    chunk("IHDR", header);
    chunk("IDAT", packed);
    chunk("IEND", "");
    return WriteFile(path, png);
}

}  // namespace tarn::host
