// make_hostile KIND N OUT: writes one input whose cost used to grow with the square of its size, with
// N as its size knob, for bench/run.sh hostile. Message files are built by the fixture writers; the
// Internet messages are plain text.
//
//   meta     a message file whose HTML body is N "<meta" without a ">", and a subject beyond ASCII
//   tree     a message file with N attachment storages, the root's sibling tree one long chain
//   chain    a message file with N attachments whose name and content-id streams all share one chain
//            of N * 8 KiB
//   images   an Internet message with N tiny images, each referred to once by the HTML before them
//   words    an Internet message whose subject is N "=?a?B?x " (never a closing "?=")
//   header   an Internet message whose subject is N "=?"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cfb/format.h"
#include "tests/support/msg_writer.h"

namespace {

using tarn::test::AttachmentStorage;
using tarn::test::BuildMsg;
using tarn::test::CfbImage;
using tarn::test::CfbNode;

bool Write(const std::string& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

bool Write(const std::string& path, const std::vector<uint8_t>& bytes) {
    return Write(path, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::string Repeat(std::string_view piece, size_t n) {
    std::string out;
    out.reserve(piece.size() * n);
    for (size_t i = 0; i < n; ++i) out.append(piece);
    return out;
}

// The root's children relinked as one chain of right siblings in search order, so that every lookup
// walks it from the start.
void ChainRootChildren(CfbImage& image) {
    std::vector<uint32_t> children;
    for (const auto& e : image.entries)
        if (e.parent == 0) children.push_back(e.index);
    auto key = [&](uint32_t i) {
        std::string name(image.entries[i].name.begin(), image.entries[i].name.end());
        return std::make_pair(name.size(), name);
    };
    std::sort(children.begin(), children.end(), [&](uint32_t a, uint32_t b) { return key(a) < key(b); });
    image.SetEntryField(0, tarn::cfb::format::kChildOffset, children.front());
    for (size_t i = 0; i < children.size(); ++i) {
        image.SetEntryField(children[i], tarn::cfb::format::kLeftSiblingOffset, tarn::cfb::format::kNoEntry);
        image.SetEntryField(children[i], tarn::cfb::format::kRightSiblingOffset,
                            i + 1 < children.size() ? children[i + 1] : tarn::cfb::format::kNoEntry);
    }
}

std::vector<uint8_t> MakeMsg(std::string_view kind, size_t n) {
    std::vector<CfbNode> root;
    if (kind == "meta") {
        root.push_back(tarn::test::StoredRtfBody("<html>" + Repeat("<meta", n)));
        root.push_back(tarn::test::UnicodeProperty("0037", u"Gr\u00FC\u00DFe"));
        return BuildMsg(std::move(root)).bytes;
    }
    root.push_back(tarn::test::StoredRtfBody("<html><body><img src=\"cid:none\"></body></html>"));
    if (kind == "tree") {
        for (uint32_t i = 0; i < n; ++i)
            root.push_back(AttachmentStorage(i, {tarn::test::UnicodeProperty("3704", u"a.png")}));
        CfbImage image = BuildMsg(std::move(root));
        ChainRootChildren(image);
        return image.bytes;
    }
    // chain: the first attachment's name holds the shared bytes; every other name and content id is
    // pointed at the same sectors.
    const size_t shared = n * 8192;
    for (uint32_t i = 0; i < n; ++i) {
        std::u16string text(i == 0 ? shared / 2 : 4096 / 2 + 1, u'x');
        root.push_back(AttachmentStorage(
            i, {tarn::test::UnicodeProperty("3704", text), tarn::test::UnicodeProperty("3712", text)}));
    }
    CfbImage image = BuildMsg(std::move(root));
    const auto& first = image.Find({u"__attach_version1.0_#00000000", u"__substg1.0_3704001F"});
    for (const auto& e : image.entries) {
        if (e.storage || e.index == first.index || e.name.rfind(u"__substg1.0_37", 0) != 0) continue;
        image.SetEntryField(e.index, tarn::cfb::format::kStartSectorOffset, first.start);
        image.SetEntryField(e.index, tarn::cfb::format::kStreamSizeOffset, static_cast<uint32_t>(shared));
    }
    return image.bytes;
}

std::string MakeEml(std::string_view kind, size_t n) {
    const std::string head = "From: a@example.org\r\nTo: b@example.org\r\nSubject: ";
    if (kind == "words") return head + Repeat("=?a?B?x ", n) + "\r\n\r\nbody\r\n";
    if (kind == "header") return head + Repeat("=?", n) + "\r\n\r\nbody\r\n";
    // images: the HTML part refers to every image, then the images follow, base64 of 9 bytes each.
    std::string html;
    for (size_t i = 0; i < n; ++i) html += "<img src=\"cid:i" + std::to_string(i) + "\">";
    std::string out = head +
                      "images\r\nContent-Type: multipart/related; boundary=\"b\"\r\n\r\n--b\r\n"
                      "Content-Type: text/html\r\n\r\n<html><body>" +
                      html + "</body></html>\r\n";
    for (size_t i = 0; i < n; ++i)
        out += "--b\r\nContent-Type: image/png\r\nContent-Transfer-Encoding: base64\r\nContent-ID: <i" +
               std::to_string(i) + ">\r\nContent-Location: i" + std::to_string(i) +
               ".png\r\n\r\nAAECAwQFBgcI\r\n";
    return out + "--b--\r\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: make_hostile meta|tree|chain|images|words|header N OUT\n");
        return 2;
    }
    const std::string_view kind = argv[1];
    const size_t n = std::strtoul(argv[2], nullptr, 10);
    bool ok = false;
    if (n == 0) {
        std::fprintf(stderr, "make_hostile: N must be a positive number\n");
        return 2;
    } else if (kind == "meta" || kind == "tree" || kind == "chain") {
        ok = Write(argv[3], MakeMsg(kind, n));
    } else if (kind == "images" || kind == "words" || kind == "header") {
        ok = Write(argv[3], MakeEml(kind, n));
    } else {
        std::fprintf(stderr, "make_hostile: unknown kind %s\n", argv[1]);
        return 2;
    }
    if (!ok) std::fprintf(stderr, "make_hostile: %s: cannot write\n", argv[3]);
    return ok ? 0 : 1;
}
