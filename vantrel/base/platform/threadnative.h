#pragma once
// The few system calls behind cThread; thread.cpp holds the logic that every
// system shares (start-up of the body, joins with block limits, detaching,
// names in log lines). Internal to the platform layer: only thread.cpp and the
// systems' implementations include it.
//
// Stateless calls; the thread that owns a handle passes it in.
#include <cstddef>
#include <cstdint>
#include <string>

namespace vantrel::platform::nThreadNative {

// A started thread as the system names it, until Join or Detach frees it.
using tHandle = std::uintptr_t;

// The smallest stack the system gives a thread; a smaller request is raised to it.
std::size_t MinimumStack();
// Starts a thread that runs RunThread(arg) with a stack of `stack` bytes (0:
// the system's default). 0, or the system's error number when no thread was
// started (then RunThread never runs).
int Start(void* arg, std::size_t stack, tHandle& handle);
// Waits for the thread to end, then frees its handle.
void Join(tHandle handle);
// Frees the handle; the thread runs on and ends by itself.
void Detach(tHandle handle);
// Names the calling thread for the system's tools, as far as the system keeps
// names (shortened where it keeps fewer characters).
void NameCurrent(const std::string& name);

// Defined in thread.cpp: what every started thread runs first.
void RunThread(void* arg);

}  // namespace vantrel::platform::nThreadNative
