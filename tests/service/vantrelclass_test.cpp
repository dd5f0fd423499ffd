// Services inside the test process: each runs with the settings it was given,
// and the restart rule reaches the test through the service's hook.
#include "vantrel/service/vantrelclass.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "tests/support/servicehelper.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/message/clientname.h"
#include "vantrel/message/wire.h"

namespace vantrel::test {
namespace {

using namespace vantrel::wire;

TEST(InProcessServiceTest, EachServiceKeepsItsSettingsAndTheRestartRuleIsItsHook) {
  InProcessService a("AddressPortDelimiter = ~\n");
  InProcessService b("AddressPortDelimiter = +\n");
  ASSERT_TRUE(a.vInitZ1());
  ASSERT_TRUE(b.vInitZ1());
  EXPECT_EQ(a.GetAddressHostText(), a.GetHostName() + "~" + std::to_string(a.GetNetPortZ5181()));
  EXPECT_EQ(b.GetAddressHostText(), b.GetHostName() + "+" + std::to_string(b.GetNetPortZ5181()));

  // A client that breaks off its greeting asks for a restart: that service's
  // hook is called, and as it returns, only the connection ends.
  {
    RawLink broken;
    ASSERT_TRUE(broken.connectClient(a.GetClientsPortZ5181()));
    ASSERT_GT(::send(broken.handle(), "VT", 2, MSG_NOSIGNAL), 0);
  }
  ASSERT_TRUE(WaitUntil([&] { return a.restarts.load() == 1; }));
  EXPECT_EQ(b.restarts.load(), 0);

  // Accepted in order: once `later` is answered, `waiting` has its connection.
  // (What the answer holds is checked end to end: clients route by it.)
  RawLink waiting;
  ASSERT_TRUE(waiting.connectClient(a.GetClientsPortZ5181()));
  RawLink later;
  ASSERT_TRUE(later.connectClient(a.GetClientsPortZ5181()));
  ASSERT_TRUE(later.greet("later"));
  ASSERT_TRUE(later.next().has_value());

  // Stopping the service while a client has yet to greet is no failure.
  a.f_TerminateZ2();
  EXPECT_EQ(a.restarts.load(), 1);
}

TEST(InProcessServiceTest, ABusyNetPortIsReportedByTheFirstInstanceOnly) {
  // Bound but not listening: it holds the port and answers no ping.
  const unsigned short port = FreePort();
  const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_ANY)}, {}};
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const std::string report = "Port " + std::to_string(port) + " is in use by other application";

  // The first finds no other instance, reports the port and keeps the instance
  // lock; so a second one, while the first lives, finds it and stays quiet (the
  // default hooks know no other service process).
  LogCapture log;
  InProcessService first;
  first.SetNetPortZ5181(port);
  EXPECT_FALSE(first.vInitZ1());
  EXPECT_EQ(log.count(report), 1u);
  InProcessService second;
  second.SetNetPortZ5181(port);
  EXPECT_FALSE(second.vInitZ1());
  EXPECT_EQ(log.count(report), 1u);
  ::close(holder);
}

TEST(InProcessServiceTest, GreetingsWithBadNamesAreRefusedAndQuotedEscaped) {
  InProcessService service;
  ASSERT_TRUE(service.vInitZ1());
  const std::string longest(kMaxClientNameSize, 'n');
  struct {
    std::string name;
    bool registered;
  } cases[] = {
      {"evil\nvantrel ready: forged\r\n\x1b[2J", false},
      {longest + "n", false},
      {longest, true},
  };
  LogCapture log;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name.substr(0, 20));
    RawLink link;
    ASSERT_TRUE(link.connectClient(service.GetClientsPortZ5181()));
    ASSERT_TRUE(link.send(kGreeting, 0, MakeGreeting(c.name)));
    const auto reply = link.next();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->type, c.registered ? kGreeting : 0);
    if (c.registered) {
      EXPECT_EQ(GreetingClientName(reply->data.data(), reply->data.size()), c.name);
    } else {
      EXPECT_FALSE(link.next().has_value());
      EXPECT_TRUE(link.closed());
    }
  }
  EXPECT_TRUE(log.contains("client name \"evil\\nvantrel ready: forged\\r\\n\\x1b[2J\" refused"));
  for (const std::string& line : log.lines()) EXPECT_EQ(line.find_first_of("\n\r\x1b"), std::string::npos) << line;
  EXPECT_EQ(service.restarts.load(), 0);
}

}  // namespace
}  // namespace vantrel::test
