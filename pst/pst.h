// The filter's three exported entry points, which the toolkit kernel calls for a source it wants to
// describe (fltInfo), load a page of (fltLoad) or forget (fltFreeData). Each returns a toolkit status:
// 1 for success, a negative number for a failure. Everything else in the library is hidden.
#ifndef TARN_PST_PST_H_
#define TARN_PST_PST_H_

#include <cstdint>

#include "common/toolkit_records.h"

#define TARNPST_API __attribute__((visibility("default")))

extern "C" {

// Classifies the source, composes the requested message and reports the document's description in
// the request's file-info record; keeps the record in the request's slot for later calls. -13 for a
// null request or file-info record.
TARNPST_API int32_t fltInfo(tarn::InfoRequest* request);

// Loads one page of the requested message through the toolkit's loader and returns the loader's status.
// -13 for a null request.
TARNPST_API int32_t fltLoad(tarn::LoadRequest* request);

// Releases a record that fltInfo left in a slot. -13 for null; a non-zero `keep` releases nothing.
TARNPST_API int32_t fltFreeData(void* record, int32_t keep);

}  // extern "C"

#endif  // TARN_PST_PST_H_
