#include "pst/render/repairs.h"

#include <string_view>

#include "kernel/tarnkrn.h"

namespace tarn {
namespace {

constexpr std::string_view kNames[] = {"text-whole-length",   "text-utf8",
                                       "text-body",           "header-only",
                                       "html-header-escape",  "walked-counts",
                                       "rtf-header-escape",   "rtf-header-place",
                                       "rtf-font-table",      "rtf-unicode-header",
                                       "html-utf8-meta",      "msg-html-body",
                                       "msg-code-page",       "msg-attach-long-name",
                                       "lf-line-ends",        "encoded-word-space",
                                       "encoded-word-case",   "raw-header-charset",
                                       "charset-names",       "attached-text",
                                       "subject-only-header", "cid-without-location",
                                       "enclosed-message",    "html-as-text",
                                       "untyped-text"};

static_assert(std::size(kNames) == static_cast<size_t>(Repair::kUntypedText) + 1, "a name for each repair");

}  // namespace

Repairs Repairs::Requested() { return Repairs(krnRepairsQuery() != 0); }

std::string Repairs::MadeNames() const {
    std::string names;
    for (uint32_t i = 0; i < std::size(kNames); ++i) {
        if ((made_ & (uint32_t{1} << i)) == 0) continue;
        if (!names.empty()) names += ',';
        names += kNames[i];
    }
    return names;
}

}  // namespace tarn
