// The header labels: which row the kernel's language selects (directly, through a regional alias, or
// the English fallback), the oddities of the table that must survive any cleanup, and the importance
// words. Expected labels are copied from the label table as published, not from our code.
#include "pst/render/header_labels.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "kernel/tarnkrn_control.h"

namespace tarn::testing {
namespace {

struct LabelCase {
    uint16_t language;
    int32_t field;
    const char* label;
};

void ExpectLabels(std::initializer_list<LabelCase> cases) {
    for (const LabelCase& c : cases) {
        krnctlSetLanguage(c.language);
        EXPECT_EQ(std::string(HeaderLabel(c.field)), c.label)
            << std::hex << c.language << " field " << c.field;
    }
}

TEST(HeaderLabels, LanguageSelectsTheRowThroughAliasesWithEnglishAsFallback) {
    ExpectLabels({
        {0x0409, kFieldFrom, "From:      "},
        {0x0409, kFieldImportance, "Importance:"},
        // Not in either table: English.
        {0x0C07, kFieldSubject, "Subject:   "},
        {0x0000, kFieldTo, "To:        "},
        // Rows of their own.
        {0x0407, kFieldSent, "Gesendet:  "},
        {0x0418, kFieldImportance, "Importanță:"},
        {0x0412, kFieldFrom, "보낸 사람:"},
        {0x0404, kFieldCc, "副本:   "},
        // Regional variants sharing a row.
        {0x1004, kFieldFrom, "发件人:  "},
        {0x0004, kFieldSent, "发送时间:"},
        {0x7C04, kFieldTo, "收件者:  "},
        {0x1401, kFieldSubject, "الموضوع:"},
        {0x2401, kFieldBcc, "Bcc:   "},
        {0x0401, kFieldTo, "إلى :  "},
        // A German regional variant has no alias: English.
        {0x0807, kFieldFrom, "From:      "},
        // Outside the table's columns.
        {0x0407, -1, "Unknown"},
        {0x0407, kHeaderFields, "Unknown"},
    });
}

TEST(HeaderLabels, TheTablesOdditiesAreKept) {
    ExpectLabels({
        {0x0407, kFieldHigh, "Höch"},
        {0x040C, kFieldSent, "Envoyè:    "},
        {0x0411, kFieldCc, "抄送:   "},  // the Chinese word in the Japanese row
        {0x2C01, kFieldFrom, "نمن :  "},
        {0x2C01, kFieldSent, "تاريخ الإرسال:"},  // longer than the others, no padding
        {0x0412, kFieldSubject, "제목:     "},
    });
    // Nine rows, English first, each language once.
    ASSERT_EQ(LanguageLabelRows().size(), 9u);
    EXPECT_EQ(LanguageLabelRows()[0].language, 0x0409);
}

TEST(HeaderLabels, ImportanceTextAppendsTheWordOfTheCurrentLanguage) {
    struct Case {
        uint16_t language;
        uint32_t value;
        const char* appended;  // what "x" becomes
    };
    const Case cases[] = {
        {0x0407, 0, "xNiedrig"}, {0x0407, 1, "x"},     {0x0407, 2, "xHöch"},  {0x0407, 3, "x"},
        {0x0C0C, 2, "xHigh"},    {0x0412, 0, "x낮음"}, {0x3801, 2, "xعالية"}, {0x0409, 0xFFFFFFFF, "x"},
    };
    for (const Case& c : cases) {
        krnctlSetLanguage(c.language);
        CountedString slot;
        ASSERT_EQ(InsertAt(&slot, 0, "x", 1), kStatusOk);
        ASSERT_EQ(ImportanceText(c.value, slot), kStatusOk);
        EXPECT_EQ(std::string(slot.text()), c.appended) << std::hex << c.language << " value " << c.value;
    }
    // Out of memory: the slot keeps what it had.
    CountedString slot;
    ASSERT_EQ(InsertAt(&slot, 0, "x", 1), kStatusOk);
    krnctlFailAllocation(1);
    EXPECT_EQ(ImportanceText(2, slot), kStatusFailure);
    EXPECT_EQ(std::string(slot.text()), "x");
}

}  // namespace
}  // namespace tarn::testing
