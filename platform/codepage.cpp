#include "platform/codepage.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_cb.h>
#include <unicode/ucnv_err.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace tarn::platform {
namespace {

constexpr uint32_t kAnsiCodePage = 1252;

// Windows code pages and the ICU converters that hold the same tables. Canonical ICU names, so that no
// alias resolves differently between ICU versions.
struct CodePageName {
    uint32_t code_page;
    const char* converter;
};
constexpr CodePageName kCodePages[] = {
    {437, "ibm-437_P100-1995"},
    {737, "ibm-737_P100-1997"},
    {775, "ibm-775_P100-1996"},
    {850, "ibm-850_P100-1995"},
    {852, "ibm-852_P100-1995"},
    {855, "ibm-855_P100-1995"},
    {857, "ibm-857_P100-1995"},
    {858, "ibm-858_P100-1997"},
    {860, "ibm-860_P100-1995"},
    {861, "ibm-861_P100-1995"},
    {862, "ibm-862_P100-1995"},
    {863, "ibm-863_P100-1995"},
    {864, "ibm-864_X110-1999"},
    {865, "ibm-865_P100-1995"},
    {866, "ibm-866_P100-1995"},
    {869, "ibm-869_P100-1995"},
    {874, "windows-874-2000"},
    {932, "ibm-943_P15A-2003"},  // Shift-JIS as Windows has it (NEC and IBM extensions)
    {936, "windows-936-2000"},
    {949, "windows-949-2000"},
    {950, "windows-950-2000"},
    {1200, "UTF-16LE"},
    {1201, "UTF-16BE"},
    {1250, "ibm-5346_P100-1998"},
    {1251, "ibm-5347_P100-1998"},
    {1252, "ibm-5348_P100-1997"},
    {1253, "ibm-5349_P100-1998"},
    {1254, "ibm-5350_P100-1998"},
    {1255, "ibm-9447_P100-2002"},
    {1256, "ibm-9448_X100-2005"},
    {1257, "ibm-9449_P100-2002"},
    {1258, "ibm-5354_P100-1998"},
    {10000, "macos-0_2-10.2"},
    {10006, "macos-6_2-10.4"},
    {10007, "macos-7_3-10.2"},
    {10029, "macos-29-10.2"},
    {10081, "macos-35-10.2"},
    {12000, "UTF-32LE"},
    {12001, "UTF-32BE"},
    {20127, "US-ASCII"},
    {20866, "ibm-878_P100-1996"},
    {21866, "ibm-1168_P100-2002"},
    {28591, "ISO-8859-1"},
    {28592, "ibm-912_P100-1995"},
    {28593, "ibm-913_P100-2000"},
    {28594, "ibm-914_P100-1995"},
    {28595, "ibm-915_P100-1995"},
    {28596, "ibm-1089_P100-1995"},
    {28597, "ibm-9005_X110-2007"},
    {28598, "ibm-5012_P100-1999"},
    {28599, "ibm-920_P100-1995"},
    {28603, "ibm-921_P100-1995"},
    {28605, "ibm-923_P100-1998"},
    {50220, "ISO_2022,locale=ja,version=0"},
    {50221, "ISO_2022,locale=ja,version=0"},
    {50222, "ISO_2022,locale=ja,version=0"},
    {50225, "ISO_2022,locale=ko,version=0"},
    {51932, "euc-jp-2007"},
    {51949, "ibm-970_P110_P110-2006_U2"},
    {52936, "HZ"},
    {54936, "gb18030"},
    {65000, "UTF-7"},
    {65001, "UTF-8"},
};

// The pseudo code pages that stand for the system's own.
uint32_t Resolve(uint32_t code_page) {
    switch (code_page) {
        case 0:  // CP_ACP
        case 3:  // CP_THREAD_ACP
            return kAnsiCodePage;
        case 1:  // CP_OEMCP
            return 437;
        case 2:  // CP_MACCP
            return 10000;
        default:
            return code_page;
    }
}

const char* ConverterName(uint32_t code_page) {
    for (const CodePageName& entry : kCodePages)
        if (entry.code_page == code_page) return entry.converter;
    return nullptr;
}

bool IsUnicodeTransform(uint32_t code_page) { return code_page == kCpUtf7 || code_page == kCpUtf8; }

struct ConverterClose {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterClose>;

Converter Open(uint32_t code_page) {
    const char* name = ConverterName(code_page);
    if (name == nullptr) return nullptr;
    UErrorCode error = U_ZERO_ERROR;
    Converter converter(ucnv_open(name, &error));
    if (U_FAILURE(error)) return nullptr;
    return converter;
}

// Length of a NUL-terminated source including the terminator, in bytes; the UTF-16 and UTF-32 pages end
// at a whole zero unit.
size_t TerminatedLength(const char* source, uint32_t code_page) {
    size_t unit = 1;
    if (code_page == 1200 || code_page == 1201) unit = 2;
    if (code_page == 12000 || code_page == 12001) unit = 4;
    for (size_t at = 0;; at += unit) {
        bool zero = true;
        for (size_t i = 0; i < unit; ++i) zero = zero && source[at + i] == '\0';
        if (zero) return at + unit;
    }
}

// Symbol (42) has no ICU table: its 224 printable bytes sit in the private-use block at U+F020-U+F0FF,
// the control bytes map to themselves.
int SymbolToWide(const unsigned char* source, size_t count, char16_t* dest, int dest_units) {
    if (dest_units == 0) return static_cast<int>(count);
    if (count > static_cast<size_t>(dest_units)) return 0;
    for (size_t i = 0; i < count; ++i)
        dest[i] = source[i] < 0x20 ? char16_t(source[i]) : char16_t(0xF000 + source[i]);
    return static_cast<int>(count);
}

int SymbolFromWide(const char16_t* source, size_t count, char* dest, int dest_bytes, char default_char,
                   bool* used_default) {
    if (dest_bytes != 0 && count > static_cast<size_t>(dest_bytes)) return 0;
    bool used = false;
    for (size_t i = 0; i < count; ++i) {
        const char16_t unit = source[i];
        char byte = default_char;
        if (unit < 0x20)
            byte = static_cast<char>(unit);
        else if (unit >= 0xF020 && unit <= 0xF0FF)
            byte = static_cast<char>(unit - 0xF000);
        else
            used = true;
        if (dest_bytes != 0) dest[i] = byte;
    }
    if (used_default != nullptr) *used_default = used;
    return static_cast<int>(count);
}

// Substitutes like ICU's own callback and notes that a default character went out.
void SubstituteAndNote(const void* context, UConverterFromUnicodeArgs* args, const UChar* units,
                       int32_t length, UChar32 code_point, UConverterCallbackReason reason,
                       UErrorCode* error) {
    if (reason <= UCNV_IRREGULAR) *static_cast<bool*>(const_cast<void*>(context)) = true;
    UCNV_FROM_U_CALLBACK_SUBSTITUTE(nullptr, args, units, length, code_point, reason, error);
}

}  // namespace

int MultiByteToWideChar(uint32_t code_page, uint32_t flags, const char* source, int source_bytes,
                        char16_t* dest, int dest_units) {
    if (source == nullptr || source_bytes == 0 || source_bytes < -1 || dest_units < 0) return 0;
    if (dest == nullptr && dest_units != 0) return 0;
    if ((flags & ~(kMbPrecomposed | kMbErrInvalidChars)) != 0) return 0;
    code_page = Resolve(code_page);
    const size_t count =
        source_bytes == -1 ? TerminatedLength(source, code_page) : static_cast<size_t>(source_bytes);
    if (code_page == kCpSymbol)
        return SymbolToWide(reinterpret_cast<const unsigned char*>(source), count, dest, dest_units);

    Converter converter = Open(code_page);
    if (!converter) return 0;
    UErrorCode error = U_ZERO_ERROR;
    if ((flags & kMbErrInvalidChars) != 0)
        ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &error);
    // Sized first and then converted into exactly that room: ICU writes a NUL behind the text when
    // there is space for one, which a Windows caller does not expect, and its streaming calls can
    // report an overflow when a stateful converter's output fills the buffer exactly.
    const int32_t needed =
        ucnv_toUChars(converter.get(), nullptr, 0, source, static_cast<int32_t>(count), &error);
    if (error != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(error)) return 0;
    if (dest_units == 0 || needed == 0) return needed;
    if (needed > dest_units) return 0;
    error = U_ZERO_ERROR;
    const int32_t written = ucnv_toUChars(converter.get(), reinterpret_cast<UChar*>(dest), needed, source,
                                          static_cast<int32_t>(count), &error);
    return U_FAILURE(error) || written != needed ? 0 : written;
}

int WideCharToMultiByte(uint32_t code_page, uint32_t flags, const char16_t* source, int source_units,
                        char* dest, int dest_bytes, const char* default_char, bool* used_default) {
    if (source == nullptr || source_units == 0 || source_units < -1 || dest_bytes < 0) return 0;
    if (dest == nullptr && dest_bytes != 0) return 0;
    code_page = Resolve(code_page);
    if ((flags & ~(kWcErrInvalidChars | kWcNoBestFitChars)) != 0) return 0;
    if (IsUnicodeTransform(code_page)) {
        if (default_char != nullptr || used_default != nullptr) return 0;
    } else if ((flags & kWcErrInvalidChars) != 0) {
        return 0;
    }
    size_t count = static_cast<size_t>(source_units);
    if (source_units == -1) count = std::char_traits<char16_t>::length(source) + 1;
    const char substitute = default_char != nullptr ? default_char[0] : '?';
    if (code_page == kCpSymbol)
        return SymbolFromWide(source, count, dest, dest_bytes, substitute, used_default);

    Converter converter = Open(code_page);
    if (!converter) return 0;
    UErrorCode error = U_ZERO_ERROR;
    bool used = false;
    if ((flags & kWcErrInvalidChars) != 0) {
        ucnv_setFromUCallBack(converter.get(), UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &error);
    } else if (!IsUnicodeTransform(code_page)) {
        // The Unicode transforms keep ICU's substitute (U+FFFD for a lone surrogate), as Windows does;
        // so do the UTF-16 and UTF-32 pages, whose units are too wide for a one-byte default.
        UErrorCode ignored = U_ZERO_ERROR;
        ucnv_setSubstChars(converter.get(), &substitute, 1, &ignored);
        ucnv_setFromUCallBack(converter.get(), SubstituteAndNote, &used, nullptr, nullptr, &error);
    }
    if (U_FAILURE(error)) return 0;
    // Sized first and then converted into exactly that room, as above.
    const UChar* from = reinterpret_cast<const UChar*>(source);
    const int32_t needed =
        ucnv_fromUChars(converter.get(), nullptr, 0, from, static_cast<int32_t>(count), &error);
    if (error != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(error)) return 0;
    int32_t written = needed;
    if (dest_bytes != 0 && needed != 0) {
        if (needed > dest_bytes) return 0;
        error = U_ZERO_ERROR;
        written = ucnv_fromUChars(converter.get(), dest, needed, from, static_cast<int32_t>(count), &error);
        if (U_FAILURE(error) || written != needed) return 0;
    }
    if (used_default != nullptr) *used_default = used;
    return written;
}

uint32_t GetACP() { return kAnsiCodePage; }

}  // namespace tarn::platform
