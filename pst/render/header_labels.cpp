#include "pst/render/header_labels.h"

#include <array>
#include <ctime>

#include "common/status.h"
#include "kernel/tarnkrn.h"
#include "pst/render/message_document.h"

namespace tarn {
namespace {

// Windows file times count 100-nanosecond intervals from 1601-01-01; this many of them lie before
// 1970-01-01.
constexpr uint64_t kFileTimeUnixEpoch = 0x019DB1DED53E8000;
constexpr uint64_t kFileTimeTicksPerSecond = 10'000'000;
constexpr size_t kSentTimeCapacity = 100;

// The labels as the toolkit's translators gave them, kept byte for byte: the German "Höch", the French
// "Envoyè", the Japanese row's Cc label (the Chinese one) and the Arabic From label are what users of
// those languages have always seen on printed mail, and changing them would change every page.
constexpr std::array<LanguageLabels, 9> kLanguageLabelTable = {{
    {0x0409,
     {"From:      ", "To:        ", "Bcc:       ", "Cc:        ", "Sent:      ", "Subject:   ", "Importance:",
      "High", "Low"}},
    {0x0407,
     {"Von:       ", "An:        ", "Bcc:       ", "Cc:        ", "Gesendet:  ", "Betreff:   ", "Priorität: ",
      "Höch", "Niedrig"}},
    {0x0418,
     {"De la:     ", "Către:     ", "Bcc:       ", "Cc:        ", "Trimis:    ", "Subiect:   ", "Importanță:",
      "Maxim", "Minim"}},
    {0x040C,
     {"De:        ", "À:         ", "Bcc:       ", "Cc:        ", "Envoyè:    ", "Objet:     ", "Importance:",
      "Haute", "Faible"}},
    {0x0411,
     {"差出人:  ", "宛先:    ", "Bcc:    ", "抄送:   ", "送信日時:", "件名:    ", "重要度:  ", "高", "低"}},
    {0x0804,
     {"发件人:  ", "收件人:  ", "Bcc:    ", "抄送:   ", "发送时间:", "主题:    ", "重要性:  ", "高", "低"}},
    {0x0404,
     {"寄件者:  ", "收件者:  ", "Bcc:    ", "副本:   ", "寄件日期:", "主旨:    ", "重要性:  ", "高", "低"}},
    {0x0412,
     {"보낸 사람:", "받는 사람:", "Bcc:    ", "참조:   ", "보낸 날짜:", "제목:     ", "중요도:  ", "높음",
      "낮음"}},
    {0x2C01,
     {"نمن :  ", "إلى :  ", "Bcc:   ", "نسخة:  ", "تاريخ الإرسال:", "الموضوع:", "الأهمية: ", "عالية",
      "منخفضة"}},
}};

// Regional variants that share a row. Searched in order, first key wins; 0x1401 is listed twice, which
// is harmless and kept so the table reads as it always has.
struct LanguageAlias {
    uint16_t key;
    uint16_t row;
};
constexpr LanguageAlias kLanguageAliasTable[] = {
    {0x0004, 0x0804}, {0x7804, 0x0804}, {0x1004, 0x0804}, {0x0C04, 0x0404}, {0x7C04, 0x0404},
    {0x1404, 0x0404}, {0x1401, 0x2C01}, {0x1401, 0x2C01}, {0x3C01, 0x2C01}, {0x0C01, 0x2C01},
    {0x3401, 0x2C01}, {0x3001, 0x2C01}, {0x1001, 0x2C01}, {0x1801, 0x2C01}, {0x2001, 0x2C01},
    {0x4001, 0x2C01}, {0x0401, 0x2C01}, {0x2801, 0x2C01}, {0x1C01, 0x2C01}, {0x3801, 0x2C01},
    {0x2401, 0x2C01},
};

constexpr std::string_view kUnknownLabel = "Unknown";

}  // namespace

std::span<const LanguageLabels> LanguageLabelRows() { return kLanguageLabelTable; }

const LanguageLabels& LabelsForLanguage(uint16_t language) {
    for (const LanguageAlias& alias : kLanguageAliasTable) {
        if (alias.key == language) {
            language = alias.row;
            break;
        }
    }
    for (const LanguageLabels& row : kLanguageLabelTable)
        if (row.language == language) return row;
    return kLanguageLabelTable[0];
}

std::string_view HeaderLabel(int32_t field) {
    if (field < 0 || field >= kHeaderFields) return kUnknownLabel;
    return LabelsForLanguage(krnUiLanguage()).labels[field];
}

int32_t ImportanceText(uint32_t value, CountedString& out) {
    std::string_view label;
    if (value == kImportanceLow)
        label = HeaderLabel(kFieldLow);
    else if (value == kImportanceHigh)
        label = HeaderLabel(kFieldHigh);
    else
        return kStatusOk;
    return InsertAt(&out, out.size(), label.data(), label.size());
}

int32_t FormatSentTime(uint64_t file_time, CountedString& slot) {
    slot.Release();
    // Unsigned on purpose: a time before 1970 wraps to a far future rather than failing.
    const uint64_t seconds = (file_time - kFileTimeUnixEpoch) / kFileTimeTicksPerSecond;
    const auto when = static_cast<std::time_t>(seconds);
    std::tm local{};
    if (localtime_r(&when, &local) == nullptr) return kStatusFormatFailure;
    char text[kSentTimeCapacity];
    const size_t length = std::strftime(text, sizeof text, "%a %b %d, %Y %I:%M %p", &local);
    if (length == 0) return kStatusFormatFailure;
    return AssignBytes(slot, text, length);
}

}  // namespace tarn
