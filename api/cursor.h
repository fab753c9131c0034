// The message cursors behind tarnpst::Cursor: a store's walk, read ahead on a thread of its own, or the
// one message of a message file or an Internet message.
#ifndef TARN_API_CURSOR_H_
#define TARN_API_CURSOR_H_

#include <memory>
#include <string>
#include <vector>

#include "tarnpst/tarnpst.h"

namespace tarnpst {

class Cursor::Impl {
  public:
    virtual ~Impl() = default;
    virtual bool Next(Message& out) = 0;
    // Read once Next() has returned false.
    std::vector<std::string> warnings;
};

}  // namespace tarnpst

namespace tarn::api {

// Requires: `path` names a PST store. Throws when the store cannot be opened.
std::unique_ptr<tarnpst::Cursor::Impl> OpenStoreCursor(const std::string& path,
                                                       const tarnpst::CursorOptions& options);
// The message of a message file (`message_file`) or an Internet message.
std::unique_ptr<tarnpst::Cursor::Impl> OpenSingleCursor(const std::string& path, bool message_file,
                                                        const tarnpst::CursorOptions& options);

}  // namespace tarn::api

#endif  // TARN_API_CURSOR_H_
