#include "vantrel/base/platform/memory.h"

#include <malloc.h>

#include <algorithm>
#include <climits>

namespace vantrel::platform {

bool gKeepFreedMemory(std::size_t bytes) {
  // glibc accepts at most 32 MiB as the mapping threshold on 64-bit systems.
  constexpr std::size_t kLargestMapThreshold = std::size_t{32} << 20;
  const int keep = static_cast<int>(std::min<std::size_t>(bytes, INT_MAX));
  const int map = static_cast<int>(std::min(bytes, kLargestMapThreshold));
  // Either setting, once made, also stops glibc from moving the other one.
  return ::mallopt(M_TRIM_THRESHOLD, keep) == 1 && ::mallopt(M_MMAP_THRESHOLD, map) == 1;
}

bool gReturnFreeMemory() { return ::malloc_trim(0) == 1; }

}  // namespace vantrel::platform
