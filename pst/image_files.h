// Images written beside an HTML document that is handed over as a file: one temporary directory per
// record, made when the first image comes, each image a temporary file in it, and every file listed in
// the record so that releasing the record deletes them and the directory.
#ifndef TARN_PST_IMAGE_FILES_H_
#define TARN_PST_IMAGE_FILES_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "pst/filter_data.h"
#include "pst/render/inline_image.h"

namespace tarn {

class RecordImageFiles : public ImageFileWriter {
  public:
    // Requires: `record` outlives the writer.
    explicit RecordImageFiles(PstFilterData* record) : record_(record) {}

    // Writes the image into the record's directory (making it when there is none yet) and gives the
    // file's name behind the path's last separator, in UTF-8. 1; the kernel's status when the directory
    // or the file cannot be made or written; -1 when memory runs out. A file once created stays listed
    // in the record even when its writing fails, so that the record's release still deletes it.
    int32_t Write(const std::byte* data, size_t size, std::string* name) override;

  private:
    int32_t MakeDirectory();
    // Keeps a kernel copy of `path` in the record's list of temporary names.
    int32_t ListName(const char16_t* path);

    PstFilterData* record_;
};

}  // namespace tarn

#endif  // TARN_PST_IMAGE_FILES_H_
