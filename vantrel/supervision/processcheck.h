#pragma once
// The rules by which a client process decides whether the running service
// process is usable, separated from the listing of processes so that they can
// be applied to any list. Internal header; stateless, any thread.
#include <string>
#include <vector>

#include "vantrel/base/platform/process.h"

namespace nSupervision {

// Who a process runs as: the real user's name, the host name as its domain, and
// whether it runs elevated (effective user root).
struct cProcessIdentity {
  std::string user;
  std::string domain;
  bool elevated = false;
};

// Fills `identity` for `entry` and prints it to standard output. false when the
// user name cannot be found (the names stay empty; a look-up error other than
// "no such user" is printed).
bool gIdentityOf(const RQPProcessEntry& entry, cProcessIdentity& identity);

// True when the process's command name or executable file name is the service
// program's, "vantrel" or "vantrel.exe", without regard to case.
bool gIsVantrelImage(const RQPProcessEntry& entry);

// Applies the service-process rules to `entries` (which should hold the caller,
// `self`). `directExecution` is the value of DIRECT_SNAREWAY_EXECUTION (null when
// unset). Results and texts as IsVantrelProcessRunning.
int gCheckVantrelProcesses(const std::vector<RQPProcessEntry>& entries, RQPProcessId self, const char* directExecution,
                           char* message);

}  // namespace nSupervision
