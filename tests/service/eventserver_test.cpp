#include <gtest/gtest.h>

#include <vector>

#include "tests/service/servicefakes.h"
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

}  // namespace
}  // namespace vantrel::test
