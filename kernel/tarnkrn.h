// The toolkit kernel's C interface, as the filter imports it.
//
// On the toolkit's own platform these functions are imported from Tarnkrn by ordinal; the ordinal of
// each is given beside it. This stand-in implements them on POSIX so that the filter, its tools and its
// tests run here. Every function keeps the argument order and widths the filter relies on.
#ifndef TARNKRN_TARNKRN_H_
#define TARNKRN_TARNKRN_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__cplusplus)
#define TARNKRN_CHAR16 char16_t
extern "C" {
#else
#include <uchar.h>
#define TARNKRN_CHAR16 char16_t
#endif

#define TARNKRN_API __attribute__((visibility("default")))

typedef int32_t krn_handle;  // a kernel file handle; kKrnNoHandle when none
#define KRN_NO_HANDLE ((krn_handle)-1)

// Origins of krnSeekFile.
#define KRN_SEEK_START 0
#define KRN_SEEK_CURRENT 1
#define KRN_SEEK_END 2

// Object registry kinds.
#define KRN_OBJECT_SINGLE 4
#define KRN_OBJECT_ARRAY 5

// ---- Files ----------------------------------------------------------------------------------------

// 184: opens an existing file for reading. `mode` and `share` are passed as 0 and 256 by the filter.
// Returns a handle, or KRN_NO_HANDLE.
TARNKRN_API krn_handle krnOpenFile(const TARNKRN_CHAR16* name, int32_t mode, int32_t share);
// 183: closes a handle from krnOpenFile.
TARNKRN_API void krnCloseFile(krn_handle handle);
// 187: moves the position to (high << 32 | low) relative to `origin`; returns the new position, or -1
// (all bits set) when the handle is bad or the position would be negative.
TARNKRN_API int64_t krnSeekFile(krn_handle handle, int32_t offset_low, int32_t offset_high, int32_t origin);
// 185: reads up to `count` bytes at the current position; returns the number read, -1 on error.
TARNKRN_API int32_t krnReadFile(krn_handle handle, void* buffer, int32_t count);
// 186: the same read, the entry the store's file reader uses.
TARNKRN_API int32_t krnReadStoreFile(krn_handle handle, void* buffer, int32_t count);

// 156: creates (or truncates) a file for writing. `flags` is 0. Returns a handle or KRN_NO_HANDLE.
TARNKRN_API krn_handle krnCreateFile(const TARNKRN_CHAR16* path, int32_t flags);
// 169: writes `count` bytes; returns the number written. `flags` is 0.
TARNKRN_API int32_t krnWriteFile(krn_handle handle, const void* bytes, int32_t count, int32_t flags);
// 155: closes a handle from krnCreateFile. `flags` is 0.
TARNKRN_API int32_t krnCloseCreatedFile(krn_handle handle, int32_t flags);

// 1419: deletes a file by name (the temporary document). Returns 1, or a negative status.
TARNKRN_API int32_t krnDeleteFile(const TARNKRN_CHAR16* path);
// 1434: deletes a temporary file by name (an image written for a document). Returns 1, or negative.
TARNKRN_API int32_t krnDeleteTempFile(const TARNKRN_CHAR16* path);
// 1532: makes a unique temporary file and writes its zero-terminated path to `out` (capacity in
// UTF-16 units). `directory` may be null or empty for the system's temporary directory; `flag` is 1.
// The file is created empty so that the name stays unique. Returns 1, or a negative status.
TARNKRN_API int32_t krnTempFileName(const TARNKRN_CHAR16* directory, TARNKRN_CHAR16* out, int32_t capacity,
                                    int32_t flag, const TARNKRN_CHAR16* prefix,
                                    const TARNKRN_CHAR16* extension);

// ---- Status and environment ----------------------------------------------------------------------

// 348: the status an entry point returns for an internal failure code such as -1490 or -5.
TARNKRN_API int32_t krnErrorStatus(int32_t internal_code);
// 1502: the kernel's mode; 3 asks for HTML documents to be handed over in memory.
TARNKRN_API int32_t krnModeQuery(void);
// 1542: the user-interface language, a Windows LANGID.
TARNKRN_API uint16_t krnUiLanguage(void);
// Whether the host asks for repaired documents (1) rather than the toolkit's contract documents (0,
// the default). The toolkit's own kernel has no such setting and so always gets the contract's bytes.
TARNKRN_API int32_t krnRepairsQuery(void);
// The filter names the repairs it made for the document it is handing over (comma-separated, "" for
// none), so that a host can say what was changed. Kept per thread until the next call.
TARNKRN_API void krnNoteRepairs(const char* names);
// 1124: converts `units` UTF-16 units to UTF-8 in `dest` (capacity in bytes, no terminator added).
// Returns the bytes written; 0 when the text is empty, does not fit or is not valid UTF-16.
TARNKRN_API int32_t krnUtf16ToUtf8(const TARNKRN_CHAR16* source, int32_t units, char* dest, int32_t capacity);

// ---- Memory --------------------------------------------------------------------------------------

// 135: allocates count * size bytes; null on failure or overflow. `file` and `line` name the caller.
TARNKRN_API void* krnAlloc(size_t count, size_t size, const char* file, int32_t line);
// 136: as krnAlloc, the bytes zeroed.
TARNKRN_API void* krnAllocZeroed(size_t count, size_t size, const char* file, int32_t line);
// 138: resizes a block (null `block` allocates); null on failure, the old block then untouched.
TARNKRN_API void* krnRealloc(void* block, size_t size, const char* file, int32_t line);
// 137: frees a block from the three functions above; null is ignored.
TARNKRN_API void krnFree(void* block, const char* file, int32_t line);

// 197: enters an object in the registry. Returns 1, or a negative status (already registered).
TARNKRN_API int32_t krnRegisterObject(int32_t kind, const void* object, int32_t line, const char* file);
// 200: removes it. Returns 1, or a negative status (not registered under that kind).
TARNKRN_API int32_t krnUnregisterObject(int32_t kind, const void* object, int32_t line, const char* file);

// 1538: memory-usage accounting of large buffers. Adds `delta` bytes (negative to give back) to the
// process-wide account. Returns 1, or a negative status when the account would pass its ceiling, in
// which case nothing is added.
TARNKRN_API int32_t krnAccountMemory(int64_t delta);

// ---- Fonts and text runs -------------------------------------------------------------------------

// Fonts and device contexts the kernel hands out. Each is tracked until it is deleted or released, and
// the leak report names any left.
typedef struct krn_font_object* krn_font;
typedef struct krn_dc_object* krn_dc;

// Longest face name a font description holds, its terminating zero included.
#define KRN_FACE_SIZE 32

// A font description in the layout the toolkit passes on to the system. This stand-in reads only the
// face name; the filter leaves every other field zero.
typedef struct KrnFontDescription {
    int32_t height, width, escapement, orientation, weight;
    uint8_t italic, underline, strike_out, char_set, out_precision, clip_precision, quality, pitch_and_family;
    TARNKRN_CHAR16 face_name[KRN_FACE_SIZE];  // zero-terminated; a longer name is cut
} KrnFontDescription;

// 271: creates a font from a description. Null for a null description.
TARNKRN_API krn_font krnCreateFont(const KrnFontDescription* description);
// 292: deletes a font from krnCreateFont. 1; -13 for a font the kernel did not hand out, the stock font,
// or one still selected into a device context (the caller must restore the previous font first).
TARNKRN_API int32_t krnDeleteFont(krn_font font);
// 313: a device context for the screen, with the stock font selected. Null when none can be had.
TARNKRN_API krn_dc krnScreenDc(void);
// 316: releases a device context from krnScreenDc. 1, or -13 for one the kernel did not hand out.
TARNKRN_API int32_t krnReleaseScreenDc(krn_dc dc);
// 440: the end of the run of one script that starts at `position`, `remaining` units of UTF-16 before
// the text ends. The run takes at least one unit and never passes the end; characters common to all
// scripts (spaces, punctuation, digits) and combining marks join the run they stand in, and a run that
// begins with them takes the script of the first character that has one. A surrogate pair is never
// split. Returns `position` itself when `position` is null or `remaining` is not positive.
TARNKRN_API const TARNKRN_CHAR16* krnScriptRunEnd(const TARNKRN_CHAR16* position, int32_t remaining);

// Without ordinals: on the toolkit's platform the system's drawing interface answers these. Here the
// font objects live in the kernel, so the drawing stand-ins of platform/ ask it.
// Selects `font` into `dc` and returns the font selected before; null when either is unknown.
TARNKRN_API krn_font krnSelectFont(krn_dc dc, krn_font font);
// Copies the face name of the font selected into `dc`, zero-terminated, into out[capacity]; returns its
// length in units, or -13 for an unknown context or a capacity too small.
TARNKRN_API int32_t krnSelectedFace(krn_dc dc, TARNKRN_CHAR16* out, int32_t capacity);

#if defined(__cplusplus)
}
#endif

#endif  // TARNKRN_TARNKRN_H_
