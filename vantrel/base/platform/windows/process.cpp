#include "vantrel/base/platform/process.h"

#include <process.h>
#include <stdlib.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

#include "vantrel/base/platform/windows/win32.h"
// After the system headers of win32.h.
#include <tlhelp32.h>
#include <wtsapi32.h>

// The extended terminal-services process list (Windows 7 and later), which
// older mingw-w64 headers do not declare; its import library has it.
#ifndef WTS_ANY_SESSION
#define WTS_ANY_SESSION (static_cast<DWORD>(-2))
extern "C" {
typedef struct _WTS_PROCESS_INFO_EXW {
  DWORD SessionId;
  DWORD ProcessId;
  LPWSTR pProcessName;
  PSID pUserSid;
  DWORD NumberOfThreads;
  DWORD HandleCount;
  DWORD PagefileUsage;
  DWORD PeakPagefileUsage;
  DWORD WorkingSetSize;
  DWORD PeakWorkingSetSize;
  LARGE_INTEGER UserTime;
  LARGE_INTEGER KernelTime;
} WTS_PROCESS_INFO_EXW;
typedef enum _WTS_TYPE_CLASS {
  WTSTypeProcessInfoLevel0,
  WTSTypeProcessInfoLevel1,
  WTSTypeSessionInfoLevel1
} WTS_TYPE_CLASS;
BOOL WINAPI WTSEnumerateProcessesExW(HANDLE server, DWORD* level, DWORD session, LPWSTR* info, DWORD* count);
BOOL WINAPI WTSFreeMemoryExW(WTS_TYPE_CLASS type, PVOID memory, ULONG count);
}
#endif

namespace {

using vantrel::platform::win32::ErrorText;
using vantrel::platform::win32::Utf8;
using vantrel::platform::win32::Wide;

// What a child killed here reports, as a child ended by SIGKILL reports it on
// Linux, so that callers read the same number everywhere.
constexpr UINT kKilledExitCode = 128 + 9;

// The handles of the children this process started and has not waited for.
// Holding the handle keeps the id reserved, as an unreaped child does on Linux.
struct cChildren {
  std::mutex mutex;
  std::map<RQPProcessId, HANDLE> handles;
};

cChildren& Children() {
  static auto* children = new cChildren;  // never destroyed: used until exit
  return *children;
}

HANDLE ChildHandle(RQPProcessId pid) {
  auto& children = Children();
  std::lock_guard<std::mutex> lock(children.mutex);
  const auto found = children.handles.find(pid);
  return found == children.handles.end() ? nullptr : found->second;
}

void ForgetChild(RQPProcessId pid) {
  auto& children = Children();
  HANDLE handle = nullptr;
  {
    std::lock_guard<std::mutex> lock(children.mutex);
    const auto found = children.handles.find(pid);
    if (found == children.handles.end()) return;
    handle = found->second;
    children.handles.erase(found);
  }
  ::CloseHandle(handle);
}

// One argument as the C runtime of the child splits its command line again:
// quoted when it holds blanks or quotes, backslashes doubled before a quote.
void AppendArgument(std::wstring& line, const std::wstring& argument) {
  if (!line.empty()) line += L' ';
  if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
    line += argument;
    return;
  }
  line += L'"';
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    if (c == L'"')
      line.append(backslashes * 2 + 1, L'\\');
    else
      line.append(backslashes, L'\\');
    backslashes = 0;
    line += c;
  }
  line.append(backslashes * 2, L'\\');
  line += L'"';
}

RQPSpawnResult Failure(const std::string& program, DWORD code) {
  RQPSpawnResult result;
  result.errorCode = static_cast<int>(code);
  result.errorText = "cannot start " + program + ": " + ErrorText(code);
  return result;
}

HANDLE OpenNul(bool write) {
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  return ::CreateFileW(L"NUL", write ? GENERIC_WRITE : GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                       OPEN_EXISTING, 0, nullptr);
}

HANDLE InheritableCopy(HANDLE handle) {
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
  HANDLE copy = nullptr;
  if (!::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, 0, TRUE, DUPLICATE_SAME_ACCESS))
    return nullptr;
  return copy;
}

// Starts `program` with the given standard streams (null: none), which only
// they of all the caller's handles reach the child.
RQPSpawnResult Spawn(const std::string& program, const std::vector<std::string>& arguments, const std::string& folder,
                     bool detached, HANDLE streams[3]) {
  std::wstring line;
  AppendArgument(line, Wide(program));
  for (const auto& a : arguments) AppendArgument(line, Wide(a));

  STARTUPINFOEXW startup{};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = streams[0];
  startup.StartupInfo.hStdOutput = streams[1];
  startup.StartupInfo.hStdError = streams[2];

  // Inheritance limited to the standard streams: a handle that another thread
  // made inheritable for its own child never leaks into this one.
  HANDLE list[3];
  DWORD count = 0;
  for (int i = 0; i < 3; ++i) {
    if (streams[i] == nullptr) continue;
    if (std::find(list, list + count, streams[i]) == list + count) list[count++] = streams[i];
  }
  SIZE_T size = 0;
  ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
  auto attributes = std::make_unique<unsigned char[]>(size);
  auto* attributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(attributes.get());
  bool haveList = count > 0 && ::InitializeProcThreadAttributeList(attributeList, 1, 0, &size);
  if (haveList && !::UpdateProcThreadAttribute(attributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, list,
                                               count * sizeof(HANDLE), nullptr, nullptr)) {
    ::DeleteProcThreadAttributeList(attributeList);
    haveList = false;
  }
  if (haveList) startup.lpAttributeList = attributeList;

  DWORD flags = CREATE_UNICODE_ENVIRONMENT | (haveList ? EXTENDED_STARTUPINFO_PRESENT : 0);
  if (detached) flags |= DETACHED_PROCESS | CREATE_NEW_PROCESS_GROUP;
  const std::wstring wideProgram = Wide(program);
  const std::wstring wideFolder = Wide(folder);
  PROCESS_INFORMATION info{};
  const BOOL ok = ::CreateProcessW(wideProgram.c_str(), line.data(), nullptr, nullptr, count > 0 ? TRUE : FALSE, flags,
                                   nullptr, folder.empty() ? nullptr : wideFolder.c_str(), &startup.StartupInfo, &info);
  const DWORD code = ::GetLastError();
  if (haveList) ::DeleteProcThreadAttributeList(attributeList);
  if (!ok) return Failure(program, code);
  ::CloseHandle(info.hThread);
  {
    auto& children = Children();
    std::lock_guard<std::mutex> lock(children.mutex);
    children.handles[static_cast<RQPProcessId>(info.dwProcessId)] = info.hProcess;
  }
  RQPSpawnResult result;
  result.pid = static_cast<RQPProcessId>(info.dwProcessId);
  return result;
}

std::string Basename(const std::string& path) {
  const auto slash = path.find_last_of("/\\");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string ImagePath(HANDLE process) {
  std::wstring path(1024, L'\0');
  DWORD size = static_cast<DWORD>(path.size());
  if (!::QueryFullProcessImageNameW(process, 0, path.data(), &size)) return std::string();
  path.resize(size);
  return Utf8(path);
}

bool IsFile(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// Fills the identity of a process that is open with query rights.
void ReadIdentity(HANDLE process, RQPProcessEntry& entry) {
  bool elevated = false;
  if (const auto user = vantrel::platform::win32::ProcessUser(process, &elevated)) {
    entry.realUid = *user;
    // Elevation is what the superuser is elsewhere: the checks read it as
    // effective user 0.
    entry.effectiveUid = elevated ? 0 : *user;
  }
  entry.exeName = Basename(ImagePath(process));
}

bool EnumerateWithSessions(std::vector<RQPProcessEntry>& entries) {
  DWORD level = 1;
  WTS_PROCESS_INFO_EXW* list = nullptr;
  DWORD count = 0;
  if (!::WTSEnumerateProcessesExW(WTS_CURRENT_SERVER_HANDLE, &level, WTS_ANY_SESSION, reinterpret_cast<LPWSTR*>(&list),
                                  &count))
    return false;
  for (DWORD i = 0; i < count; ++i) {
    const auto& p = list[i];
    if (p.ProcessId == 0) continue;  // the idle process
    RQPProcessEntry entry;
    entry.pid = static_cast<RQPProcessId>(p.ProcessId);
    entry.imageName = p.pProcessName ? Utf8(p.pProcessName, wcslen(p.pProcessName)) : std::string();
    entry.sessionId = static_cast<std::int64_t>(p.SessionId);
    entry.state = 'R';
    if (p.pUserSid != nullptr) entry.realUid = entry.effectiveUid = vantrel::platform::win32::UserNumber(p.pUserSid);
    if (HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, p.ProcessId)) {
      ReadIdentity(process, entry);
      ::CloseHandle(process);
    }
    entries.push_back(std::move(entry));
  }
  ::WTSFreeMemoryExW(WTSTypeProcessInfoLevel1, list, count);
  return true;
}

bool EnumerateWithSnapshot(std::vector<RQPProcessEntry>& entries, std::string* error) {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) {
    if (error != nullptr) *error = "cannot list processes: " + ErrorText(::GetLastError());
    return false;
  }
  PROCESSENTRY32W p{};
  p.dwSize = sizeof p;
  for (BOOL more = ::Process32FirstW(snapshot, &p); more; more = ::Process32NextW(snapshot, &p)) {
    if (p.th32ProcessID == 0) continue;
    RQPProcessEntry entry;
    if (RQPReadProcessEntry(static_cast<RQPProcessId>(p.th32ProcessID), entry)) {
      entry.imageName = Utf8(p.szExeFile, wcslen(p.szExeFile));
      entries.push_back(std::move(entry));
    }
  }
  ::CloseHandle(snapshot);
  return true;
}

// Reads a child's standard output on a thread of its own, so that the caller
// can wait for the child with a deadline.
struct cCapture {
  HANDLE pipe = nullptr;
  std::string output;
  std::mutex mutex;
  std::condition_variable cond;
  bool done = false;
};

unsigned __stdcall CaptureMain(void* arg) {
  auto* capture = static_cast<cCapture*>(arg);
  constexpr std::size_t kMaxOutput = 64 * 1024;
  char buffer[4096];
  std::string output;
  DWORD got = 0;
  while (::ReadFile(capture->pipe, buffer, sizeof buffer, &got, nullptr) && got > 0) {
    const std::size_t room = kMaxOutput - std::min(kMaxOutput, output.size());
    output.append(buffer, std::min<std::size_t>(room, got));
  }
  {
    std::lock_guard<std::mutex> lock(capture->mutex);
    capture->output = std::move(output);
    capture->done = true;
  }
  capture->cond.notify_all();
  return 0;
}

DWORD MillisecondsLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) return 0;
  return static_cast<DWORD>(std::min<long long>(left.count(), 1000LL * 1000 * 1000));
}

}  // namespace

RQPSpawnResult RQPCreateProcessZ0(const std::string& program, const std::vector<std::string>& arguments,
                                  const RQPProcessOptions& options) {
  if (program.empty()) return Failure("(no program)", ERROR_FILE_NOT_FOUND);
  // A missing folder would otherwise be reported like a missing program;
  // checking first names the right culprit.
  if (!options.workingFolder.empty()) {
    const DWORD attributes = ::GetFileAttributesW(Wide(options.workingFolder).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      const DWORD code = attributes == INVALID_FILE_ATTRIBUTES ? ::GetLastError() : ERROR_DIRECTORY;
      RQPSpawnResult result = Failure(program, code);
      result.errorText = "cannot start " + program + " in " + options.workingFolder + ": " + ErrorText(code);
      return result;
    }
  }
  HANDLE streams[3] = {};
  if (options.detached) {
    streams[0] = OpenNul(false);
    streams[1] = OpenNul(true);
    streams[2] = options.keepStandardError ? InheritableCopy(::GetStdHandle(STD_ERROR_HANDLE)) : OpenNul(true);
  } else {
    streams[0] = InheritableCopy(::GetStdHandle(STD_INPUT_HANDLE));
    streams[1] = InheritableCopy(::GetStdHandle(STD_OUTPUT_HANDLE));
    streams[2] = InheritableCopy(::GetStdHandle(STD_ERROR_HANDLE));
  }
  for (HANDLE& h : streams)
    if (h == INVALID_HANDLE_VALUE) h = nullptr;
  RQPSpawnResult result = Spawn(program, arguments, options.workingFolder, options.detached, streams);
  for (HANDLE h : streams)
    if (h != nullptr) ::CloseHandle(h);
  return result;
}

bool RQPWaitProcess(RQPProcessId pid, int* exitCode) {
  const HANDLE handle = ChildHandle(pid);
  if (handle == nullptr) return false;
  ::WaitForSingleObject(handle, INFINITE);
  DWORD code = 0;
  ::GetExitCodeProcess(handle, &code);
  ForgetChild(pid);
  if (exitCode != nullptr) *exitCode = static_cast<int>(code);
  return true;
}

RQPWaitResult RQPWaitProcessFor(RQPProcessId pid, nTime::cDiff timeout, int* exitCode) {
  const HANDLE handle = ChildHandle(pid);
  if (handle == nullptr) return RQPWaitResult::failed;
  const auto ms = timeout.Microseconds() <= 0 ? 0 : (timeout.Microseconds() + 999) / 1000;
  const DWORD rc = ::WaitForSingleObject(handle, static_cast<DWORD>(std::min<std::int64_t>(ms, INFINITE - 1)));
  if (rc == WAIT_TIMEOUT) return RQPWaitResult::timedOut;
  if (rc != WAIT_OBJECT_0) return RQPWaitResult::failed;
  DWORD code = 0;
  ::GetExitCodeProcess(handle, &code);
  ForgetChild(pid);
  if (exitCode != nullptr) *exitCode = static_cast<int>(code);
  return RQPWaitResult::exited;
}

bool RQPWaitProcessExit(RQPProcessId pid) {
  const HANDLE handle = ChildHandle(pid);
  return handle != nullptr && ::WaitForSingleObject(handle, INFINITE) == WAIT_OBJECT_0;
}

bool RQPKillProcess(RQPProcessId pid) {
  if (pid <= 0) return false;
  if (const HANDLE child = ChildHandle(pid)) return ::TerminateProcess(child, kKilledExitCode) != 0;
  const HANDLE process = ::OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid));
  if (process == nullptr) return false;
  const bool killed = ::TerminateProcess(process, kKilledExitCode) != 0;
  ::CloseHandle(process);
  return killed;
}

RQPRunResult RQPRunAndCapture(const std::string& program, const std::vector<std::string>& arguments,
                              nTime::cDiff timeout) {
  RQPRunResult result;
  SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
    result.errorText = "cannot start " + program + ": " + ErrorText(::GetLastError());
    return result;
  }
  ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  HANDLE streams[3] = {OpenNul(false), writeEnd, OpenNul(true)};
  for (HANDLE& h : streams)
    if (h == INVALID_HANDLE_VALUE) h = nullptr;
  const RQPSpawnResult spawned = Spawn(program, arguments, std::string(), false, streams);
  for (HANDLE h : streams)
    if (h != nullptr) ::CloseHandle(h);
  if (!spawned.ok()) {
    ::CloseHandle(readEnd);
    result.errorText = spawned.errorText;
    return result;
  }
  result.started = true;

  const auto deadline = std::chrono::steady_clock::now() + timeout.Chrono();
  cCapture capture;
  capture.pipe = readEnd;
  const auto reader = reinterpret_cast<HANDLE>(::_beginthreadex(nullptr, 0, &CaptureMain, &capture, 0, nullptr));
  if (reader == nullptr) {
    RQPKillProcess(spawned.pid);
    RQPWaitProcess(spawned.pid, nullptr);
    ::CloseHandle(readEnd);
    result.started = false;
    result.errorText = "cannot start " + program + ": no thread to read its output";
    return result;
  }
  const RQPWaitResult waited =
      RQPWaitProcessFor(spawned.pid, nTime::cDiff::FromMilliseconds(MillisecondsLeft(deadline)), &result.exitCode);
  if (waited != RQPWaitResult::exited) {
    RQPKillProcess(spawned.pid);
    RQPWaitProcess(spawned.pid, nullptr);
    result.exitCode = -1;
    result.timedOut = true;
  }
  {
    // A grandchild may still hold the pipe open: its output is not waited for
    // past the deadline.
    std::unique_lock<std::mutex> lock(capture.mutex);
    if (!capture.cond.wait_for(lock, std::chrono::milliseconds(MillisecondsLeft(deadline)),
                               [&] { return capture.done; })) {
      lock.unlock();
      while (::WaitForSingleObject(reader, 0) == WAIT_TIMEOUT) {
        ::CancelSynchronousIo(reader);
        ::WaitForSingleObject(reader, 10);
      }
      lock.lock();
    }
    result.output = std::move(capture.output);
  }
  ::WaitForSingleObject(reader, INFINITE);
  ::CloseHandle(reader);
  ::CloseHandle(readEnd);
  return result;
}

std::string RQPFindProgram(const std::string& name) {
  if (name.empty()) return std::string();
  const auto candidate = [](const std::string& path) -> std::string {
    if (IsFile(Wide(path))) return path;
    // A name without its extension starts the program as the command shell does.
    if (Basename(path).find('.') == std::string::npos && IsFile(Wide(path + ".exe"))) return path + ".exe";
    return std::string();
  };
  if (name.find_first_of("/\\") != std::string::npos) return candidate(name);
  const wchar_t* path = _wgetenv(L"PATH");
  const std::string folders = path != nullptr ? Utf8(path, wcslen(path)) : std::string();
  std::size_t start = 0;
  while (start <= folders.size()) {
    std::size_t end = folders.find(';', start);
    if (end == std::string::npos) end = folders.size();
    std::string folder = folders.substr(start, end - start);
    if (folder.empty()) folder = ".";
    if (auto found = candidate(folder + "\\" + name); !found.empty()) return found;
    start = end + 1;
  }
  return std::string();
}

bool RQPReadProcessEntry(RQPProcessId pid, RQPProcessEntry& entry) {
  const HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(pid));
  if (process == nullptr) return false;
  DWORD code = 0;
  if (!::GetExitCodeProcess(process, &code) || code != STILL_ACTIVE) {
    // Ended (or it exits with the number that means "still running", which
    // only a process that is gone can have reported through this call).
    if (::WaitForSingleObject(process, 0) == WAIT_OBJECT_0) {
      ::CloseHandle(process);
      return false;
    }
  }
  RQPProcessEntry e;
  e.pid = pid;
  e.state = 'R';
  ReadIdentity(process, e);
  e.imageName = e.exeName;
  DWORD session = 0;
  e.sessionId = ::ProcessIdToSessionId(static_cast<DWORD>(pid), &session) ? static_cast<std::int64_t>(session) : -1;
  ::CloseHandle(process);
  entry = std::move(e);
  return true;
}

bool RQPEnumerateProcesses(std::vector<RQPProcessEntry>& entries, std::string* error) {
  entries.clear();
  // The terminal-services list carries sessions and users in one call; where
  // it is not offered, the process snapshot and one query per process do.
  if (!EnumerateWithSessions(entries)) {
    entries.clear();
    if (!EnumerateWithSnapshot(entries, error)) return false;
  }
  std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.pid < b.pid; });
  return true;
}

RQPProcessId RQPCurrentProcessId() { return static_cast<RQPProcessId>(::GetCurrentProcessId()); }

RQPProcessEntry RQPCurrentProcessIdentity() {
  RQPProcessEntry self;
  self.pid = RQPCurrentProcessId();
  self.state = 'R';
  ReadIdentity(::GetCurrentProcess(), self);
  self.imageName = self.exeName;
  DWORD session = 0;
  self.sessionId = ::ProcessIdToSessionId(::GetCurrentProcessId(), &session) ? static_cast<std::int64_t>(session) : -1;
  return self;
}

std::string RQPExecutablePath() {
  std::wstring path(1024, L'\0');
  for (;;) {
    const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return "vantrel.exe";
    if (length < path.size()) {
      path.resize(length);
      return Utf8(path);
    }
    if (path.size() >= 32768) return "vantrel.exe";
    path.resize(path.size() * 2);
  }
}

bool RQPSetEnvironment(const std::string& name, const std::string& value) {
  // The C runtime keeps its own copy for getenv; this sets both it and the
  // system's, which children inherit.
  return ::_wputenv_s(Wide(name).c_str(), Wide(value).c_str()) == 0;
}

bool RQPUnsetEnvironment(const std::string& name) {
  // An empty value removes the variable, from the runtime's copy and the system's.
  return ::_wputenv_s(Wide(name).c_str(), L"") == 0;
}

void RQPExitNow(int code) {
  ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(code));
  ::_exit(code);  // not reached
}

bool RQPUserName(std::uint32_t uid, std::string& name, int* errorCode) {
  if (errorCode != nullptr) *errorCode = 0;
  auto sid = vantrel::platform::win32::UserSid(uid);
  if (sid.empty()) return false;
  wchar_t user[256];
  wchar_t domain[256];
  DWORD userSize = 256;
  DWORD domainSize = 256;
  SID_NAME_USE use;
  if (!::LookupAccountSidW(nullptr, sid.data(), user, &userSize, domain, &domainSize, &use)) {
    const DWORD code = ::GetLastError();
    if (errorCode != nullptr) *errorCode = code == ERROR_NONE_MAPPED ? 0 : static_cast<int>(code);
    return false;
  }
  name = Utf8(user, userSize);
  return true;
}
