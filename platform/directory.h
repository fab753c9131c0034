// Stand-ins for the two Windows directory calls the filter makes, for the folder that holds images
// written for a document. Same contracts as on Windows: a UTF-16 path, a true result on success.
#ifndef TARN_PLATFORM_DIRECTORY_H_
#define TARN_PLATFORM_DIRECTORY_H_

namespace tarn::platform {

// Creates one directory (not its parents). False when it exists already, the parent is missing, or
// the path is null, empty or not valid UTF-16. The security attributes of the Windows call are not
// taken: the filter always passes none.
bool CreateDirectoryW(const char16_t* path);

// Removes an empty directory. False when it is not empty, missing, or the path is unusable.
bool RemoveDirectoryW(const char16_t* path);

}  // namespace tarn::platform

#endif  // TARN_PLATFORM_DIRECTORY_H_
