#include "tests/support/servicehelper.h"

#include "vantrel/base/env/settings.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <filesystem>
#include <future>
#include <memory>

#include "vantrel/base/platform/hostinfo.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/socket/socketoptions.h"

extern char** environ;

namespace vantrel::test {

namespace {
constexpr const char* kReadyLine = "vantrel ready";

// The state letter of a process or thread from its /proc stat file ('\0' when
// it is gone). It follows the parenthesised command name, which may hold blanks.
char ProcessState(const std::filesystem::path& stat) {
  const std::string line = ReadFile(stat);
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : '\0';
}
}  // namespace

std::string LocalHostName() {
  std::string name = RQPGetLocalHostName();
  return name.empty() ? "host" : name;
}

ServiceProcess::ServiceProcess(const std::string& iniExtra) : clientsPort_(FreePort()), netPort_(FreePort()) {
  while (netPort_ == clientsPort_) netPort_ = FreePort();
  // The shipped defaults with the test's own lines after them (a later key wins).
  dir_.write("Vantrel.ini", std::string(nEnvSettings::gBuiltInDefaults()) + "\n" + iniExtra + "\n");
}

ServiceProcess::~ServiceProcess() {
  for (pid_t successor : successors()) ::kill(successor, SIGKILL);
  kill();
  // A sanitizer report of the service goes to its standard error, which only
  // this object sees: without this check a race or a leak in the service would
  // pass unnoticed whenever the test itself got its answers.
  const std::string output = ReadFile(dir_.file("output.txt"));
  for (const char* marker : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
                             "runtime error:"}) {
    if (output.find(marker) != std::string::npos) {
      ADD_FAILURE() << "the service reported a fault:\n" << output;
      break;
    }
  }
}

void ServiceProcess::setPorts(unsigned short clientsPort, unsigned short netPort) {
  clientsPort_ = clientsPort;
  netPort_ = netPort;
}

std::string ServiceProcess::hostText() const { return LocalHostName() + "~" + std::to_string(netPort_); }

bool ServiceProcess::start() {
  const std::string program = VANTREL_BINARY_DIR "/programs/vantrel";
  std::vector<std::string> args = {program,
                                   "--clients-port", std::to_string(clientsPort_),
                                   "--net-port",     std::to_string(netPort_),
                                   "--log-file",     logFile(),
                                   "--log-level",    "debug"};

  // The test's own variables win over these, and both over the inherited ones;
  // the log goes where the arguments say, whatever the caller's environment says.
  std::map<std::string, std::string> env = env_;
  env.emplace("VANTREL_INI", dir_.file("Vantrel.ini"));
  env.emplace("RQ_BIN", VANTREL_BINARY_DIR "/programs");
  std::vector<std::string> envText;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('='));
    if (env.count(name) == 0 && name != "VANTREL_LOG_FILE" && name != "VANTREL_LOG_LEVEL") envText.push_back(text);
  }
  for (const auto& [name, value] : env) envText.push_back(name + "=" + value);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& entry : envText) envp.push_back(entry.data());
  envp.push_back(nullptr);

  const std::string output = dir_.file("output.txt");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addchdir_np(&actions, dir_.path().c_str());
  const int result = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) pid_ = -1;
  exitCode_.reset();
  return result == 0;
}

std::string ServiceProcess::log() const { return ReadFile(logFile()) + ReadFile(dir_.file("output.txt")); }

std::size_t ServiceProcess::logCount(const std::string& text) const {
  const std::string all = log();
  std::size_t count = 0;
  for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) ++count;
  return count;
}

bool ServiceProcess::waitLog(const std::string& text, std::chrono::milliseconds timeout) const {
  return WaitUntil([&] { return log().find(text) != std::string::npos; }, timeout);
}

bool ServiceProcess::launch() { return start() && waitLog(kReadyLine); }

std::optional<int> ServiceProcess::waitExit(std::chrono::milliseconds timeout) {
  if (exitCode_.has_value()) return exitCode_;
  if (pid_ <= 0) return std::nullopt;
  std::optional<int> code;
  WaitUntil(
      [&] {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done != pid_) return false;
        code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
      },
      timeout);
  if (code.has_value()) {
    exitCode_ = code;
    pid_ = -1;
  }
  return code;
}

std::optional<int> ServiceProcess::stop(std::chrono::milliseconds timeout) {
  if (pid_ > 0) ::kill(pid_, SIGTERM);
  return waitExit(timeout);
}

void ServiceProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitExit(std::chrono::seconds(10));
}

bool ServiceProcess::freeze(std::chrono::milliseconds timeout) {
  if (pid_ <= 0 || ::kill(pid_, SIGSTOP) != 0) return false;
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid_) + "/task";
  return WaitUntil(
      [&] {
        std::error_code error;
        bool any = false;
        for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
          const char state = ProcessState(task.path() / "stat");
          if (state == '\0') continue;  // the thread has just ended
          if (state != 'T' && state != 't') return false;
          any = true;
        }
        return !error && any;
      },
      timeout);
}

bool ServiceProcess::running() { return pid_ > 0 && !waitExit(std::chrono::milliseconds(0)).has_value(); }

std::vector<pid_t> ServiceProcess::successors() const {
  std::vector<pid_t> found;
  const std::string marker = logFile();
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    const pid_t pid = static_cast<pid_t>(std::stol(name));
    if (pid == pid_) continue;
    if (ReadFile(entry.path() / "cmdline").find(marker) == std::string::npos) continue;
    if (ProcessState(entry.path() / "stat") != 'Z') found.push_back(pid);
  }
  return found;
}

bool TestClient::NewMessageEvent(cTypedMessageObject* message, short channel) {
  if (channel != 0) return cVantrelClientObject::NewMessageEvent(message, channel);
  std::unique_ptr<cVantrelMessage> record(NVSTmo2Ttm(message));
  delete message;
  if (record == nullptr) return false;
  std::lock_guard<std::mutex> guard(mutex_);
  received_.push_back(*record);
  return false;
}

std::optional<cVantrelMessage> TestClient::next(std::chrono::milliseconds timeout) {
  std::optional<cVantrelMessage> record;
  WaitUntil(
      [&] {
        std::lock_guard<std::mutex> guard(mutex_);
        if (received_.empty()) return false;
        record = received_.front();
        received_.pop_front();
        return true;
      },
      timeout);
  return record;
}

std::size_t TestClient::pending() {
  std::lock_guard<std::mutex> guard(mutex_);
  return received_.size();
}

bool RawLink::connectClient(unsigned short clientsPort) {
  return socket_.ConnectLocal(clientsPort, gSocketOptionsNet());
}

bool RawLink::connectPeer(unsigned short netPort, const std::string& host, short versionMarker) {
  return socket_.Connect("127.0.0.1", netPort, gSocketOptionsNet()) && send(203, versionMarker, host + '\0');
}

bool RawLink::greet(const std::string& name) {
  std::string greeting(258, '\0');
  name.copy(&greeting[2], 255);
  return send(1029, 0, greeting);
}

bool RawLink::send(short type, short subtype, const std::string& bytes) {
  return socket_.SendTypedMessageZ2(type, subtype, bytes.data(), static_cast<unsigned>(bytes.size()));
}

bool RawLink::send(const cVantrelMessage& record, short subtype) {
  return socket_.SendTypedMessageZ2(record.getType(), subtype, record.getPackedBuf(), record.getPackedBufLen());
}

std::optional<cFrame> RawLink::next(std::chrono::milliseconds timeout) {
  auto read = std::async(std::launch::async, [this]() -> std::optional<cFrame> {
    cFrame frame = ReadFrame(socket_);
    if (!frame.ok) return std::nullopt;
    return frame;
  });
  if (read.wait_for(timeout) != std::future_status::ready) {
    // Closing wakes the blocked read, so the future can be left.
    socket_.CloseSocket();
    read.wait();
    return std::nullopt;
  }
  auto frame = read.get();
  closed_ = !frame.has_value();
  return frame;
}

}  // namespace vantrel::test
