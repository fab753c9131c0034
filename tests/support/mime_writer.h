// Internet messages written byte by byte for tests, seeds and benchmarks: a tree of parts, each with its
// header lines and either a body or, for a multipart, a boundary and parts of its own. Nothing is
// checked or encoded on the way, so damage is made by writing it.
#ifndef TARN_TESTS_SUPPORT_MIME_WRITER_H_
#define TARN_TESTS_SUPPORT_MIME_WRITER_H_

#include <string>
#include <string_view>
#include <vector>

namespace tarn::testing {

struct MimeNode {
    std::vector<std::string> headers;  // whole lines without their break ("Content-Type: text/plain")
    std::string body;                  // a leaf's content, written as it is
    std::string boundary;              // not empty: a multipart of `parts`
    std::vector<MimeNode> parts;
    std::string preamble;  // text between the header block and the first delimiter
    bool closed = true;    // whether the closing delimiter is written
};

// A leaf with one Content-Type line (none when `type` is empty) and any further header lines.
inline MimeNode Leaf(std::string_view type, std::string_view body, std::vector<std::string> more = {}) {
    MimeNode node;
    if (!type.empty()) node.headers.push_back("Content-Type: " + std::string(type));
    for (std::string& line : more) node.headers.push_back(std::move(line));
    node.body = body;
    return node;
}

// A multipart of `subtype` ("mixed", "alternative", ...) with the given boundary and parts.
inline MimeNode Multipart(std::string_view subtype, std::string_view boundary, std::vector<MimeNode> parts) {
    MimeNode node;
    node.headers.push_back("Content-Type: multipart/" + std::string(subtype) + "; boundary=\"" +
                           std::string(boundary) + "\"");
    node.boundary = boundary;
    node.parts = std::move(parts);
    return node;
}

// The node as text, every line ended by `eol`: its header lines, an empty line, then its body or its
// preamble and each part behind "--" and the boundary, and "--" boundary "--" at the end when closed.
inline std::string WriteMime(const MimeNode& node, std::string_view eol = "\r\n") {
    std::string out;
    for (const std::string& line : node.headers) out.append(line).append(eol);
    out.append(eol);
    if (node.boundary.empty()) return out.append(node.body);
    out.append(node.preamble);
    for (const MimeNode& part : node.parts) {
        out.append("--").append(node.boundary).append(eol);
        out.append(WriteMime(part, eol)).append(eol);
    }
    if (node.closed) out.append("--").append(node.boundary).append("--").append(eol);
    return out;
}

// A message: its own header lines in front of the top node's.
inline std::string WriteMessage(const std::vector<std::string>& message_headers, MimeNode top,
                                std::string_view eol = "\r\n") {
    top.headers.insert(top.headers.begin(), message_headers.begin(), message_headers.end());
    return WriteMime(top, eol);
}

}  // namespace tarn::testing

#endif  // TARN_TESTS_SUPPORT_MIME_WRITER_H_
