// tarnview parts: an Internet message's MIME tree as the filter's reader walks it, one line per part
// with what became of it (the body, inlined, or ignored and why). The place to look when a part of a
// message does not show on its page.
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "common/json_writer.h"
#include "common/terminal_text.h"
#include "tarnpst/inspect.h"
#include "tools/tarnview/arguments.h"
#include "tools/tarnview/commands.h"

namespace tarnview {
namespace {

struct Options {
    std::string file;
    bool json = false;
};

// Header values are the message's own bytes, in whatever set it declares: anything outside printable
// ASCII is escaped, so that one part stays one line. `status` is what the reader gave.
void PrintText(const tarnpst::MimeParts& read) {
    for (const tarnpst::MimePart& part : read.parts) {
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
    if (read.status != tarnpst::kStatusOk)
        std::printf("body: none (the reader ended with status %d: %s)\n", read.status,
                    tarnpst::StatusText(read.status));
    else if (std::string_view(read.body) == "none")
        std::printf("body: none (the filter gives no document: status %d)\n", tarnpst::kStatusUnsupported);
    else
        std::printf("body: %s, %zu bytes before the header block\n", read.body,
                    static_cast<size_t>(read.body_size));
}

void PrintJson(const std::string& file, const tarnpst::MimeParts& read) {
    tarn::JsonWriter json(std::cout);
    json.BeginObject().Key("file").Value(file).Key("body").Value(read.body);
    json.Key("body_size").Value(read.body_size).Key("parts").BeginArray();
    for (const tarnpst::MimePart& part : read.parts) {
        json.BeginObject()
            .Key("depth")
            .Value(static_cast<int32_t>(part.depth))
            .Key("content_type")
            .Value(part.content_type)
            .Key("type_code")
            .Value(part.type_code)
            .Key("charset")
            .Value(part.charset)
            .Key("transfer_encoding")
            .Value(part.transfer_encoding)
            .Key("content_id")
            .Value(part.content_id)
            .Key("location")
            .Value(part.location)
            .Key("decoded_size")
            .Value(part.decoded_size)
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

    tarnpst::MimeParts read;
    try {
        read = tarnpst::ListMimeParts(options.file);
    } catch (const tarnpst::Error& e) {
        std::fprintf(stderr, "tarnview parts: %s\n", tarn::TerminalText(e.what()).c_str());
        return 1;
    }
    if (read.status != tarnpst::kStatusOk) {
        if (!options.json) PrintText(read);
        std::fprintf(stderr, "tarnview parts: %s: the reader gives status %d (%s)\n",
                     tarn::TerminalText(options.file).c_str(), read.status, tarnpst::StatusText(read.status));
        return 1;
    }
    if (options.json)
        PrintJson(options.file, read);
    else
        PrintText(read);
    return 0;
}

}  // namespace tarnview
