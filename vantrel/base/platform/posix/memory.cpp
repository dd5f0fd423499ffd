#include "vantrel/base/platform/memory.h"

#include <malloc.h>

namespace vantrel::platform {

bool gReturnFreeMemory() { return ::malloc_trim(0) == 1; }

}  // namespace vantrel::platform
