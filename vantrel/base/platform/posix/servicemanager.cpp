#include "vantrel/base/platform/servicemanager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace vantrel::platform {

namespace {
// The environment stays as it is: a relaunched successor of this process is
// still the unit's service and must be able to notify too.
bool Notify(const char* state) { return sd_notify(0, state) > 0; }
}  // namespace

bool gNotifyServiceReady() { return Notify("READY=1"); }

bool gNotifyServiceStopping() { return Notify("STOPPING=1"); }

long gServiceWatchdogIntervalMs() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) <= 0) return 0;
  const std::uint64_t milliseconds = microseconds / 1000;
  return milliseconds > 0 ? static_cast<long>(milliseconds) : 1;
}

bool gNotifyServiceAlive() { return Notify("WATCHDOG=1"); }

}  // namespace vantrel::platform
