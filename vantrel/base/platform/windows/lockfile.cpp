#include "vantrel/base/platform/lockfile.h"

#include <cstdint>

#include "vantrel/base/platform/windows/win32.h"

// A running instance is marked with a named mutex rather than a locked file:
// the system drops it with the last handle, when the process ends however it
// ends, and it needs no folder that every user may write. The path names the
// mutex; paths in the system-wide folder give names that every session sees.
namespace {

std::string FolderOf(const std::string& path) {
  const auto slash = path.find_last_of("/\\");
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string MutexName(const std::string& path, bool global) {
  // Backslashes end a mutex's namespace prefix, so none may stay in the rest.
  std::string name = path;
  for (char& c : name)
    if (c == '\\' || c == '/' || c == ':') c = '_';
  return (global ? "Global\\Vantrel-" : "Local\\Vantrel-") + name;
}

}  // namespace

int RQPLockFileExclusive(const std::string& path, std::string* error, bool* lockedElsewhere) {
  if (lockedElsewhere) *lockedElsewhere = false;
  const bool global = FolderOf(path) == RQPRuntimeFolder(true);
  HANDLE mutex = ::CreateMutexA(nullptr, FALSE, MutexName(path, global).c_str());
  DWORD code = ::GetLastError();
  if (mutex == nullptr && global && code == ERROR_ACCESS_DENIED) {
    // Creating names every session sees takes a privilege that services and
    // administrators hold; anyone else marks the instance in their session.
    mutex = ::CreateMutexA(nullptr, FALSE, MutexName(path, false).c_str());
    code = ::GetLastError();
  }
  if (mutex == nullptr) {
    if (error) *error = "cannot lock " + path + ": " + vantrel::platform::win32::ErrorText(code);
    return -1;
  }
  if (code == ERROR_ALREADY_EXISTS) {
    ::CloseHandle(mutex);
    if (lockedElsewhere) *lockedElsewhere = true;
    if (error) *error = path + " is locked by another process";
    return -1;
  }
  // Handle values fit in 32 bits on every Windows (they are shared with
  // 32-bit processes), so the handle itself is the result.
  ::SetHandleInformation(mutex, HANDLE_FLAG_INHERIT, 0);
  return static_cast<int>(reinterpret_cast<std::intptr_t>(mutex));
}

void RQPUnlockFile(int handle) {
  if (handle >= 0) ::CloseHandle(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(handle)));
}

std::string RQPRuntimeFolder(bool systemWide) {
  wchar_t buffer[MAX_PATH + 1] = {};
  if (systemWide) {
    const DWORD length = ::GetEnvironmentVariableW(L"ProgramData", buffer, MAX_PATH);
    if (length > 0 && length < MAX_PATH) return vantrel::platform::win32::Utf8(buffer, length);
  }
  DWORD length = ::GetTempPathW(MAX_PATH, buffer);
  if (length == 0 || length > MAX_PATH) return ".";
  if (buffer[length - 1] == L'\\') --length;
  return vantrel::platform::win32::Utf8(buffer, length);
}
