#pragma once
// How the service ends itself when it meets a failure it cannot recover from:
// systemd restarts a unit's main process that exits with 42; a service started
// by hand starts its successor first. Internal header.
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

// Logs, relaunches when needed, flushes the log and ends the process with 42.
// Safe to call from any thread; never returns.
[[noreturn]] void gRestartVantrelProcess();

}  // namespace nSupervision

using nSupervision::gRememberProcessArguments;
using nSupervision::gRestartVantrelProcess;
