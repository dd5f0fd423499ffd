#pragma once
// Starting and checking the Vantrel service from a client process.
//
// The service runs either as an installed service of the system's service
// manager (the systemd unit "vantrel.service" on Linux, the service "Vantrel" of
// the service control manager on Windows) or as the plain program `vantrel`
// from the product's programs folder (the environment variable RQ_BIN, or the
// folder of the calling program when it is unset). Every query of systemd runs
// `systemctl` and gives up after 5 seconds, so no call here blocks for longer
// than that per query; a host without systemd (or without systemctl) has no
// installed service. Nothing here throws except std::bad_alloc.
#include "vantrel/base/export.h"

// Starts the service and returns true when it was asked to start: through
// the service manager when the service is installed (the outcome is not
// awaited), otherwise by
// starting `vantrel` (with "/s" when `silent`) detached from this process.
// False when the program could not be started; the reason goes to the log, and
// also to standard error unless `silent`. Any thread; it blocks for at most
// three systemd queries and the start of the program.
VANTREL_API bool RunVantrel(bool silent);

// Room a caller must give IsVantrelProcessRunning for its message.
inline constexpr int kVantrelProcessMessageSize = 1024;

// Looks for a running service process other than the caller itself and returns
// 0 when a usable one runs; 1 when processes could not be listed; 2 when it runs
// as another user, in another session or at another elevation; 3 when none
// runs. `message`, when not null, must hold kVantrelProcessMessageSize
// characters and receives a text for the user on results 1, 2 and 3; it stays
// the caller's. Any thread; blocks only while the process table is read.
VANTREL_API int IsVantrelProcessRunning(char* message);

// 1 when the service is installed and, if `mustRun`, running; otherwise 0,
// also when the service manager could not be asked. Any thread; blocks for at most three
// systemd queries.
VANTREL_API int IsVantrlServiceRunning(bool mustRun);

// Kills (SIGKILL) the program the last successful RunVantrel started, if it
// still runs, and waits up to 5 seconds for it to end (a line in the log when it
// does not). Does nothing when RunVantrel started none or asked systemd. Any
// thread; the next call after it does nothing.
VANTREL_API void TerminateVantrel();

// The service as the service manager knows it: its name and display name (the
// unit name and description under systemd).
// Owned by whoever creates it (usually on the stack); not shared between threads
// while it is changed. Each query below asks the service manager once (at most 5 seconds).
class VANTREL_API VantrelServiceConfig {
 public:
  static constexpr int kNameSize = 257;

  // Both names empty; asks nothing yet.
  VantrelServiceConfig();
  ~VantrelServiceConfig();
  VantrelServiceConfig(const VantrelServiceConfig& other);
  VantrelServiceConfig& operator=(const VantrelServiceConfig& other);

  // The names that ResolveVantrelServiceName filled, zero-terminated and cut to
  // kNameSize - 1 bytes; empty before. They belong to this object and change
  // only with the next ResolveVantrelServiceName or assignment.
  const char* GetServiceName() const { return serviceName_; }
  const char* GetDisplayName() const { return displayName_; }

  // Fills the service and display names and returns true when the service
  // manager has the service; false (names unchanged) otherwise.
  bool ResolveVantrelServiceName();
  // 1 when the service manager has the service (the resolved name, else
  // "vantrel.service" or "Vantrel"), else 0.
  int IsInstalled();
  // 1 when that service runs, else 0.
  int IsRunning();
  // Asks the service manager to start it without waiting for the outcome; a refusal
  // is logged.
  void Start();

 private:
  char serviceName_[kNameSize];
  char displayName_[kNameSize];
};
