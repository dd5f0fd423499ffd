#pragma once
// Waiting on a socket so that a close from any thread ends the wait at once,
// and the steady-clock deadlines the socket layer bounds its waits with.
#include <atomic>
#include <cstdint>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/platform/time.h"

namespace nCommunication::nSocket::nImplementation_sho {

using vantrel::platform::gSteadyNowUs;
// The deadline `span` from now; -1 (none) when `span` is not positive.
std::int64_t gDeadlineAfter(nTime::cDiff span);

enum class tWait { eReady, eClosed, eTimeout, eError };

// The close signal of one socket: raised once, by the socket's close, and
// watched by every wait on that socket (connect, handshake, read, write,
// accept, a simulated-latency delay), so that the close ends each of them.
// Ownership: a member of its c_Socket; owns the platform wake-up.
// Threads: any thread raises it or waits on it.
class cCloseSignal {
 public:
  // Throws cSocketError when the system cannot make the wake-up.
  cCloseSignal();
  cCloseSignal(const cCloseSignal&) = delete;
  cCloseSignal& operator=(const cCloseSignal&) = delete;

  // True for the call that raised it, false when it was raised before.
  bool Raise();
  bool IsRaised() const { return raised_.load(std::memory_order_acquire); }

  // Waits until `socket` is ready, the signal is raised, or the deadline (see
  // gSteadyNowUs; negative: none) passes. `socket` kNoSocket waits for the
  // signal only.
  tWait Wait(vantrel::platform::tSocket socket, vantrel::platform::tReadiness readiness, std::int64_t deadlineUs) const;
  // Waits at most `us` microseconds for the signal; true when it is raised.
  bool WaitFor(std::int64_t us) const;

 private:
  std::atomic<bool> raised_{false};
  vantrel::platform::cWakeup wakeup_;
};

}  // namespace nCommunication::nSocket::nImplementation_sho
