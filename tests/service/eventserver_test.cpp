#include "vantrel/service/vantreleventserver.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "tests/service/servicefakes.h"
#include "vantrel/service/vantrelclientinstance.h"

namespace vantrel::test {
namespace {

VantrelHostEvent* HostMessage(const char* host, const char* text) {
  return new VantrelHostEvent(7, host, "peer", "me~1", "sender", QTYPE_CLIENT, 2, 0, text,
                              static_cast<long>(std::strlen(text) + 1));
}

VantrelClientEvent* ClientMessage(const char* client) {
  return new VantrelClientEvent(1, "", client, "", "", QTYPE_CLIENT, 1034, 0, "x", 2);
}

class EventServerTest : public ::testing::Test {
 protected:
  CVantrelEventServer server;
};

TEST_F(EventServerTest, HostEventIsKeptByTheCallerWhenNoLinkCanBeMade) {
  server.setLinkFactory([](const std::string&) -> iVantrelHostLink* { return nullptr; });
  std::unique_ptr<VantrelHostEvent> event(HostMessage("nowhere", "lost"));
  EXPECT_FALSE(server.dispatchHostEvent(event.get()));
}

TEST_F(EventServerTest, NewestRegistrationWinsAndRemovalGoesByIdentity) {
  FakeClientLink olderLink("older");
  FakeClientLink newerLink("newer");
  VantrelClientInstance older("alice", &olderLink, &server);
  VantrelClientInstance newer("alice", &newerLink, &server);

  ASSERT_TRUE(server.dispatchClientEvent(ClientMessage("alice")));
  EXPECT_EQ(newerLink.eventQueue().size(), 1u);
  EXPECT_EQ(olderLink.eventQueue().size(), 0u);

  // Removing the stale registration must not take the newer one away.
  server.removeClient(&older);
  ASSERT_TRUE(server.dispatchClientEvent(ClientMessage("alice")));
  EXPECT_EQ(newerLink.eventQueue().size(), 2u);

  server.removeClient(&newer);
  std::unique_ptr<VantrelClientEvent> unrouted(ClientMessage("alice"));
  EXPECT_FALSE(server.dispatchClientEvent(unrouted.get()));
  EXPECT_EQ(server.clientCount(), 0u);
  // Removing again is harmless.
  server.removeClient(&newer);
}

TEST_F(EventServerTest, KeysDifferingInCaseAreDifferentClients) {
  FakeClientLink link("a");
  VantrelClientInstance instance("Alice", &link, &server);
  std::unique_ptr<VantrelClientEvent> event(ClientMessage("alice"));
  EXPECT_FALSE(server.dispatchClientEvent(event.get()));
  server.removeClient(&instance);
}

TEST_F(EventServerTest, CleanUpStopsEveryHostBeforeAnyClient) {
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
  EXPECT_EQ(log.entries, expected);
  // Clients are detached with a join of their connection's threads.
  EXPECT_TRUE(linkA.lastWait);
  EXPECT_EQ(server.clientCount(), 0u);
  EXPECT_EQ(server.hostCount(), 0u);
  EXPECT_EQ(server.registrationCount(), 0u);

  // A second clean-up finds empty tables.
  server.cleanUp();
  EXPECT_EQ(log.entries.size(), 4u);
}

}  // namespace
}  // namespace vantrel::test
