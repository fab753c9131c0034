// Compiled only by scripts/check-ilp32.sh, with -m32 -fsyntax-only: the layout asserts in the header are
// active on a 32-bit target, and this file makes sure that it really is one.
#include "common/toolkit_records.h"

static_assert(sizeof(void*) == 4, "compile this check with -m32");
