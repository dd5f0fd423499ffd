// A local client's first frame: the greeting block, and the reply the service
// makes of it. The name read is the long name after the block when there is one,
// else the name field up to its first zero. The same bytes serve as the host
// text the reply carries, so that long and odd host texts are tried too; the
// reply changes only the host and port fields, and a client reads back from them
// what the service wrote.
#include <cstring>
#include <string>

#include "fuzz/fuzzsupport.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/greeting.h"

using namespace vantrel::wire;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const char* data = reinterpret_cast<const char*>(bytes);
  const auto length = static_cast<unsigned>(size);
  if (length != size) return 0;
  std::string name = "left over";
  if (!gReadGreetingName(data, length, name)) {
    FUZZ_CHECK(size < kGreetingSize && name.empty());
    return 0;
  }
  const std::string field(data + kGreetingNameOffset, kGreetingFieldSize);
  const std::string tail(data + kGreetingSize, size - kGreetingSize);
  FUZZ_CHECK(name == (tail.empty() ? field.substr(0, field.find('\0')) : tail));

  const std::string& host = tail.empty() ? field : tail;
  const std::uint16_t port = static_cast<std::uint16_t>(size * 7919);
  std::string reply(data, size);
  gFillGreetingReply(reply.data(), host, port);

  std::string again;
  FUZZ_CHECK(gReadGreetingName(reply.data(), length, again) && again == name);
  FUZZ_CHECK(reply.compare(kGreetingNameOffset, kGreetingFieldSize, field) == 0);
  FUZZ_CHECK(reply.compare(kGreetingSize, std::string::npos, tail) == 0);
  const std::string written = host.substr(0, std::min<std::size_t>(host.find('\0'), kGreetingFieldSize));
  const std::string hostField = reply.substr(kGreetingHostOffset, kGreetingFieldSize);
  FUZZ_CHECK(hostField.substr(0, hostField.find('\0')) == written);
  FUZZ_CHECK(hostField.find_first_not_of('\0', written.size()) == std::string::npos);  // zero-padded
  std::uint16_t readPort = 0;
  std::memcpy(&readPort, reply.data() + kGreetingPortOffset, sizeof readPort);
  FUZZ_CHECK(readPort == port);
  return 0;
}
