#include "vantrel/base/platform/hostinfo.h"

#include <limits.h>
#include <unistd.h>

std::string RQPGetLocalHostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) return std::string();
  return std::string(name);
}
