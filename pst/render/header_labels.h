// The header block's labels in the nine languages the toolkit's user interface may speak, and the
// choice among them by the kernel's current language.
#ifndef TARN_PST_RENDER_HEADER_LABELS_H_
#define TARN_PST_RENDER_HEADER_LABELS_H_

#include <cstdint>
#include <span>
#include <string_view>

#include "pst/render/text_buffer.h"

namespace tarn {

// The header lines, and the columns of the label table: the seven lines, then the two importance words.
enum HeaderField : int32_t {
    kFieldFrom = 0,
    kFieldTo = 1,
    kFieldBcc = 2,
    kFieldCc = 3,
    kFieldSent = 4,
    kFieldSubject = 5,
    kFieldImportance = 6,
    kFieldHigh = 7,
    kFieldLow = 8,
};
constexpr int32_t kHeaderFields = 9;

// One row of the label table: a Windows LANGID and its labels in HeaderField order, UTF-8, with the
// trailing spaces that line the values up.
struct LanguageLabels {
    uint16_t language;
    std::string_view labels[kHeaderFields];
};

// The nine rows, English first (the row a language without one of its own gets).
std::span<const LanguageLabels> LanguageLabelRows();

// The row for `language`: the language itself, or the row a regional variant shares, or English.
const LanguageLabels& LabelsForLanguage(uint16_t language);

// The label of `field` in the kernel's current language; "Unknown" for a field outside the table.
std::string_view HeaderLabel(int32_t field);

// The importance values the labels name; any other value (1 is normal) has no label.
constexpr uint32_t kImportanceLow = 0;
constexpr uint32_t kImportanceHigh = 2;

// Appends the Low label for 0 and the High label for 2, in the kernel's current language, to `out`
// (without a terminator); any other value appends nothing. 1, or -1 when memory runs out.
int32_t ImportanceText(uint32_t value, CountedString& out);

// The Windows file time `file_time` as local time, "%a %b %d, %Y %I:%M %p", replacing `slot`. 1, or -74
// when formatting yields nothing (the slot is then left empty).
int32_t FormatSentTime(uint64_t file_time, CountedString& slot);

}  // namespace tarn

#endif  // TARN_PST_RENDER_HEADER_LABELS_H_
