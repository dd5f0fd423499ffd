#include "vantrel/base/socket/socketoptions.h"

#include "vantrel/base/config/vantrelini.h"

namespace nCommunication::nSocket::nImplementation_sho {

cSocketOptions gBuildSocketOptions(const cVantrelIni& ini, const std::vector<nTime::cDiff>& simulatedLatency) {
  cSocketOptions options(ini.SocketCommunicationTimeout(), ini.SocketCommunicationTimeout(),
                         ini.SocketClosedReactivationTimeout(), ini.SocketSendBufferDeprecateTime(),
                         nVantrelIni::gLatencyListArgument(simulatedLatency), ini.CycleLatencyThresholdLimit());
  options.maxMessageSize = ini.MaxMessageSize();
  return options;
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
