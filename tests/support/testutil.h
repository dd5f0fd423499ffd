#pragma once
// Helpers shared by the tests: deadlines instead of sleeps, free ports,
// temporary folders, log capture.
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/process.h"

namespace vantrel::test {

// Polls `condition` until it holds or `timeout` passes; true when it held.
// Polling is for the tests' own observation only; the code under test waits on
// conditions.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// A TCP port on the loopback interface that was free a moment ago.
unsigned short FreePort();

// A fresh folder under the system's temporary folder, removed with the object.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `content` to `name` inside the folder and returns the full path.
  std::string write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

// `path` is UTF-8 on every system, as the library's own file calls take it.
std::string ReadFile(const std::string& path);

// RQPRunAndCapture with the output's line ends as '\n' whatever the system
// writes ("\r\n" on some), so tests compare texts, not conventions.
RQPRunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                        std::chrono::seconds timeout = std::chrono::seconds(20));

// The program `name` of this build ("vantrel", "vantrel-cli"), with the
// system's suffix for programs.
std::string ProgramPath(const std::string& name);

// `size` bytes of every value that differ with `seed`, so that a lost, repeated
// or misplaced byte of a copied file shows.
std::string Pattern(std::size_t size, unsigned seed = 0);

// The text form of `couples` (name, value) as a copy request carries it.
std::string ParameterText(const std::vector<std::pair<std::string, std::string>>& couples);

// Sets (or, with null, unsets) an environment variable while it lives, then
// puts back what was there.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);
  ScopedEnv(const char* name, const std::string& value) : ScopedEnv(name, value.c_str()) {}
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// Captures every log line written while it lives, whatever the log level (one
// capture at a time).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines() const;
  // Number of captured lines that contain `text`.
  std::size_t count(const std::string& text) const;
  bool contains(const std::string& text) const { return count(text) > 0; }
  // Waits until a line containing `text` has been captured.
  bool waitFor(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  static void Sink(void* context, tQXLogMessageSeverity severity, std::string_view text);
  struct cLines {
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  // On the heap: std::mutex has a trivial destructor, so the thread sanitizer
  // would take a later mutex at the same stack address for this one and report
  // lock-order cycles that never happened. Freed memory it does forget.
  const std::unique_ptr<cLines> captured_ = std::make_unique<cLines>();
};

}  // namespace vantrel::test
