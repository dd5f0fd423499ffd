#include "tests/support/servicehelper.h"

#include "vantrel/base/env/settings.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <fstream>
#include <sstream>

#include "vantrel/base/platform/hostinfo.h"

extern char** environ;

namespace vantrel::test {

namespace {
constexpr const char* kReadyLine = "vantrel ready";

// The shipped defaults with the test's own lines after them (a later key wins).
std::string DefaultIni(const std::string& extra) {
  return std::string(nEnvSettings::gBuiltInDefaults()) + "\n" + extra + "\n";
}
}  // namespace

std::string LocalHostName() {
  std::string name = RQPGetLocalHostName();
  return name.empty() ? "host" : name;
}

ServiceProcess::ServiceProcess(const std::string& iniExtra) : clientsPort_(FreePort()), netPort_(FreePort()) {
  while (netPort_ == clientsPort_) netPort_ = FreePort();
  dir_.write("Vantrel.ini", DefaultIni(iniExtra));
}

ServiceProcess::~ServiceProcess() {
  for (pid_t successor : successors()) ::kill(successor, SIGKILL);
  kill();
  // A sanitizer report of the service goes to its standard error, which only
  // this object sees: without this check a race or a leak in the service would
  // pass unnoticed whenever the test itself got its answers.
  std::ifstream out(dir_.file("output.txt"));
  std::stringstream text;
  text << out.rdbuf();
  const std::string output = text.str();
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

bool ServiceProcess::start(const std::vector<std::string>& extraArgs) {
  const std::string program = VANTREL_BINARY_DIR "/programs/vantrel";
  std::vector<std::string> args = {program,
                                   "--clients-port", std::to_string(clientsPort_),
                                   "--net-port",     std::to_string(netPort_),
                                   "--log-file",     logFile(),
                                   "--log-level",    "debug"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());

  std::map<std::string, std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const auto equals = text.find('=');
    if (equals != std::string::npos) env[text.substr(0, equals)] = text.substr(equals + 1);
  }
  env["VANTREL_INI"] = dir_.file("Vantrel.ini");
  env["RQ_BIN"] = VANTREL_BINARY_DIR "/programs";
  env.erase("VANTREL_LOG_FILE");
  env.erase("VANTREL_LOG_LEVEL");
  for (const auto& [name, value] : env_) env[name] = value;

  std::vector<std::string> envText;
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

std::string ServiceProcess::log() const {
  std::ifstream in(logFile());
  std::stringstream text;
  text << in.rdbuf();
  std::ifstream out(dir_.file("output.txt"));
  text << out.rdbuf();
  return text.str();
}

std::size_t ServiceProcess::logCount(const std::string& text) const {
  const std::string all = log();
  std::size_t count = 0;
  for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) ++count;
  return count;
}

bool ServiceProcess::waitLog(const std::string& text, std::chrono::milliseconds timeout) const {
  return WaitUntil([&] { return log().find(text) != std::string::npos; }, timeout);
}

bool ServiceProcess::waitReady(std::chrono::milliseconds timeout) const { return waitLog(kReadyLine, timeout); }

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
          std::ifstream stat(task.path() / "stat");
          std::string line;
          if (!std::getline(stat, line)) continue;  // the thread has just ended
          // The state follows the parenthesised command name, which may hold blanks.
          const auto close = line.rfind(')');
          if (close == std::string::npos || close + 2 >= line.size()) return false;
          const char state = line[close + 2];
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
    std::ifstream in(entry.path() / "cmdline");
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (cmdline.find(marker) == std::string::npos) continue;
    std::ifstream stat(entry.path() / "stat");
    std::string statText((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const auto close = statText.rfind(')');
    if (close != std::string::npos && close + 2 < statText.size() && statText[close + 2] == 'Z') continue;
    found.push_back(pid);
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

}  // namespace vantrel::test
