// The JIS X 0208 to Unicode table of the ISO-2022-JP decoder (generated; see jisx0208_table.cpp).
#ifndef TARN_PST_RENDER_JISX0208_TABLE_H_
#define TARN_PST_RENDER_JISX0208_TABLE_H_

#include <cstddef>

namespace tarn {

// One row of the standard: the characters of cells 1 to `length` (second bytes 0x21 onward), U+FFFD
// where the standard leaves a cell empty. Rows outside the standard have no cells.
struct JisRow {
    const char16_t* cells;
    size_t length;
};

// Rows 1 to 94, indexed by first byte minus 0x21. Only rows 1-8 and 16-84 have cells.
constexpr size_t kJisRows = 94;
extern const JisRow kJisX0208Rows[kJisRows];

}  // namespace tarn

#endif  // TARN_PST_RENDER_JISX0208_TABLE_H_
