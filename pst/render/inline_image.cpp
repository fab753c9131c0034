#include "pst/render/inline_image.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <vector>

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

// The text that takes the place of each use of a reference: the image as a data URI, or the name of
// the file written for it.
class ImageReplacement {
  public:
    // 1; the writer's status; EncodeDataUri's status; -1 when the encoding alone would pass the ceiling.
    int32_t Make(const std::byte* data, size_t size, ImageFileWriter* files) {
        if (files != nullptr) {
            if (const int32_t status = files->Write(data, size, &file_name_); status != kStatusOk)
                return status;
            text_ = file_name_;
            return kStatusOk;
        }
        if ((size + 2) / 3 > (kMaxInlinedDocumentBytes - kDataUriPrefix.size()) / 4) return kStatusFailure;
        uri_.Init(0, 0);
        if (const int32_t status = EncodeDataUri(data, size, &uri_); status != kStatusOk) return status;
        text_ = uri_.view().substr(0, uri_.length() - 1);  // without its NUL
        return kStatusOk;
    }
    std::string_view text() const { return text_; }

  private:
    GrowBuffer uri_;
    std::string file_name_;
    std::string_view text_;
};

// The size of a document of `size` bytes once `uses` spans of `removed` bytes in all have each given way
// to `replacement` bytes, or none when that passes the ceiling. An empty replacement is never refused.
std::optional<size_t> SizeAfter(size_t size, size_t removed, size_t uses, size_t replacement) {
    const size_t kept = size - removed;
    if (replacement > 0 && (uses > kMaxInlinedDocumentBytes / replacement ||
                            kept > kMaxInlinedDocumentBytes - uses * replacement))
        return std::nullopt;
    return kept + uses * replacement;
}

// Every use of `reference` in `html` given way to `replacement`, the document rebuilt once. 1; -1 when
// the result would pass the ceiling or memory runs out, `html` then unchanged.
int32_t ReplaceUses(CountedString* html, std::string_view reference, std::string_view replacement,
                    int32_t* count) {
    const std::string_view text = html->text();
    // First pass: the size of the result, refused before anything is allocated when it passes the ceiling.
    size_t removed = 0;
    const size_t uses =
        ForEachReplacement(text, reference, [&](Replacement r) { removed += r.end - r.begin; });
    if (uses == 0) return kStatusOk;
    const std::optional<size_t> total = SizeAfter(html->size(), removed, uses, replacement.size());
    if (!total) return kStatusFailure;

    // Second pass: the document rebuilt once, then put in the place of the old one.
    GrowBuffer rebuilt;
    if (rebuilt.Init(*total, 0) != kStatusOk) return rebuilt.status();
    const char* bytes = reinterpret_cast<const char*>(html->data());
    size_t copied = 0;
    ForEachReplacement(text, reference, [&](Replacement r) {
        rebuilt.Append(bytes + copied, r.begin - copied);
        rebuilt.Append(replacement);
        copied = r.end;
    });
    // The tail carries the terminating NUL, if the document had one.
    rebuilt.Append(bytes + copied, html->size() - copied);
    if (rebuilt.length() != *total) return kStatusFailure;  // cannot happen: reserved whole above
    rebuilt.MoveInto(*html);
    if (count != nullptr) *count = static_cast<int32_t>(uses);
    return kStatusOk;
}

bool IsBase64Character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

bool AllBase64(std::string_view text) { return std::all_of(text.begin(), text.end(), IsBase64Character); }

// Whether `text` could be found inside some data URI: within its base64 digits, or beginning in its
// prefix with base64 digits behind. False means it is found in none.
bool MayOccurInDataUri(std::string_view text) {
    if (AllBase64(text)) return true;
    for (size_t start = 0; start < kDataUriPrefix.size(); ++start) {
        const std::string_view prefix = kDataUriPrefix.substr(start);
        const size_t shared = std::min(prefix.size(), text.size());
        if (text.substr(0, shared) == prefix.substr(0, shared) && AllBase64(text.substr(shared))) return true;
    }
    return false;
}

}  // namespace

// The document as it stood when the index was made, its bytes' positions, and the quoted values given
// way to images since.
//
// What the index relies on. Every replacement made through it takes a whole quoted value: the bytes
// between two quotes, none of them a quote or a "<". An inserted text holds neither either. So:
// - a reference without a quote, found in the current document, lies wholly in the original bytes of one
//   value or wholly in an inserted text (at an edge it would take in the quote that stays there), and
//   the inserted texts are kept apart from references that could be found in them;
// - the quotes and "<" of the current document are exactly the original ones, so counting them and
//   finding the last "<" before a use can be done on the original positions;
// - the 12 bytes behind a "<" are the original ones, or break off at a kept quote in both versions.
// A call that would break one of these rules is not made through the index.
class ImageInliner::Index {
  public:
    // The replacements of one call: the values (by their closing quote's number) and what they held.
    struct Plan {
        std::vector<uint32_t> values;
        size_t removed = 0;
    };

    // Requires: `html` holds at most kMaxIndexedBytes bytes and is left alone while the index lives.
    // Throws std::bad_alloc.
    Index(const CountedString& html, uint64_t* work)
        : bytes_(reinterpret_cast<const char*>(html.data())),
          size_(html.size()),
          text_(html.text()),
          current_size_(html.size()),
          work_(work) {
        for (size_t i = 0; i < text_.size(); ++i) {
            if (text_[i] == '"') quotes_.push_back(static_cast<uint32_t>(i));
            if (text_[i] == '<') tags_.push_back(static_cast<uint32_t>(i));
        }
        replaced_.assign(quotes_.size() + 1, 0);
        // Four-byte sequences by hash, each bucket's positions in document order.
        unsigned bits = 8;
        while (bits < 32 && (size_t{1} << bits) < text_.size() / 4) ++bits;
        shift_ = 32 - bits;
        const size_t grams = text_.size() >= kGram ? text_.size() - kGram + 1 : 0;
        starts_.assign((size_t{1} << bits) + 1, 0);
        for (size_t i = 0; i < grams; ++i) ++starts_[Bucket(text_.data() + i) + 1];
        for (size_t b = 1; b < starts_.size(); ++b) starts_[b] += starts_[b - 1];
        positions_.resize(grams);
        for (size_t i = 0; i < grams; ++i)
            positions_[starts_[Bucket(text_.data() + i)]++] = static_cast<uint32_t>(i);
        // Each start moved on to its bucket's end, the next bucket's start.
        for (size_t b = starts_.size() - 1; b > 0; --b) starts_[b] = starts_[b - 1];
        starts_[0] = 0;
        *work_ += 4 * size_;
    }

    size_t current_size() const { return current_size_; }

    // Whether the index finds `reference` in the current document exactly as a search of it would.
    bool Covers(std::string_view reference) const {
        if (edits_.empty()) return true;
        if (reference.find('"') != std::string_view::npos) return false;
        if (inserted_uri_ && MayOccurInDataUri(reference)) return false;
        return !(inserted_name_ && std::all_of(reference.begin(), reference.end(), [this](char c) {
                     return name_characters_.test(static_cast<unsigned char>(c));
                 }));
    }

    // Requires: Covers(reference).
    bool Contains(std::string_view reference) {
        bool found = false;
        ForEachUse(reference, [&found](size_t) {
            found = true;
            return false;
        });
        return found;
    }

    // The values InlineImage would replace for `reference`, or none when one of its replacements is not
    // a whole quoted value free of "<". Requires: Covers(reference), without a quote in it.
    std::optional<Plan> MakePlan(std::string_view reference) {
        Plan plan;
        bool whole = true;
        size_t cursor = 0;       // the original position behind the last replaced value
        size_t search_from = 0;  // where InlineImage searches on from
        ForEachUse(reference, [&](size_t at) {
            if (at < search_from) return true;
            const auto tag_it = std::lower_bound(tags_.begin(), tags_.end(), at);
            const size_t tag = tag_it == tags_.begin() ? std::string_view::npos : *(tag_it - 1);
            if (tag != std::string_view::npos && StartsIgnoringCase(text_.substr(tag), kVmlImageTag)) {
                search_from = at + reference.size();
                return true;
            }
            const size_t from = tag == std::string_view::npos ? cursor : std::max(cursor, tag);
            const size_t value = QuotesBefore(at);
            if ((value - QuotesBefore(from)) % 2 == 0 || value == quotes_.size()) {
                whole = false;  // outside quotes, or in a value that never closes
                return false;
            }
            const size_t begin = quotes_[value - 1] + 1;
            const size_t end = quotes_[value];
            if (std::lower_bound(tags_.begin(), tags_.end(), begin) !=
                std::lower_bound(tags_.begin(), tags_.end(), end)) {
                whole = false;  // a "<" would go, and with it a tag's start
                return false;
            }
            plan.values.push_back(static_cast<uint32_t>(value));
            plan.removed += end - begin;
            cursor = end + 1;
            search_from = cursor;
            return true;
        });
        if (!whole) return std::nullopt;
        return plan;
    }

    // Records the plan's values as given way to `replacement`. Requires: `replacement` holds neither a
    // quote nor a "<"; the plan was made on the current state.
    // Throws std::bad_alloc, having recorded nothing.
    void Apply(const Plan& plan, std::string_view replacement, bool is_name, size_t new_size) {
        edits_.reserve(edits_.size() + plan.values.size());
        const auto text = static_cast<uint32_t>(replacements_.size());
        replacements_.emplace_back(replacement);
        for (const uint32_t value : plan.values) {
            replaced_[value] = 1;
            edits_.push_back(Edit{value, text});
        }
        if (is_name) {
            inserted_name_ = true;
            for (const char c : replacement) name_characters_.set(static_cast<unsigned char>(c));
        } else {
            inserted_uri_ = true;
        }
        current_size_ = new_size;
    }

    // The document with every recorded replacement made, moved into `html`. 1, or -1 when memory runs
    // out (`html` unchanged).
    int32_t Write(CountedString* html) {
        if (edits_.empty()) return kStatusOk;
        std::sort(edits_.begin(), edits_.end(),
                  [](const Edit& a, const Edit& b) { return a.value < b.value; });
        GrowBuffer rebuilt;
        if (rebuilt.Init(current_size_, 0) != kStatusOk) return rebuilt.status();
        size_t copied = 0;
        for (const Edit& edit : edits_) {
            const size_t begin = quotes_[edit.value - 1] + 1;
            rebuilt.Append(bytes_ + copied, begin - copied);
            rebuilt.Append(replacements_[edit.text]);
            copied = quotes_[edit.value];
        }
        rebuilt.Append(bytes_ + copied, size_ - copied);
        if (rebuilt.length() != current_size_) return kStatusFailure;  // cannot happen: reserved whole
        *work_ += current_size_;
        rebuilt.MoveInto(*html);
        return kStatusOk;
    }

  private:
    static constexpr size_t kGram = 4;

    struct Edit {
        uint32_t value;
        uint32_t text;
    };

    // The bucket of the four bytes at `bytes`: a multiplicative hash, its top bits.
    uint32_t Bucket(const char* bytes) const {
        uint32_t gram = 0;
        for (size_t k = 0; k < kGram; ++k) gram = gram << 8 | static_cast<unsigned char>(bytes[k]);
        return static_cast<uint32_t>(gram * 0x9E3779B1u) >> shift_;
    }

    size_t QuotesBefore(size_t at) const {
        return static_cast<size_t>(std::lower_bound(quotes_.begin(), quotes_.end(), at) - quotes_.begin());
    }

    // Whether the original bytes at `at` are still in the document. Requires: no quote in the use there,
    // unless nothing has been replaced.
    bool Kept(size_t at) const { return edits_.empty() || replaced_[QuotesBefore(at)] == 0; }

    // Calls `visit(at)` for each use of `reference` in the current document, in order, until it returns
    // false. Requires: Covers(reference).
    template <typename Visit>
    void ForEachUse(std::string_view reference, Visit visit) {
        if (reference.empty() || reference.size() > text_.size()) return;
        if (reference.size() < kGram) {
            size_t scanned = 0;
            for (size_t at = text_.find(reference); at != std::string_view::npos;
                 at = text_.find(reference, at + 1)) {
                *work_ += at + 1 - scanned;
                scanned = at + 1;
                if (Kept(at) && !visit(at)) return;
            }
            *work_ += text_.size() - scanned;
            return;
        }
        // The candidates are the positions of the reference's rarest four bytes.
        size_t offset = 0;
        uint32_t rarest = 0;
        size_t fewest = std::numeric_limits<size_t>::max();
        for (size_t k = 0; k + kGram <= reference.size(); ++k) {
            const uint32_t bucket = Bucket(reference.data() + k);
            if (starts_[bucket + 1] - starts_[bucket] < fewest) {
                fewest = starts_[bucket + 1] - starts_[bucket];
                offset = k;
                rarest = bucket;
            }
        }
        *work_ += reference.size();
        for (size_t i = starts_[rarest]; i < starts_[rarest + 1]; ++i) {
            *work_ += reference.size();
            if (positions_[i] < offset) continue;
            const size_t at = positions_[i] - offset;
            if (at + reference.size() > text_.size()) break;
            if (text_.compare(at, reference.size(), reference) != 0 || !Kept(at)) continue;
            if (!visit(at)) return;
        }
    }

    const char* bytes_;
    size_t size_;  // with the terminating NUL, if there is one
    std::string_view text_;
    size_t current_size_;
    uint64_t* work_;
    std::vector<uint32_t> quotes_;
    std::vector<uint32_t> tags_;
    std::vector<uint8_t> replaced_;  // per value, by its closing quote's number
    unsigned shift_ = 0;
    std::vector<uint32_t> starts_;
    std::vector<uint32_t> positions_;
    std::vector<Edit> edits_;
    std::vector<std::string> replacements_;
    bool inserted_uri_ = false;
    bool inserted_name_ = false;
    std::bitset<256> name_characters_;
};

namespace {

// Documents larger than this are inlined image by image; no image could be inlined into one much larger.
constexpr size_t kMaxIndexedBytes = kMaxInlinedDocumentBytes;
// The work allowed: this much for every byte of the documents, and this much besides.
constexpr uint64_t kWorkPerDocumentByte = 64;
constexpr uint64_t kWorkFloor = uint64_t{1} << 31;
// After leaving the index, the work spent image by image before the document is indexed again, in
// multiples of its size, so that making indexes costs no more than the work they save.
constexpr uint64_t kReindexAfter = 4;

}  // namespace

ImageInliner::ImageInliner(CountedString* html, ImageFileWriter* files)
    : html_(html),
      files_(files),
      allowance_(kWorkFloor),
      unindexed_work_(std::numeric_limits<uint64_t>::max()) {}

ImageInliner::~ImageInliner() = default;

void ImageInliner::Charge(uint64_t units) {
    work_ += units;
    if (unindexed_work_ != std::numeric_limits<uint64_t>::max()) unindexed_work_ += units;
}

// Brings the document up to date and goes on without the index. 1; -1 when memory runs out, the index
// and what it records then kept for Finish.
int32_t ImageInliner::LeaveIndex() {
    if (const int32_t status = index_->Write(html_); status != kStatusOk) return status;
    index_.reset();
    unindexed_work_ = 0;
    return kStatusOk;
}

// Chooses how `reference` is looked for: through the index, made when it is worth it, or in the
// document itself. 1; -1 when the work bound is reached or the document cannot be brought up to date.
int32_t ImageInliner::Prepare(std::string_view reference) {
    if (!document_counted_) {
        allowance_ += kWorkPerDocumentByte * html_->size();
        document_counted_ = true;
    }
    if (work_ > allowance_) return kStatusFailure;
    if (index_ != nullptr) return index_->Covers(reference) ? kStatusOk : LeaveIndex();
    if (html_->size() <= kMaxIndexedBytes && unindexed_work_ / kReindexAfter >= html_->size()) {
        try {
            index_ = std::make_unique<Index>(*html_, &work_);
        } catch (const std::bad_alloc&) {
            unindexed_work_ = 0;  // image by image, then
        }
    }
    return kStatusOk;
}

// 1 when the current document holds `reference`, 2 when not, -1 as Prepare.
int32_t ImageInliner::Contains(std::string_view reference) {
    if (const int32_t status = Prepare(reference); status != kStatusOk) return status;
    if (index_ != nullptr) return index_->Contains(reference) ? kStatusOk : kStatusNotPresent;
    const std::string_view text = html_->text();
    const size_t at = text.find(reference);
    Charge(at == std::string_view::npos ? text.size() : at + reference.size());
    return at == std::string_view::npos ? kStatusNotPresent : kStatusOk;
}

int32_t ImageInliner::Find(std::string_view file_name, std::string_view content_id, std::string* reference) {
    if (reference == nullptr) return kStatusBadArgument;
    if (html_ == nullptr || html_->TextLength() == 0 || (file_name.empty() && content_id.empty()))
        return kStatusNotPresent;
    if (!content_id.empty()) {
        std::string cid;
        cid.reserve(kCidPrefix.size() + content_id.size());
        cid.append(kCidPrefix).append(content_id);
        const int32_t found = Contains(cid);
        if (found != kStatusNotPresent) {
            if (found == kStatusOk) *reference = std::move(cid);
            return found;
        }
    }
    if (!file_name.empty()) {
        const int32_t found = Contains(file_name);
        if (found == kStatusOk) reference->assign(file_name);
        return found;
    }
    return kStatusNotPresent;
}

int32_t ImageInliner::Inline(std::string_view reference, const std::byte* data, size_t size, int32_t* count) {
    if (count != nullptr) *count = 0;
    if (html_ == nullptr) return kStatusNullPointer;
    if (data == nullptr || size == 0) return kStatusBadArgument;
    if (reference.empty() || html_->TextLength() == 0) return kStatusOk;
    if (const int32_t found = Contains(reference); found != kStatusOk)
        return found == kStatusNotPresent ? kStatusOk : found;
    ImageReplacement replacement;
    if (const int32_t status = replacement.Make(data, size, files_); status != kStatusOk) return status;

    if (index_ != nullptr) {
        const std::string_view text = replacement.text();
        if (reference.find('"') == std::string_view::npos &&
            text.find_first_of("\"<") == std::string_view::npos) {
            try {
                if (const std::optional<Index::Plan> plan = index_->MakePlan(reference)) {
                    if (plan->values.empty()) return kStatusOk;
                    const std::optional<size_t> total =
                        SizeAfter(index_->current_size(), plan->removed, plan->values.size(), text.size());
                    if (!total) return kStatusFailure;
                    index_->Apply(*plan, text, files_ != nullptr, *total);
                    if (count != nullptr) *count = static_cast<int32_t>(plan->values.size());
                    return kStatusOk;
                }
            } catch (const std::bad_alloc&) {
                // Nothing was recorded; the image goes in image by image.
            }
        }
        if (const int32_t status = LeaveIndex(); status != kStatusOk) return status;
    }
    // The old document is read twice and the new one written.
    Charge(3 * uint64_t{html_->size()} + replacement.text().size());
    return ReplaceUses(html_, reference, replacement.text(), count);
}

int32_t ImageInliner::Finish() {
    if (index_ == nullptr) return kStatusOk;
    const int32_t status = index_->Write(html_);
    index_.reset();
    unindexed_work_ = std::numeric_limits<uint64_t>::max();
    return status;
}

void ImageInliner::Discard() {
    index_.reset();
    document_counted_ = false;
    unindexed_work_ = std::numeric_limits<uint64_t>::max();
}

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
    if (html->text().find(reference) == std::string_view::npos) return kStatusOk;
    ImageReplacement replacement;
    if (const int32_t status = replacement.Make(data, size, files); status != kStatusOk) return status;
    return ReplaceUses(html, reference, replacement.text(), count);
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
