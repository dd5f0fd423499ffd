#include "vantrel/base/platform/process.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

extern char** environ;

namespace {

std::string ErrorText(int code) { return std::system_category().message(code); }

// posix_spawn attributes and file actions, destroyed on every path.
class cSpawnSetup {
 public:
  cSpawnSetup() {
    posix_spawnattr_init(&attr_);
    posix_spawn_file_actions_init(&actions_);
  }
  ~cSpawnSetup() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attr_);
  }
  cSpawnSetup(const cSpawnSetup&) = delete;
  cSpawnSetup& operator=(const cSpawnSetup&) = delete;

  // Every child starts with an empty signal mask and default dispositions: the
  // service ignores SIGPIPE, and ignored signals would otherwise survive exec.
  int Prepare(bool newSession, const std::string& folder) {
    sigset_t empty;
    sigemptyset(&empty);
    sigset_t all;
    sigemptyset(&all);
    for (int sig = 1; sig < NSIG; ++sig) {
      if (sig != SIGKILL && sig != SIGSTOP) sigaddset(&all, sig);
    }
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (newSession) flags |= POSIX_SPAWN_SETSID;
    int rc = posix_spawnattr_setflags(&attr_, flags);
    if (rc == 0) rc = posix_spawnattr_setsigmask(&attr_, &empty);
    if (rc == 0) rc = posix_spawnattr_setsigdefault(&attr_, &all);
    if (rc == 0 && !folder.empty()) rc = posix_spawn_file_actions_addchdir_np(&actions_, folder.c_str());
    return rc;
  }
  int NullStream(int fd, int mode) { return posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", mode, 0); }
  int Dup(int from, int to) { return posix_spawn_file_actions_adddup2(&actions_, from, to); }
  // Nothing but the standard streams reaches the child, whatever the rest of the
  // process forgot to mark close-on-exec.
  int CloseRest() { return posix_spawn_file_actions_addclosefrom_np(&actions_, 3); }

  RQPSpawnResult Spawn(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 2);
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    RQPSpawnResult result;
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, program.c_str(), &actions_, &attr_, argv.data(), environ);
    if (rc != 0) return Failure(program, rc);
    result.pid = pid;
    return result;
  }

  static RQPSpawnResult Failure(const std::string& program, int code) {
    RQPSpawnResult result;
    result.errorCode = code;
    result.errorText = "cannot start " + program + ": " + ErrorText(code);
    return result;
  }

 private:
  posix_spawnattr_t attr_;
  posix_spawn_file_actions_t actions_;
};

int DecodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Reaps `pid` if it has ended. 1 reaped, 0 still running, -1 error.
int TryReap(pid_t pid, int* exitCode) {
  int status = 0;
  pid_t rc;
  do {
    rc = waitpid(pid, &status, WNOHANG);
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) return -1;
  if (rc == 0) return 0;
  if (exitCode != nullptr) *exitCode = DecodeStatus(status);
  return 1;
}

int PidFdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  errno = ENOSYS;
  return -1;
#endif
}

int MillisecondsLeft(std::chrono::steady_clock::time_point deadline) {
  // Rounded up: poll must not return before the deadline.
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return 0;
  return static_cast<int>(std::min<long long>(left.count(), 1000 * 1000));
}

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path);
  if (!in) return std::string();
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Basename(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ReadLink(const std::string& path) {
  std::string buffer(256, '\0');
  for (;;) {
    const ssize_t n = readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return std::string();
    if (static_cast<std::size_t>(n) < buffer.size()) {
      buffer.resize(static_cast<std::size_t>(n));
      return buffer;
    }
    if (buffer.size() >= 65536) return std::string();
    buffer.resize(buffer.size() * 2);
  }
}

bool IsExecutableFile(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

RQPSpawnResult RQPCreateProcessZ0(const std::string& program, const std::vector<std::string>& arguments,
                                  const RQPProcessOptions& options) {
  if (program.empty()) return cSpawnSetup::Failure("(no program)", ENOENT);
  // A missing folder would otherwise be reported with the same code as a missing
  // program; checking first gives the reader the right culprit.
  if (!options.workingFolder.empty()) {
    struct stat st {};
    if (stat(options.workingFolder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      const int code = errno != 0 ? errno : ENOTDIR;
      RQPSpawnResult result = cSpawnSetup::Failure(program, code);
      result.errorText = "cannot start " + program + " in " + options.workingFolder + ": " + ErrorText(code);
      return result;
    }
  }
  cSpawnSetup setup;
  int rc = setup.Prepare(options.detached, options.workingFolder);
  if (rc == 0 && options.detached) {
    rc = setup.NullStream(0, O_RDONLY);
    if (rc == 0) rc = setup.NullStream(1, O_WRONLY);
    if (rc == 0 && !options.keepStandardError) rc = setup.NullStream(2, O_WRONLY);
  }
  if (rc == 0) rc = setup.CloseRest();
  if (rc != 0) return cSpawnSetup::Failure(program, rc);
  return setup.Spawn(program, arguments);
}

bool RQPWaitProcess(RQPProcessId pid, int* exitCode) {
  if (pid <= 0) return false;
  int status = 0;
  pid_t rc;
  do {
    rc = waitpid(static_cast<pid_t>(pid), &status, 0);
  } while (rc < 0 && errno == EINTR);
  if (rc < 0) return false;
  if (exitCode != nullptr) *exitCode = DecodeStatus(status);
  return true;
}

RQPWaitResult RQPWaitProcessFor(RQPProcessId pid, nTime::cDiff timeout, int* exitCode) {
  if (pid <= 0) return RQPWaitResult::failed;
  const pid_t child = static_cast<pid_t>(pid);
  const auto deadline = std::chrono::steady_clock::now() + timeout.Chrono();
  int reaped = TryReap(child, exitCode);
  if (reaped != 0) return reaped > 0 ? RQPWaitResult::exited : RQPWaitResult::failed;
  if (timeout.Microseconds() <= 0) return RQPWaitResult::timedOut;

  // A process descriptor becomes readable when the child ends: no polling.
  const int pidfd = PidFdOpen(child);
  if (pidfd >= 0) {
    for (;;) {
      pollfd p{pidfd, POLLIN, 0};
      const int n = poll(&p, 1, MillisecondsLeft(deadline));
      if (n < 0 && errno == EINTR) continue;
      break;
    }
    close(pidfd);
    reaped = TryReap(child, exitCode);
    if (reaped != 0) return reaped > 0 ? RQPWaitResult::exited : RQPWaitResult::failed;
    return RQPWaitResult::timedOut;
  }
  // Kernels without process descriptors: test in short steps up to the deadline.
  for (;;) {
    reaped = TryReap(child, exitCode);
    if (reaped != 0) return reaped > 0 ? RQPWaitResult::exited : RQPWaitResult::failed;
    if (std::chrono::steady_clock::now() >= deadline) return RQPWaitResult::timedOut;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool RQPWaitProcessExit(RQPProcessId pid) {
  if (pid <= 0) return false;
  siginfo_t info{};
  int rc;
  do {
    rc = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  } while (rc < 0 && errno == EINTR);
  return rc == 0;
}

bool RQPKillProcess(RQPProcessId pid) {
  if (pid <= 0) return false;
  return kill(static_cast<pid_t>(pid), SIGKILL) == 0;
}

RQPRunResult RQPRunAndCapture(const std::string& program, const std::vector<std::string>& arguments,
                              nTime::cDiff timeout) {
  constexpr std::size_t kMaxOutput = 64 * 1024;
  RQPRunResult result;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    result.errorText = "cannot start " + program + ": " + ErrorText(errno);
    return result;
  }
  RQPSpawnResult spawned;
  {
    cSpawnSetup setup;
    int rc = setup.Prepare(false, std::string());
    if (rc == 0) rc = setup.NullStream(0, O_RDONLY);
    if (rc == 0) rc = setup.Dup(fds[1], 1);
    if (rc == 0) rc = setup.NullStream(2, O_WRONLY);
    if (rc == 0) rc = setup.CloseRest();
    spawned = rc == 0 ? setup.Spawn(program, arguments) : cSpawnSetup::Failure(program, rc);
  }
  close(fds[1]);
  if (!spawned.ok()) {
    close(fds[0]);
    result.errorText = spawned.errorText;
    return result;
  }
  result.started = true;

  const auto deadline = std::chrono::steady_clock::now() + timeout.Chrono();
  char buffer[4096];
  for (;;) {
    pollfd p{fds[0], POLLIN, 0};
    const int n = poll(&p, 1, MillisecondsLeft(deadline));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      result.timedOut = true;
      break;
    }
    const ssize_t got = read(fds[0], buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // end of output: the child closed its end
    const std::size_t room = kMaxOutput - std::min(kMaxOutput, result.output.size());
    result.output.append(buffer, std::min(room, static_cast<std::size_t>(got)));
  }
  close(fds[0]);

  if (!result.timedOut) {
    const auto left = deadline - std::chrono::steady_clock::now();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
    const RQPWaitResult waited = RQPWaitProcessFor(spawned.pid, nTime::cDiff::FromMicroseconds(us), &result.exitCode);
    if (waited == RQPWaitResult::exited) return result;
    result.timedOut = waited == RQPWaitResult::timedOut;
  }
  // Over time (or the output closed early and the child lingers): end it and reap.
  RQPKillProcess(spawned.pid);
  RQPWaitProcess(spawned.pid, nullptr);
  result.exitCode = -1;
  result.timedOut = true;
  return result;
}

std::string RQPFindProgram(const std::string& name) {
  if (name.empty()) return std::string();
  if (name.find('/') != std::string::npos) return IsExecutableFile(name) ? name : std::string();
  const char* path = getenv("PATH");
  const std::string folders = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= folders.size()) {
    std::size_t end = folders.find(':', start);
    if (end == std::string::npos) end = folders.size();
    std::string folder = folders.substr(start, end - start);
    if (folder.empty()) folder = ".";
    const std::string candidate = folder + "/" + name;
    if (IsExecutableFile(candidate)) return candidate;
    start = end + 1;
  }
  return std::string();
}

bool RQPReadProcessEntry(RQPProcessId pid, RQPProcessEntry& entry) {
  const std::string base = "/proc/" + std::to_string(pid);
  const std::string status = ReadWhole(base + "/status");
  if (status.empty()) return false;

  RQPProcessEntry e;
  e.pid = pid;
  bool haveUid = false;
  std::istringstream lines(status);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("Name:", 0) == 0) {
      // The name may hold blanks; only the tab after the colon separates.
      std::size_t from = 5;
      while (from < line.size() && (line[from] == '\t' || line[from] == ' ')) ++from;
      e.imageName = line.substr(from);
    } else if (line.rfind("State:", 0) == 0) {
      std::istringstream in(line.substr(6));
      std::string state;
      if (in >> state && !state.empty()) e.state = state[0];
    } else if (line.rfind("Uid:", 0) == 0) {
      std::istringstream in(line.substr(4));
      unsigned long real = 0, effective = 0;
      if (in >> real >> effective) {
        e.realUid = static_cast<std::uint32_t>(real);
        e.effectiveUid = static_cast<std::uint32_t>(effective);
        haveUid = true;
      }
    }
  }
  if (!haveUid) return false;

  std::string exe = ReadLink(base + "/exe");
  const std::string deleted = " (deleted)";
  if (exe.size() > deleted.size() && exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0)
    exe.resize(exe.size() - deleted.size());
  e.exeName = Basename(exe);

  // The audit login session says "unset" as (uint32)-1; then the process
  // session is the closest thing to a login session.
  const std::string login = ReadWhole(base + "/sessionid");
  char* end = nullptr;
  const unsigned long long loginSession = strtoull(login.c_str(), &end, 10);
  if (end != login.c_str() && loginSession != 0xFFFFFFFFull) {
    e.sessionId = static_cast<std::int64_t>(loginSession);
  } else {
    const pid_t sid = getsid(static_cast<pid_t>(pid));
    e.sessionId = sid >= 0 ? sid : -1;
  }
  entry = std::move(e);
  return true;
}

bool RQPEnumerateProcesses(std::vector<RQPProcessEntry>& entries, std::string* error) {
  entries.clear();
  DIR* dir = opendir("/proc");
  if (dir == nullptr) {
    if (error != nullptr) *error = "cannot read /proc: " + ErrorText(errno);
    return false;
  }
  std::vector<RQPProcessId> pids;
  while (dirent* d = readdir(dir)) {
    char* end = nullptr;
    const long pid = strtol(d->d_name, &end, 10);
    if (end != d->d_name && *end == '\0' && pid > 0) pids.push_back(pid);
  }
  closedir(dir);
  std::sort(pids.begin(), pids.end());
  entries.reserve(pids.size());
  for (RQPProcessId pid : pids) {
    RQPProcessEntry entry;
    if (RQPReadProcessEntry(pid, entry)) entries.push_back(std::move(entry));
  }
  return true;
}

RQPProcessId RQPCurrentProcessId() { return static_cast<RQPProcessId>(getpid()); }

RQPProcessEntry RQPCurrentProcessIdentity() {
  RQPProcessEntry self;
  self.pid = RQPCurrentProcessId();
  self.realUid = static_cast<std::uint32_t>(getuid());
  self.effectiveUid = static_cast<std::uint32_t>(geteuid());
  self.sessionId = getsid(0);
  return self;
}

std::string RQPExecutablePath() {
  // The link itself still starts this program when it cannot be read.
  const std::string path = ReadLink("/proc/self/exe");
  return path.empty() ? std::string("/proc/self/exe") : path;
}

bool RQPSetEnvironment(const std::string& name, const std::string& value) {
  return setenv(name.c_str(), value.c_str(), 1) == 0;
}

bool RQPUnsetEnvironment(const std::string& name) { return unsetenv(name.c_str()) == 0; }

void RQPExitNow(int code) { _exit(code); }

bool RQPUserName(std::uint32_t uid, std::string& name, int* errorCode) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  if (size <= 0) size = 1024;
  std::vector<char> buffer(static_cast<std::size_t>(size));
  for (;;) {
    passwd pwd{};
    passwd* found = nullptr;
    const int rc = getpwuid_r(static_cast<uid_t>(uid), &pwd, buffer.data(), buffer.size(), &found);
    if (rc == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (errorCode != nullptr) *errorCode = rc;
    if (rc != 0 || found == nullptr) return false;
    name = found->pw_name;
    return true;
  }
}
