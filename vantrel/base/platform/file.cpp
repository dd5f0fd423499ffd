#include "vantrel/base/platform/file.h"

#include <utility>

// What a file handle does the same on every system; the opening, reading and
// closing are each system's own.
namespace vantrel::platform {

cFile::~cFile() { Close(); }

cFile::cFile(cFile&& other) noexcept : handle_(other.handle_), error_(other.error_), why_(std::move(other.why_)) {
  other.handle_ = -1;
}

cFile& cFile::operator=(cFile&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = other.handle_;
    error_ = other.error_;
    why_ = std::move(other.why_);
    other.handle_ = -1;
  }
  return *this;
}

}  // namespace vantrel::platform
