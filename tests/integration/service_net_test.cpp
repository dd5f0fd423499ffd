// Several services on one machine, addressed as host~port.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "tests/support/servicehelper.h"
#include "tests/support/tlscerts.h"
#include "vantrel/base/socket/streamsocket.h"

namespace vantrel::test {
namespace {

class NetServiceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { setenv("VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT", "1500", 1); }

  // Starts a service and waits for it.
  static void Launch(ServiceProcess& service) {
    ASSERT_TRUE(service.start());
    ASSERT_TRUE(service.waitReady()) << service.log();
  }
  static std::string At(const char* client, const ServiceProcess& service) {
    return std::string(client) + "@" + service.hostText();
  }
  // Starts `service` and registers `client` there as `name`.
  static void Join(ServiceProcess& service, TestClient& client, const char* name) {
    Launch(service);
    ASSERT_TRUE(client.NETInitZ641(name, service.clientsPort()));
  }
  // Every id gets exactly one "broken" answer, and nothing else follows it.
  static void ExpectOneBrokenAnswerEach(TestClient& alice, ServiceProcess& a, const std::set<unsigned>& ids) {
    std::set<unsigned> answered;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      auto answer = alice.next();
      ASSERT_TRUE(answer.has_value()) << a.log();
      EXPECT_EQ(answer->getType(), 103);
      EXPECT_STREQ(answer->getData(), "Connection to host broke.");
      answered.insert(answer->getMessageId());
    }
    EXPECT_EQ(answered, ids);
    // A round trip on A itself shows that nothing more is on its way.
    ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("self", 5, At("alice", a).c_str()));
    auto self = alice.next();
    ASSERT_TRUE(self.has_value());
    EXPECT_STREQ(self->getData(), "self");
    EXPECT_EQ(alice.pending(), 0u);
  }
};

TEST_F(NetServiceTest, RemoteSendsTravelAndAnswersComeBackOverOneLink) {
  ServiceProcess a, b;
  TestClient alice, bob;
  Join(a, alice, "alice");
  Join(b, bob, "bob");

  ASSERT_TRUE(alice.NETSendMessageZ1("over", 5, At("bob", b).c_str())) << alice.NETGetLastStatus();
  auto received = bob.next();
  ASSERT_TRUE(received.has_value());
  EXPECT_STREQ(received->getData(), "over");
  EXPECT_EQ(received->getType(), 2);

  ASSERT_TRUE(alice.NETSendMessageNowaitZ1(31, "nowait", 7, At("bob", b).c_str()));
  received = bob.next();
  ASSERT_TRUE(received.has_value());
  EXPECT_EQ(received->getMessageId(), 31u);
  ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("fire", 5, At("bob", b).c_str()));
  received = bob.next();
  ASSERT_TRUE(received.has_value());
  EXPECT_STREQ(received->getData(), "fire");

  // The answer goes back to the sender by the address it gave itself.
  ASSERT_TRUE(bob.NETSendMessageZ1("back", 5, alice.NETWhoAmI())) << bob.NETGetLastStatus();
  received = alice.next();
  ASSERT_TRUE(received.has_value());
  EXPECT_STREQ(received->getData(), "back");

  // One link each way at most: A opened one to B; B answered over the link A opened.
  ASSERT_TRUE(a.waitLog("Creating new CVantrelHostConnection"));
  ASSERT_TRUE(b.waitLog("Received a connection from host: " + a.hostText()));
  EXPECT_EQ(a.logCount("Creating new CVantrelHostConnection"), 1u);
  EXPECT_EQ(b.logCount("Creating new CVantrelHostConnection"), 0u);

  // A client that does not exist on the peer: not delivered, on the message queue.
  EXPECT_FALSE(alice.NETSendMessageZ1("none", 5, At("nobody", b).c_str()));
  auto failure = alice.next();
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->getType(), 103);

  alice.NETTerminate();
  bob.NETTerminate();
  EXPECT_EQ(a.stop(), 0) << a.log();
  EXPECT_EQ(b.stop(), 0) << b.log();
}

TEST_F(NetServiceTest, ThreeServicesRouteToEachOther) {
  ServiceProcess a, b, c;
  TestClient alice, bob, carol;
  Join(a, alice, "alice");
  Join(b, bob, "bob");
  Join(c, carol, "carol");

  ASSERT_TRUE(alice.NETSendMessageZ1("to b", 5, At("bob", b).c_str()));
  ASSERT_TRUE(alice.NETSendMessageZ1("to c", 5, At("carol", c).c_str()));
  ASSERT_TRUE(bob.NETSendMessageZ1("b to c", 7, At("carol", c).c_str()));
  ASSERT_TRUE(carol.NETSendMessageZ1("c to a", 7, alice.NETWhoAmI()));

  auto toBob = bob.next();
  ASSERT_TRUE(toBob.has_value()) << b.log();
  EXPECT_STREQ(toBob->getData(), "to b");
  auto first = carol.next();
  auto second = carol.next();
  ASSERT_TRUE(first.has_value() && second.has_value()) << c.log();
  EXPECT_STREQ(first->getData(), "to c");
  EXPECT_STREQ(second->getData(), "b to c");
  auto toAlice = alice.next();
  ASSERT_TRUE(toAlice.has_value());
  EXPECT_STREQ(toAlice->getData(), "c to a");
}

TEST_F(NetServiceTest, KilledPeerAnswersEveryWaitingRequestOnce) {
  ServiceProcess a, b;
  TestClient alice, bob;
  Join(a, alice, "alice");
  Join(b, bob, "bob");
  ASSERT_TRUE(alice.NETSendMessageZ1("warm up", 8, At("bob", b).c_str()));

  // Frozen, the peer takes the requests into its socket but never answers.
  ASSERT_TRUE(b.freeze());
  for (int id = 1; id <= 3; ++id) ASSERT_TRUE(alice.NETSendMessageNowaitZ1(id, "q", 2, At("bob", b).c_str()));
  ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("n", 2, At("bob", b).c_str()));
  b.kill();
  ExpectOneBrokenAnswerEach(alice, a, {1, 2, 3});
}

TEST_F(NetServiceTest, RequestsAfterThePeerDiedAreAnsweredOnceEach) {
  ServiceProcess a, b;
  TestClient alice, bob;
  Join(a, alice, "alice");
  Join(b, bob, "bob");
  ASSERT_TRUE(alice.NETSendMessageZ1("warm up", 8, At("bob", b).c_str()));
  b.kill();
  ASSERT_TRUE(a.waitLog("Removing host " + b.hostText())) << a.log();

  // The old link is gone: each request opens a new one that cannot connect.
  for (int id = 11; id <= 13; ++id) ASSERT_TRUE(alice.NETSendMessageNowaitZ1(id, "q", 2, At("bob", b).c_str()));
  ExpectOneBrokenAnswerEach(alice, a, {11, 12, 13});
  EXPECT_TRUE(a.running());
}

TEST_F(NetServiceTest, IdleLinkCarriesPings) {
  ServiceProcess a, b;
  a.setEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS", "1");
  TestClient alice, bob;
  Join(a, alice, "alice");
  Join(b, bob, "bob");
  ASSERT_TRUE(alice.NETSendMessageZ1("start", 6, At("bob", b).c_str()));
  EXPECT_TRUE(a.waitLog("Sending Ping to host " + b.hostText())) << a.log();
  // The link survives its pings.
  EXPECT_TRUE(alice.NETSendMessageZ1("still", 6, At("bob", b).c_str()));
  EXPECT_EQ(a.logCount("Creating new CVantrelHostConnection"), 1u);
}

TEST_F(NetServiceTest, ObsoletePeersAndGarbageEndOnlyTheirLink) {
  ServiceProcess b;
  Launch(b);
  {
    StreamSocket old(false, "old peer");
    ASSERT_TRUE(old.Connect("127.0.0.1", b.netPort(), {}));
    const char text[] = "oldhost~1";
    ASSERT_TRUE(old.SendTypedMessageZ2(203, 0, text, sizeof text));
    ASSERT_TRUE(b.waitLog("Vantrel version there is Obsolete"));
    short type = 0, subtype = 0;
    char* data = nullptr;
    unsigned length = 0;
    // No answer: the service closes the link.
    EXPECT_FALSE(old.WaitTypedMessageZ1(type, subtype, data, length, nullptr));
  }
  {
    StreamSocket junk(false, "junk");
    ASSERT_TRUE(junk.Connect("127.0.0.1", b.netPort(), {}));
    // A well-formed handshake followed by a record that is no record.
    const char text[] = "junkhost~1";
    ASSERT_TRUE(junk.SendTypedMessageZ2(203, 0x7F04, text, sizeof text));
    ASSERT_TRUE(junk.SendTypedMessageZ2(2, 0x7F04, "\x05garbage", 9));
    ASSERT_TRUE(b.waitLog("malformed record of type 2 from host junkhost~1"));
  }
  TestClient bob;
  ASSERT_TRUE(bob.NETInitZ641("bob", b.clientsPort()));
  EXPECT_TRUE(b.running());
  EXPECT_EQ(b.stop(), 0) << b.log();
}

class TlsLinkTest : public NetServiceTest {
 protected:
  static std::string TlsIni(const std::string& folder, bool verify) {
    const std::string flag = verify ? "1" : "0";
    return "UseOpenSsl = 1\nCertificatesPath = " + folder + "\nVerifyServerCertificate = " + flag +
           "\nVerifyClientCertificate = " + flag + "\n";
  }
  static void WriteHost(const TestAuthority& ca, const std::string& folder, const TestAuthority* trusted = nullptr) {
    ca.WriteHostFolder(folder, {LocalHostName(), "localhost"}, {"127.0.0.1"}, trusted);
  }
  TempDir certs;
};

TEST_F(TlsLinkTest, LinksRunOverTlsWithAndWithoutVerification) {
  TestAuthority ca("vantrel test ca");
  WriteHost(ca, certs.file("a"));
  WriteHost(ca, certs.file("b"));
  for (bool verify : {false, true}) {
    ServiceProcess a(TlsIni(certs.file("a"), verify)), b(TlsIni(certs.file("b"), verify));
    TestClient alice, bob;
    Join(a, alice, "alice");
    Join(b, bob, "bob");
    ASSERT_TRUE(alice.NETSendMessageZ1("secret", 7, At("bob", b).c_str())) << a.log() << b.log();
    auto received = bob.next();
    ASSERT_TRUE(received.has_value());
    EXPECT_STREQ(received->getData(), "secret");
    ASSERT_TRUE(bob.NETSendMessageZ1("reply", 6, alice.NETWhoAmI()));
  }
}

TEST_F(TlsLinkTest, UntrustedPeerCertificateRefusesTheLink) {
  TestAuthority ca("vantrel test ca");
  TestAuthority rogue("rogue ca");
  WriteHost(ca, certs.file("a"));
  WriteHost(rogue, certs.file("b"), &rogue);
  ServiceProcess a(TlsIni(certs.file("a"), true)), b(TlsIni(certs.file("b"), true));
  TestClient alice, bob;
  Join(a, alice, "alice");
  Join(b, bob, "bob");
  EXPECT_FALSE(alice.NETSendMessageZ1("secret", 7, At("bob", b).c_str()));
  auto failure = alice.next();
  ASSERT_TRUE(failure.has_value()) << a.log();
  EXPECT_EQ(failure->getType(), 103);
  EXPECT_STREQ(failure->getData(), "Connection to host broke.");
  EXPECT_EQ(bob.pending(), 0u);
}

}  // namespace
}  // namespace vantrel::test
