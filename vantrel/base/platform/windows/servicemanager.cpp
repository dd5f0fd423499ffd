#include "vantrel/base/platform/servicemanager.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/windows/win32.h"
// clang-format off
#include <tlhelp32.h>
// clang-format on

namespace vantrel::platform {

namespace {

constexpr char kServiceName[] = "Vantrel";
// How long the service control manager is told that a start or a stop may
// take before it should think the service hangs.
constexpr DWORD kStartWaitHintMs = 30000;
constexpr DWORD kStopWaitHintMs = 30000;
// The service control manager's restart after a failure, and when it forgets
// earlier failures.
constexpr DWORD kRestartDelayMs = 1000;
constexpr DWORD kFailureResetSeconds = 24 * 60 * 60;

// The status this process reports while it runs as a service. The dispatcher's
// thread (the control handler), the service's own thread (ServiceMain and the
// body) and the service's threads that notify all report through it, so it is
// guarded; the handle is set once ServiceMain registered and cleared once the
// stop was reported. Never destroyed: the dispatcher may call while the process
// exits.
struct cServiceState {
  std::mutex mutex;
  SERVICE_STATUS_HANDLE handle = nullptr;
  SERVICE_STATUS status{};
  const std::function<int()>* body = nullptr;  // set by gRunAsService for its duration
  int result = 0;
  std::atomic<bool> running{false};
};

cServiceState& State() {
  static auto* state = new cServiceState;
  return *state;
}

// Caller holds the state's mutex and has a handle.
void ReportLocked(cServiceState& s, DWORD state, DWORD waitHintMs, int exitCode = 0) {
  s.status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  s.status.dwCurrentState = state;
  s.status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : 0;
  // A non-zero code tells the service control manager the service failed, so
  // that its recovery restarts it.
  s.status.dwWin32ExitCode = exitCode == 0 ? NO_ERROR : ERROR_SERVICE_SPECIFIC_ERROR;
  s.status.dwServiceSpecificExitCode = static_cast<DWORD>(exitCode);
  const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  s.status.dwCheckPoint = pending ? s.status.dwCheckPoint + 1 : 0;
  s.status.dwWaitHint = waitHintMs;
  if (!::SetServiceStatus(s.handle, &s.status))
    VLOG_WARN("ServiceManager - cannot report state %lu: %s", state, win32::ErrorText(::GetLastError()));
}

// Moves from `from` to `to`; false when the service is not in `from` or does
// not run under the service control manager.
bool Move(DWORD from, DWORD to, DWORD waitHintMs) {
  auto& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.handle == nullptr || s.status.dwCurrentState != from) return false;
  ReportLocked(s, to, waitHintMs);
  return true;
}

DWORD WINAPI OnControl(DWORD control, DWORD, LPVOID, LPVOID) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
      if (!Move(SERVICE_RUNNING, SERVICE_STOP_PENDING, kStopWaitHintMs))
        Move(SERVICE_START_PENDING, SERVICE_STOP_PENDING, kStopWaitHintMs);
      // Taken by the thread in WaitForStopRequest, which stops the service in
      // order; a stop that arrives while it still starts waits there for it.
      win32::PostStopRequest(static_cast<int>(control));
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void WINAPI ServiceMain(DWORD, LPSTR*) {
  auto& s = State();
  const SERVICE_STATUS_HANDLE handle = ::RegisterServiceCtrlHandlerExA(kServiceName, &OnControl, nullptr);
  if (handle == nullptr) {
    VLOG_ERROR("ServiceManager - cannot register the control handler: %s", win32::ErrorText(::GetLastError()));
    s.result = 1;
    return;
  }
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handle = handle;
    ReportLocked(s, SERVICE_START_PENDING, kStartWaitHintMs);
  }
  s.running.store(true);
  int result = 1;
  try {
    result = (*s.body)();
  } catch (const std::exception& e) {
    VLOG_ERROR("ServiceManager - Exception: %s", e.what());
  } catch (...) {
    VLOG_ERROR("ServiceManager - catch(...) in the service's body");
  }
  s.running.store(false);
  std::lock_guard<std::mutex> lock(s.mutex);
  s.result = result;
  ReportLocked(s, SERVICE_STOPPED, 0, result);
  s.handle = nullptr;
}

struct cCloseServiceHandle {
  void operator()(SC_HANDLE handle) const { ::CloseServiceHandle(handle); }
};
using tServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, cCloseServiceHandle>;

bool Fail(std::string* error, const std::string& what, DWORD code) {
  if (error != nullptr) *error = what + ": " + win32::ErrorText(code);
  return false;
}

tServiceHandle OpenManager(DWORD access, std::string* error) {
  tServiceHandle manager(::OpenSCManagerA(nullptr, nullptr, access));
  if (!manager) Fail(error, "cannot reach the service control manager", ::GetLastError());
  return manager;
}

// One argument as the command line parser of the C runtime reads it back.
std::string Quoted(const std::string& argument) {
  if (!argument.empty() && argument.find_first_of(" \t\"") == std::string::npos) return argument;
  std::string out = "\"";
  std::size_t backslashes = 0;
  for (const char c : argument) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    // Backslashes before a quote are doubled, and the quote escaped.
    out.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  out.append(backslashes * 2, '\\');
  return out + "\"";
}

// True when the parent of this process is the service control manager's
// program. Asking the dispatcher alone is not enough: it connects to the
// manager's pipe of the service started last, and a console process that finds
// that pipe waits on it for a start message that never comes.
bool StartedByServiceManager() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return false;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  const DWORD self = ::GetCurrentProcessId();
  DWORD parent = 0;
  std::wstring parentName;
  std::vector<std::pair<DWORD, std::wstring>> processes;
  for (BOOL more = ::Process32FirstW(snapshot, &entry); more; more = ::Process32NextW(snapshot, &entry)) {
    if (entry.th32ProcessID == self) parent = entry.th32ParentProcessID;
    processes.emplace_back(entry.th32ProcessID, entry.szExeFile);
  }
  ::CloseHandle(snapshot);
  for (const auto& [pid, name] : processes)
    if (pid == parent && parent != 0) parentName = name;
  return _wcsicmp(parentName.c_str(), L"services.exe") == 0;
}

}  // namespace

// The service control manager learns the state through the dispatcher that
// runs the service; a console process has nobody to tell.
bool gNotifyServiceReady() { return Move(SERVICE_START_PENDING, SERVICE_RUNNING, 0); }

bool gNotifyServiceStopping() { return Move(SERVICE_RUNNING, SERVICE_STOP_PENDING, kStopWaitHintMs); }

// The service control manager has no watchdog: it watches the process, not
// signs of life.
long gServiceWatchdogIntervalMs() { return 0; }

bool gNotifyServiceAlive() { return false; }

const char* gServiceName() { return kServiceName; }

std::optional<int> gRunAsService(const std::function<int()>& body) {
  if (!StartedByServiceManager()) return std::nullopt;
  auto& s = State();
  s.body = &body;
  char name[sizeof(kServiceName)];
  std::copy(std::begin(kServiceName), std::end(kServiceName), name);
  const SERVICE_TABLE_ENTRYA table[] = {{name, &ServiceMain}, {nullptr, nullptr}};
  // Returns once the service reported it stopped, or at once when this process
  // was not started by the service control manager.
  const bool dispatched = ::StartServiceCtrlDispatcherA(table) != FALSE;
  const DWORD code = dispatched ? 0 : ::GetLastError();
  s.body = nullptr;
  if (dispatched) return s.result;
  if (code != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT)
    VLOG_WARN("ServiceManager - running as a console program: %s", win32::ErrorText(code));
  return std::nullopt;
}

bool gRunsAsService() { return State().running.load(); }

tServiceChange gInstallService(const std::string& displayName, const std::string& program,
                               const std::vector<std::string>& arguments, std::string* error) {
  const tServiceHandle manager = OpenManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE, error);
  if (!manager) return tServiceChange::eFailed;
  std::string commandLine = Quoted(program);
  for (const auto& argument : arguments) commandLine += " " + Quoted(argument);
  const tServiceHandle service(::CreateServiceA(manager.get(), kServiceName, displayName.c_str(), SERVICE_ALL_ACCESS,
                                                SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                                commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
  if (!service) {
    const DWORD code = ::GetLastError();
    if (code == ERROR_SERVICE_EXISTS || code == ERROR_DUPLICATE_SERVICE_NAME) return tServiceChange::eAlreadyThere;
    Fail(error, "cannot register the service", code);
    return tServiceChange::eFailed;
  }
  // Restart after every failure: an exit without reporting "stopped" (exit 42
  // after a socket failure) and a stop with a non-zero exit code alike.
  SC_ACTION actions[3];
  for (auto& action : actions) action = SC_ACTION{SC_ACTION_RESTART, kRestartDelayMs};
  SERVICE_FAILURE_ACTIONSA failure{};
  failure.dwResetPeriod = kFailureResetSeconds;
  failure.cActions = 3;
  failure.lpsaActions = actions;
  SERVICE_FAILURE_ACTIONS_FLAG onNonCrash{TRUE};
  // Registered all the same when one is refused: it runs, only a failure of
  // that kind leaves it stopped.
  if (!::ChangeServiceConfig2A(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &failure))
    Fail(error, "registered, but the service manager refused to restart it on failure", ::GetLastError());
  else if (!::ChangeServiceConfig2A(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &onNonCrash))
    Fail(error, "registered, but the service manager refused to restart it after a non-zero exit code",
         ::GetLastError());
  return tServiceChange::eDone;
}

tServiceChange gUninstallService(long stopWaitMs, std::string* error) {
  const tServiceHandle manager = OpenManager(SC_MANAGER_CONNECT, error);
  if (!manager) return tServiceChange::eFailed;
  const tServiceHandle service(
      ::OpenServiceA(manager.get(), kServiceName, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
  if (!service) {
    const DWORD code = ::GetLastError();
    if (code == ERROR_SERVICE_DOES_NOT_EXIST) return tServiceChange::eNotThere;
    Fail(error, "cannot open the service", code);
    return tServiceChange::eFailed;
  }
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  if (::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                             &needed) &&
      status.dwCurrentState != SERVICE_STOPPED) {
    // Wait for the process itself: it ends after it reported "stopped", and
    // removing the registration first would leave it running unnamed.
    HANDLE process = status.dwProcessId != 0 ? ::OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId) : nullptr;
    SERVICE_STATUS stopped{};
    if (!::ControlService(service.get(), SERVICE_CONTROL_STOP, &stopped))
      VLOG_WARN("ServiceManager - stop refused: %s", win32::ErrorText(::GetLastError()));
    else if (process != nullptr && ::WaitForSingleObject(process, static_cast<DWORD>(stopWaitMs)) != WAIT_OBJECT_0)
      VLOG_WARN("ServiceManager - the service did not stop within %ld ms", stopWaitMs);
    if (process != nullptr) ::CloseHandle(process);
  }
  if (!::DeleteService(service.get())) {
    const DWORD code = ::GetLastError();
    if (code == ERROR_SERVICE_MARKED_FOR_DELETE) return tServiceChange::eNotThere;
    Fail(error, "cannot remove the service", code);
    return tServiceChange::eFailed;
  }
  return tServiceChange::eDone;
}

std::optional<cServiceNames> gFindService(const std::string& name) {
  std::string error;
  const tServiceHandle manager = OpenManager(SC_MANAGER_CONNECT, &error);
  if (!manager) {
    VLOG_DEBUG("VantrelServiceConfig - %s", error);
    return std::nullopt;
  }
  const tServiceHandle service(::OpenServiceA(manager.get(), name.c_str(), SERVICE_QUERY_STATUS));
  if (!service) return std::nullopt;
  cServiceNames names;
  names.name = name;
  char display[257];
  DWORD length = sizeof(display);
  if (::GetServiceDisplayNameA(manager.get(), name.c_str(), display, &length)) names.displayName = display;
  return names;
}

bool gIsServiceRunning(const std::string& name) {
  std::string error;
  const tServiceHandle manager = OpenManager(SC_MANAGER_CONNECT, &error);
  if (!manager) return false;
  const tServiceHandle service(::OpenServiceA(manager.get(), name.c_str(), SERVICE_QUERY_STATUS));
  if (!service) return false;
  SERVICE_STATUS_PROCESS status{};
  DWORD needed = 0;
  return ::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                                &needed) &&
         status.dwCurrentState == SERVICE_RUNNING;
}

bool gStartService(const std::string& name, std::string* error) {
  const tServiceHandle manager = OpenManager(SC_MANAGER_CONNECT, error);
  if (!manager) return false;
  const tServiceHandle service(::OpenServiceA(manager.get(), name.c_str(), SERVICE_START));
  if (!service) return Fail(error, "cannot open the service " + name, ::GetLastError());
  if (::StartServiceA(service.get(), 0, nullptr)) return true;
  const DWORD code = ::GetLastError();
  return code == ERROR_SERVICE_ALREADY_RUNNING || Fail(error, "cannot start the service " + name, code);
}

}  // namespace vantrel::platform
