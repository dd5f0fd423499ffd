#include "tests/support/testutil.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/socket.h"
#include "vantrel/support/associativearray.h"

namespace vantrel::test {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The kernel hands out local ports for outgoing connections from its ephemeral
// range, so a port picked from that range may be taken by any connection a
// moment later. Test services therefore listen below it (or above it, when
// there is no room below), on a port chosen at random (parallel test processes
// rarely collide) and checked by binding.
unsigned short FreePort() {
  static std::mutex mutex;
  static std::mt19937 random(std::random_device{}() ^ static_cast<unsigned>(RQPCurrentProcessId()));
  std::lock_guard<std::mutex> lock(mutex);
  int low = 32768, high = 60999;
  std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low >> high;
  std::uniform_int_distribution<int> pick(low > 11000 ? 10000 : high + 1, low > 11000 ? low - 1 : 65535);
  namespace platform = vantrel::platform;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const auto port = static_cast<unsigned short>(pick(random));
    platform::cSocketResult result;
    platform::cUniqueSocket socket(platform::gOpenStreamSocket(platform::tAddressFamily::eIPv4, result));
    if (socket.Valid() && platform::gBindIPv4(socket.Get(), platform::tListenAddress::eAny, port).Ok()) return port;
  }
  throw std::runtime_error("FreePort: no free port found");
}

TempDir::TempDir() {
  // A fresh folder with a random name: creating it fails when the name is taken.
  static std::mutex mutex;
  static std::mt19937 random(std::random_device{}() ^ static_cast<unsigned>(RQPCurrentProcessId()));
  std::lock_guard<std::mutex> lock(mutex);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const auto candidate = std::filesystem::temp_directory_path() / ("vantrel-test-" + std::to_string(random()));
    std::error_code error;
    if (std::filesystem::create_directory(candidate, error)) {
      // Private to its user, as test folders of other users must not be shared.
      std::filesystem::permissions(candidate, std::filesystem::perms::owner_all, error);
      path_ = candidate.generic_string();
      return;
    }
  }
  throw std::runtime_error("TempDir: cannot create a folder");
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

namespace {

// The streams read a narrow path in the system's code page, which is not UTF-8
// everywhere: a name beyond ASCII would name another file.
std::filesystem::path Utf8Path(const std::string& path) {
  return std::filesystem::path(std::u8string(path.begin(), path.end()));
}

}  // namespace

std::string TempDir::write(const std::string& name, const std::string& content) const {
  const std::string full = file(name);
  std::ofstream out(Utf8Path(full), std::ios::binary);
  out << content;
  if (!out) throw std::runtime_error("TempDir::write failed: " + full);
  return full;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(Utf8Path(path), std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

RQPRunResult RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                        std::chrono::seconds timeout) {
  RQPRunResult result = RQPRunAndCapture(program, arguments, nTime::cDiff::FromSeconds(timeout.count()));
  std::string& text = result.output;
  std::size_t kept = 0;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) text[kept++] = text[i];
  text.resize(kept);
  return result;
}

std::string ProgramPath(const std::string& name) {
  return std::string(VANTREL_BINARY_DIR) + "/programs/" + name + VANTREL_EXECUTABLE_SUFFIX;
}

std::string Pattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  unsigned x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x = x * 1103515245u + 12345u;
    b = static_cast<char>(x >> 16);
  }
  return bytes;
}

std::string ParameterText(const std::vector<std::pair<std::string, std::string>>& couples) {
  CAssociativeArray parameters;
  for (const auto& [name, value] : couples) parameters.AddCouple(name, value);
  std::string text;
  long length = 0;
  parameters.ToString(text, length, false, false);
  return text;
}

LogCapture::LogCapture() { vantrel::log::SetCaptureSink(&LogCapture::Sink, this); }

LogCapture::~LogCapture() { vantrel::log::SetCaptureSink(nullptr, nullptr); }

void LogCapture::Sink(void* context, tQXLogMessageSeverity, std::string_view text) {
  cLines& captured = *static_cast<LogCapture*>(context)->captured_;
  std::lock_guard<std::mutex> lock(captured.mutex);
  captured.lines.emplace_back(text);
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(captured_->mutex);
  return captured_->lines;
}

std::size_t LogCapture::count(const std::string& text) const {
  std::lock_guard<std::mutex> lock(captured_->mutex);
  std::size_t n = 0;
  for (const auto& l : captured_->lines)
    if (l.find(text) != std::string::npos) ++n;
  return n;
}

bool LogCapture::waitFor(const std::string& text, std::chrono::milliseconds timeout) const {
  return WaitUntil([&] { return contains(text); }, timeout);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) old_ = old;
  value ? RQPSetEnvironment(name, value) : RQPUnsetEnvironment(name);
}

ScopedEnv::~ScopedEnv() { old_ ? RQPSetEnvironment(name_, *old_) : RQPUnsetEnvironment(name_); }

}  // namespace vantrel::test
