#include "vantrel/base/platform/terminal.h"

#include <unistd.h>

#include <cstdio>

namespace vantrel::platform {

bool StandardErrorIsTerminal() { return isatty(STDERR_FILENO) != 0; }

bool StandardOutputIsTerminal() { return isatty(STDOUT_FILENO) != 0; }

cStandardOutputToError::cStandardOutputToError() {
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  if (saved < 0) return;
  if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    close(saved);
    return;
  }
  saved_ = saved;
}

cStandardOutputToError::~cStandardOutputToError() {
  if (saved_ < 0) return;
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
}

}  // namespace vantrel::platform
