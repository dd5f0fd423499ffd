#pragma once
// The process's heap as the system sees it: how much of it is resident, and
// giving freed memory back. Stateless; any thread.
#include <cstddef>

namespace vantrel::platform {

// Caps the number of heaps the allocator keeps for threads (each thread that
// allocates may otherwise get one of its own, whose free memory is rarely
// returned). Call before other threads start. False when the allocator has no
// such knob or refuses.
bool gLimitAllocatorArenas(int arenas);
// Returns free heap memory to the system. Walks every heap under its locks, so
// it may take milliseconds: call it off the hot path, not often. False when
// nothing could be returned or the allocator cannot.
bool gReturnFreeMemory();
// The process's resident memory in bytes; 0 when it cannot be read.
std::size_t gResidentBytes();

}  // namespace vantrel::platform
