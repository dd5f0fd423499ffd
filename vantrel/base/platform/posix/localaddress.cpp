#include "vantrel/base/platform/localaddress.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace vantrel::platform {
namespace {

std::optional<cIpAddress> FromSockaddr(const sockaddr* address) {
  if (address == nullptr) return std::nullopt;
  cIpAddress ip;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    std::memcpy(ip.bytes.data(), &v4->sin_addr, 4);
    return ip;
  }
  if (address->sa_family != AF_INET6) return std::nullopt;
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
  if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) {
    std::memcpy(ip.bytes.data(), reinterpret_cast<const unsigned char*>(&v6->sin6_addr) + 12, 4);
    return ip;
  }
  ip.family = tAddressFamily::eIPv6;
  std::memcpy(ip.bytes.data(), &v6->sin6_addr, 16);
  return ip;
}

}  // namespace

std::optional<cIpAddress> gParseNumericAddress(const std::string& text) {
  if (text.empty()) return std::nullopt;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;  // never a resolver query
  addrinfo* found = nullptr;
  if (::getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return std::nullopt;
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  return FromSockaddr(found->ai_addr);
}

std::vector<cIpAddress> gInterfaceAddresses(std::string* error) {
  std::vector<cIpAddress> addresses;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    if (error != nullptr) *error = std::string("getifaddrs failed: ") + std::strerror(errno);
    return addresses;
  }
  std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (auto ip = FromSockaddr(entry->ifa_addr)) addresses.push_back(*ip);
  }
  return addresses;
}

std::string gFormatIpAddress(const cIpAddress& address) {
  char text[INET6_ADDRSTRLEN] = "";
  const int family = address.family == tAddressFamily::eIPv4 ? AF_INET : AF_INET6;
  if (::inet_ntop(family, address.bytes.data(), text, sizeof text) == nullptr) return std::string();
  return text;
}

cSocketResult gBindAddress(tSocket socket, const cIpAddress& address, unsigned short port) {
  sockaddr_storage storage{};
  socklen_t size = 0;
  if (address.family == tAddressFamily::eIPv4) {
    auto* in = reinterpret_cast<sockaddr_in*>(&storage);
    in->sin_family = AF_INET;
    in->sin_port = htons(port);
    std::memcpy(&in->sin_addr, address.bytes.data(), 4);
    size = sizeof *in;
  } else {
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(port);
    std::memcpy(&in6->sin6_addr, address.bytes.data(), 16);
    size = sizeof *in6;
  }
  if (::bind(static_cast<int>(socket), reinterpret_cast<const sockaddr*>(&storage), size) == 0) return {};
  const int code = errno;
  return cSocketResult{code == EADDRINUSE ? tSocketFault::eAddressInUse : tSocketFault::eOther, code};
}

}  // namespace vantrel::platform
