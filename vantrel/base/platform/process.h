#pragma once
// Processes: starting programs, waiting for them, killing them, listing the
// processes of the machine, and the identity facts the service checks need.
//
// These are free functions without state of their own; any thread may call them.
// A child started here belongs to the caller: the caller waits for it (which
// reaps it) or kills and then waits. Children never inherit the caller's
// descriptors other than the standard streams, nor its signal mask or ignored
// signals.
#include <cstdint>
#include <string>
#include <vector>

#include "vantrel/base/platform/time.h"

using RQPProcessId = long;

struct RQPProcessOptions {
  // Folder the child starts in; empty means the caller's current folder.
  std::string workingFolder;
  // A detached child gets a session of its own and its standard streams on the
  // null device, so it outlives the caller's terminal and writes nowhere.
  bool detached = false;
  // A detached child keeps the caller's standard error instead, so that a log
  // written there goes on where it was.
  bool keepStandardError = false;
};

struct RQPSpawnResult {
  RQPProcessId pid = 0;   // > 0 when the child was started
  int errorCode = 0;      // errno of the failure
  std::string errorText;  // "cannot start <program>: <system text>"
  bool ok() const { return pid > 0; }
};

// Starts `program` (a path; PATH is not searched, see RQPFindProgram) with
// `arguments` as argv[1..]; argv[0] is `program`. Returns the child's id or the
// reason it could not be started (missing program, not executable, missing
// working folder, ...). Never throws.
RQPSpawnResult RQPCreateProcessZ0(const std::string& program, const std::vector<std::string>& arguments,
                                  const RQPProcessOptions& options = {});

enum class RQPWaitResult { exited, timedOut, failed };

// Waits for a child of this process to end and reaps it. `exitCode` receives the
// exit status, or 128 + the signal number when a signal ended it. false when
// `pid` is not a child of this process (or was reaped already).
bool RQPWaitProcess(RQPProcessId pid, int* exitCode = nullptr);
// As RQPWaitProcess with a time limit (zero or negative: test once). A child that
// is still running after the limit is left running and unreaped.
RQPWaitResult RQPWaitProcessFor(RQPProcessId pid, nTime::cDiff timeout, int* exitCode = nullptr);
// Waits for a child to end without reaping it: its id stays reserved (it cannot
// be reused by another process) until RQPWaitProcess reaps it. false when `pid`
// is not a child of this process.
bool RQPWaitProcessExit(RQPProcessId pid);
// Sends SIGKILL. false when there is no such process or no permission.
bool RQPKillProcess(RQPProcessId pid);

struct RQPRunResult {
  bool started = false;
  bool timedOut = false;  // the child was killed at the time limit
  int exitCode = -1;      // as RQPWaitProcess; -1 when not started or timed out
  std::string output;     // standard output, at most 64 KiB kept
  std::string errorText;  // why it could not be started
};

// Runs a program to completion and captures its standard output (standard input
// and error on the null device). A child still running at `timeout` is killed,
// so the call never hangs.
RQPRunResult RQPRunAndCapture(const std::string& program, const std::vector<std::string>& arguments,
                              nTime::cDiff timeout);

// Full path of an executable file named `name` in the folders of PATH; `name`
// itself when it contains a '/' and is executable; empty when not found.
std::string RQPFindProgram(const std::string& name);

// One process of the machine as /proc shows it.
struct RQPProcessEntry {
  RQPProcessId pid = 0;
  std::string imageName;  // the kernel's command name (at most 15 characters)
  std::string exeName;    // file name of the executable; empty when not readable
  std::uint32_t realUid = 0;
  std::uint32_t effectiveUid = 0;
  // Login session; the process's session id when the system keeps no login
  // sessions.
  std::int64_t sessionId = -1;
  char state = '?';  // 'R', 'S', 'Z', ...
};

// Lists every process of the machine in /proc order. Processes that end while
// being read are left out. false (with the reason) when /proc cannot be read.
bool RQPEnumerateProcesses(std::vector<RQPProcessEntry>& entries, std::string* error = nullptr);
// Reads one process; false when it does not exist (any more).
bool RQPReadProcessEntry(RQPProcessId pid, RQPProcessEntry& entry);

RQPProcessId RQPCurrentProcessId();
// The calling process as the process checks see it, read from the system's own
// calls rather than the process table (for when the table cannot be read).
RQPProcessEntry RQPCurrentProcessIdentity();
// The running program's file; a name of it that the system can still start
// when its path cannot be read.
std::string RQPExecutablePath();
// Sets an environment variable of this process (children inherit it). Call it
// before other threads run: the environment is not guarded against concurrent
// readers. false when the system refuses it.
bool RQPSetEnvironment(const std::string& name, const std::string& value);
// Removes an environment variable of this process, as above.
bool RQPUnsetEnvironment(const std::string& name);
// Ends the process at once with `code`: no static destructors and no exit
// handlers run, so threads still working are not pulled from under. Flush what
// must survive first.
[[noreturn]] void RQPExitNow(int code);
// The user name of `uid` from the password database. false when the uid has no
// entry (errorCode 0) or the look-up failed (errorCode the system's code).
bool RQPUserName(std::uint32_t uid, std::string& name, int* errorCode = nullptr);
