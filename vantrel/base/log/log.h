#pragma once
// The process-wide log. Internal header: it pulls in fmt, so public headers never
// include it. Texts are printf-style (fmt::sprintf), written with the source file,
// the line and the calling thread's name.
//
//   VLOG_INFO("CVantrelEventServer::removeClient - Removing client %s", name);
//
// Thread safety: every function may be called from any thread.
#include <fmt/printf.h>

#include <string>
#include <string_view>

#include "vantrel/base/export.h"

enum tQXLogMessageSeverity : int {
  QXLOG_TRACE = 0,
  QXLOG_DEBUG = 1,
  QXLOG_INFO = 2,
  QXLOG_WARNING = 3,
  QXLOG_ERROR = 4,
  QXLOG_CRITICAL = 5,
  QXLOG_OFF = 6,
};

namespace vantrel::log {

// True when a line of this severity would be written (cheap; no lock).
bool Enabled(tQXLogMessageSeverity severity);
// Writes one finished line.
void Write(tQXLogMessageSeverity severity, const char* file, int line, std::string_view text);

// Level and destination. Before Configure is called the log follows
// VANTREL_LOG_LEVEL and VANTREL_LOG_FILE, defaulting to warnings on standard error
// (quiet, as suits client processes). An empty file means standard error.
// Levels: trace, debug, info, warning (warn), error, critical, off.
// False, with the reason in `error`, when the file cannot be opened for
// appending; the log then goes to standard error.
bool Configure(const std::string& level, const std::string& file, std::string* error = nullptr);
// Opens the configured log file again (after it was moved away for rotation);
// does nothing when the log goes to standard error. False, with the reason,
// when it cannot be opened; the log then stays where it was.
bool Reopen(std::string* error = nullptr);
void SetLevel(tQXLogMessageSeverity severity);
tQXLogMessageSeverity CurrentLevel();
// Parses a level name; false for an unknown name.
bool ParseLevel(std::string_view name, tQXLogMessageSeverity& out);
void Flush();
// By default only warnings and worse are written through at once; a long-running
// program whose log file is watched (the service) writes every line through.
void SetFlushEveryLine(bool enabled);

// The calling thread's name as log lines show it ("main" until one is set). The
// thread layer sets it when it starts a named thread, so the log knows names
// without knowing threads.
void SetThreadName(const std::string& name);
std::string ThreadName();

// A text that came from a peer (a client name, a host text, an address, a path,
// a payload), made safe to quote in a log line: every control character (below
// 0x20, and 0x7f) is written as an escape (\n, \r, \t, else \x1b style), so a
// peer can neither start a line of its own nor send the terminal commands.
// Everything else, also bytes above 0x7f, stays as it is. Formats with %s.
//
//   VLOG_INFO("CVantrelEventServer::removeClient - Removing client %s", vantrel::log::Escaped(name));
//
// A text that needs no escape is viewed, not copied. The object views the text
// it was made from, so it lives in the log statement only, never in a variable
// that outlives that text.
class cEscapedText : public std::string_view {
 public:
  explicit cEscapedText(std::string_view text);
  cEscapedText(const cEscapedText&) = delete;
  cEscapedText& operator=(const cEscapedText&) = delete;

 private:
  std::string escaped_;  // used only when `text` needed an escape
};
inline cEscapedText Escaped(std::string_view text) { return cEscapedText(text); }
// A null text is logged as the empty text.
inline cEscapedText Escaped(const char* text) {
  return cEscapedText(text ? std::string_view(text) : std::string_view());
}

// Tests capture what is logged: every line written while a sink is installed is
// also handed to it (text only, without decoration). Not for production use.
using CaptureSink = void (*)(void* context, tQXLogMessageSeverity severity, std::string_view text);
void SetCaptureSink(CaptureSink sink, void* context);

}  // namespace vantrel::log

#define VLOG_AT(severity, ...)                                                          \
  do {                                                                                  \
    if (::vantrel::log::Enabled(severity))                                              \
      ::vantrel::log::Write(severity, __FILE__, __LINE__, ::fmt::sprintf(__VA_ARGS__)); \
  } while (0)

#define VLOG_TRACE(...) VLOG_AT(QXLOG_TRACE, __VA_ARGS__)
#define VLOG_DEBUG(...) VLOG_AT(QXLOG_DEBUG, __VA_ARGS__)
#define VLOG_INFO(...) VLOG_AT(QXLOG_INFO, __VA_ARGS__)
#define VLOG_WARN(...) VLOG_AT(QXLOG_WARNING, __VA_ARGS__)
#define VLOG_ERROR(...) VLOG_AT(QXLOG_ERROR, __VA_ARGS__)
