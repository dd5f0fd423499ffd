#include "vantrel/net/greeting.h"

#include <cstring>

#include "vantrel/message/clientname.h"
#include "vantrel/message/wire.h"

using namespace vantrel::wire;

bool gReadGreetingName(const char* data, unsigned length, std::string& name) {
  name.clear();
  if (data == nullptr || length < kGreetingSize) return false;
  name = vantrel::GreetingClientName(data, length);
  return true;
}

void gFillGreetingReply(char* data, const std::string& hostName, std::uint16_t netPort) {
  // Filled the way a bounded string copy does it, which is what clients expect
  // to read: zero padding, no terminator when the text fills the field.
  std::strncpy(data + kGreetingHostOffset, hostName.c_str(), kGreetingFieldSize);
  std::memcpy(data + kGreetingPortOffset, &netPort, sizeof netPort);
}
