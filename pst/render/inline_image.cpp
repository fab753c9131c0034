#include "pst/render/inline_image.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "common/status.h"
#include "pst/render/mime_decode.h"
#include "pst/render/text_search.h"

namespace tarn {
namespace {

constexpr std::string_view kDataUriPrefix = "data:image;base64,";
constexpr std::string_view kCidPrefix = "cid:";
// A reference inside this tag belongs to the VML fallback of an image that is shown elsewhere; replacing
// it would put the image's bytes into the document twice.
constexpr std::string_view kVmlImageTag = "<v:imagedata";
constexpr std::string_view kDivNoise = "<div>&nbsp;value=\"/";
constexpr std::string_view kDivNoiseEnd = "\">";
// A character reference whose ";" comes later than this many bytes after its "&" is left alone.
constexpr size_t kCharacterReferenceReach = 5;

// The largest document that inlining may produce. Each use of a reference takes the image's whole
// encoding, so a small body that names a large image many times would otherwise ask for gigabytes.
constexpr size_t kMaxInlinedDocumentBytes = 64u << 20;

// The span of text that one use of the reference gives way to: the whole quoted attribute value around
// it, the quotes themselves kept.
struct Replacement {
    size_t begin;
    size_t end;
};

// Calls `visit` with each span to replace, in document order, and returns how many there were. The
// search goes on behind each span, so a replacement never overlaps an earlier one.
template <typename Visit>
size_t ForEachReplacement(std::string_view html, std::string_view reference, Visit visit) {
    size_t count = 0;
    size_t cursor = 0;  // nothing before this may be replaced again
    // The start of the last tag before the current use. Uses come in order, so each byte is looked at
    // once for "<" and once for quotes, however many uses there are.
    size_t tag = std::string_view::npos;
    size_t scanned = 0;
    for (size_t at = html.find(reference); at != std::string_view::npos;) {
        const size_t after = at + reference.size();
        if (const size_t open = html.substr(scanned, at - scanned).rfind('<'); open != std::string_view::npos)
            tag = scanned + open;
        scanned = at;
        if (tag != std::string_view::npos && StartsIgnoringCase(html.substr(tag), kVmlImageTag)) {
            at = html.find(reference, after);
            continue;
        }
        // Inside a quoted value (an odd number of quotes between the tag's start, or the end of the
        // previous replacement, and the use) the whole value goes, up to the next quote or, without one,
        // to the use's end. A use outside quotes is replaced alone: widening it would swallow markup.
        const size_t from = tag == std::string_view::npos ? cursor : std::max(cursor, tag);
        const std::string_view before = html.substr(from, at - from);
        size_t begin = at;
        size_t end = after;
        if (std::count(before.begin(), before.end(), '"') % 2 == 1) {
            begin = from + before.rfind('"') + 1;
            if (const size_t close = html.find('"', after); close != std::string_view::npos) end = close;
        }
        visit(Replacement{begin, end});
        ++count;
        cursor = end < html.size() && html[end] == '"' ? end + 1 : end;
        at = html.find(reference, cursor);
    }
    return count;
}

}  // namespace

int32_t FindImageReference(std::string_view html, std::string_view file_name, std::string_view content_id,
                           std::string* reference) {
    if (reference == nullptr) return kStatusBadArgument;
    if (html.empty() || (file_name.empty() && content_id.empty())) return kStatusNotPresent;
    if (!content_id.empty()) {
        std::string cid;
        cid.reserve(kCidPrefix.size() + content_id.size());
        cid.append(kCidPrefix).append(content_id);
        if (html.find(cid) != std::string_view::npos) {
            *reference = std::move(cid);
            return kStatusOk;
        }
        // An id that the body does not use still leaves the file name to be tried.
    }
    if (!file_name.empty() && html.find(file_name) != std::string_view::npos) {
        reference->assign(file_name);
        return kStatusOk;
    }
    return kStatusNotPresent;
}

int32_t EncodeDataUri(const std::byte* data, size_t size, GrowBuffer* out) {
    if (data == nullptr || size == 0 || out == nullptr) return kStatusBadArgument;
    // The capacity is 18 + the integer part of size x 1.4, computed without rounding error.
    if (size > (std::numeric_limits<size_t>::max() - kDataUriPrefix.size()) / 14) return kStatusFailure;
    const size_t capacity = kDataUriPrefix.size() + size * 14 / 10;
    // The prefix and the base64 form with its padding must fit the capacity; the final NUL is added
    // beyond it. A very small image does not fit (two bytes need 22 of the 20 allowed): deliberately,
    // such an image is not inlined at all.
    const size_t needed = kDataUriPrefix.size() + (size + 2) / 3 * 4;
    if (needed > capacity) return 0;
    if (needed >= kMaxBufferBytes) return kStatusFailure;

    out->Truncate(0);
    if (!out->Reserve(needed + 1)) return out->status();
    out->Append(kDataUriPrefix);
    std::array<char, 4> quad{};
    size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t group = std::to_integer<uint32_t>(data[i]) << 16 |
                               std::to_integer<uint32_t>(data[i + 1]) << 8 |
                               std::to_integer<uint32_t>(data[i + 2]);
        for (int k = 0; k < 4; ++k) quad[k] = kBase64Alphabet[(group >> (18 - 6 * k)) & 0x3F];
        out->Append(quad.data(), quad.size());
    }
    if (i < size) {
        const bool two = i + 1 < size;
        const uint32_t group = std::to_integer<uint32_t>(data[i]) << 16 |
                               (two ? std::to_integer<uint32_t>(data[i + 1]) << 8 : 0);
        quad = {kBase64Alphabet[group >> 18], kBase64Alphabet[(group >> 12) & 0x3F],
                two ? kBase64Alphabet[(group >> 6) & 0x3F] : '=', '='};
        out->Append(quad.data(), quad.size());
    }
    // Reserved whole above, so none of the appends can have failed.
    return out->AppendByte(0);
}

int32_t InlineImage(CountedString* html, std::string_view reference, const std::byte* data, size_t size,
                    ImageFileWriter* files, int32_t* count) {
    if (count != nullptr) *count = 0;
    if (html == nullptr) return kStatusNullPointer;
    if (data == nullptr || size == 0) return kStatusBadArgument;
    if (reference.empty() || html->TextLength() == 0) return kStatusOk;
    const std::string_view text = html->text();
    if (text.find(reference) == std::string_view::npos) return kStatusOk;

    // The replacement: the name of a file written for the image, or the image itself as a data URI.
    GrowBuffer uri;
    std::string file_name;
    std::string_view replacement;
    if (files != nullptr) {
        if (const int32_t status = files->Write(data, size, &file_name); status != kStatusOk) return status;
        replacement = file_name;
    } else {
        // The encoding alone must leave room under the ceiling before it is made.
        if ((size + 2) / 3 > (kMaxInlinedDocumentBytes - kDataUriPrefix.size()) / 4) return kStatusFailure;
        uri.Init(0, 0);
        if (const int32_t status = EncodeDataUri(data, size, &uri); status != kStatusOk) return status;
        replacement = uri.view().substr(0, uri.length() - 1);  // without its NUL
    }

    // First pass: the size of the result, refused before anything is allocated when it passes the ceiling.
    size_t removed = 0;
    const size_t uses =
        ForEachReplacement(text, reference, [&](Replacement r) { removed += r.end - r.begin; });
    if (uses == 0) return kStatusOk;
    const size_t kept = html->size() - removed;
    if (replacement.size() > 0 && (uses > kMaxInlinedDocumentBytes / replacement.size() ||
                                   kept > kMaxInlinedDocumentBytes - uses * replacement.size()))
        return kStatusFailure;
    const size_t total = kept + uses * replacement.size();

    // Second pass: the document rebuilt once, then put in the place of the old one.
    GrowBuffer rebuilt;
    if (rebuilt.Init(total, 0) != kStatusOk) return rebuilt.status();
    const char* bytes = reinterpret_cast<const char*>(html->data());
    size_t copied = 0;
    ForEachReplacement(text, reference, [&](Replacement r) {
        rebuilt.Append(bytes + copied, r.begin - copied);
        rebuilt.Append(replacement);
        copied = r.end;
    });
    // The tail carries the terminating NUL, if the document had one.
    rebuilt.Append(bytes + copied, html->size() - copied);
    if (rebuilt.length() != total) return kStatusFailure;  // cannot happen: reserved whole above
    rebuilt.MoveInto(*html);
    if (count != nullptr) *count = static_cast<int32_t>(uses);
    return kStatusOk;
}

void StripHtmlNoise(CountedString* html) {
    if (html == nullptr || html->data() == nullptr) return;
    // The string's bytes are ours to edit (only the length must not change); the accessor is const
    // because other callers only read.
    char* bytes = reinterpret_cast<char*>(const_cast<std::byte*>(html->data()));
    const std::string_view text(bytes, html->TextLength());

    for (size_t at = text.find(kDivNoise); at != std::string_view::npos; at = text.find(kDivNoise, at)) {
        const size_t end = text.find(kDivNoiseEnd, at + kDivNoise.size());
        if (end == std::string_view::npos) break;  // unterminated: nothing further can match either
        const size_t stop = end + kDivNoiseEnd.size();
        std::memset(bytes + at, ' ', stop - at);
        at = stop;
    }

    // Numeric references of control characters. Deliberately coarse, looking at the first one or two
    // digits only: 2, 11, 12 and 14 to 31 go, while 10 and 13 (line ends), 3 and 4 to 9 stay. Being
    // coarse it also blanks "&#20;" (the space), and anything it misses runs to three digits or more.
    for (size_t at = text.find("&#"); at != std::string_view::npos; at = text.find("&#", at + 1)) {
        // Only the reach is searched, so a body of many "&#" and few ";" stays linear.
        const size_t semicolon = text.substr(0, at + kCharacterReferenceReach).find(';', at + 2);
        if (semicolon == std::string_view::npos) continue;
        const char first = at + 2 < semicolon ? text[at + 2] : ';';
        const char second = at + 3 < semicolon ? text[at + 3] : ';';
        const bool control = first == '2' || (first == '1' && second != '0' && second != '3') ||
                             (first == '3' && (second == '0' || second == '1'));
        if (control) std::memset(bytes + at, ' ', semicolon + 1 - at);
    }
}

}  // namespace tarn
