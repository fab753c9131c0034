// tarnview parts: an Internet message's MIME tree as the filter's reader walks it, one line per part
// with what became of it (the body, inlined, or ignored and why). The place to look when a part of a
// message does not show on its page.
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "common/apiutils.h"
#include "common/json_writer.h"
#include "common/status.h"
#include "common/terminal_text.h"
#include "host/toolkit_host.h"
#include "kernel/tarnkrn.h"
#include "pst/render/mime_reader.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    bool json = false;
};

const char* BodyName(int32_t format) {
    switch (format) {
        case tarn::kBodyHtml:
            return "html";
        case tarn::kBodyPlainText:
            return "text";
        default:
            return "none";
    }
}

// Header values are the message's own bytes, in whatever set it declares: anything outside printable
// ASCII is escaped, so that one part stays one line. `status` is what the reader gave.
void PrintText(const std::vector<tarn::MimePartReport>& parts, int32_t format, size_t body_size,
               int32_t status) {
    for (const tarn::MimePartReport& part : parts) {
        std::string line(static_cast<size_t>(part.depth) * 2, ' ');
        line += part.content_type.empty() ? "(no content type)" : tarn::AsciiText(part.content_type);
        if (!part.charset.empty()) line += "  charset=" + tarn::AsciiText(part.charset);
        if (!part.transfer_encoding.empty()) line += "  encoding=" + tarn::AsciiText(part.transfer_encoding);
        if (!part.content_id.empty()) line += "  id=" + tarn::AsciiText(part.content_id);
        if (!part.location.empty()) line += "  location=" + tarn::AsciiText(part.location);
        if (part.fate.rfind("multipart", 0) != 0) line += "  " + std::to_string(part.decoded_size) + " bytes";
        line += "  -> " + part.fate;
        std::printf("%s\n", line.c_str());
    }
    if (status != tarn::kStatusOk)
        std::printf("body: none (the reader ended with status %d: %s)\n", status, tarn::StatusText(status));
    else if (format == tarn::kBodyNone)
        std::printf("body: none (the filter gives no document: status %d)\n", tarn::kStatusUnsupported);
    else
        std::printf("body: %s, %zu bytes before the header block\n", BodyName(format), body_size);
}

void PrintJson(const std::string& file, const std::vector<tarn::MimePartReport>& parts, int32_t format,
               size_t body_size) {
    tarn::JsonWriter json(std::cout);
    json.BeginObject().Key("file").Value(file).Key("body").Value(BodyName(format));
    json.Key("body_size").Value(static_cast<uint64_t>(body_size)).Key("parts").BeginArray();
    for (const tarn::MimePartReport& part : parts) {
        json.BeginObject()
            .Key("depth")
            .Value(static_cast<int32_t>(part.depth))
            .Key("content_type")
            .Value(part.content_type)
            .Key("type_code")
            .Value(static_cast<int32_t>(part.type))
            .Key("charset")
            .Value(part.charset)
            .Key("transfer_encoding")
            .Value(part.transfer_encoding)
            .Key("content_id")
            .Value(part.content_id)
            .Key("location")
            .Value(part.location)
            .Key("decoded_size")
            .Value(static_cast<uint64_t>(part.decoded_size))
            .Key("fate")
            .Value(part.fate)
            .EndObject();
    }
    json.EndArray().EndObject();
    std::cout << '\n';
}

}  // namespace

int RunParts(const Args& args) {
    const auto parsed = ParseArguments(args, {"parts", {"--json"}, {}, {"FILE"}, {}});
    if (!parsed) return 2;
    const Options options{parsed->positional[0], parsed->Has("--json")};

    const std::u16string wide = tarn::host::WideFromUtf8(options.file);
    tarn::KernelFileHandle handle(krnOpenFile(wide.c_str(), 0, tarn::kOpenShareMode));
    if (!handle.valid()) {
        std::fprintf(stderr, "tarnview parts: %s: cannot be opened\n",
                     tarn::TerminalText(options.file).c_str());
        return 1;
    }
    tarn::MessageDocument record;
    record.repairs = tarn::Repairs::Requested();  // the parts as the documents read them
    std::vector<tarn::MimePartReport> parts;
    tarn::MimeReadOptions read_options;
    read_options.parts = &parts;
    int32_t format = tarn::kBodyNone;
    const int32_t status = tarn::ReadEmlMessage(handle.get(), record, &format, read_options);
    if (status != tarn::kStatusOk) {
        // What was walked before the reader gave up still helps to see why.
        if (!options.json) PrintText(parts, tarn::kBodyNone, 0, status);
        std::fprintf(stderr, "tarnview parts: %s: the reader gives status %d (%s)\n",
                     tarn::TerminalText(options.file).c_str(), status, tarn::StatusText(status));
        return 1;
    }
    const size_t body_size = format == tarn::kBodyHtml        ? record.document.TextLength()
                             : format == tarn::kBodyPlainText ? record.text_body.TextLength()
                                                              : 0;
    if (options.json)
        PrintJson(options.file, parts, format, body_size);
    else
        PrintText(parts, format, body_size, status);
    return 0;
}

}  // namespace tarnview
