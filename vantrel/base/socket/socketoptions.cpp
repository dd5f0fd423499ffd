#include "vantrel/base/socket/socketoptions.h"

#include <algorithm>

#include "vantrel/base/config/vantrelini.h"

namespace nCommunication::nSocket::nImplementation_sho {

cSocketOptions gBuildSocketOptions(const cVantrelIni& ini, const std::vector<nTime::cDiff>& simulatedLatency) {
  cSocketOptions options(ini.SocketCommunicationTimeout(), ini.SocketCommunicationTimeout(),
                         ini.SocketClosedReactivationTimeout(), ini.SocketSendBufferDeprecateTime(),
                         nVantrelIni::gLatencyListArgument(simulatedLatency), ini.CycleLatencyThresholdLimit());
  options.maxMessageSize = ini.MaxMessageSize();
  return options;
}

void gApplyConnectionOptions(vantrel::platform::tSocket socket, const cSocketOptions& options) {
  vantrel::platform::gSetNoDelay(socket);
  const std::int64_t ms = options.sendBufferDeprecateTime.Milliseconds();
  if (ms > 0)
    vantrel::platform::gSetUnacknowledgedTimeout(socket,
                                                 static_cast<std::uint32_t>(std::min<std::int64_t>(ms, 0x7FFFFFFF)));
}

}  // namespace nCommunication::nSocket::nImplementation_sho

using nCommunication::nSocket::nImplementation_sho::cSocketOptions;
using nCommunication::nSocket::nImplementation_sho::gBuildSocketOptions;

cSocketOptions gSocketOptionsNet() {
  return gBuildSocketOptions(cVantrelIni::Instance(), cSimulatedLatencyNetContainer_debug::Instance().List());
}

cSocketOptions gSocketOptionsLocal() {
  return gBuildSocketOptions(cVantrelIni::Instance(), cSimulatedLatencyLocalContainer_debug::Instance().List());
}
