#include "vantrel/base/platform/hostinfo.h"

#include "vantrel/base/platform/windows/win32.h"

std::string RQPGetLocalHostName() {
  vantrel::platform::win32::StartWinsock();
  char name[256] = {};
  if (::gethostname(name, sizeof(name) - 1) != 0) return std::string();
  return std::string(name);
}
