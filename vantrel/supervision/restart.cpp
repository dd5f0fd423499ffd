#include "vantrel/supervision/restart.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/lockfile.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/servicemanager.h"

namespace nSupervision {

namespace {

std::mutex gArgumentsMutex;
std::vector<std::string> gArguments;  // argv[1..] of the service program

}  // namespace

void gRememberProcessArguments(int argc, char** argv) {
  std::lock_guard<std::mutex> lock(gArgumentsMutex);
  gArguments.clear();
  for (int i = 1; i < argc && argv != nullptr; ++i) {
    if (argv[i] != nullptr) gArguments.emplace_back(argv[i]);
  }
}

bool gIsSystemdMainProcess() {
  // systemd gives every process it starts for a unit an invocation id; without
  // one, asking systemd would only cost time.
  RQEnvContainerClass env;
  const char* invocation = env.RQEGetEnv("INVOCATION_ID");
  if (invocation == nullptr || *invocation == '\0') return false;
  const std::string systemctl = RQPFindProgram("systemctl");
  if (systemctl.empty()) return false;
  const RQPRunResult run =
      RQPRunAndCapture(systemctl, {"show", "-p", "MainPID", "vantrel.service"}, nTime::cDiff::FromSeconds(5));
  if (!run.started || run.timedOut || run.exitCode != 0) return false;
  const std::string prefix = "MainPID=";
  const auto at = run.output.find(prefix);
  if (at == std::string::npos) return false;
  const long mainPid = std::strtol(run.output.c_str() + at + prefix.size(), nullptr, 10);
  return mainPid > 0 && mainPid == static_cast<long>(RQPCurrentProcessId());
}

std::string gRelaunchProgram() {
  RQEnvContainerClass env;
  const char* bin = env.RQEGetEnv("RQ_BIN");
  if (bin != nullptr && *bin != '\0') return env.RQERuntimeResolve("#(RQ_BIN)/vantrel");
  return RQPExecutablePath();
}

std::vector<std::string> gRelaunchArguments() {
  std::vector<std::string> arguments;
  {
    std::lock_guard<std::mutex> lock(gArgumentsMutex);
    arguments = gArguments;
  }
  // A successor that restarts again must not collect one "/w" per generation.
  if (std::find(arguments.begin(), arguments.end(), "/w") == arguments.end()) arguments.emplace_back("/w");
  return arguments;
}

cRelaunchGuard::cRelaunchGuard(std::string lockFolder) : lockFolder_(std::move(lockFolder)) {}

std::string cRelaunchGuard::LockPath(unsigned short netPort) const {
  return lockFolder_ + "/QXVantrel-relaunch-" + std::to_string(netPort) + ".lock";
}

cRelaunchGuard::tClaim cRelaunchGuard::Claim(unsigned short netPort) {
  if (claimed_.exchange(true, std::memory_order_acq_rel)) return tClaim::eThisProcess;
  std::string error;
  bool lockedElsewhere = false;
  const int handle = RQPLockFileExclusive(LockPath(netPort), &error, &lockedElsewhere);
  if (handle < 0 && lockedElsewhere) {
    VLOG_ERROR("cRelaunchGuard::Claim - no relaunch from this process: %s", error);
    return tClaim::eOtherProcess;
  }
  // A lock that cannot be had at all must not leave the service without a
  // successor: relaunch, unserialised against other processes.
  if (handle < 0) VLOG_ERROR("cRelaunchGuard::Claim - relaunching without the lock: %s", error);
  std::lock_guard<std::mutex> lock(mutex_);
  lockHandle_ = handle;  // held until the process ends
  return tClaim::eRelaunch;
}

void gRestartVantrelProcess(unsigned short netPort) {
  // Never destroyed: the lock it holds must outlive every other thread.
  static cRelaunchGuard* const guard = new cRelaunchGuard(RQPRuntimeFolder(true));
  const cRelaunchGuard::tClaim claim = guard->Claim(netPort);
  if (claim == cRelaunchGuard::tClaim::eThisProcess) {
    // The winning thread ends the process; nothing must happen here meanwhile.
    RQPManualEvent never;
    for (;;) never.Wait();
  }
  // A service manager that runs this process restarts it on exit 42 by itself.
  if (vantrel::platform::gRunsAsService() || gIsSystemdMainProcess()) {
    VLOG_ERROR("exiting vantrel service with error. Should restart automatically");
  } else if (claim == cRelaunchGuard::tClaim::eOtherProcess) {
    VLOG_ERROR("exiting vantrel service with error. Another process is relaunching it");
  } else {
    VLOG_ERROR("relaunching vantrel and exiting with erro. Should have a new process");
    // The successor keeps this process's working folder, so that relative paths
    // among the remembered arguments and the settings-file search mean the same.
    RQPProcessOptions options;
    options.detached = true;
    // The successor logs where this process logged: a log file is named in the
    // remembered arguments or the environment, standard error is handed on.
    options.keepStandardError = true;
    const std::string program = gRelaunchProgram();
    const RQPSpawnResult spawned = RQPCreateProcessZ0(program, gRelaunchArguments(), options);
    if (!spawned.ok()) VLOG_ERROR("gRestartVantrelProcess - %s", spawned.errorText);
  }
  vantrel::log::Flush();
  // Not exit(): other threads are still running, and static destructors would
  // pull objects from under them.
  RQPExitNow(kRestartExitCode);
}

}  // namespace nSupervision
