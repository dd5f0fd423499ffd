#pragma once
// Clock resynchronisation driven by measured message latency.
//
// The socket layer measures the latency of every received frame against a
// latency configuration. Host links use the network configuration: a latency
// above its threshold asks the resynchroniser to run the clock command, at most
// once per cool-down and never twice at the same time. Local client links use the
// local configuration, which only logs.
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/platform/time.h"
#include "vantrel/base/socket/latency.h"

namespace nClock {

using iLatencyConfiguration = nCommunication::nSocket::nImplementation_sho::iLatencyConfiguration;

enum class htStatus { running, waiting };

// The command that resynchronises the clock. The command line is the program's
// whole command line: its first word names the program (as argv[0]), the other
// words are its arguments; blanks inside double or single quotes do not split.
struct cResynchCommand {
  std::string program;
  std::string commandLine;
  std::string workingFolder;
};

// Splits a command line into words (quotes removed) as described above.
std::vector<std::string> gSplitCommandLine(const std::string& commandLine);

// The built-in command: "chronyc makestep" when chronyc is installed (a one-shot
// step of the clock to the time sources chrony already follows), otherwise a
// restart of systemd-timesyncd, which synchronises once as it starts.
cResynchCommand gBuiltInResynchCommand();

// Runs the clock command on its own thread ("ClkResync") when notified of a
// latency that passes the cool-down test.
// Owner: the clock process object (or a test). Owns: its worker thread and, while
// a run is under way, the command's child process.
// Threads: Notify is called by the socket layer's reader threads of every host
// link; the worker runs the command; Stop and the destructor run on the owner's
// thread. Status and last run are guarded by one lock.
class cProcessResynch {
 public:
  cProcessResynch(nTime::cDiff cooldown, cResynchCommand command);
  // Stops the worker (killing a command still running) and joins it.
  ~cProcessResynch();
  cProcessResynch(const cProcessResynch&) = delete;
  cProcessResynch& operator=(const cProcessResynch&) = delete;

  // A latency above the threshold was measured. Starts a run unless one is
  // under way or the cool-down has not passed; a latency longer than the whole
  // cool-down passes at once.
  void Notify(nTime::cDiff latency);

  // Ends the worker; later notifications are ignored. Idempotent.
  void Stop();

  htStatus Status() const;
  nTime::cPoint LastRun() const;
  // Number of finished runs (started or not).
  std::uint64_t Runs() const;
  const cResynchCommand& Command() const { return command_; }

 private:
  void WorkerLoop();
  void RunCommand();

  const nTime::cDiff cooldown_;
  const cResynchCommand command_;
  mutable std::mutex lock_;
  std::condition_variable wakeUp_;
  htStatus status_ = htStatus::waiting;
  nTime::cPoint lastRun_{};
  std::uint64_t runs_ = 0;
  bool stop_ = false;
  RQPProcessId child_ = 0;  // the command while it runs, so that Stop can end it
  vantrel::platform::cThread thread_;
};

// Latency configuration of host links: passes every latency above the threshold
// to the resynchroniser, when there is one.
// Owner: the clock process object. Refers to (does not own) the resynchroniser,
// which outlives it. Threads: the socket layer's readers, concurrently.
class cLatencyConfigurationNet : public iLatencyConfiguration {
 public:
  cLatencyConfigurationNet(nTime::cDiff threshold, nTime::cDiff logThreshold, nTime::cDiff normalLogThreshold,
                           cProcessResynch* resynch);
  void OnLatencyAboveThreshold(nTime::cDiff latency) override;

 private:
  cProcessResynch* resynch_;
};

// Latency configuration of local client links: measured and logged by the socket
// layer, never a reason to touch the clock.
// Owner: the clock process object. Threads: the socket layer's readers.
class cLatencyConfigurationLocal : public iLatencyConfiguration {
 public:
  cLatencyConfigurationLocal(nTime::cDiff threshold, nTime::cDiff logThreshold, nTime::cDiff normalLogThreshold,
                             cProcessResynch* resynch);
  void OnLatencyAboveThreshold(nTime::cDiff latency) override;

 private:
  cProcessResynch* resynch_;  // kept for symmetry; never used
};

// The clock settings, read from the settings table.
struct cClockSettings {
  int update = 0;  // 0 off, 1 built-in command, 2 the configured command
  nTime::cDiff cooldown;
  cResynchCommand command;  // when update is 2
  nTime::cDiff netThreshold = nTime::cDiff::FromMilliseconds(4000);
  nTime::cDiff netLogThreshold = nTime::cDiff::FromMilliseconds(2000);
  nTime::cDiff netNormalLogThreshold = nTime::cDiff::FromMilliseconds(3250);
  nTime::cDiff localThreshold = nTime::cDiff::FromMilliseconds(1000);
  nTime::cDiff localLogThreshold = nTime::cDiff::FromMilliseconds(500);
  nTime::cDiff localNormalLogThreshold = nTime::cDiff::FromMilliseconds(500);
};

// Reads the thresholds from the table; the resynchronisation keys only when
// `withResynch` (a process that does not resynchronise needs none of them).
cClockSettings gReadClockSettings(int table, bool withResynch);

// The process's latency configurations and its optional resynchroniser.
// Owner: the process (Instance, never destroyed, so that reader threads still
// running at exit find valid configurations; the resynchroniser's thread is
// stopped and joined at exit) or a test. Owns the resynchroniser and both
// configurations. Threads: built once, then read by any thread.
class cProcess {
 public:
  explicit cProcess(const cClockSettings& settings);
  ~cProcess();
  cProcess(const cProcess&) = delete;
  cProcess& operator=(const cProcess&) = delete;

  // Built on first use from the settings file. Only a process that called
  // gActivateProcess before that gets a resynchroniser.
  static cProcess& Instance();

  iLatencyConfiguration* Net() { return &net_; }
  iLatencyConfiguration* Local() { return &local_; }
  cProcessResynch* Resynch() { return resynch_.get(); }

 private:
  static std::unique_ptr<cProcessResynch> MakeResynch(const cClockSettings& settings);

  std::unique_ptr<cProcessResynch> resynch_;  // built first: the network configuration refers to it
  cLatencyConfigurationNet net_;
  cLatencyConfigurationLocal local_;
};

// Marks this process as one that resynchronises the clock (the service calls it
// at start-up, before any link exists). Does nothing else.
void gActivateProcess();
bool gIsProcessActivated();

}  // namespace nClock
