// File and folder names for tarnview export, made from text that comes from the source: portable on
// the common file systems, bounded in length, never a path of their own, and unique in their folder.
#ifndef TARN_API_EXPORT_NAMES_H_
#define TARN_API_EXPORT_NAMES_H_

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace tarn::api {

constexpr size_t kSubjectNameBytes = 64;
constexpr size_t kAttachmentNameBytes = 100;
constexpr size_t kFolderNameBytes = 64;

// One path component from UTF-8 text: controls (C0, DEL, C1), the characters that some file system
// forbids or reads as a separator (/ \ : * ? " < > |) and ill-formed UTF-8 become "_"; bidirectional
// formatting characters go, so that a name shows as it is; leading and trailing spaces and dots go (so
// neither "." nor ".." nor a hidden name can come out); at most `max_bytes` bytes, cut between
// characters; a device name of DOS ("con", "conin$", "com0", "lpt\u00b9", ...) is prefixed with "_".
// `fallback` (itself portable) when nothing is left.
std::string PortableName(std::string_view text, size_t max_bytes, std::string_view fallback);

// The names given out in each folder, compared after Unicode case folding and canonical composition
// (two names that differ only so are one file on a file system that ignores case or normalizes).
class NameRegistry {
  public:
    // `name` (a PortableName) in folder `dir`, or "stem (2).ext", "stem (3).ext", ... when taken.
    std::string Claim(const std::string& dir, const std::string& name);
    // Forgets the names of `dir` and the folders below it, where nothing more will be claimed (a
    // message's attachments, once written), so that they take no memory for the rest of the export.
    void Forget(const std::string& dir);

  private:
    std::map<std::string, std::set<std::string>> taken_;
};

}  // namespace tarn::api

#endif  // TARN_API_EXPORT_NAMES_H_
