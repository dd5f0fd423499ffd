#include "vantrel/base/platform/terminal.h"

#include <io.h>

#include <cstdio>

namespace vantrel::platform {

bool StandardErrorIsTerminal() { return ::_isatty(_fileno(stderr)) != 0; }

bool StandardOutputIsTerminal() { return ::_isatty(_fileno(stdout)) != 0; }

cStandardOutputToError::cStandardOutputToError() {
  std::fflush(stdout);
  const int saved = ::_dup(_fileno(stdout));
  if (saved < 0) return;
  if (::_dup2(_fileno(stderr), _fileno(stdout)) < 0) {
    ::_close(saved);
    return;
  }
  saved_ = saved;
}

cStandardOutputToError::~cStandardOutputToError() {
  if (saved_ < 0) return;
  std::fflush(stdout);
  ::_dup2(saved_, _fileno(stdout));
  ::_close(saved_);
}

}  // namespace vantrel::platform
