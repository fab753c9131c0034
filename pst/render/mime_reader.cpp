#include "pst/render/mime_reader.h"

#include <algorithm>
#include <memory>
#include <string>

#include "common/status.h"
#include "pst/render/charset.h"
#include "pst/render/header_block.h"
#include "pst/render/html_text.h"
#include "pst/render/mime_decode.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

constexpr size_t kBodyGrowthStep = 1024;
// Enclosed messages inside enclosed messages are shown this many levels deep; each level reads its
// enclosure's bytes once more, so the work stays a small multiple of the file.
constexpr int kMaxEnclosedDepth = 8;
constexpr size_t kHeaderGrowthStep = 32;

struct TypeName {
    std::string_view name;
    MimeType type;
};
constexpr TypeName kTypeNames[] = {
    {"text/html", kMimeTextHtml},
    {"text/plain", kMimeTextPlain},
    {"text/xml", kMimeTextXml},
    {"application/vnd.ms-officetheme", kMimeOfficeTheme},
    {"application/javascript", kMimeJavascript},
    {"image/svg", kMimeImageSvg},
    {"image/png", kMimeImagePng},
    {"image/gif", kMimeImageGif},
    {"image/jpeg", kMimeImageJpeg},
    {"image/x-wmf", kMimeImageWmf},
    {"text/css", kMimeTextCss},
};

// The message's own header fields, in the order they are read, and the slot each fills.
struct FieldName {
    std::string_view name;
    HeaderSlot slot;
};
constexpr FieldName kMessageFields[] = {
    {"From:", kSlotFrom}, {"To:", kSlotTo},   {"Subject:", kSlotSubject},       {"Date:", kSlotSent},
    {"CC:", kSlotCc},     {"BCC:", kSlotBcc}, {"Importance:", kSlotImportance},
};
// The fields converted with the first text part's character set (Importance is not).
constexpr HeaderSlot kConvertedSlots[] = {kSlotFrom, kSlotTo, kSlotSubject, kSlotSent, kSlotCc, kSlotBcc};

constexpr std::string_view kDoctype = "<!DOCTYPE html";
constexpr const char* kOutOfMemoryFate = "not read: memory ran out; the reading ended here";

std::string_view TrimSpace(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Where a block of header lines ends: behind the first empty line (CR LF, else LF alone); failing
// both, behind the first line break, so that the first line alone is taken as headers; failing that,
// at the end. The message's own block has no first-line fallback: without an empty line it is all headers.
size_t HeaderBlockEnd(std::string_view text, bool first_line_fallback) {
    if (const size_t found = text.find("\r\n\r\n"); found != std::string_view::npos) return found + 4;
    if (const size_t found = text.find("\n\n"); found != std::string_view::npos) return found + 2;
    if (first_line_fallback) {
        if (const size_t found = text.find("\r\n"); found != std::string_view::npos) return found + 2;
    }
    return text.size();
}

// The value of parameter `name` (with its "=") in a header value: quotes removed; a quoted value ends
// at its closing quote, a bare one at ";", white space or the end. Empty when there is none.
std::string_view ParameterValue(std::string_view header, std::string_view name) {
    size_t found = FindIgnoringCase(header, name);
    // "name=" must not be the tail of another parameter's name ("filename=" for "name=").
    while (found != std::string_view::npos && found > 0) {
        const char before = header[found - 1];
        if (before == ';' || before == ' ' || before == '\t') break;
        found = FindIgnoringCase(header, name, found + 1);
    }
    if (found == std::string_view::npos) return {};
    std::string_view value = header.substr(found + name.size());
    if (!value.empty() && value.front() == '"') {
        value.remove_prefix(1);
        return value.substr(0, value.find('"'));
    }
    return value.substr(0, value.find_first_of("; \t\r\n"));
}

// Where the first empty line ends (a line of nothing, or of a lone CR, before its LF); npos for none.
size_t FirstEmptyLineEnd(std::string_view text) {
    for (size_t line = 0; line < text.size();) {
        if (text[line] == '\n') return line + 1;
        if (text.substr(line, 2) == "\r\n") return line + 2;
        const size_t lf = text.find('\n', line);
        if (lf == std::string_view::npos) break;
        line = lf + 1;
    }
    return std::string_view::npos;
}

// An enclosed message's text as part of another HTML body: what its body element holds.
std::string_view BodyContent(std::string_view html) {
    if (const size_t open = FindIgnoringCase(html, "<body"); open != std::string_view::npos) {
        const size_t close = html.find('>', open);
        html = close == std::string_view::npos ? std::string_view{} : html.substr(close + 1);
    }
    size_t last = std::string_view::npos;
    for (size_t at = FindIgnoringCase(html, "</body"); at != std::string_view::npos;
         at = FindIgnoringCase(html, "</body", at + 1))
        last = at;
    return html.substr(0, last);
}

// Text as HTML text, its line breaks as <br>.
int32_t AppendTextAsHtml(std::string_view text, GrowBuffer& out) {
    for (size_t from = 0; from < text.size();) {
        const size_t special = std::min(text.find_first_of("&<>\"\r\n", from), text.size());
        int32_t status = out.Append(text.substr(from, special - from));
        if (special == text.size() || status != kStatusOk) return status;
        const char c = text[special];
        from = special + 1;
        if (c == '\r' && from < text.size() && text[from] == '\n') ++from;
        status = out.Append(c == '&'   ? "&amp;"
                            : c == '<' ? "&lt;"
                            : c == '>' ? "&gt;"
                            : c == '"' ? "&quot;"
                                       : "<br>\r\n");
        if (status != kStatusOk) return status;
    }
    return kStatusOk;
}

bool IsImage(MimeType type) { return type >= kMimeImagePng && type <= kMimeImageWmf; }

// The walk over one multipart: its delimiter and the range still to be read.
struct Frame {
    size_t position;
    size_t end;
    std::string delimiter;
    int depth;
    size_t parts = 0;       // found so far
    ptrdiff_t report = -1;  // its own report, when parts are listed
};

class EmlReader {
  public:
    EmlReader(std::string_view text, MessageDocument& record, int32_t* body_format,
              const MimeReadOptions& options, int enclosed_depth = 0)
        : text_(text),
          record_(record),
          body_format_(body_format),
          options_(options),
          enclosed_depth_(enclosed_depth),
          images_(&record.document, options.files) {}

    int32_t Read();
    // The images go into the body only now; a failure is reported as an image's would be.
    void FinishImages() {
        if (const int32_t status = images_.Finish();
            status != kStatusOk && record_.reader_status == kStatusOk)
            record_.reader_status = status;
    }

  private:
    // A message enclosed in this one, read whole, to be shown after the body.
    struct EnclosedMessage {
        MessageDocument record;
        int32_t format = kBodyNone;
    };

    bool repaired() const { return record_.repairs.wanted(); }
    size_t HeaderEnd(std::string_view text, bool first_line_fallback);
    int32_t Walk(size_t header_end, std::string_view block);
    int32_t ReadHeaderFields(std::string_view block);
    int32_t ReadLeaf(size_t begin, size_t end, int depth);
    int32_t ConvertHeaderFields(CharsetCode charset);
    int32_t TakeText(MimeType type, CharsetCode charset, GrowBuffer& content, MimePartReport& report,
                     bool attached);
    void TakeImage(const GrowBuffer& content, MimePartReport& report);
    int32_t ReadEnclosed(const GrowBuffer& content, MimePartReport& report);
    int32_t AppendEnclosed();
    MimePartReport* Report(MimePartReport report);

    std::string_view text_;
    MessageDocument& record_;
    int32_t* body_format_;
    const MimeReadOptions& options_;
    const int enclosed_depth_;
    bool headers_converted_ = false;
    std::string raw_set_;  // repaired: the set that reads the header fields' raw 8-bit bytes
    std::vector<std::unique_ptr<EnclosedMessage>> enclosed_;
    bool walk_ended_ = false;     // an image's failure ends the walk, keeping the body
    ptrdiff_t body_report_ = -1;  // the report of the part that is the body now
    ImageInliner images_;
};

MimePartReport* EmlReader::Report(MimePartReport report) {
    if (options_.parts == nullptr) return nullptr;
    options_.parts->push_back(std::move(report));
    return &options_.parts->back();
}

size_t EmlReader::HeaderEnd(std::string_view text, bool first_line_fallback) {
    if (!repaired()) return HeaderBlockEnd(text, first_line_fallback);
    // The first empty line, whichever its line end: one of LF alone can come before a CR LF CR LF.
    size_t end = FirstEmptyLineEnd(text);
    bool bare = end != std::string_view::npos && (end == 1 || text[end - 2] != '\r');
    bool differs = bare && text.find("\r\n\r\n") != std::string_view::npos;
    if (end == std::string_view::npos && first_line_fallback) {
        if (const size_t lf = text.find('\n'); lf != std::string_view::npos) {
            end = lf + 1;
            differs = lf == 0 || text[lf - 1] != '\r';
        }
    }
    if (differs) record_.repairs.Make(Repair::kLfLineEnds);
    return end == std::string_view::npos ? text.size() : end;
}

int32_t EmlReader::ReadHeaderFields(std::string_view block) {
    std::string value;
    for (const FieldName& field : kMessageFields) {
        if (!FindHeaderField(block, field.name, &value)) continue;
        GrowBuffer decoded;
        // Decoded words are rarely longer than their encoded form; a value converted to UTF-8 grows in steps.
        int32_t status = decoded.Init(value.size(), kHeaderGrowthStep);
        // Repaired, the text part's set reads the raw bytes of the fields it converts, and only those.
        const bool converted = std::find(std::begin(kConvertedSlots), std::end(kConvertedSlots),
                                         field.slot) != std::end(kConvertedSlots);
        if (status == kStatusOk)
            status = DecodeEncodedWords(value, &decoded, &record_.repairs,
                                        converted ? std::string_view(raw_set_) : std::string_view{});
        if (status != kStatusOk) return status;
        if (AssignBytes(record_.header[field.slot], decoded.data(), decoded.length()) != kStatusOk)
            return kStatusFailure;
    }
    return kStatusOk;
}

int32_t EmlReader::ConvertHeaderFields(CharsetCode charset) {
    if (headers_converted_ || charset.code == kCharsetNone || charset.code == kCharsetUtf8 ||
        charset.code == kCharsetUsAscii)
        return kStatusOk;
    headers_converted_ = true;
    for (const HeaderSlot slot : kConvertedSlots) {
        if (record_.header[slot].size() == 0) continue;
        CharsetCode copy = charset;
        // A field that cannot be converted keeps its bytes, as a body does; memory running out ends the read.
        if (ConvertToUtf8(&record_.header[slot], &copy, true) == kStatusFailure) return kStatusFailure;
    }
    return kStatusOk;
}

int32_t EmlReader::TakeText(MimeType type, CharsetCode charset, GrowBuffer& content, MimePartReport& report,
                            bool attached) {
    // The first text part that names a set other than UTF-8 and US-ASCII converts the header fields,
    // whether or not it becomes the body; repaired, it reads their raw bytes when they are decoded.
    if (repaired()) {
        if (raw_set_.empty() && charset.code != kCharsetNone && charset.code != kCharsetUtf8 &&
            charset.code != kCharsetUsAscii)
            raw_set_ = report.charset;
    } else if (const int32_t status = ConvertHeaderFields(charset); status != kStatusOk) {
        report.fate = kOutOfMemoryFate;
        return status;
    }
    if (type == kMimeTextPlain && *body_format_ == kBodyHtml && record_.document.TextLength() != 0) {
        report.fate = "ignored: text/plain after an HTML body";
        return kStatusOk;
    }
    if (attached && record_.repairs.Make(Repair::kAttachedText)) {
        report.fate = "ignored: a text part attached as a file";
        return kStatusOk;
    }
    // The document type declaration is blanked, so that loaders lay the page out in their own mode.
    const std::string_view text = content.view();
    if (const size_t doctype = text.find(kDoctype); doctype != std::string_view::npos) {
        const size_t close = text.find('>', doctype);
        const size_t last = close == std::string_view::npos ? text.size() : close + 1;
        std::fill(content.data() + doctype, content.data() + last, std::byte{' '});
    }
    CountedString body;
    content.MoveInto(body);
    // A set that cannot be converted shows as it was written; memory running out ends the read.
    int32_t converted = ConvertToUtf8(&body, &charset, true);
    if (repaired() && !report.charset.empty() &&
        (charset.code == kCharsetOther || converted == kStatusConversionFailed)) {
        // A set beyond the table, or a code page without a converter, is converted by its name.
        const int32_t named = ConvertNamedSetToUtf8(&body, report.charset, type == kMimeTextHtml);
        if (named == kStatusOk) record_.repairs.Make(Repair::kCharsetNames);
        if (named != kStatusConversionFailed) converted = named;
    }
    if (converted == kStatusFailure) {
        report.fate = kOutOfMemoryFate;
        return converted;
    }
    report.fate = converted == kStatusOk ? "body" : "body, its character set not converted";
    images_.Discard();  // the images inlined so far went into the body being replaced
    if (type == kMimeTextHtml) {
        record_.document = std::move(body);
        record_.text_body.Release();
        *body_format_ = kBodyHtml;
    } else {
        record_.text_body = std::move(body);
        record_.document.Release();
        *body_format_ = kBodyPlainText;
    }
    if (options_.parts != nullptr) {
        if (body_report_ >= 0)
            (*options_.parts)[static_cast<size_t>(body_report_)].fate = "ignored: replaced by a later body";
        body_report_ = static_cast<ptrdiff_t>(options_.parts->size());  // where this report goes
    }
    return kStatusOk;
}

void EmlReader::TakeImage(const GrowBuffer& content, MimePartReport& report) {
    // Repaired, a content id alone is enough: the HTML refers to it by "cid:".
    if (report.location.empty() && (!repaired() || report.content_id.empty())) {
        report.fate = "ignored: an image without a location (Content-Location or name=)";
        return;
    }
    std::string reference;
    int32_t status = *body_format_ == kBodyHtml ? images_.Find(report.location, report.content_id, &reference)
                                                : kStatusNotPresent;
    if (status == kStatusNotPresent) {
        report.fate = "ignored: the HTML body before it does not refer to it";
        return;
    }
    if (report.location.empty()) record_.repairs.Make(Repair::kCidWithoutLocation);
    int32_t count = 0;
    if (status == kStatusOk) status = images_.Inline(reference, content.data(), content.length(), &count);
    if (status < kStatusOk) {
        // The body keeps what was done; the rest of the message is not read.
        report.fate =
            "ignored: inlining failed with status " + std::to_string(status) + "; the walk ended here";
        record_.reader_status = status;
        walk_ended_ = true;
        return;
    }
    report.fate = count > 0 ? "inlined " + std::to_string(count) + (count == 1 ? " time" : " times")
                            : "ignored: no use of its reference could be replaced";
}

int32_t EmlReader::ReadLeaf(size_t begin, size_t end, int depth) {
    const std::string_view part = text_.substr(begin, end - begin);
    const size_t header_end = HeaderEnd(part, true);
    const std::string_view headers = part.substr(0, header_end);
    const std::string_view body = part.substr(header_end);

    MimePartReport report;
    report.depth = depth;
    std::string content_type;
    std::string value;
    // A part that gives no type is plain text in US-ASCII (RFC 2045): a message of header fields and text.
    if (!FindHeaderField(headers, "Content-Type:", &content_type) && repaired()) {
        content_type = "text/plain; charset=us-ascii";
        record_.repairs.Make(Repair::kUntypedText);
    }
    report.type = MimeTypeOf(content_type);
    report.content_type = TrimSpace(std::string_view(content_type).substr(0, content_type.find(';')));
    CharsetCode charset;
    if (report.type == kMimeTextHtml || report.type == kMimeTextPlain) {
        FindCharsetDeclaration(content_type, &charset);
        report.charset = ParameterValue(content_type, "charset=");
    }
    if (FindHeaderField(headers, "Content-Transfer-Encoding:", &value))
        report.transfer_encoding = TrimSpace(value);
    if (FindHeaderField(headers, "Content-ID:", &value)) {
        std::string_view id = TrimSpace(value);
        // Bodies refer to "cid:" and the id without its brackets.
        if (id.size() >= 2 && id.front() == '<' && id.back() == '>') id = id.substr(1, id.size() - 2);
        report.content_id = id;
    }
    if (FindHeaderField(headers, "Content-Location:", &value)) report.location = TrimSpace(value);
    const bool attached = repaired() && FindHeaderField(headers, "Content-Disposition:", &value) &&
                          StartsIgnoringCase(TrimSpace(value), "attachment");
    if (report.location.empty()) report.location = ParameterValue(content_type, "name=");

    GrowBuffer content;
    int32_t status = content.Init(0, kBodyGrowthStep);
    if (status == kStatusOk) {
        if (EqualsIgnoringCase(report.transfer_encoding, "quoted-printable"))
            status = DecodeQuotedPrintable(body, &content, false, &record_.repairs);
        else if (EqualsIgnoringCase(report.transfer_encoding, "base64"))
            status = DecodeBase64(body, &content);
        else
            status = content.Append(body);
    }
    if (status != kStatusOk) return status;
    report.decoded_size = content.length();
    if (options_.keep_content && options_.parts != nullptr) report.content = content.view();

    if (content.length() == 0) {
        report.fate = "ignored: no content";
    } else if (report.type == kMimeTextHtml || report.type == kMimeTextPlain) {
        status = TakeText(report.type, charset, content, report, attached);
    } else if (IsImage(report.type)) {
        TakeImage(content, report);
    } else if (StartsIgnoringCase(report.content_type, "message/rfc822")) {
        if (repaired())
            status = ReadEnclosed(content, report);
        else
            report.fate = "ignored: an enclosed message is not shown";
    } else if (report.type == kMimeImageSvg) {
        report.fate = "ignored: SVG images are not inlined";
    } else {
        report.fate = "ignored: not a type that is shown";
    }
    Report(std::move(report));
    return status;
}

int32_t EmlReader::ReadEnclosed(const GrowBuffer& content, MimePartReport& report) {
    if (enclosed_depth_ >= kMaxEnclosedDepth) {
        report.fate = "ignored: an enclosed message nested too deep";
        return kStatusOk;
    }
    auto enclosed = std::make_unique<EnclosedMessage>();
    enclosed->record.repairs = Repairs(true);
    MimeReadOptions options;
    options.files = options_.files;
    // Nested once per level, at most kMaxEnclosedDepth deep.
    EmlReader reader(content.view(), enclosed->record, &enclosed->format, options, enclosed_depth_ + 1);
    const int32_t status = reader.Read();
    reader.FinishImages();
    record_.repairs.Merge(enclosed->record.repairs);
    if (status != kStatusOk) {
        report.fate = kOutOfMemoryFate;
        return status;
    }
    record_.repairs.Make(Repair::kEnclosedMessage);
    report.fate = "shown after the body, with its own header block";
    enclosed_.push_back(std::move(enclosed));
    return kStatusOk;
}

int32_t EmlReader::AppendEnclosed() {
    if (enclosed_.empty()) return kStatusOk;
    // A message whose only content is enclosed shows it as its body, in the enclosure's format.
    if (*body_format_ == kBodyNone)
        *body_format_ = enclosed_.front()->format == kBodyHtml ? kBodyHtml : kBodyPlainText;
    const bool html = *body_format_ == kBodyHtml;
    CountedString& body = html ? record_.document : record_.text_body;
    GrowBuffer out;
    int32_t status = out.Init(body.TextLength(), kBodyGrowthStep);
    if (status == kStatusOk) status = out.Append(body.text());
    for (const auto& enclosed : enclosed_) {
        if (status == kStatusOk && out.length() != 0) status = out.Append(html ? "<hr>\r\n" : "\r\n\r\n");
        if (status == kStatusOk) status = AppendEnglishHeaderBlock(enclosed->record, *body_format_, out);
        record_.repairs.Merge(enclosed->record.repairs);
        const std::string_view text = enclosed->format == kBodyHtml ? enclosed->record.document.text()
                                                                    : enclosed->record.text_body.text();
        if (status != kStatusOk || enclosed->format == kBodyNone) continue;
        if (html)
            status =
                enclosed->format == kBodyHtml ? out.Append(BodyContent(text)) : AppendTextAsHtml(text, out);
        else
            status = enclosed->format == kBodyHtml ? HtmlToText(text, &out) : out.Append(text);
    }
    if (status != kStatusOk) return status;
    CountedString joined;
    out.MoveInto(joined);
    body = std::move(joined);
    return kStatusOk;
}

int32_t EmlReader::Read() {
    *body_format_ = kBodyNone;
    const size_t header_end = HeaderEnd(text_, false);
    const std::string_view block = text_.substr(0, header_end);
    // Repaired, the fields are read behind the parts, whose set reads their raw bytes.
    if (!repaired()) return Walk(header_end, block);
    int32_t status = Walk(header_end, block);
    if (status == kStatusOk) status = ReadHeaderFields(block);
    // The body's images go in before anything is appended to it.
    FinishImages();
    if (status == kStatusOk) status = AppendEnclosed();
    return status;
}

int32_t EmlReader::Walk(size_t header_end, std::string_view block) {
    if (!repaired()) {
        if (const int32_t status = ReadHeaderFields(block); status != kStatusOk) return status;
    }
    std::string content_type;
    FindHeaderField(block, "Content-Type:", &content_type);
    const std::string_view boundary = ParameterValue(content_type, "boundary=");
    const bool rfc822 = StartsIgnoringCase(TrimSpace(content_type), "message/rfc822");
    if (boundary.empty() || rfc822) return ReadLeaf(0, text_.size(), 0);

    std::vector<Frame> stack;
    // Reports a multipart; its index in the reports, -1 when parts are not listed.
    auto report_multipart = [&](std::string_view headers_type, int depth, const char* fate) {
        MimePartReport report;
        report.depth = depth;
        report.content_type = TrimSpace(headers_type.substr(0, headers_type.find(';')));
        report.type = kMimeOther;
        report.fate = fate;
        const ptrdiff_t index =
            options_.parts != nullptr ? static_cast<ptrdiff_t>(options_.parts->size()) : -1;
        Report(std::move(report));
        return index;
    };
    auto push = [&](size_t begin, size_t end, std::string_view headers_type, std::string_view part_boundary,
                    int depth) {
        const ptrdiff_t index = report_multipart(headers_type, depth, "multipart");
        // Repaired, a delimiter follows LF alone too; a CR before it is the line end of the part's content.
        stack.push_back(Frame{begin, end, (repaired() ? "\n--" : "\r\n--") + std::string(part_boundary),
                              depth, 0, index});
    };
    // Says in a multipart's report why none of its parts was found.
    auto finish = [&](const Frame& frame, bool closed) {
        if (frame.parts != 0 || frame.report < 0) return;
        if (closed) {
            (*options_.parts)[static_cast<size_t>(frame.report)].fate = "multipart: closed before any part";
            return;
        }
        const std::string_view bare = std::string_view(frame.delimiter).substr(1);  // LF "--" boundary
        const bool lf_only =
            !repaired() && text_.substr(0, frame.end).find(bare, frame.position) != std::string_view::npos;
        (*options_.parts)[static_cast<size_t>(frame.report)].fate =
            lf_only ? "multipart: no part found; its delimiters follow LF alone, and a delimiter begins with "
                      "CR LF"
                    : "multipart: no part found; no line holds \"--\" and its boundary";
    };
    // From the empty line's own break on: a first delimiter right behind the header block begins with it.
    const size_t line_break = repaired() ? 1 : 2;
    push(header_end >= line_break ? header_end - line_break : header_end, text_.size(), content_type,
         boundary, 0);
    // Multiparts are walked with a stack of their own, one frame a level, so that the input cannot
    // choose how deep the reader's own calls go.
    while (!stack.empty() && !walk_ended_) {
        Frame& frame = stack.back();
        const std::string_view range = text_.substr(0, frame.end);
        const size_t found = range.find(frame.delimiter, frame.position);
        if (found == std::string_view::npos) {
            finish(frame, false);
            stack.pop_back();
            continue;
        }
        size_t begin = found + frame.delimiter.size();
        if (range.substr(begin, 2) == "--") {  // the closing delimiter
            finish(frame, true);
            stack.pop_back();
            continue;
        }
        ++frame.parts;
        const size_t next = range.find(frame.delimiter, begin);
        size_t end = next == std::string_view::npos ? frame.end : next;
        frame.position = end;
        const int depth = frame.depth + 1;
        if (repaired()) {
            if (found == 0 || text_[found - 1] != '\r') record_.repairs.Make(Repair::kLfLineEnds);
            // The part begins on the line behind its delimiter's, and its content ends before the line
            // break that belongs to the next delimiter.
            const size_t line_end = range.find('\n', begin);
            begin = line_end == std::string_view::npos ? frame.end : line_end + 1;
            if (next != std::string_view::npos && end > begin && text_[end - 1] == '\r') --end;
            end = std::max(end, begin);
        }

        const std::string_view part = text_.substr(begin, end - begin);
        std::string part_type;
        // Whether the part is a multipart is asked of the whole part, not only of its header block: a
        // part cut short before its empty line still shows its own parts.
        FindHeaderField(part, "Content-Type:", &part_type);
        const std::string_view part_boundary = ParameterValue(part_type, "boundary=");
        if (StartsIgnoringCase(TrimSpace(part_type), "message/rfc822") || part_boundary.empty()) {
            if (const int32_t status = ReadLeaf(begin, end, depth); status != kStatusOk) return status;
            continue;
        }
        if (depth > kMaxMimeDepth) {
            // Only the subtree is lost: a body found before it, or after it, is still the message's.
            report_multipart(part_type, depth,
                             "ignored: a multipart nested too deep; its parts were not read");
            continue;
        }
        push(begin, end, part_type, part_boundary, depth);  // `frame` is not used after this
    }
    return kStatusOk;
}

}  // namespace

MimeType MimeTypeOf(std::string_view content_type) {
    const std::string_view value = TrimSpace(content_type);
    for (const TypeName& entry : kTypeNames)
        if (StartsIgnoringCase(value, entry.name)) return entry.type;
    return kMimeOther;
}

int32_t ReadEmlBytes(std::string_view bytes, MessageDocument& record, int32_t* body_format,
                     const MimeReadOptions& options) {
    if (body_format == nullptr) return kStatusBadArgument;
    EmlReader reader(bytes, record, body_format, options);
    const int32_t status = reader.Read();
    reader.FinishImages();
    if (status != kStatusOk) return status;
    if (*body_format == kBodyHtml) return EnsureUtf8Meta(&record.document);
    return kStatusOk;
}

int32_t ReadEmlMessage(krn_handle handle, MessageDocument& record, int32_t* body_format,
                       const MimeReadOptions& options) {
    const int64_t size = krnSeekFile(handle, 0, 0, KRN_SEEK_END);
    if (size < 0) return kStatusNoPosition;
    if (size > static_cast<int64_t>(kMaxBufferBytes)) return kStatusFileTooLarge;
    if (krnSeekFile(handle, 0, 0, KRN_SEEK_START) != 0) return kStatusNoPosition;

    // The file, read whole, with room for one more byte; the toolkit measures in signed 32 bits.
    GrowBuffer file;
    if (const int32_t status = file.Init(static_cast<size_t>(size) + 1, 0); status != kStatusOk)
        return status;
    // The size is what the file holds now: a read that falls short of it is a short read, not the end.
    const auto read = [handle](char* into, size_t count) {
        const int32_t got = krnReadFile(handle, into, static_cast<int32_t>(count));
        return got > 0 ? static_cast<size_t>(got) : size_t{0};
    };
    if (const int32_t status = AppendFromReader(read, static_cast<uint64_t>(size), file); status != kStatusOk)
        return status;
    return ReadEmlBytes(
        std::string_view(reinterpret_cast<const char*>(file.data()), static_cast<size_t>(size)), record,
        body_format, options);
}

}  // namespace tarn
