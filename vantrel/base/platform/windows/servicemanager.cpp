#include "vantrel/base/platform/servicemanager.h"

namespace vantrel::platform {

// A program started by the service control manager reports to it through the
// dispatcher that runs it; a console process has nobody to tell.
bool gNotifyServiceReady() { return false; }

bool gNotifyServiceStopping() { return false; }

// The service control manager has no watchdog: it watches the process, not
// signs of life.
long gServiceWatchdogIntervalMs() { return 0; }

bool gNotifyServiceAlive() { return false; }

}  // namespace vantrel::platform
