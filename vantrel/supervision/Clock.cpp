#include "vantrel/supervision/Clock.h"

#include <atomic>
#include <utility>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/log/log.h"

namespace nClock {

namespace {

std::atomic<int> gActivated{0};

double Now() { return RQPSysTime(); }

}  // namespace

std::vector<std::string> gSplitCommandLine(const std::string& commandLine) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  char quote = '\0';
  for (char c : commandLine) {
    if (quote != '\0') {
      if (c == quote) {
        quote = '\0';
      } else {
        word.push_back(c);
      }
    } else if (c == '"' || c == '\'') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t') {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word.push_back(c);
      inWord = true;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return words;
}

cResynchCommand gBuiltInResynchCommand() {
  const std::string chronyc = RQPFindProgram("chronyc");
  if (!chronyc.empty()) return {chronyc, chronyc + " makestep", "/"};
  std::string systemctl = RQPFindProgram("systemctl");
  if (systemctl.empty()) systemctl = "/usr/bin/systemctl";
  return {systemctl, systemctl + " restart systemd-timesyncd", "/"};
}

// ---- cProcessResynch ----------------------------------------------------------

cProcessResynch::cProcessResynch(nTime::cDiff cooldown, cResynchCommand command)
    : cooldown_(cooldown), command_(std::move(command)) {
  thread_.Start([this] { WorkerLoop(); }, "ClkResync", "nClock:cProcessResynch:Synch");
}

cProcessResynch::~cProcessResynch() { Stop(); }

void cProcessResynch::Stop() {
  {
    std::lock_guard<std::mutex> lock(lock_);
    stop_ = true;
    // The child is not reaped before child_ is cleared, so this id is still ours.
    if (child_ > 0) RQPKillProcess(child_);
  }
  wakeUp_.notify_all();
  if (!thread_.IsCurrentThread()) thread_.Join();
}

void cProcessResynch::Notify(nTime::cDiff latency) {
  std::unique_lock<std::mutex> lock(lock_);
  if (stop_) return;
  if (status_ == htStatus::running) {
    VLOG_DEBUG("nClock:cProcessResynch:Synch latency is still in run");
    return;
  }
  const nTime::cDiff elapsed = nTime::cPoint::Now() - lastRun_;
  // A latency longer than the whole cool-down means the clocks are far apart:
  // waiting out the cool-down would only prolong that.
  const bool passed = cooldown_ < latency.Abs() || cooldown_ < elapsed;
  if (!passed) {
    VLOG_DEBUG("nClock:cProcessResynch:Synch latency cooldown not passed");
    return;
  }
  VLOG_INFO("nClock:cProcessResynch:Synch latency notify");
  status_ = htStatus::running;
  lock.unlock();
  wakeUp_.notify_all();
}

htStatus cProcessResynch::Status() const {
  std::lock_guard<std::mutex> lock(lock_);
  return status_;
}

nTime::cPoint cProcessResynch::LastRun() const {
  std::lock_guard<std::mutex> lock(lock_);
  return lastRun_;
}

std::uint64_t cProcessResynch::Runs() const {
  std::lock_guard<std::mutex> lock(lock_);
  return runs_;
}

void cProcessResynch::WorkerLoop() {
  std::unique_lock<std::mutex> lock(lock_);
  for (;;) {
    wakeUp_.wait(lock, [this] { return stop_ || status_ == htStatus::running; });
    if (stop_) return;
    lock.unlock();
    RunCommand();
    lock.lock();
    lastRun_ = nTime::cPoint::Now();
    ++runs_;
    status_ = htStatus::waiting;
  }
}

void cProcessResynch::RunCommand() {
  VLOG_INFO("nClock:cProcessResynch:Synch before clock latency synch: %.6f", Now());
  std::vector<std::string> words = gSplitCommandLine(command_.commandLine);
  // The first word of a command line names the program; the program to start is
  // the separate program text.
  if (!words.empty()) words.erase(words.begin());
  RQPProcessOptions options;
  options.workingFolder = command_.workingFolder;
  const RQPSpawnResult spawned = RQPCreateProcessZ0(command_.program, words, options);
  if (!spawned.ok()) {
    VLOG_ERROR("nClock:cProcessResynch:Synch - %s", spawned.errorText);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(lock_);
    child_ = spawned.pid;
    if (stop_) RQPKillProcess(child_);
  }
  RQPWaitProcessExit(spawned.pid);
  {
    std::lock_guard<std::mutex> lock(lock_);
    child_ = 0;
  }
  int exitCode = -1;
  RQPWaitProcess(spawned.pid, &exitCode);
  VLOG_INFO("nClock:cProcessResynch:Synch after clock latency synch: %.6f (exit code %d)", Now(), exitCode);
}

// ---- latency configurations ---------------------------------------------------

cLatencyConfigurationNet::cLatencyConfigurationNet(nTime::cDiff threshold, nTime::cDiff logThreshold,
                                                   nTime::cDiff normalLogThreshold, cProcessResynch* resynch)
    : iLatencyConfiguration(threshold, logThreshold, normalLogThreshold), resynch_(resynch) {}

void cLatencyConfigurationNet::OnLatencyAboveThreshold(nTime::cDiff latency) {
  if (resynch_ != nullptr) resynch_->Notify(latency);
}

cLatencyConfigurationLocal::cLatencyConfigurationLocal(nTime::cDiff threshold, nTime::cDiff logThreshold,
                                                       nTime::cDiff normalLogThreshold, cProcessResynch* resynch)
    : iLatencyConfiguration(threshold, logThreshold, normalLogThreshold), resynch_(resynch) {}

void cLatencyConfigurationLocal::OnLatencyAboveThreshold(nTime::cDiff) {}

// ---- settings and the process object ------------------------------------------

cClockSettings gReadClockSettings(int table, bool withResynch) {
  using nVantrelIni::gReadIntWithDefault;
  const auto ms = [](int value) { return nTime::cDiff::FromMilliseconds(value); };
  cClockSettings s;
  s.localNormalLogThreshold = ms(gReadIntWithDefault(table, "LatencyClockLocalThresholdLogNormal", 500));
  s.localLogThreshold = ms(gReadIntWithDefault(table, "LatencyClockLocalThresholdLog", 500));
  s.localThreshold = ms(gReadIntWithDefault(table, "LatencyClockLocalThreshold", 1000));
  s.netNormalLogThreshold = ms(gReadIntWithDefault(table, "LatencyClockNetThresholdLogNormal", 3250));
  s.netLogThreshold = ms(gReadIntWithDefault(table, "LatencyClockNetThresholdLog", 2000));
  s.netThreshold = ms(gReadIntWithDefault(table, "LatencyClockNetThreshold", 4000));
  if (!withResynch) return s;

  s.update = nVantrelIni::gReadIntRequired(table, "LatencyClockUpdate");
  if (s.update == 0) return s;
  s.cooldown = ms(nVantrelIni::gReadIntRequired(table, "LatencyClockUpdateCooldown"));
  if (s.update == 2) {
    s.command.workingFolder = nVantrelIni::gReadStringRequired(table, "LatencyClockUpdateCommandX2");
    s.command.commandLine = nVantrelIni::gReadStringRequired(table, "LatencyClockUpdateCommandX1");
    s.command.program = nVantrelIni::gReadStringRequired(table, "LatencyClockUpdateCommandX0");
  }
  return s;
}

std::unique_ptr<cProcessResynch> cProcess::MakeResynch(const cClockSettings& settings) {
  switch (settings.update) {
    case 0:
      return nullptr;
    case 1:
      return std::make_unique<cProcessResynch>(settings.cooldown, gBuiltInResynchCommand());
    case 2:
      if (settings.command.program.empty()) {
        VLOG_ERROR("nClock::cProcess - LatencyClockUpdateCommandX0 is empty; no clock resynchronisation");
        return nullptr;
      }
      return std::make_unique<cProcessResynch>(settings.cooldown, settings.command);
    default:
      VLOG_ERROR("nClock::cProcess - LatencyClockUpdate %d is not 0, 1 or 2; no clock resynchronisation",
                 settings.update);
      return nullptr;
  }
}

cProcess::cProcess(const cClockSettings& settings)
    : resynch_(MakeResynch(settings)),
      net_(settings.netThreshold, settings.netLogThreshold, settings.netNormalLogThreshold, resynch_.get()),
      local_(settings.localThreshold, settings.localLogThreshold, settings.localNormalLogThreshold, resynch_.get()) {}

cProcess::~cProcess() = default;

namespace {

// Stops the process object's resynchroniser at exit, while the log still exists
// (it is constructed after the log's first use, so it is destroyed before it).
struct cResynchStopper {
  cProcess* process = nullptr;
  ~cResynchStopper() {
    if (process != nullptr && process->Resynch() != nullptr) process->Resynch()->Stop();
  }
};

}  // namespace

cProcess& cProcess::Instance() {
  static cProcess* instance = [] {
    auto* p = new cProcess(gReadClockSettings(gIniTable(), gIsProcessActivated()));
    return p;
  }();
  static cResynchStopper stopper{instance};
  return *instance;
}

void gActivateProcess() { gActivated.store(1, std::memory_order_release); }

bool gIsProcessActivated() { return gActivated.load(std::memory_order_acquire) != 0; }

namespace {

using nCommunication::nSocket::nImplementation_sho::tLatencyPath;

// The process object's configurations, for every socket reader of this process,
// in the client library and in the service alike. Installed when the library is
// loaded; the process object itself is built on first use.
iLatencyConfiguration* ProcessConfiguration(tLatencyPath path) {
  cProcess& process = cProcess::Instance();
  return path == tLatencyPath::net ? process.Net() : process.Local();
}

const bool gSourceInstalled =
    (nCommunication::nSocket::nImplementation_sho::gSetLatencyConfigurationSource(&ProcessConfiguration), true);

}  // namespace

}  // namespace nClock
