// One service as a process: start-up failures, restart, stop, the local road
// of a message, and what it does with clients and peers that do not follow the
// protocol.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/servicehelper.h"

namespace vantrel::test {
namespace {

using namespace vantrel::wire;

class LocalServiceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // A send to an unregistered client is not answered on the acknowledgement
    // queue; keep its wait short.
    setenv("VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT", "1500", 1);
  }

  void SetUp() override {
    ASSERT_TRUE(service.launch()) << service.log();
    ASSERT_TRUE(alice.NETInitZ641("alice", service.clientsPort()));
    ASSERT_TRUE(bob.NETInitZ641("bob", service.clientsPort()));
  }

  void TearDown() override {
    alice.NETTerminate();
    bob.NETTerminate();
    EXPECT_EQ(service.stop(), 0) << service.log();
  }

  std::string address(const char* client) const { return std::string(client) + "@" + service.hostText(); }

  ServiceProcess service;
  TestClient alice;
  TestClient bob;
};

TEST_F(LocalServiceTest, SendsArriveWithTheirTypeAndIdAndOnlyTheAnswersGoBack) {
  ASSERT_TRUE(alice.NETSendMessageZ1("hello", 6, address("bob").c_str())) << alice.NETGetLastStatus();
  auto received = bob.next();
  ASSERT_TRUE(received.has_value());
  EXPECT_STREQ(received->getData(), "hello");
  EXPECT_STREQ(received->getFromClient(), "alice");
  EXPECT_EQ(received->getType(), 2);

  ASSERT_TRUE(alice.NETSendMessageNowaitZ1(4711, "question", 9, address("bob").c_str()));
  auto question = bob.next();
  ASSERT_TRUE(question.has_value());
  EXPECT_EQ(question->getMessageId(), 4711u);
  EXPECT_EQ(question->getType(), 4);
  const std::string replyTo = std::string(question->getFromClient()) + "@" + question->getFromHost();
  ASSERT_TRUE(bob.NETSendMessageNowaitZ1(4712, "answer", 7, replyTo.c_str()));
  EXPECT_EQ(alice.nextText(), "1036 answer");  // addressed without a host: a local send
  // Nothing but the acknowledgements went back to the senders.
  EXPECT_EQ(alice.pending() + bob.pending(), 0u);
  // Addressed by its own host text, the service never opened a link to itself.
  EXPECT_EQ(service.logCount("Creating new CVantrelHostConnection"), 0u);
}

TEST_F(LocalServiceTest, SendsToClientsThatLeftOrNeverCameAreNotDelivered) {
  bob.NETTerminate();
  ASSERT_TRUE(service.waitLog("Removing client bob"));
  // Without a response wanted, nothing at all comes back.
  ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("lost", 5, address("ghost").c_str()));
  // Acknowledged: the wait times out with status 0 while the failure lands on
  // the message queue - the only thing there, so the send above had no answer.
  EXPECT_FALSE(alice.NETSendMessageZ1("gone?", 6, address("bob").c_str()));
  EXPECT_EQ(alice.NETGetLastStatus(), 0);
  EXPECT_EQ(alice.nextText(), "103 Error dispatching client event");
  EXPECT_EQ(alice.pending(), 0u);

  // The farewell freed the name.
  TestClient again;
  ASSERT_TRUE(again.NETInitZ641("bob", service.clientsPort()));
  EXPECT_TRUE(alice.NETSendMessageZ1("back", 5, address("bob").c_str()));
}

TEST_F(LocalServiceTest, HundredsOfMessagesArriveInOrder) {
  constexpr int kCount = 400;
  for (int i = 0; i < kCount; ++i) {
    const std::string text = "message " + std::to_string(i);
    ASSERT_TRUE(
        alice.NETSendMessageNoresponseZ1(text.c_str(), static_cast<unsigned>(text.size() + 1), address("bob").c_str()));
  }
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(bob.nextText(), "3 message " + std::to_string(i));
}

TEST_F(LocalServiceTest, GarbageAndObsoletePeersEndOnlyTheirOwnConnection) {
  {
    RawLink rogue;
    ASSERT_TRUE(rogue.connectClient(service.clientsPort()));
    ASSERT_TRUE(rogue.greet("rogue"));
    EXPECT_EQ(rogue.next().value_or(cFrame{}).subtype, 1);  // the greeting's echo
    // A record that is not one, then a frame with a bad marker.
    ASSERT_TRUE(rogue.send(kLocalSend, 0, "\x07\x07\x07"));
    ASSERT_GT(::send(rogue.handle(), "NOT A FRAME AT ALL.....", 23, MSG_NOSIGNAL), 0);
    ASSERT_TRUE(service.waitLog("Removing client rogue")) << service.log();
  }
  {
    RawLink old;
    ASSERT_TRUE(old.connectPeer(service.netPort(), "oldhost~1", 0));
    ASSERT_TRUE(service.waitLog("Vantrel version there is Obsolete"));
    EXPECT_FALSE(old.next().has_value());  // no answer: the service closes the link
    EXPECT_TRUE(old.closed());
  }
  RawLink junk;  // a well-formed handshake followed by a record that is no record
  ASSERT_TRUE(junk.connectPeer(service.netPort(), "junkhost~1", kVersionMarker));
  ASSERT_TRUE(junk.send(kSend, kVersionMarker, "\x05garbage"));
  ASSERT_TRUE(service.waitLog("malformed record of type 2 from host junkhost~1"));

  // New clients are still accepted and everyone is still served.
  TestClient carol;
  ASSERT_TRUE(carol.NETInitZ641("carol", service.clientsPort()));
  EXPECT_TRUE(alice.NETSendMessageZ1("fine", 5, address("carol").c_str()));
  EXPECT_EQ(carol.nextText(), "2 fine");
}

TEST_F(LocalServiceTest, SecondInstanceOnTheSamePortsGivesUp) {
  ServiceProcess second;
  second.setPorts(service.clientsPort(), service.netPort());
  ASSERT_TRUE(second.start());
  EXPECT_EQ(second.waitExit(std::chrono::seconds(20)), 2);
  EXPECT_TRUE(second.waitLog("net port " + std::to_string(service.netPort()) + " is in use")) << second.log();
}

TEST(ServiceProgramTest, AClientsPortFromTheEnvironmentThatIsNoPortStopsTheStart) {
  ServiceProcess service;
  service.setPorts(0, service.netPort());
  service.setEnv("VANTREL_CLIENT_PORT", std::to_string(service.clientsPort()) + "x");
  ASSERT_TRUE(service.start());
  EXPECT_EQ(service.waitExit(std::chrono::seconds(20)), 2);
  EXPECT_TRUE(service.waitLog("VANTREL_CLIENT_PORT \"" + std::to_string(service.clientsPort()) + "x\" is not"))
      << service.log();
}

TEST(ServiceProgramTest, ForeignProgramOnTheNetPortIsReported) {
  ServiceProcess service;
  // Bound but not listening: it holds the port and answers no ping.
  const int holder = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(service.netPort()), {htonl(INADDR_ANY)}, {}};
  ASSERT_EQ(::bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  ASSERT_TRUE(service.start());
  const auto code = service.waitExit(std::chrono::seconds(20));
  ::close(holder);
  EXPECT_NE(code.value_or(0), 0);
  // Exactly the report: the start-up lines name the port as well.
  EXPECT_TRUE(service.waitLog("Port " + std::to_string(service.netPort()) + " is in use by other application"))
      << service.log();
}

TEST(ServiceProgramTest, ClientWithoutGreetingMakesTheServiceRestartItself) {
  ServiceProcess service;
  ASSERT_TRUE(service.launch()) << service.log();
  {
    RawLink silent;
    ASSERT_TRUE(silent.connectClient(service.clientsPort()));
  }
  ASSERT_EQ(service.waitExit(std::chrono::seconds(20)), 42) << service.log();
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
