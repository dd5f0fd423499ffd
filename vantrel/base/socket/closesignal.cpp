#include "vantrel/base/socket/closesignal.h"

#include "vantrel/base/socket/socketerror.h"

namespace nCommunication::nSocket::nImplementation_sho {

namespace platform = vantrel::platform;

std::int64_t gDeadlineAfter(nTime::cDiff span) {
  if (span.Microseconds() <= 0) return -1;
  return gSteadyNowUs() + span.Microseconds();
}

cCloseSignal::cCloseSignal() {
  if (wakeup_.Valid()) return;
  const std::string text = "c_Socket: cannot create the wake-up: " + wakeup_.Failure().Text();
  if (wakeup_.Failure().fault == platform::tSocketFault::eNoResources) throw cOutOfDescriptors(text);
  throw cSocketError(text);
}

bool cCloseSignal::Raise() {
  if (raised_.exchange(true, std::memory_order_acq_rel)) return false;
  wakeup_.Signal();
  return true;
}

tWait cCloseSignal::Wait(platform::tSocket socket, platform::tReadiness readiness, std::int64_t deadlineUs) const {
  if (IsRaised()) return tWait::eClosed;
  switch (platform::gPoll(socket, readiness, &wakeup_, deadlineUs)) {
    case platform::tPollResult::eReady:
      return IsRaised() ? tWait::eClosed : tWait::eReady;
    case platform::tPollResult::eWoken:
      return tWait::eClosed;
    case platform::tPollResult::eTimedOut:
      return IsRaised() ? tWait::eClosed : tWait::eTimeout;
    case platform::tPollResult::eFailed:
      break;
  }
  return tWait::eError;
}

bool cCloseSignal::WaitFor(std::int64_t us) const {
  if (us <= 0) return IsRaised();
  return Wait(platform::kNoSocket, platform::tReadiness::eReadable, gSteadyNowUs() + us) == tWait::eClosed;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
