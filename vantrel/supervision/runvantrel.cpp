#include "vantrel/supervision/runvantrel.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/hostinfo.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/servicemanager.h"
#include "vantrel/supervision/processcheck.h"
#include "vantrel/supervision/restart.h"

namespace {

const char kDifferentUser[] =
    "The Vantrel process is running as different user \"%s\\%s\".\r\n"
    "Please close Brenmark Recorder, exit Vantrel and restart Brenmark Recorder to continue working.";
const char kDifferentElevation[] =
    "The Vantrel process is running  with different elevation level.\r\n"
    "Please close Brenmark Recorder, exit Vantrel and restart Brenmark Recorder to continue working.";

// The program RunVantrel started last; guarded because any thread may start or
// terminate it.
std::mutex gStartedMutex;
RQPProcessId gStartedPid = 0;

void CopyName(char (&target)[VantrelServiceConfig::kNameSize], const std::string& text) {
  const std::size_t n = std::min(text.size(), sizeof(target) - 1);
  std::memcpy(target, text.data(), n);
  target[n] = '\0';
}

// The resolved name, else the system's usual one.
std::string NameOr(const char* resolved) { return resolved[0] != '\0' ? resolved : vantrel::platform::gServiceName(); }

void WriteMessage(char* message, const char* format, const char* first = "", const char* second = "") {
  if (message == nullptr) return;
  std::snprintf(message, kVantrelProcessMessageSize, format, first, second);
}

}  // namespace

// ---- VantrelServiceConfig -------------------------------------------------------

VantrelServiceConfig::VantrelServiceConfig() {
  serviceName_[0] = '\0';
  displayName_[0] = '\0';
}

VantrelServiceConfig::~VantrelServiceConfig() = default;

VantrelServiceConfig::VantrelServiceConfig(const VantrelServiceConfig& other) { *this = other; }

VantrelServiceConfig& VantrelServiceConfig::operator=(const VantrelServiceConfig& other) {
  if (this != &other) {
    std::memcpy(serviceName_, other.serviceName_, sizeof(serviceName_));
    std::memcpy(displayName_, other.displayName_, sizeof(displayName_));
  }
  return *this;
}

bool VantrelServiceConfig::ResolveVantrelServiceName() {
  const auto names = vantrel::platform::gFindService(vantrel::platform::gServiceName());
  if (!names) return false;
  CopyName(serviceName_, names->name);
  CopyName(displayName_, names->displayName);
  return true;
}

int VantrelServiceConfig::IsInstalled() { return vantrel::platform::gFindService(NameOr(serviceName_)) ? 1 : 0; }

int VantrelServiceConfig::IsRunning() { return vantrel::platform::gIsServiceRunning(NameOr(serviceName_)) ? 1 : 0; }

void VantrelServiceConfig::Start() {
  std::string error;
  if (!vantrel::platform::gStartService(NameOr(serviceName_), &error))
    VLOG_WARN("VantrelServiceConfig::Start - %s", error);
}

// ---- the exported functions -----------------------------------------------------

bool RunVantrel(bool silent) {
  VantrelServiceConfig config;
  if (config.ResolveVantrelServiceName() && config.IsInstalled() != 0) {
    config.Start();
    return true;
  }

  std::string program;
  {
    RQEnvContainerClass env;
    const char* bin = env.RQEGetEnv("RQ_BIN");
    if (bin != nullptr && *bin != '\0') {
      program = env.RQERuntimeResolve("#(RQ_BIN)/vantrel");
    } else {
      // Without RQ_BIN the programs are taken to be installed side by side.
      std::string self = RQPExecutablePath();
      const auto slash = self.find_last_of('/');
      program = (slash == std::string::npos ? std::string(".") : self.substr(0, slash)) + "/vantrel";
    }
  }

  RQPProcessOptions options;
  options.detached = true;
  std::vector<std::string> arguments;
  if (silent) arguments.emplace_back("/s");
  const RQPSpawnResult spawned = RQPCreateProcessZ0(program, arguments, options);
  if (spawned.ok()) {
    std::lock_guard<std::mutex> lock(gStartedMutex);
    gStartedPid = spawned.pid;
    return true;
  }

  char text[256];
  std::snprintf(text, sizeof(text), "Error Occurred while running Vantrel (code: %d)\n please contact Tech support.",
                spawned.errorCode);
  VLOG_ERROR("RunVantrel - %s (%s)", text, spawned.errorText);
  if (!silent) std::fprintf(stderr, "Monitor Error: %s\n", text);
  return false;
}

int IsVantrelProcessRunning(char* message) {
  std::vector<RQPProcessEntry> entries;
  std::string error;
  if (!RQPEnumerateProcesses(entries, &error)) {
    VLOG_ERROR("IsVantrelProcessRunning - %s", error);
    WriteMessage(message, "Cannot enumerate processes.");
    return 1;
  }
  return nSupervision::gCheckVantrelProcesses(entries, RQPCurrentProcessId(), getenv("DIRECT_SNAREWAY_EXECUTION"),
                                              message);
}

int IsVantrlServiceRunning(bool mustRun) {
  VantrelServiceConfig config;
  if (!config.ResolveVantrelServiceName() || config.IsInstalled() == 0) return 0;
  if (!mustRun) return 1;
  return config.IsRunning() != 0 ? 1 : 0;
}

void TerminateVantrel() {
  std::lock_guard<std::mutex> lock(gStartedMutex);
  if (gStartedPid <= 0) return;
  const RQPProcessId pid = gStartedPid;
  gStartedPid = 0;
  // Our unreaped child keeps its id, so the signal cannot reach a stranger; one
  // that has ended already is only reaped.
  if (RQPWaitProcessFor(pid, nTime::cDiff(), nullptr) != RQPWaitResult::timedOut) return;
  RQPKillProcess(pid);
  if (RQPWaitProcessFor(pid, nTime::cDiff::FromSeconds(5), nullptr) != RQPWaitResult::exited)
    VLOG_WARN("TerminateVantrel - process %ld did not end after SIGKILL", pid);
}

// ---- the process rules -----------------------------------------------------------

namespace nSupervision {

bool gIdentityOf(const RQPProcessEntry& entry, cProcessIdentity& identity) {
  identity = cProcessIdentity{};
  identity.elevated = entry.effectiveUid == 0;
  std::string user;
  int code = 0;
  if (!RQPUserName(entry.realUid, user, &code)) {
    // A uid without an entry in the password database is simply unnamed.
    if (code != 0) VLOG_DEBUG("LookupAccountSid Error %u", static_cast<unsigned>(code));
    return false;
  }
  identity.user = user;
  identity.domain = RQPGetLocalHostName();
  // Standard output belongs to the programs' results, so this goes to the log.
  VLOG_DEBUG("Current user is  %s\\%s", identity.domain, identity.user);
  return true;
}

bool gIsVantrelImage(const RQPProcessEntry& entry) {
  // Only the service program itself: the command-line client, benchmarks and
  // test programs share the prefix but serve nobody.
  const auto same = [](const std::string& name, std::string_view wanted) {
    return name.size() == wanted.size() && std::equal(name.begin(), name.end(), wanted.begin(), [](char a, char b) {
             return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
           });
  };
  const auto matches = [&same](const std::string& name) { return same(name, "vantrel") || same(name, "vantrel.exe"); };
  return matches(entry.imageName) || matches(entry.exeName);
}

int gCheckVantrelProcesses(const std::vector<RQPProcessEntry>& entries, RQPProcessId self, const char* directExecution,
                           char* message) {
  RQPProcessEntry caller;
  bool haveCaller = false;
  for (const auto& e : entries) {
    if (e.pid == self) {
      caller = e;
      haveCaller = true;
      break;
    }
  }
  if (!haveCaller && !RQPReadProcessEntry(self, caller)) {
    caller = RQPCurrentProcessIdentity();
    caller.pid = self;
  }
  cProcessIdentity callerIdentity;
  gIdentityOf(caller, callerIdentity);

  const RQPProcessEntry* service = nullptr;
  for (const auto& e : entries) {
    // A process that has ended but not been reaped serves nobody.
    if (e.pid == self || e.state == 'Z' || e.state == 'X') continue;
    if (gIsVantrelImage(e)) {
      service = &e;
      break;
    }
  }
  if (service == nullptr) {
    WriteMessage(message, "The Vantrel process was not found.");
    return 3;
  }

  // Unset, empty or exactly "YES": any service process will do.
  if (directExecution == nullptr || *directExecution == '\0' || std::strcmp(directExecution, "YES") == 0) return 0;

  cProcessIdentity serviceIdentity;
  if (service->sessionId != caller.sessionId) {
    if (message == nullptr) return 2;
    gIdentityOf(*service, serviceIdentity);
    WriteMessage(message, kDifferentUser, serviceIdentity.domain.c_str(), serviceIdentity.user.c_str());
    return 2;
  }

  gIdentityOf(*service, serviceIdentity);
  if (service->realUid == caller.realUid && serviceIdentity.elevated == callerIdentity.elevated) return 0;
  if (message == nullptr) return 2;
  if (service->realUid != caller.realUid || serviceIdentity.user != callerIdentity.user ||
      serviceIdentity.domain != callerIdentity.domain) {
    WriteMessage(message, kDifferentUser, serviceIdentity.domain.c_str(), serviceIdentity.user.c_str());
  } else {
    WriteMessage(message, kDifferentElevation);
  }
  return 2;
}

}  // namespace nSupervision
