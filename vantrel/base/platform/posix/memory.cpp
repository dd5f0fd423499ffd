#include "vantrel/base/platform/memory.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdio>

namespace vantrel::platform {

bool gLimitAllocatorArenas(int arenas) { return arenas > 0 && ::mallopt(M_ARENA_MAX, arenas) == 1; }

bool gReturnFreeMemory() { return ::malloc_trim(0) == 1; }

std::size_t gResidentBytes() {
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr) return 0;
  unsigned long size = 0;
  unsigned long resident = 0;
  const int read = std::fscanf(file, "%lu %lu", &size, &resident);
  std::fclose(file);
  if (read != 2) return 0;
  return static_cast<std::size_t>(resident) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace vantrel::platform
