#include "vantrel/base/platform/localaddress.h"

// The tests on an address's bytes; the system's own calls (parsing, the
// interface list, binding) are in each system's file.
namespace vantrel::platform {

bool gIsLoopback(const cIpAddress& address) {
  if (address.family == tAddressFamily::eIPv4) return address.bytes[0] == 127;
  static constexpr std::array<unsigned char, 16> kLoopback6{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return address.bytes == kLoopback6;
}

bool gIsUnspecified(const cIpAddress& address) { return address.bytes == std::array<unsigned char, 16>{}; }

}  // namespace vantrel::platform
