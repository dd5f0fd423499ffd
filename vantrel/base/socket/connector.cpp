#include "vantrel/base/socket/connector.h"

#include <algorithm>
#include <string>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/shortage.h"
#include "vantrel/base/socket/socketerror.h"

namespace nCommunication::nSocket::nImplementation_sho {

namespace platform = vantrel::platform;

tConnectAttempt gAttemptConnect(platform::tSocket socket, const platform::cSocketAddress& address,
                                std::int64_t deadlineUs, const cCloseSignal* closing,
                                platform::cSocketResult& failure) {
  failure = platform::gStartConnect(socket, address);
  if (failure.fault == platform::tSocketFault::eInProgress) {
    tWait wait = tWait::eError;
    if (closing) {
      wait = closing->Wait(socket, platform::tReadiness::eWritable, deadlineUs);
    } else {
      const platform::tPollResult poll = platform::gPoll(socket, platform::tReadiness::eWritable, nullptr, deadlineUs);
      wait = poll == platform::tPollResult::eReady ? tWait::eReady : tWait::eTimeout;
    }
    if (wait == tWait::eClosed) return tConnectAttempt::eClosed;
    failure = wait == tWait::eReady ? platform::gConnectOutcome(socket) : platform::gTimedOut();
  }
  if (failure.Ok()) return tConnectAttempt::eConnected;
  return failure.fault == platform::tSocketFault::eRefused ? tConnectAttempt::eRefused : tConnectAttempt::eFailed;
}

platform::cUniqueSocket cConnector::Connect(const std::string& host, unsigned short port, const cSocketOptions& options,
                                            std::string* failure) const {
  const auto fail = [&](std::string why) {
    if (failure != nullptr) *failure = std::move(why);
    return platform::cUniqueSocket();
  };
  const platform::cLookupResult found = platform::gLookUp(host, port, platform::tLookup::eAnyFamily);
  if (found.addresses.empty()) {
    VLOG_ERROR("StreamSocket::Connect(%s) - cannot resolve host %s: %s", name_, vantrel::log::Escaped(host),
               found.error);
    return fail("cannot resolve host " + std::string(vantrel::log::Escaped(host)) + ": " + found.error);
  }

  const std::int64_t reactivationDeadline =
      gSteadyNowUs() + std::max<std::int64_t>(0, options.closedReactivationTimeout.Microseconds());
  std::int64_t retryDelayUs = 50'000;
  platform::cSocketResult lastFailure;
  for (;;) {
    bool refused = false;
    for (const platform::cSocketAddress& address : found.addresses) {
      platform::cSocketResult result;
      platform::cUniqueSocket socket(platform::gOpenStreamSocket(address.family, result));
      if (!socket.Valid()) {
        // Out of descriptors is this process's state, not a fault: the link
        // fails (its senders are answered) and everything else goes on.
        if (result.fault != platform::tSocketFault::eNoResources)
          throw cSocketError("StreamSocket::Connect - socket failed: " + result.Text());
        gReportDescriptorShortage(("StreamSocket::Connect(" + name_ + ")").c_str(), "link not opened");
        return fail("no descriptor left for a socket; the process is at its limit of open files");
      }
      switch (gAttemptConnect(socket.Get(), address, gDeadlineAfter(options.connectTimeout), &closing_, lastFailure)) {
        case tConnectAttempt::eConnected:
          return socket;
        case tConnectAttempt::eClosed:
          return {};
        case tConnectAttempt::eRefused:
          refused = true;
          break;
        case tConnectAttempt::eFailed:
          break;
      }
    }
    if (!refused || gSteadyNowUs() >= reactivationDeadline) {
      VLOG_ERROR("StreamSocket::Connect(%s) - cannot connect to %s:%d: %s", name_, vantrel::log::Escaped(host), port,
                 lastFailure.Text());
      return fail("cannot connect to " + std::string(vantrel::log::Escaped(host)) + ":" + std::to_string(port) + ": " +
                  lastFailure.Text());
    }
    // The peer is not listening (yet); a restarting service comes back shortly.
    const std::int64_t pauseUs = std::min(retryDelayUs, reactivationDeadline - gSteadyNowUs());
    if (closing_.WaitFor(pauseUs)) return {};
    retryDelayUs = std::min<std::int64_t>(retryDelayUs * 2, 500'000);
  }
}

}  // namespace nCommunication::nSocket::nImplementation_sho
