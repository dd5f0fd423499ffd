#pragma once
// The process's heap as the system sees it. Stateless; any thread.

#include <cstddef>

namespace vantrel::platform {

// Lets the heap keep up to `bytes` of freed memory for reuse instead of giving
// it back to the system at every free, and serves blocks below that size from
// the heap rather than from fresh mappings. A process that passes large
// buffers from one thread to another (file chunks) otherwise has the freed
// pages returned and faults new zeroed pages in for the next buffer, at a
// cost that grows with the amount in flight. Call it once, early, from the
// program (it is process-wide). False when the allocator refused or has no
// such setting.
bool gKeepFreedMemory(std::size_t bytes);

// Returns free heap memory to the system: the free pages of every heap, also
// the per-thread heaps that threads long gone left behind. Walks every heap
// under its locks, so it may take milliseconds: call it off the hot path, not
// often. False when nothing could be returned or the allocator cannot.
bool gReturnFreeMemory();

}  // namespace vantrel::platform
