#pragma once
// How the service ends itself when it meets a failure it cannot recover from:
// systemd restarts a unit's main process that exits with 42; a service started
// by hand starts its successor first. Internal header.
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "vantrel/service/vantrelclass.h"

namespace nSupervision {

// Exit status that asks for a restart.
inline constexpr int kRestartExitCode = CVantrelClass::kRestartExitCode;

// Kept for the relaunch; called once by the service program's main.
void gRememberProcessArguments(int argc, char** argv);

// True when this process is the main process of the running systemd unit.
bool gIsSystemdMainProcess();

// The program a relaunch starts: $RQ_BIN/vantrel, or this very program when
// RQ_BIN is unset or empty.
std::string gRelaunchProgram();

// The arguments a relaunch passes: the remembered ones plus "/w" (added once).
std::vector<std::string> gRelaunchArguments();

// Serialises relaunches, so that however many failures trigger the restart
// rule at once, one successor is started: the first caller in the process wins
// (later callers are told to wait for the process to end), and it must also take
// a system-wide lock for the net port, which it holds until the process ends.
// A caller that finds the lock taken leaves the successor to the process that
// holds it (a predecessor still on its way out, or another instance on the
// same port that is relaunching).
// Owner: the restart rule keeps one for the process; tests make their own. The
// lock file is closed only by the process's end. Threads: any, concurrently.
class cRelaunchGuard {
 public:
  enum class tClaim {
    eRelaunch,      // this caller starts the successor
    eThisProcess,   // another thread of this process is relaunching already
    eOtherProcess,  // another process holds the lock for this port
  };

  // Lock files go into `lockFolder` (the system-wide runtime folder in service).
  explicit cRelaunchGuard(std::string lockFolder);
  cRelaunchGuard(const cRelaunchGuard&) = delete;
  cRelaunchGuard& operator=(const cRelaunchGuard&) = delete;

  // Decides who relaunches the service on `netPort`. Only the first call in the
  // life of the object can return eRelaunch; the lock it took is kept.
  tClaim Claim(unsigned short netPort);
  // The lock file for `netPort`.
  std::string LockPath(unsigned short netPort) const;

 private:
  const std::string lockFolder_;
  std::atomic<bool> claimed_{false};
  std::mutex mutex_;  // guards lockHandle_
  int lockHandle_ = -1;
};

// Logs, relaunches when needed (once per process and net port, see
// cRelaunchGuard), flushes the log and ends the process with 42. Safe to call
// from any thread; never returns: a caller that loses the race to another
// thread blocks until that thread ends the process.
[[noreturn]] void gRestartVantrelProcess(unsigned short netPort);

}  // namespace nSupervision

using nSupervision::gRememberProcessArguments;
using nSupervision::gRestartVantrelProcess;
