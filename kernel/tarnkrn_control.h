// Controls of the kernel stand-in for hosts and tests. The real kernel has no such interface: these
// let a host answer the mode query and the language as the toolkit would, and let tests inject faults
// and check that nothing was left behind.
#ifndef TARNKRN_TARNKRN_CONTROL_H_
#define TARNKRN_TARNKRN_CONTROL_H_

#include <stddef.h>
#include <stdint.h>

#include "kernel/tarnkrn.h"

#if defined(__cplusplus)
extern "C" {
#endif

// The answer of krnModeQuery (default 0).
TARNKRN_API void krnctlSetMode(int32_t mode);
// The answer of krnUiLanguage. The default is read from TARNKRN_LANGUAGE (decimal or 0x-hex) when the
// library loads, else 0x0409.
TARNKRN_API void krnctlSetLanguage(uint16_t langid);
// The answer of krnRepairsQuery: 1 asks for repaired documents, 0 for the contract's. The default is 1
// when TARNKRN_REPAIRS is "1" as the library loads, else 0.
TARNKRN_API void krnctlSetRepairs(int32_t repairs);
// This thread's own answers of krnModeQuery, krnUiLanguage and krnRepairsQuery, in front of the
// process-wide ones set above, for a host that serves several callers at once, each with its own
// settings. `active` 0 drops them, and the process-wide answers hold again on this thread.
TARNKRN_API void krnctlSetThreadSettings(int32_t active, int32_t mode, uint16_t langid, int32_t repairs);
// This thread's own answers: 1 with them in the out-parameters (each may be null), or 0 when it has none.
TARNKRN_API int32_t krnctlThreadSettings(int32_t* mode, uint16_t* langid, int32_t* repairs);
// What the filter last noted with krnNoteRepairs on this thread (empty when nothing). Returns the full
// length and copies at most `capacity`-1 bytes, zero-terminated, into `out` when it is not null.
TARNKRN_API size_t krnctlRepairsMade(char* out, size_t capacity);
// The ceiling of krnAccountMemory in bytes; 0 means no ceiling (the default).
TARNKRN_API void krnctlSetAccountCeiling(int64_t bytes);
// Bytes currently held by the account.
TARNKRN_API int64_t krnctlAccountedBytes(void);

// Fault injection. `nth` counts calls from now, 1 being the next one; 0 disarms.
// Allocation faults cover krnAlloc, krnAllocZeroed and krnRealloc.
TARNKRN_API void krnctlFailAllocation(uint32_t nth);
// Operations whose calls can be made to fail.
#define KRNCTL_OPEN 1   // krnOpenFile returns KRN_NO_HANDLE
#define KRNCTL_SEEK 2   // krnSeekFile returns -1
#define KRNCTL_READ 3   // krnReadFile / krnReadStoreFile return -1
#define KRNCTL_WRITE 4  // krnCreateFile returns KRN_NO_HANDLE; krnWriteFile writes nothing
TARNKRN_API void krnctlFailFileOperation(int32_t operation, uint32_t nth);
// Disarms every fault, resets mode, language, repairs and ceiling to their
// defaults. Outstanding allocations,
// objects, handles and temporary files are left as they are.
TARNKRN_API void krnctlReset(void);

// Number of allocations now outstanding, and of successful allocation calls since the library loaded.
TARNKRN_API size_t krnctlOutstandingAllocations(void);
TARNKRN_API uint64_t krnctlAllocationCount(void);

// Writes a report of what is outstanding: allocations and registered objects with their file and line,
// open file handles with their paths, temporary files made by krnTempFileName that still exist, fonts
// not deleted (by face) and screen device contexts not released.
// Returns the length of the full report (0 when nothing is outstanding) and copies at most `capacity`-1
// bytes of it, zero-terminated, into `out` when `out` is not null.
TARNKRN_API size_t krnctlLeakReport(char* out, size_t capacity);

#if defined(__cplusplus)
}
#endif

#endif  // TARNKRN_TARNKRN_CONTROL_H_
