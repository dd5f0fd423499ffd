#include "vantrel/base/platform/thread.h"

#include <process.h>

#include <algorithm>
#include <cerrno>

#include "vantrel/base/platform/threadnative.h"
#include "vantrel/base/platform/windows/win32.h"

namespace vantrel::platform {

namespace nThreadNative {
namespace {
HANDLE Native(tHandle handle) { return reinterpret_cast<HANDLE>(handle); }

unsigned __stdcall Main(void* arg) {
  RunThread(arg);
  return 0;
}
}  // namespace

// The system rounds a stack up to its allocation granularity (64 KiB); below
// that it would silently take the program's default.
std::size_t MinimumStack() { return 64 * 1024; }

int Start(void* arg, std::size_t stack, tHandle& handle) {
  const auto size = static_cast<unsigned>(std::min<std::size_t>(stack, 1u << 30));
  const auto thread =
      ::_beginthreadex(nullptr, size, &Main, arg, size ? STACK_SIZE_PARAM_IS_A_RESERVATION : 0, nullptr);
  if (thread == 0) return errno != 0 ? errno : EAGAIN;
  handle = static_cast<tHandle>(thread);
  return 0;
}

void Join(tHandle handle) {
  ::WaitForSingleObject(Native(handle), INFINITE);
  ::CloseHandle(Native(handle));
}

void Detach(tHandle handle) { ::CloseHandle(Native(handle)); }

// SetThreadDescription exists from Windows 10 1607 on; older systems (and
// emulators without it) simply keep unnamed threads.
void NameCurrent(const std::string& name) {
  using tSetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  static const auto setDescription = [] {
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    return kernel ? reinterpret_cast<tSetDescription>(
                        reinterpret_cast<void (*)()>(::GetProcAddress(kernel, "SetThreadDescription")))
                  : nullptr;
  }();
  if (setDescription) setDescription(::GetCurrentThread(), win32::Wide(name).c_str());
}

}  // namespace nThreadNative

void cThread::RaiseCurrentPriority() {
  // The highest priority short of the time-critical one that would starve the
  // system's own threads; ignored when refused.
  (void)::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
}

}  // namespace vantrel::platform
