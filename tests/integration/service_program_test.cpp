// The vantrel program as a process: start-up failures, restart, stop.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tests/support/servicehelper.h"
#include "vantrel/base/socket/streamsocket.h"

namespace vantrel::test {
namespace {

TEST(ServiceProgramTest, SecondInstanceOnTheSamePortsGivesUp) {
  ServiceProcess first;
  ASSERT_TRUE(first.start());
  ASSERT_TRUE(first.waitReady()) << first.log();

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
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.waitReady()) << service.log();
  {
    StreamSocket silent(false, "silent client");
    ASSERT_TRUE(silent.ConnectLocal(service.clientsPort(), {}));
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

TEST(ServiceProgramTest, GarbageFromAClientEndsOnlyThatConnection) {
  ServiceProcess service;
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(service.waitReady()) << service.log();
  TestClient bob;
  ASSERT_TRUE(bob.NETInitZ641("bob", service.clientsPort()));
  {
    StreamSocket rogue(false, "rogue client");
    ASSERT_TRUE(rogue.ConnectLocal(service.clientsPort(), {}));
    char greeting[258] = {};
    std::strcpy(greeting + 2, "rogue");
    ASSERT_TRUE(rogue.SendTypedMessageZ2(1029, 0, greeting, sizeof greeting));
    short type = 0, subtype = 0;
    char* data = nullptr;
    unsigned length = 0;
    ASSERT_TRUE(rogue.WaitTypedMessageZ1(type, subtype, data, length, nullptr));
    EXPECT_EQ(subtype, 1);
    StreamSocket::FreeMessage(data);
    // A record that is not one, then a frame with a bad marker.
    ASSERT_TRUE(rogue.SendTypedMessageZ2(1034, 0, "\x07\x07\x07", 3));
    const int fd = rogue.Handle();
    ASSERT_GT(::send(fd, "NOT A FRAME AT ALL.....", 23, MSG_NOSIGNAL), 0);
    ASSERT_TRUE(service.waitLog("Removing client rogue")) << service.log();
  }
  TestClient alice;
  ASSERT_TRUE(alice.NETInitZ641("alice", service.clientsPort()));
  EXPECT_TRUE(alice.NETSendMessageZ1("fine", 5, ("bob@" + service.hostText()).c_str()));
  EXPECT_EQ(service.stop(), 0) << service.log();
}

}  // namespace
}  // namespace vantrel::test
