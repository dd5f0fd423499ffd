#pragma once
// The process's heap as the system sees it. Stateless; any thread.

namespace vantrel::platform {

// Returns free heap memory to the system: the free pages of every heap, also
// the per-thread heaps that threads long gone left behind. Walks every heap
// under its locks, so it may take milliseconds: call it off the hot path, not
// often. False when nothing could be returned or the allocator cannot.
bool gReturnFreeMemory();

}  // namespace vantrel::platform
