#pragma once
// The system's service manager: telling it how the service is doing, running
// under it, registering with it, and asking it about the service.
//
// The notifications are harmless (do nothing, return at once) when no service
// manager started this process and listens, so programs and tests call them
// unconditionally. Thread-safe; none blocks longer than one local datagram send
// or one call into the service manager.
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vantrel::platform {

// The service accepts work (both its ports listen). True when a service
// manager was told.
bool gNotifyServiceReady();
// The service is stopping in order. True when a service manager was told.
bool gNotifyServiceStopping();
// How often the service manager expects a sign of life, in milliseconds; 0
// when it expects none. The service should call gNotifyServiceAlive at about
// half this interval.
long gServiceWatchdogIntervalMs();
// A sign of life for the service manager's watchdog. True when one was told.
bool gNotifyServiceAlive();

// ---- running under the service manager ----------------------------------------

// The name the service is known by to this system's service manager.
const char* gServiceName();

// Runs `body` as the service gServiceName() when the service manager started
// this process, and returns what `body` returned once the manager has been told
// the service stopped. Returns nothing at once when no service manager started
// the process this way (run as a console program then). A stop request from the
// service manager reaches WaitForStopRequest (stoprequest.h) like any other; the
// body reports readiness with gNotifyServiceReady. Blocks for the service's
// whole life. Call once, from main, after BlockStopRequests.
std::optional<int> gRunAsService(const std::function<int()>& body);

// True while `body` of gRunAsService runs: the service manager then restarts a
// process that ends without saying it stopped, so a restart needs no successor.
bool gRunsAsService();

// ---- registering with it and asking it ----------------------------------------

enum class tServiceChange {
  eDone,          // registered, or removed
  eAlreadyThere,  // install: a service of that name is registered already
  eNotThere,      // uninstall: no service of that name is registered
  eFailed,        // the service manager refused or could not be reached; see error
};

// Registers gServiceName() to run `program` with `arguments` at system start,
// and to be restarted by the service manager whenever it ends in failure
// (any exit without reporting it stopped, and a non-zero exit code).
// `displayName` is what the system's tools show. Blocks for one call into the
// service manager.
tServiceChange gInstallService(const std::string& displayName, const std::string& program,
                               const std::vector<std::string>& arguments, std::string* error);
// Stops gServiceName() if it runs (waiting at most `stopWaitMs` for it to
// stop) and removes its registration.
tServiceChange gUninstallService(long stopWaitMs, std::string* error);

struct cServiceNames {
  std::string name;
  std::string displayName;
};
// The names of `name` when the service manager has it registered; nothing when
// it has not, or cannot be asked (the reason is logged at debug level).
std::optional<cServiceNames> gFindService(const std::string& name);
// True when the service manager reports `name` running.
bool gIsServiceRunning(const std::string& name);
// Asks the service manager to start `name` without waiting for the outcome;
// false (and the reason in `error`) when it refused the request.
bool gStartService(const std::string& name, std::string* error);

}  // namespace vantrel::platform
