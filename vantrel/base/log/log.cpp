#include "vantrel/base/log/log.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace vantrel::log {
namespace {

bool NeedsEscape(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

// The logger is created on first use from the environment and replaced by
// Configure. Writers copy the shared pointer under the mutex, so a Configure
// that runs while other threads log never frees a logger in use.
struct State {
  std::mutex mutex;
  std::shared_ptr<spdlog::logger> logger;
  std::string file;  // the file Configure opened; empty: standard error
  bool fromEnvironment = false;
  CaptureSink sink = nullptr;
  void* sinkContext = nullptr;
};

State& state() {
  static State* s = new State();  // never destroyed: threads may log during exit
  return *s;
}

std::atomic<int> gLevel{-1};  // -1: not yet read from the environment
std::atomic<bool> gCapturing{false};
std::atomic<bool> gFlushEveryLine{false};

spdlog::level::level_enum ToSpd(tQXLogMessageSeverity s) {
  switch (s) {
    case QXLOG_TRACE:
      return spdlog::level::trace;
    case QXLOG_DEBUG:
      return spdlog::level::debug;
    case QXLOG_INFO:
      return spdlog::level::info;
    case QXLOG_WARNING:
      return spdlog::level::warn;
    case QXLOG_ERROR:
      return spdlog::level::err;
    case QXLOG_CRITICAL:
      return spdlog::level::critical;
    default:
      return spdlog::level::off;
  }
}

// A logger writing to `file` (standard error when empty). Null, with the reason
// in `error`, when the file cannot be opened.
std::shared_ptr<spdlog::logger> MakeLogger(const std::string& file, std::string* error = nullptr) {
  spdlog::sink_ptr sink;
  if (file.empty()) {
    sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  } else {
    try {
      sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(file, false);
    } catch (const std::exception& e) {
      if (error == nullptr) {
        std::fprintf(stderr, "vantrel: cannot open log file %s (%s); logging to standard error\n", file.c_str(),
                     e.what());
        return MakeLogger("");
      }
      *error = e.what();
      return nullptr;
    }
  }
  auto logger = std::make_shared<spdlog::logger>("vantrel", std::move(sink));
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%f %L %v");
  logger->set_level(spdlog::level::trace);  // filtering is done by Enabled()
  logger->flush_on(gFlushEveryLine.load() ? spdlog::level::trace : spdlog::level::warn);
  return logger;
}

void InitFromEnvironmentLocked(State& s) {
  if (s.logger) return;
  const char* file = std::getenv("VANTREL_LOG_FILE");
  s.logger = MakeLogger(file ? file : "");
  s.fromEnvironment = true;
}

int LevelFromEnvironment() {
  tQXLogMessageSeverity level = QXLOG_WARNING;
  if (const char* env = std::getenv("VANTREL_LOG_LEVEL")) {
    if (!ParseLevel(env, level)) {
      std::fprintf(stderr, "vantrel: unknown VANTREL_LOG_LEVEL '%s'; using warning\n", env);
      level = QXLOG_WARNING;
    }
  }
  return level;
}

const char* BaseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

}  // namespace

bool Enabled(tQXLogMessageSeverity severity) {
  int level = gLevel.load(std::memory_order_relaxed);
  if (level < 0) {
    int fromEnv = LevelFromEnvironment();
    gLevel.compare_exchange_strong(level, fromEnv);
    level = gLevel.load(std::memory_order_relaxed);
  }
  return severity >= level || gCapturing.load(std::memory_order_relaxed);
}

namespace {
thread_local std::string tThreadName;
}  // namespace

void SetThreadName(const std::string& name) { tThreadName = name; }

std::string ThreadName() { return tThreadName.empty() ? std::string("main") : tThreadName; }

void Write(tQXLogMessageSeverity severity, const char* file, int line, std::string_view text) {
  State& s = state();
  std::shared_ptr<spdlog::logger> logger;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.sink) s.sink(s.sinkContext, severity, text);
    if (severity < gLevel.load(std::memory_order_relaxed)) return;
    InitFromEnvironmentLocked(s);
    logger = s.logger;
  }
  const std::string thread = ThreadName();
  logger->log(ToSpd(severity), "[{}] {}:{} {}", thread, BaseName(file), line, text);
}

bool Configure(const std::string& level, const std::string& file, std::string* error) {
  tQXLogMessageSeverity parsed = QXLOG_INFO;
  if (!level.empty() && !ParseLevel(level, parsed)) parsed = QXLOG_INFO;
  std::string reason;
  auto logger = MakeLogger(file, &reason);
  if (!logger) logger = MakeLogger("");
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    if (state().logger) state().logger->flush();
    state().logger = std::move(logger);
    state().file = reason.empty() ? file : std::string();
    state().fromEnvironment = false;
  }
  gLevel.store(parsed);
  if (error != nullptr) *error = reason;
  return reason.empty();
}

bool Reopen(std::string* error) {
  std::string file;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    file = state().file;
  }
  if (file.empty()) return true;
  std::string reason;
  auto logger = MakeLogger(file, &reason);
  if (!logger) {
    if (error != nullptr) *error = reason;
    return false;
  }
  std::lock_guard<std::mutex> lock(state().mutex);
  if (state().logger) state().logger->flush();
  state().logger = std::move(logger);
  return true;
}

void SetLevel(tQXLogMessageSeverity severity) { gLevel.store(severity); }

tQXLogMessageSeverity CurrentLevel() {
  Enabled(QXLOG_OFF);  // reads the environment on first use
  return static_cast<tQXLogMessageSeverity>(gLevel.load());
}

bool ParseLevel(std::string_view name, tQXLogMessageSeverity& out) {
  struct Entry {
    const char* name;
    tQXLogMessageSeverity level;
  };
  static const Entry entries[] = {
      {"trace", QXLOG_TRACE},  {"debug", QXLOG_DEBUG}, {"info", QXLOG_INFO},         {"warning", QXLOG_WARNING},
      {"warn", QXLOG_WARNING}, {"error", QXLOG_ERROR}, {"critical", QXLOG_CRITICAL}, {"off", QXLOG_OFF},
  };
  for (const auto& e : entries) {
    const auto sameLetter = [](char a, char b) {
      return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    if (std::equal(name.begin(), name.end(), e.name, e.name + std::strlen(e.name), sameLetter)) {
      out = e.level;
      return true;
    }
  }
  return false;
}

void Flush() {
  std::shared_ptr<spdlog::logger> logger;
  {
    std::lock_guard<std::mutex> lock(state().mutex);
    logger = state().logger;
  }
  if (logger) logger->flush();
}

void SetFlushEveryLine(bool enabled) {
  gFlushEveryLine.store(enabled);
  std::lock_guard<std::mutex> lock(state().mutex);
  if (state().logger) state().logger->flush_on(enabled ? spdlog::level::trace : spdlog::level::warn);
}

void SetCaptureSink(CaptureSink sink, void* context) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().sink = sink;
  state().sinkContext = context;
  gCapturing.store(sink != nullptr);
}

cEscapedText::cEscapedText(std::string_view text) : std::string_view(text) {
  const auto first = std::find_if(text.begin(), text.end(), NeedsEscape);
  if (first == text.end()) return;
  static constexpr char kHex[] = "0123456789abcdef";
  escaped_.reserve(text.size() + 8);
  escaped_.assign(text.begin(), first);
  for (auto it = first; it != text.end(); ++it) {
    const char c = *it;
    if (!NeedsEscape(c)) {
      escaped_.push_back(c);
      continue;
    }
    switch (c) {
      case '\n':
        escaped_.append("\\n");
        break;
      case '\r':
        escaped_.append("\\r");
        break;
      case '\t':
        escaped_.append("\\t");
        break;
      default: {
        const auto byte = static_cast<unsigned char>(c);
        const char code[] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
        escaped_.append(code, sizeof code);
      }
    }
  }
  static_cast<std::string_view&>(*this) = escaped_;
}

}  // namespace vantrel::log
