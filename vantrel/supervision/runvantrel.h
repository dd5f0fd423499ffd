#pragma once
// Starting and checking the Vantrel service from a client process.
//
// The service runs either as the systemd unit "vantrel.service" or as the plain
// program `vantrel` from the product's programs folder (the environment variable
// RQ_BIN). These functions are exported for the product's other programs; any
// thread may call them. The only state they keep is the id of the last program
// RunVantrel started, for TerminateVantrel.
#include "vantrel/base/export.h"

// Starts the service: asks systemd when the unit is installed (the outcome is not
// awaited), otherwise starts `vantrel` (with "/s" when `silent`) detached from
// this process. false when the program could not be started; the reason goes to
// the log, and also to standard error unless `silent`.
VANTREL_API bool RunVantrel(bool silent);

// Room a caller must give IsVantrelProcessRunning for its message.
inline constexpr int kVantrelProcessMessageSize = 1024;

// Looks for a running service process other than the caller itself.
// 0: a usable one runs; 1: processes could not be listed; 2: it runs as another
// user, in another session or at another elevation; 3: none runs. `message`, when
// not null, must hold kVantrelProcessMessageSize characters and receives a text
// for the user on results 1, 2 and 3.
VANTREL_API int IsVantrelProcessRunning(char* message);

// 1 when the systemd unit is installed and, if `mustRun`, active; else 0.
VANTREL_API int IsVantrlServiceRunning(bool mustRun);

// Kills (SIGKILL) the program the last successful RunVantrel started, if any.
VANTREL_API void TerminateVantrel();

// The service as systemd knows it: its unit name and description.
// Owned by whoever creates it (usually on the stack); not shared between threads.
// The systemd queries are bounded in time; a host without systemd (or without
// systemctl) has no installed service.
class VANTREL_API VantrelServiceConfig {
 public:
  static constexpr int kNameSize = 257;

  VantrelServiceConfig();
  ~VantrelServiceConfig();
  VantrelServiceConfig(const VantrelServiceConfig& other);
  VantrelServiceConfig& operator=(const VantrelServiceConfig& other);

  const char* GetServiceName() const { return serviceName_; }
  const char* GetDisplayName() const { return displayName_; }

  // Fills the service and display names when systemd has the unit loaded.
  bool ResolveVantrelServiceName();
  int IsInstalled();
  int IsRunning();
  // Asks systemd to start the unit without waiting for the outcome.
  void Start();

 private:
  char serviceName_[kNameSize];
  char displayName_[kNameSize];
};
