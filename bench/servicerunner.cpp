#include "bench/servicerunner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "vantrel/base/platform/process.h"
#include "vantrel/client/vantrelclientobj.h"

namespace vantrel::bench {

namespace {
constexpr auto kProbeInterval = std::chrono::milliseconds(20);
constexpr auto kStopTimeout = std::chrono::seconds(20);
}  // namespace

namespace {
std::string& ExtraSettings() {
  static std::string text;
  return text;
}
}  // namespace

void AddBenchSetting(const std::string& line) { ExtraSettings() += "\n" + line + "\n"; }

std::string BenchSettingsText() {
  // The shipped defaults (TLS and clock corrections are off there).
  std::ifstream in(VANTREL_DEFAULT_INI);
  std::ostringstream text;
  text << in.rdbuf() << ExtraSettings();
  // Services of one run must not contend for the shared monitoring port.
  text << "\nMonitorPort = 0\n";
  return text.str();
}

unsigned short FreeTcpPort(bool loopbackOnly) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(loopbackOnly ? INADDR_LOOPBACK : INADDR_ANY);
  address.sin_port = 0;
  unsigned short port = 0;
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  ::close(fd);
  return port;
}

cBenchService::cBenchService(std::string program, std::string logLevel)
    : program_(std::move(program)), logLevel_(std::move(logLevel)) {}

cBenchService::~cBenchService() {
  if (pid_ > 0) Stop();
  if (!folder_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
}

bool cBenchService::Running() {
  if (pid_ <= 0) return false;
  int code = 0;
  if (RQPWaitProcessFor(pid_, nTime::cDiff(), &code) != RQPWaitResult::timedOut) {
    error_ = "the service ended during start-up (exit " + std::to_string(code) + "); see " + LogFile();
    pid_ = 0;
    return false;
  }
  return true;
}

bool cBenchService::Start(std::chrono::milliseconds timeout) {
  if (folder_.empty()) {
    std::string pattern = (std::filesystem::temp_directory_path() / "vantrel-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      error_ = "cannot create a temporary folder";
      return false;
    }
    folder_ = pattern;
    std::ofstream(SettingsFile()) << BenchSettingsText() << "MonitorPort = " << monitorPort_ << "\n";
  }
  clientsPort_ = FreeTcpPort(true);
  do netPort_ = FreeTcpPort(false);
  while (netPort_ == clientsPort_);
  if (clientsPort_ == 0 || netPort_ == 0) {
    error_ = "no free port";
    return false;
  }

  RQPProcessOptions options;
  options.workingFolder = folder_;
  const RQPSpawnResult spawned =
      RQPCreateProcessZ0(program_,
                         {"--clients-port", std::to_string(clientsPort_), "--net-port", std::to_string(netPort_),
                          "--config", SettingsFile(), "--log-file", LogFile(), "--log-level", logLevel_},
                         options);
  if (!spawned.ok()) {
    error_ = spawned.errorText;
    return false;
  }
  pid_ = spawned.pid;

  // Registering is what a client does anyway; a refused connection only means
  // the listener is not up yet.
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (!Running()) return false;
    cVantrelClientObject probe;
    if (probe.NETInitZ641("vantrel-bench-probe", clientsPort_)) {
      probe.NETTerminate();
      return true;
    }
    std::this_thread::sleep_for(kProbeInterval);
  }
  error_ = "no client could register within " + std::to_string(timeout.count()) + " ms; see " + LogFile();
  Stop();
  return false;
}

std::uint64_t cBenchService::CpuNanoseconds() const {
  std::uint64_t total = 0;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid_) + "/task", error)) {
    std::ifstream in(task.path() / "schedstat");
    std::uint64_t onCpu = 0;
    if (in >> onCpu) total += onCpu;
  }
  return total;
}

int cBenchService::Stop() {
  if (pid_ <= 0) return -1;
  ::kill(static_cast<pid_t>(pid_), SIGTERM);
  int code = -1;
  if (RQPWaitProcessFor(pid_,
                        nTime::cDiff::FromMilliseconds(std::chrono::duration<double, std::milli>(kStopTimeout).count()),
                        &code) != RQPWaitResult::exited) {
    RQPKillProcess(pid_);
    RQPWaitProcess(pid_);
    code = -1;
  }
  pid_ = 0;
  return code;
}

}  // namespace vantrel::bench
