#pragma once
// Establishing TCP connections: name lookup, one bounded attempt per address,
// and retries while the peer refuses (a service that is restarting).
#include <string>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/closesignal.h"
#include "vantrel/base/socket/socketoptions.h"

namespace nCommunication::nSocket::nImplementation_sho {

enum class tConnectAttempt { eConnected, eRefused, eFailed, eClosed };

// One connect of `socket` to `address`, bounded by `deadlineUs` (see
// gSteadyNowUs; negative: none) and ended by `closing` (may be null) when it is
// raised. `failure` says why when it did not connect.
tConnectAttempt gAttemptConnect(vantrel::platform::tSocket socket, const vantrel::platform::cSocketAddress& address,
                                std::int64_t deadlineUs, const cCloseSignal* closing,
                                vantrel::platform::cSocketResult& failure);

// Connects one socket for its owner.
// Ownership: made on the stack by the socket that connects; it borrows the
// owner's close signal and name, and hands the connected socket over as a
// cUniqueSocket. Threads: the connecting thread only; a close raised from
// another thread ends every wait of the connect at once.
class cConnector {
 public:
  // `name` names the connecting socket in log lines.
  cConnector(const cCloseSignal& closing, const std::string& name) : closing_(closing), name_(name) {}

  // Resolves `host` (a name or an address) and tries its addresses in turn,
  // each attempt bounded by options.connectTimeout; while every address
  // refuses, tries again (backing off from 50 to 500 ms) until
  // options.closedReactivationTimeout has passed. An invalid socket when it
  // failed (logged; `failure`, when given, says why in a few words) or was
  // closed. Throws cSocketError when the system gives no socket.
  vantrel::platform::cUniqueSocket Connect(const std::string& host, unsigned short port, const cSocketOptions& options,
                                           std::string* failure = nullptr) const;

 private:
  const cCloseSignal& closing_;
  const std::string& name_;
};

}  // namespace nCommunication::nSocket::nImplementation_sho
