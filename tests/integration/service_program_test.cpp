// The vantrel program as a process: start-up failures, restart, stop.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tests/support/servicehelper.h"

namespace vantrel::test {
namespace {

TEST(ServiceProgramTest, SecondInstanceOnTheSamePortsGivesUp) {
  ServiceProcess first;
  ASSERT_TRUE(first.launch()) << first.log();

  ServiceProcess second;
  second.setPorts(first.clientsPort(), first.netPort());
  ASSERT_TRUE(second.start());
  const auto code = second.waitExit(std::chrono::seconds(20));
  ASSERT_TRUE(code.has_value());
  EXPECT_EQ(*code, 2);
  EXPECT_TRUE(second.waitLog("net port " + std::to_string(first.netPort()) + " is in use")) << second.log();
  EXPECT_EQ(first.stop(), 0) << first.log();
}

TEST(ServiceProgramTest, ForeignProgramOnTheNetPortIsReported) {
  ServiceProcess service;
  // Bound but not listening: it holds the port and answers no ping.
  const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(holder, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(service.netPort());
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  ASSERT_TRUE(service.start());
  const auto code = service.waitExit(std::chrono::seconds(20));
  ::close(holder);
  ASSERT_TRUE(code.has_value());
  EXPECT_NE(*code, 0);
  EXPECT_TRUE(service.waitLog("port " + std::to_string(service.netPort()))) << service.log();
}

TEST(ServiceProgramTest, ClientWithoutGreetingMakesTheServiceRestartItself) {
  ServiceProcess service;
  ASSERT_TRUE(service.launch()) << service.log();
  {
    RawLink silent;
    ASSERT_TRUE(silent.connectClient(service.clientsPort()));
  }
  const auto code = service.waitExit(std::chrono::seconds(20));
  ASSERT_TRUE(code.has_value()) << service.log();
  EXPECT_EQ(*code, 42);
  EXPECT_TRUE(service.waitLog("Message was not read  Should restart automatically"));

  // The successor waits for the ports, then serves new clients.
  ASSERT_TRUE(WaitUntil([&] { return service.logCount("vantrel ready") >= 2; }, std::chrono::seconds(30)))
      << service.log();
  TestClient late;
  EXPECT_TRUE(late.NETInitZ641("late", service.clientsPort()));
  late.NETTerminate();
  ASSERT_FALSE(service.successors().empty());
}

}  // namespace
}  // namespace vantrel::test
