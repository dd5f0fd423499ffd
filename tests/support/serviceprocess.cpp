#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>

#include "tests/support/servicehelper.h"
#include "vantrel/base/env/settings.h"

// The service program run as a child process: POSIX-only for now (a shell
// gathers its output streams, signals stop and freeze it).
namespace vantrel::test {

namespace {
// The state letter of a process or thread ('\0' when it is gone).
char StateOf(RQPProcessId id) {
  RQPProcessEntry entry;
  return RQPReadProcessEntry(id, entry) ? entry.state : '\0';
}
}  // namespace

ServiceProcess::ServiceProcess(const std::string& iniExtra) : clientsPort_(FreePort()), netPort_(FreePort()) {
  while (netPort_ == clientsPort_) netPort_ = FreePort();
  // The shipped defaults with the test's own lines after them (a later key wins).
  // Many services run at once: none takes the shared monitoring port unless a test asks.
  dir_.write("Vantrel.ini", std::string(nEnvSettings::gBuiltInDefaults()) + "\nMonitorPort = 0\n" + iniExtra + "\n");
}

ServiceProcess::~ServiceProcess() {
  for (RQPProcessId successor : successors()) RQPKillProcess(successor);
  kill();
  // A sanitizer report of the service goes to its standard error, which only
  // this object sees: without this check a race or a leak in the service would
  // pass unnoticed whenever the test itself got its answers.
  const std::string output = ReadFile(dir_.file("output.txt"));
  for (const char* marker :
       {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer", "runtime error:"}) {
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
  // sh puts both output streams into one file and env sets the environment (the
  // test's own variables last, so that they win; the log goes where the
  // arguments say); each replaces itself, so the child's id is the program's.
  std::vector<std::string> args = launcher_;
  args.insert(args.end(),
              {"/bin/sh", "-c", "exec \"$@\" >> output.txt 2>&1", "sh", "/usr/bin/env", "-u", "VANTREL_LOG_FILE", "-u",
               "VANTREL_LOG_LEVEL", "VANTREL_INI=" + iniFile(), "RQ_BIN=" VANTREL_BINARY_DIR "/programs"});
  for (const auto& [name, value] : env_) args.push_back(name + "=" + value);
  args.insert(args.end(), {ProgramPath("vantrel"), "--log-file", logFile(), "--log-level", "debug"});
  for (const auto& [option, port] : {std::pair{"--clients-port", clientsPort_}, std::pair{"--net-port", netPort_}})
    if (port != 0) args.insert(args.end(), {option, std::to_string(port)});
  pid_ = RQPCreateProcessZ0(args.front(), {args.begin() + 1, args.end()}, {dir_.path(), false}).pid;
  exitCode_.reset();
  return pid_ > 0;
}

long ServiceProcess::rssKiB() const {
  const std::string status = ReadFile("/proc/" + std::to_string(pid_) + "/status");
  const std::size_t at = status.find("VmRSS:");
  return at == std::string::npos ? 0 : std::strtol(status.c_str() + at + 6, nullptr, 10);
}

long ServiceProcess::threads() const {
  std::error_code error;
  const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid_) + "/task", error);
  return error ? 0 : std::distance(begin(tasks), end(tasks));
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

bool ServiceProcess::launch() { return start() && waitLog("vantrel ready"); }

std::optional<int> ServiceProcess::waitExit(std::chrono::milliseconds timeout) {
  int code = 0;
  if (!exitCode_ && pid_ > 0 &&
      RQPWaitProcessFor(pid_, nTime::cDiff::FromMilliseconds(static_cast<double>(timeout.count())), &code) ==
          RQPWaitResult::exited) {
    exitCode_ = code;
    pid_ = -1;
  }
  return exitCode_;
}

std::optional<int> ServiceProcess::stop(std::chrono::milliseconds timeout) {
  if (pid_ > 0) ::kill(static_cast<pid_t>(pid_), SIGTERM);
  return waitExit(timeout);
}

void ServiceProcess::kill() {
  if (pid_ <= 0) return;
  RQPKillProcess(pid_);
  waitExit(std::chrono::seconds(10));
}

bool ServiceProcess::freeze(std::chrono::milliseconds timeout) {
  if (pid_ <= 0 || ::kill(static_cast<pid_t>(pid_), SIGSTOP) != 0) return false;
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid_) + "/task";
  return WaitUntil(
      [&] {
        std::error_code error;
        bool any = false;
        for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
          const char state = StateOf(std::stol(task.path().filename()));
          if (state == '\0') continue;  // the thread has just ended
          if (state != 'T' && state != 't') return false;
          any = true;
        }
        return !error && any;
      },
      timeout);
}

bool ServiceProcess::running() { return pid_ > 0 && !waitExit(std::chrono::milliseconds(0)).has_value(); }

std::vector<RQPProcessId> ServiceProcess::successors() const {
  std::vector<RQPProcessEntry> entries;
  std::vector<RQPProcessId> found;
  RQPEnumerateProcesses(entries);
  for (const RQPProcessEntry& entry : entries)
    if (entry.pid != pid_ && entry.state != 'Z' &&
        ReadFile("/proc/" + std::to_string(entry.pid) + "/cmdline").find(logFile()) != std::string::npos)
      found.push_back(entry.pid);
  return found;
}
}  // namespace vantrel::test
