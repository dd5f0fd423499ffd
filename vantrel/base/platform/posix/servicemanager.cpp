#include "vantrel/base/platform/servicemanager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/process.h"

namespace vantrel::platform {

namespace {
// The environment stays as it is: a relaunched successor of this process is
// still the unit's service and must be able to notify too.
bool Notify(const char* state) { return sd_notify(0, state) > 0; }

// systemctl talks to a daemon that may be stuck; no query may hang the caller.
constexpr nTime::cDiff kSystemctlTimeout = nTime::cDiff::FromSeconds(5);

// Runs systemctl with `arguments`; false when there is no systemctl, it could not
// run, did not finish in time or failed.
bool Systemctl(const std::vector<std::string>& arguments, std::string* output) {
  const std::string systemctl = RQPFindProgram("systemctl");
  if (systemctl.empty()) return false;
  const RQPRunResult run = RQPRunAndCapture(systemctl, arguments, kSystemctlTimeout);
  if (!run.started) {
    VLOG_DEBUG("VantrelServiceConfig - %s", run.errorText);
    return false;
  }
  if (run.timedOut) {
    VLOG_WARN("VantrelServiceConfig - systemctl did not answer within %d ms", (int)kSystemctlTimeout.Milliseconds());
    return false;
  }
  if (output != nullptr) *output = run.output;
  return run.exitCode == 0;
}

// The value of `key` in "Key=Value" lines.
std::string PropertyValue(const std::string& text, const std::string& key) {
  const std::string prefix = key + "=";
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    if (text.compare(at, prefix.size(), prefix) == 0) return text.substr(at + prefix.size(), end - at - prefix.size());
    at = end + 1;
  }
  return std::string();
}

constexpr const char* kNoInstaller =
    "services here are systemd units: install vantrel.service with the package and enable it with systemctl";
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

const char* gServiceName() { return "vantrel.service"; }

// systemd starts the program as it is and only listens for notifications.
std::optional<int> gRunAsService(const std::function<int()>&) { return std::nullopt; }

bool gRunsAsService() { return false; }

tServiceChange gInstallService(const std::string&, const std::string&, const std::vector<std::string>&,
                               std::string* error) {
  if (error != nullptr) *error = kNoInstaller;
  return tServiceChange::eFailed;
}

tServiceChange gUninstallService(long, std::string* error) {
  if (error != nullptr) *error = kNoInstaller;
  return tServiceChange::eFailed;
}

std::optional<cServiceNames> gFindService(const std::string& name) {
  std::string output;
  if (!Systemctl({"show", "-p", "Id", "-p", "Description", "-p", "LoadState", name}, &output)) return std::nullopt;
  if (PropertyValue(output, "LoadState") != "loaded") return std::nullopt;
  cServiceNames names;
  names.name = PropertyValue(output, "Id");
  if (names.name.empty()) names.name = name;
  names.displayName = PropertyValue(output, "Description");
  return names;
}

bool gIsServiceRunning(const std::string& name) { return Systemctl({"is-active", "--quiet", name}, nullptr); }

bool gStartService(const std::string& name, std::string* error) {
  if (Systemctl({"start", "--no-block", name}, nullptr)) return true;
  if (error != nullptr) *error = "systemctl start " + name + " failed";
  return false;
}

}  // namespace vantrel::platform
