#include "vantrel/base/platform/descriptors.h"

#include "vantrel/base/platform/windows/win32.h"

namespace vantrel::platform {

// Windows sets no per-process count of handles that a process could raise: the
// only bound is the system's own, far above what a service reaches first
// (memory runs out before it).
std::optional<cDescriptorLimit> gDescriptorLimit(std::string*) {
  return cDescriptorLimit{kNoDescriptorLimit, kNoDescriptorLimit};
}

std::optional<cDescriptorLimit> gRaiseDescriptorLimit(std::string* error) { return gDescriptorLimit(error); }

std::optional<std::uint64_t> gOpenDescriptorCount() {
  DWORD count = 0;
  if (!::GetProcessHandleCount(::GetCurrentProcess(), &count)) return std::nullopt;
  return count;
}

cSpareDescriptor::cSpareDescriptor() { Retake(); }

cSpareDescriptor::~cSpareDescriptor() { Release(); }

bool cSpareDescriptor::Release() {
  if (handle_ < 0) return false;
  ::CloseHandle(reinterpret_cast<HANDLE>(handle_));
  handle_ = -1;
  return true;
}

bool cSpareDescriptor::Retake() {
  if (handle_ >= 0) return true;
  // Not inheritable: a spare must never reach a child.
  const HANDLE handle =
      ::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return false;
  handle_ = reinterpret_cast<std::intptr_t>(handle);
  return true;
}

}  // namespace vantrel::platform
