#pragma once
// Numeric IP addresses and the addresses of this machine, for deciding whether
// an address names this very host. Nothing here asks a name resolver, so every
// call returns at once (the interface list is read from the kernel).
//
// Plain values and stateless functions; any thread.
#include <array>
#include <optional>
#include <string>
#include <vector>

#include "vantrel/base/platform/socket.h"

namespace vantrel::platform {

// One IPv4 or IPv6 address without a port, in network byte order (an IPv4
// address uses the first four bytes).
struct cIpAddress {
  tAddressFamily family = tAddressFamily::eIPv4;
  std::array<unsigned char, 16> bytes{};
  bool operator==(const cIpAddress& other) const = default;
};

// `text` as a numeric address, read the way a connect to it reads it (so
// "127.1" and "2130706433" are 127.0.0.1); an IPv4 address mapped into IPv6
// ("::ffff:127.0.0.1") comes back as the IPv4 address. Nothing for a name.
std::optional<cIpAddress> gParseNumericAddress(const std::string& text);
// 127.0.0.0/8 or ::1.
bool gIsLoopback(const cIpAddress& address);
// 0.0.0.0 or :: (a connect to it reaches this host).
bool gIsUnspecified(const cIpAddress& address);
// The addresses of this machine's network interfaces, as the kernel lists them
// now. Empty, with `error` (when given) saying why, when they cannot be read.
std::vector<cIpAddress> gInterfaceAddresses(std::string* error = nullptr);
// The address as text ("10.0.0.5", "fe80::1").
std::string gFormatIpAddress(const cIpAddress& address);
// Binds `socket` (opened for the address's family) to `address` and `port`
// (0: any free port). eAddressInUse when the port is taken there.
cSocketResult gBindAddress(tSocket socket, const cIpAddress& address, unsigned short port);

}  // namespace vantrel::platform
