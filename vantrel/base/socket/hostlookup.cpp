#include "vantrel/base/socket/hostlookup.h"

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/hostinfo.h"
#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/connector.h"

namespace nCommunication::nSocket::nImplementation_sho {

namespace platform = vantrel::platform;

std::optional<nTime::cDiff> gPing(const std::string& host, unsigned short port, nTime::cDiff timeout) {
  if (timeout < nTime::cDiff::FromSeconds(1)) timeout = nTime::cDiff::FromSeconds(1);
  const std::int64_t start = gSteadyNowUs();
  const std::int64_t deadline = start + timeout.Microseconds();
  const platform::cLookupResult found = platform::gLookUp(host, port, platform::tLookup::eAnyFamily);
  if (found.addresses.empty()) {
    VLOG_INFO("gPing - cannot resolve %s", vantrel::log::Escaped(host));
    return std::nullopt;
  }
  for (const platform::cSocketAddress& address : found.addresses) {
    platform::cSocketResult result;
    const platform::cUniqueSocket socket(platform::gOpenStreamSocket(address.family, result));
    if (socket.Valid() &&
        gAttemptConnect(socket.Get(), address, deadline, nullptr, result) == tConnectAttempt::eConnected)
      return nTime::cDiff::FromMicroseconds(gSteadyNowUs() - start);
    if (gSteadyNowUs() >= deadline) break;
  }
  return std::nullopt;
}

std::optional<std::string> gGetHostByName(const std::string& name) {
  if (name.empty()) return std::nullopt;
  const platform::cLookupResult found = platform::gLookUp(name, 0, platform::tLookup::eIPv4Only);
  if (found.addresses.empty()) {
    VLOG_INFO("gGetHostByName - cannot resolve %s: %s", vantrel::log::Escaped(name), found.error);
    return std::nullopt;
  }
  std::string text = platform::gFormatAddress(found.addresses.front()).address;
  if (text.empty()) return std::nullopt;
  return text;
}

std::string gGetLocalHostName(const std::string& fallback) {
  std::string name = RQPGetLocalHostName();
  return name.empty() ? fallback : name;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
