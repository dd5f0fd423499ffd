#include "vantrel/base/platform/memory.h"

#include <malloc.h>

#include <vector>

#include "vantrel/base/platform/windows/win32.h"

namespace vantrel::platform {

// The Windows heap keeps freed blocks for reuse on its own; there is nothing to set.
bool gKeepFreedMemory(std::size_t) { return false; }

bool gReturnFreeMemory() {
  // The C runtime's heap first, then every heap of the process: compacting
  // releases their free pages to the system.
  bool returned = ::_heapmin() == 0;
  std::vector<HANDLE> heaps(64);
  DWORD count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  if (count > heaps.size()) {
    heaps.resize(count);
    count = ::GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  }
  for (DWORD i = 0; i < count && i < heaps.size(); ++i) {
    if (::HeapCompact(heaps[i], 0) != 0) returned = true;
  }
  return returned;
}

}  // namespace vantrel::platform
