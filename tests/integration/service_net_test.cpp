// Several services on one machine, addressed as host~port.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <set>
#include <string>
#include <tuple>

#include "bench/tcprelay.h"
#include "tests/support/servicehelper.h"
#include "tests/support/tlscerts.h"

namespace vantrel::test {
namespace {

class NetServiceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { setenv("VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT", "1500", 1); }

  static std::string At(const char* client, const ServiceProcess& service) {
    return std::string(client) + "@" + service.hostText();
  }
  // Starts `service` and registers `client` there as `name`.
  static void Join(ServiceProcess& service, TestClient& client, const char* name) {
    ASSERT_TRUE(service.launch()) << service.log();
    ASSERT_TRUE(client.NETInitZ641(name, service.clientsPort()));
  }
  static std::size_t LinksOpened(const ServiceProcess& from, const ServiceProcess& to) {
    return from.logCount("Creating new CVantrelHostConnection(" + to.hostText() + ")");
  }
  // Every id gets exactly one "broken" answer, and nothing else follows it.
  static void ExpectOneBrokenAnswerEach(TestClient& alice, ServiceProcess& a, const std::set<unsigned>& ids) {
    std::set<unsigned> answered;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      auto answer = alice.next();
      ASSERT_TRUE(answer.has_value()) << a.log();
      EXPECT_EQ(answer->getType(), wire::kNotDelivered);
      EXPECT_STREQ(answer->getData(), "Connection to host broke.");
      answered.insert(answer->getMessageId());
    }
    EXPECT_EQ(answered, ids);
    // A round trip on A itself shows that nothing more is on its way.
    ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("self", 5, At("alice", a).c_str()));
    EXPECT_EQ(alice.nextText(), "3 self") << a.log();
    EXPECT_EQ(alice.pending(), 0u);
  }
};

TEST_F(NetServiceTest, ThreeServicesRouteToEachOtherOverOneLinkPerPair) {
  ServiceProcess a, b, c;
  a.setEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS", "1");
  TestClient alice, bob, carol;
  Join(a, alice, "alice");
  Join(b, bob, "bob");
  Join(c, carol, "carol");

  ASSERT_TRUE(alice.NETSendMessageZ1("over", 5, At("bob", b).c_str())) << alice.NETGetLastStatus();
  EXPECT_EQ(bob.nextText(), "2 over") << b.log();
  ASSERT_TRUE(alice.NETSendMessageNowaitZ1(31, "nowait", 7, At("bob", b).c_str()));
  auto received = bob.next();
  ASSERT_TRUE(received.has_value());
  EXPECT_EQ(received->getMessageId(), 31u);
  ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("fire", 5, At("bob", b).c_str()));
  EXPECT_EQ(bob.nextText(), "3 fire");

  // A reply to the sender reaches alice on A, not a namesake on B's machine (A's too).
  TestClient namesake;
  ASSERT_TRUE(namesake.NETInitZ641("alice", b.clientsPort()));
  const std::string from = std::string(received->getFromClient()) + "@" + received->getFromHost();
  ASSERT_TRUE(bob.NETSendMessageZ1("back", 5, from.c_str())) << bob.NETGetLastStatus();
  EXPECT_EQ(alice.nextText(), "2 back");
  EXPECT_EQ(namesake.pending(), 0u);
  ASSERT_TRUE(alice.NETSendMessageZ1("to c", 5, At("carol", c).c_str()));
  ASSERT_TRUE(bob.NETSendMessageZ1("b to c", 7, At("carol", c).c_str()));
  ASSERT_TRUE(carol.NETSendMessageZ1("c to a", 7, alice.NETWhoAmI()));
  EXPECT_EQ(carol.nextText(), "2 to c");
  EXPECT_EQ(carol.nextText(), "2 b to c");
  EXPECT_EQ(alice.nextText(), "2 c to a");

  // An idle link carries pings and survives them.
  EXPECT_TRUE(a.waitLog("Sending Ping to host " + b.hostText())) << a.log();
  EXPECT_TRUE(alice.NETSendMessageZ1("still", 6, At("bob", b).c_str()));
  EXPECT_EQ(bob.nextText(), "2 still");

  // Each pair's link was opened once, by the first to send, and serves both ways.
  const std::string opened = std::to_string(LinksOpened(a, b)) + std::to_string(LinksOpened(a, c)) +
                             std::to_string(LinksOpened(b, c)) + std::to_string(LinksOpened(b, a)) +
                             std::to_string(LinksOpened(c, a)) + std::to_string(LinksOpened(c, b));
  EXPECT_EQ(opened, "111000");

  // A client that does not exist on the peer: not delivered, and the send says so.
  EXPECT_FALSE(alice.NETSendMessageZ1("none", 5, At("nobody", b).c_str()));
  EXPECT_EQ(alice.NETGetLastStatus(), wire::kStatusAckError);
  EXPECT_EQ(alice.pending(), 0u);

  for (TestClient* client : {&alice, &bob, &carol, &namesake}) client->NETTerminate();
  for (ServiceProcess* service : {&a, &b, &c}) EXPECT_EQ(service->stop(), 0) << service->log();
}

// A peer that dies, or stops and falls silent, answers every waiting request
// once: the dead one at once, the silent one after the silence limit (three
// one-second ping intervals here).
TEST_F(NetServiceTest, APeerThatDiesOrHangsAnswersEveryWaitingRequestOnce) {
  for (const bool dies : {true, false}) {
    SCOPED_TRACE(dies ? "killed" : "stopped");
    ServiceProcess a, b;
    a.setEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS", "1");
    TestClient alice, bob;
    Join(a, alice, "alice");
    Join(b, bob, "bob");
    ASSERT_TRUE(alice.NETSendMessageZ1("warm up", 8, At("bob", b).c_str()));

    // Frozen, the peer takes the requests into its socket but never answers.
    ASSERT_TRUE(b.freeze());
    const auto start = std::chrono::steady_clock::now();
    std::set<unsigned> ids;
    for (unsigned id = 1; id <= (dies ? 3u : 1000u); ids.insert(id++))
      ASSERT_TRUE(alice.NETSendMessageNowaitZ1(static_cast<std::int32_t>(id), "q", 2, At("bob", b).c_str()));
    ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("n", 2, At("bob", b).c_str()));
    if (dies) b.kill();
    ExpectOneBrokenAnswerEach(alice, a, ids);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (!dies) {
      EXPECT_GE(took, std::chrono::seconds(3));
      EXPECT_TRUE(a.waitLog("silent for")) << a.log();
      continue;
    }
    // The old link is gone: each later request opens a new one that cannot connect.
    ASSERT_TRUE(a.waitLog("Removing host " + b.hostText())) << a.log();
    for (int id = 11; id <= 13; ++id) ASSERT_TRUE(alice.NETSendMessageNowaitZ1(id, "q", 2, At("bob", b).c_str()));
    ExpectOneBrokenAnswerEach(alice, a, {11, 12, 13});
    EXPECT_TRUE(a.running());
  }
}

// A healthy link of 300 ms (+-50 ms) round trip under the shortest pings,
// answer time-out and silence limit: nothing fires.
TEST_F(NetServiceTest, TimersHoldOnAHealthyLongLink) {
  ServiceProcess a("AnswerTimeoutSeconds = 1\n"), b("AnswerTimeoutSeconds = 1\n");
  TestClient alice, bob;
  for (auto [service, client, name] : {std::tuple{&a, &alice, "alice"}, {&b, &bob, "bob"}}) {
    service->setEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS", "1");
    Join(*service, *client, name);
  }
  bench::cDelayRelay relay(std::chrono::milliseconds(150), std::chrono::milliseconds(25));
  ASSERT_TRUE(relay.Start(b.netPort()));
  const std::string bobThere = "bob@127.0.0.1~" + std::to_string(relay.Port());
  for (int i = 0; i < 8; ++i) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(alice.NETSendMessageZ1("over", 5, bobThere.c_str())) << a.log();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(240));
    // Halfway, an idle time in which both sides ping.
    for (auto* service : {&a, &b}) EXPECT_TRUE(i != 3 || service->waitLog("Sending Ping to host")) << service->log();
  }
  for (auto* service : {&a, &b})
    for (const char* text : {"not answered by host", "silent for", "CVantrelHostConnection::Terminate("})
      EXPECT_EQ(service->logCount(text), 0u) << text << "\n" << service->log();
  EXPECT_EQ(relay.Accepted(), 1);
}

// A link's peer may answer only what it was asked on that link and in time:
// a forged or late answer reaches nobody.
TEST_F(NetServiceTest, ALinkPeerAnswersOnlyRequestsThatWaitForIt) {
  ServiceProcess a("AnswerTimeoutSeconds = 2\nLinkSilenceLimitSeconds = 60\n");
  a.setEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS", "1");
  TestClient alice;
  Join(a, alice, "alice");
  RawLink peer;
  ASSERT_TRUE(peer.connectPeer(a.netPort(), "fake~1", wire::kVersionMarker));
  ASSERT_TRUE(a.waitLog("Received a connection from host: fake~1")) << a.log();
  const auto delivered = [&](std::uint32_t id) {
    return peer.send(cVantrelMessage(id, "fake~1", "alice", "fake~1", "bob", QTYPE_SYNC, wire::kDelivered,
                                     wire::kChannelAnswers, "", 1),
                     wire::kVersionMarker);
  };
  // While alice waits, the peer answers "delivered" for a message nobody sent.
  auto send = std::async(std::launch::async, [&] { return alice.NETSendMessageZ1("q", 2, "bob@fake~1"); });
  auto request = peer.next();
  while (request && request->type == wire::kPing) request = peer.next();
  ASSERT_TRUE(request.has_value());
  ASSERT_TRUE(delivered(777));
  EXPECT_FALSE(send.get());
  EXPECT_TRUE(a.waitLog("answer 102 to message 777 for alice from host fake~1 dropped")) << a.log();

  // A no-wait request is answered by the service in time, among the messages
  // (the acknowledged one's answer goes to the acknowledgement queue).
  ASSERT_TRUE(alice.NETSendMessageNowaitZ1(5, "q", 2, "bob@fake~1"));
  std::set<unsigned> timedOut;
  for (int i = 0; i < 1; ++i) {
    auto answer = alice.next();
    ASSERT_TRUE(answer.has_value()) << a.log();
    EXPECT_EQ(answer->getType(), wire::kNotDelivered);
    EXPECT_STREQ(answer->getData(), "No answer from host in time.");
    timedOut.insert(answer->getMessageId());
  }
  EXPECT_EQ(timedOut, (std::set<unsigned>{5}));
  // The answer that comes too late is dropped too.
  ASSERT_TRUE(delivered(5));
  EXPECT_TRUE(a.waitLog("answer 102 to message 5 for alice from host fake~1 dropped")) << a.log();
}

// "Delivered" means written to the client: a client that never reads holds at
// most its queue bound in the service, and every message beyond it, or still
// queued when the client leaves, is answered as not delivered, once.
TEST_F(NetServiceTest, AClientThatNeverReadsCostsOnlyItsQueueBound) {
  ServiceProcess a("MaxMessageSize = 65536\nMaxClientQueueBytes = 1048576\n");
  TestClient alice;
  Join(a, alice, "alice");
  RawLink sink;
  ASSERT_TRUE(sink.connectClient(a.clientsPort()) && sink.greet("sink"));
  ASSERT_TRUE(sink.next().has_value());  // the greeting's reply; nothing is read after it
  [[maybe_unused]] const long rssBefore = a.rssKiB();
  const std::string payload(60000, 'x');
  constexpr unsigned kSends = 1000;  // 60 MB
  for (unsigned id = 1; id <= kSends; ++id)
    ASSERT_TRUE(alice.NETSendMessageNowaitZ1(static_cast<std::int32_t>(id), payload.data(),
                                             static_cast<unsigned>(payload.size()), At("sink", a).c_str()));
  std::set<unsigned> refused;
  while (refused.size() < kSends / 2) {
    auto answer = alice.next();
    ASSERT_TRUE(answer.has_value()) << a.log();
    EXPECT_EQ(answer->getType(), wire::kNotDelivered);
    EXPECT_TRUE(refused.insert(answer->getMessageId()).second) << "answered twice: " << answer->getMessageId();
  }
#ifndef __SANITIZE_ADDRESS__  // its quarantine keeps freed memory resident
  EXPECT_LT(a.rssKiB() - rssBefore, 24 * 1024) << "KiB of growth";
#endif
  EXPECT_TRUE(a.waitLog("queue of client sink is full")) << a.log();

  // Leaving, the sink leaves its queue unwritten: those senders learn it too.
  sink.send(wire::kFarewell, 0, std::string(1, '\0'));
  ASSERT_TRUE(a.waitLog("Removing client sink")) << a.log();
  while (auto answer = alice.next(std::chrono::seconds(2)))
    EXPECT_TRUE(refused.insert(answer->getMessageId()).second) << "answered twice: " << answer->getMessageId();
  // What the socket took before it filled was written; everything else failed.
  EXPECT_GE(refused.size(), kSends - 300);
  EXPECT_LT(refused.size(), kSends);
}

// TLS links work between services that trust each other. A link that cannot be
// made, or breaks, says why: the service logs the cause with the host, and an
// acknowledged send gets it behind the answer's text.
TEST_F(NetServiceTest, TlsLinksWorkAndAFailedLinkNamesItsCause) {
  ScopedEnv ackTimeout("VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT", "15000");  // outlasts the silence limit
  TestAuthority ca("vantrel test ca");
  TestAuthority rogue("rogue ca");
  TempDir certs;
  const std::vector<std::string> hostNames = {LocalHostName(), "localhost"};
  ca.WriteHostFolder(certs.file("a"), hostNames, {"127.0.0.1"});
  ca.WriteHostFolder(certs.file("b"), hostNames, {"127.0.0.1"});
  rogue.WriteHostFolder(certs.file("rogue"), hostNames, {"127.0.0.1"}, &rogue);
  const auto ini = [&](const char* folder, bool verify) {
    const std::string flag = verify ? "1" : "0";
    return "UseOpenSsl = 1\nCertificatesPath = " + certs.file(folder) + "\nVerifyServerCertificate = " + flag +
           "\nVerifyClientCertificate = " + flag + "\n";
  };
  StreamSocket silentPeer(false, "silent peer");  // takes connections into its backlog, never says a word
  const std::string silentPort = std::to_string(FreePort());
  silentPeer.CreateListenerSocket(static_cast<unsigned short>(std::stoi(silentPort)), c_Socket::eLoopbackOnly);
  const std::string refusedPort = std::to_string(FreePort());  // after the bind: not the silent one
  struct Case {
    std::string ini, peerIni, host, cause;  // peerIni: the peer's, addressed when host is empty; no cause: delivered
  } cases[] = {
      {ini("a", false), ini("b", false), "", ""},
      {ini("a", true), ini("b", true), "", ""},
      {ini("a", true), ini("rogue", true), "", "TLS handshake failed: error:0A000086:SSL routines::certificate verify"},
      {ini("a", false), "", "", "TLS handshake failed: the peer closed the connection during the handshake"},
      {"", ini("b", false), "", "the peer closed the link"},
      {"", "", "nosuchhost.invalid", "cannot resolve host nosuchhost.invalid: "},
      {"", "", "127.0.0.1~" + refusedPort, "cannot connect to 127.0.0.1:" + refusedPort + ": Connection refused"},
      {"", "", "127.0.0.1~" + silentPort, "the peer sent nothing for "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ini + " to " + c.peerIni + c.host);
    ServiceProcess a(c.ini), b(c.peerIni);
    a.setEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS", "1");
    TestClient alice, bob;
    Join(a, alice, "alice");
    if (c.host.empty()) Join(b, bob, "bob");
    const std::string host = c.host.empty() ? b.hostText() : c.host;
    LogCapture capture;
    EXPECT_EQ(alice.NETSendMessageZ1("secret", 7, ("bob@" + host).c_str()), c.cause.empty()) << a.log() << b.log();
    if (c.cause.empty()) {
      EXPECT_EQ(bob.nextText(), "2 secret");
      EXPECT_TRUE(bob.NETSendMessageZ1("reply", 6, alice.NETWhoAmI()));
      continue;
    }
    EXPECT_EQ(alice.NETGetLastStatus(), wire::kStatusAckError);
    EXPECT_EQ(alice.pending() + bob.pending(), 0u);
    EXPECT_TRUE(capture.contains("not delivered: Connection to host broke. (" + c.cause)) << a.log();
    EXPECT_TRUE(a.waitLog("link to " + host + " failed: " + c.cause)) << a.log();
  }
}

}  // namespace
}  // namespace vantrel::test
