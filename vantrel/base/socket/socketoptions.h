#pragma once
// Options a stream socket is connected or accepted with. Built from the settings
// (gBuildSocketOptions, gSocketOptionsNet / gSocketOptionsLocal) from six values; every field has an
// effect in the socket layer (docs/protocol.md, "Socket options"):
//
//  connectTimeout           bounds establishing a connection (and the TLS handshake)
//  communicationTimeout     bounds a send, and the completion of a frame whose header
//                           has arrived; 0 means no limit. A connection idle between
//                           frames is never timed out.
//  closedReactivationTimeout  how long a connect keeps retrying a refused connection
//                           (a peer that is restarting); 0: one attempt only
//  sendBufferDeprecateTime  how long sent data may stay unacknowledged in the
//                           kernel's send buffer before the connection is declared
//                           dead (TCP_USER_TIMEOUT); 0: the system's default
//  simulatedLatency         diagnostic: each frame sent waits the next span of this
//                           list first (cycling through it); empty: no delay
//  cycleLatencyThresholdLimit  latency log lines above the log threshold are written
//                           at most once per this span per socket, with a count of
//                           the frames seen above it meanwhile
//  maxMessageSize           (from the settings, not one of the six) the largest frame
//                           payload accepted; a longer announced length fails the read
#include <cstdint>
#include <vector>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/platform/time.h"

class cVantrelIni;

namespace nCommunication::nSocket::nImplementation_sho {

struct cSocketOptions {
  cSocketOptions() = default;
  // `simulatedLatency` null means "none".
  cSocketOptions(nTime::cDiff connect, nTime::cDiff communication, nTime::cDiff closedReactivation,
                 nTime::cDiff sendBufferDeprecate, const std::vector<nTime::cDiff>* latencies,
                 nTime::cDiff cycleLatencyLimit)
      : connectTimeout(connect),
        communicationTimeout(communication),
        closedReactivationTimeout(closedReactivation),
        sendBufferDeprecateTime(sendBufferDeprecate),
        simulatedLatency(latencies ? *latencies : std::vector<nTime::cDiff>{}),
        cycleLatencyThresholdLimit(cycleLatencyLimit) {}

  nTime::cDiff connectTimeout = nTime::cDiff::FromSeconds(10);
  nTime::cDiff communicationTimeout = nTime::cDiff::FromSeconds(10);
  nTime::cDiff closedReactivationTimeout;
  nTime::cDiff sendBufferDeprecateTime;
  std::vector<nTime::cDiff> simulatedLatency;
  nTime::cDiff cycleLatencyThresholdLimit = nTime::cDiff::FromMilliseconds(720000);
  std::uint32_t maxMessageSize = 4u * 1024u * 1024u;
};

// Socket options from `ini` with the given simulated-latency list (an empty list
// is passed on as "none").
cSocketOptions gBuildSocketOptions(const cVantrelIni& ini, const std::vector<nTime::cDiff>& simulatedLatency);

// Sets what the options ask of a TCP connection, connected or accepted alike:
// no delay for small segments, and the unacknowledged-data limit when
// sendBufferDeprecateTime is set. The one place that sets TCP options.
void gApplyConnectionOptions(vantrel::platform::tSocket socket, const cSocketOptions& options);

}  // namespace nCommunication::nSocket::nImplementation_sho

// Socket options of host links (network simulated latencies), from the process's
// default settings.
nCommunication::nSocket::nImplementation_sho::cSocketOptions gSocketOptionsNet();
// Socket options of local client connections (local simulated latencies), from the
// process's default settings.
nCommunication::nSocket::nImplementation_sho::cSocketOptions gSocketOptionsLocal();
