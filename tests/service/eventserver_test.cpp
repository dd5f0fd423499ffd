#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/service/servicefakes.h"
#include "vantrel/message/packmsg.h"
#include "vantrel/service/vantrelclientinstance.h"
#include "vantrel/service/vantreleventserver.h"

namespace vantrel::test {
namespace {

TEST(EventServerTest, CleanUpStopsEveryHostBeforeAnyClient) {
  CVantrelEventServer server;
  TerminationLog log;
  FakeClientLink linkA("a", &log);
  FakeClientLink linkB("b", &log);
  VantrelClientInstance a("a", &linkA, &server);
  FakeHostLink hostX(&server, "x~1", &log);
  VantrelClientInstance b("b", &linkB, &server);
  FakeHostLink hostY(&server, "y~1", &log);

  // The hosts' Terminate calls removeHost, as a real link's does.
  server.cleanUp();

  // Each terminated once, hosts first, whatever order they registered in.
  const std::vector<std::string> expected = {"host:x~1", "host:y~1", "client:a", "client:b"};
  EXPECT_EQ(log, expected);
  // Clients are detached with a join of their connection's threads.
  EXPECT_TRUE(linkA.lastWait);
  EXPECT_EQ(server.clientCount(), 0u);
  EXPECT_EQ(server.hostCount(), 0u);
  EXPECT_EQ(server.registrationCount(), 0u);

  // A second clean-up finds empty tables.
  server.cleanUp();
  EXPECT_EQ(log.size(), 4u);
}

TEST(EventServerTest, EveryAddressOfThisServiceIsLocalWithItsNetPortOrNone) {
  namespace platform = vantrel::platform;
  const auto ip = [](const char* text) { return *platform::gParseNumericAddress(text); };
  CVantrelEventServer all;
  all.setLocalHost({"Here", "Here~9011", "~", 9011, std::nullopt, {ip("10.1.2.3"), ip("fe80::1")}});
  CVantrelEventServer one;  // listening on one address only
  one.setLocalHost({"Here", "Here~9011", "~", 9011, ip("10.1.2.3"), {ip("10.1.2.3"), ip("127.0.0.1")}});
  // Local to both; only while listening on every address; to neither.
  for (const char* host : {"Here~9011", "here", "HERE~9011", "localhost~9011", "10.1.2.3", "10.1.2.3~9011"})
    EXPECT_TRUE(all.isLocalHost(host) && one.isLocalHost(host)) << host;
  for (const char* host : {"127.0.0.1~9011", "127.0.3.4~9011", "127.1~9011", "::1~9011", "::ffff:127.0.0.1~9011",
                           "0.0.0.0~9011", "fe80::1~9011"})
    EXPECT_TRUE(all.isLocalHost(host) && !one.isLocalHost(host)) << host;
  for (const char* host :
       {"Here~9012", "127.0.0.1~9012", "127.0.0.1~x", "10.1.2.4~9011", "there~9011", "localhost.example~9011", ""})
    EXPECT_TRUE(!all.isLocalHost(host) && !one.isLocalHost(host)) << host;
}

TEST(EventServerTest, MessagesToAnAddressOfThisServiceAreDeliveredWithoutALink) {
  CVantrelEventServer server;
  int linksOpened = 0;
  server.setLinkFactory([&linksOpened](const std::string&) { return ++linksOpened, nullptr; });
  server.setLocalHost({"here", "here~9011", "~", 9011, std::nullopt, {}});
  FakeClientLink aliceLink("alice"), bobLink("bob");
  VantrelClientInstance alice("alice", &aliceLink, &server), bob("bob", &bobLink, &server);
  for (int i = 0; i < 500; ++i) {
    const std::string host = "127.0." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) + "~9011";
    const cVantrelMessage record(i, host.c_str(), "bob", "here~9011", "alice", QTYPE_CLIENT, wire::kSendNoResponse, 0,
                                 "hi", 3);
    ASSERT_TRUE(alice.handleMessage(record.getPackedBuf(), record.getPackedBufLen(), wire::kSendNoResponse, 0));
    auto delivered = bobLink.take();
    ASSERT_TRUE(delivered && std::string(delivered->getData()) == "hi") << host;
  }
  EXPECT_EQ(linksOpened + server.hostCount(), 0u);
  EXPECT_EQ(aliceLink.take(), nullptr);  // no answers to no-response sends
}

}  // namespace
}  // namespace vantrel::test
