#pragma once
// The process's standard streams: whether a person is watching them, and
// pointing standard output elsewhere for a while.

namespace vantrel::platform {

// True when standard error is a terminal (so progress may be drawn on it).
bool StandardErrorIsTerminal();
// True when standard output is a terminal (so it may carry terminal escapes).
bool StandardOutputIsTerminal();

// While it lives, what is written to standard output goes to standard error;
// the destructor puts standard output back. Both flush the C stream first, so
// nothing buffered crosses over. When the redirection cannot be made, output
// simply stays where it was. Owner: the creating scope; one thread only.
class cStandardOutputToError {
 public:
  cStandardOutputToError();
  ~cStandardOutputToError();
  cStandardOutputToError(const cStandardOutputToError&) = delete;
  cStandardOutputToError& operator=(const cStandardOutputToError&) = delete;

 private:
  int saved_ = -1;  // the original standard output while redirected
};

}  // namespace vantrel::platform
