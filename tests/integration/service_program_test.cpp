// One service as a process: start-up failures, restart, stop, the local road
// of a message, and what it does with clients and peers that do not follow the
// protocol.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/servicehelper.h"
#include "tests/support/tlscerts.h"
#include "vantrel/version.h"

namespace vantrel::test {
namespace {

using namespace vantrel::wire;

class LocalServiceTest : public ::testing::Test {
 protected:
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
  EXPECT_EQ(replyTo, address("alice"));
  ASSERT_TRUE(bob.NETSendMessageNowaitZ1(4712, "answer", 7, replyTo.c_str()));
  EXPECT_EQ(alice.nextText(), "4 answer");  // the service delivers it here, as the sender wrote it
  // Nothing but the acknowledgements went back to the senders.
  EXPECT_EQ(alice.pending() + bob.pending(), 0u);
}

TEST_F(LocalServiceTest, SendsToClientsThatLeftOrNeverCameAreNotDelivered) {
  bob.NETTerminate();
  ASSERT_TRUE(service.waitLog("Removing client bob"));
  // Without a response wanted, nothing at all comes back.
  ASSERT_TRUE(alice.NETSendMessageNoresponseZ1("lost", 5, address("ghost").c_str()));
  // Acknowledged: the failure ends the wait at once (the default wait is a
  // minute) and nothing is left on the message queue.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(alice.NETSendMessageZ1("gone?", 6, address("bob").c_str()));
  EXPECT_EQ(alice.NETGetLastStatus(), kStatusAckError);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(alice.pending(), 0u);

  // The farewell freed the name.
  TestClient again;
  ASSERT_TRUE(again.NETInitZ641("bob", service.clientsPort()));
  EXPECT_TRUE(alice.NETSendMessageZ1("back", 5, address("bob").c_str()));

  // Hundreds of messages to the new bob arrive in order.
  constexpr int kCount = 400;
  for (int i = 0; i < kCount; ++i) {
    const std::string text = "message " + std::to_string(i);
    ASSERT_TRUE(
        alice.NETSendMessageNoresponseZ1(text.c_str(), static_cast<unsigned>(text.size() + 1), address("bob").c_str()));
  }
  ASSERT_EQ(again.nextText(), "2 back");
  for (int i = 0; i < kCount; ++i) ASSERT_EQ(again.nextText(), "3 message " + std::to_string(i));
}

TEST_F(LocalServiceTest, GarbagePeersEndOnlyTheirOwnConnection) {
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
  // While any vantrel service runs on the host the report is left out, and
  // other tests run services meanwhile: this one gets a process table of its own.
  const std::vector<std::string> ownProcesses = {RQPFindProgram("unshare"), "--pid", "--fork", "--mount-proc"};
  if (ownProcesses[0].empty() || std::system((ownProcesses[0] + " --pid --fork --mount-proc true").c_str()) != 0)
    GTEST_SKIP() << "needs unshare and the right to make a process namespace (root)";
  ServiceProcess service;
  service.setLauncher(ownProcesses);
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

TEST(ServiceProgramTest, AProbeIsServedButAHalfGreetingMakesTheServiceRestartItself) {
  ServiceProcess service;
  ASSERT_TRUE(service.launch()) << service.log();
  {
    RawLink probe;  // a port check: connect and close without a byte
    ASSERT_TRUE(probe.connectClient(service.clientsPort()));
  }
  TestClient early;
  ASSERT_TRUE(early.NETInitZ641("early", service.clientsPort()));
  early.NETTerminate();
  {
    RawLink broken;
    ASSERT_TRUE(broken.connectClient(service.clientsPort()));
    ASSERT_GT(::send(broken.handle(), "VT", 2, MSG_NOSIGNAL), 0);
  }
  ASSERT_EQ(service.waitExit(std::chrono::seconds(20)), 42) << service.log();
  EXPECT_TRUE(service.waitLog("Message was not read  Should restart automatically"));

  // The successor waits for the ports, then serves new clients and logs where
  // its predecessor logged.
  ASSERT_TRUE(WaitUntil([&] { return service.logCount("vantrel ready") >= 2; }, std::chrono::seconds(30)))
      << service.log();
  TestClient late;
  EXPECT_TRUE(late.NETInitZ641("late", service.clientsPort()));
  late.NETTerminate();
  ASSERT_FALSE(service.successors().empty());
}

TEST(ServiceProgramTest, StartUpRefusalsHelpAndVersion) {
  const std::string program = VANTREL_BINARY_DIR "/programs/vantrel";
  const std::vector<std::string> ports = {"--clients-port", std::to_string(FreePort()), "--net-port",
                                          std::to_string(FreePort())};
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    const char* output;  // on standard output
  } rows[] = {
      {{"--version"}, 0, "vantrel " VANTREL_VERSION_STRING "\n"},
      {{"--help"}, 0, "Usage: vantrel"},
      {{"--help"}, 0, "42  an unrecoverable socket failure"},
      // Never quietly on the built-in defaults, nor without the log it was given.
      {{"--config", "/nonexistent/Vantrel.ini"}, 2, ""},
      {{"--log-file", "/proc/nonexistent/vantrel.log"}, 2, ""},
      // systemd installs the service here; both at once is no request at all.
      {{"--install-service"}, 2, ""},
      {{"--install-service", "--uninstall-service"}, 2, ""},
      {{}, 2, "openssl settings\n"},  // the clients port is held below
  };
  StreamSocket holder(false, "holder");
  holder.CreateListenerSocket(static_cast<unsigned short>(std::stoi(ports[1])), c_Socket::eLoopbackOnly);
  for (const auto& row : rows) {
    std::vector<std::string> arguments = ports;
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const auto result = RQPRunAndCapture(program, arguments, nTime::cDiff::FromSeconds(20));
    EXPECT_EQ(result.exitCode, row.exitCode) << row.arguments.back();
    EXPECT_NE(result.output.find(row.output), std::string::npos) << result.output;
    // Standard output is a pipe here: no terminal escapes, no stray diagnostics.
    EXPECT_EQ(result.output.find_first_of('\x1b'), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("Current user"), std::string::npos) << result.output;
  }
}

TEST(ServiceProgramTest, SighupReopensTheLogFileMovedAwayForRotation) {
  ServiceProcess service;
  ASSERT_TRUE(service.launch()) << service.log();
  std::filesystem::rename(service.logFile(), service.logFile() + ".1");
  ASSERT_EQ(::kill(static_cast<pid_t>(service.pid()), SIGHUP), 0);
  EXPECT_TRUE(service.waitLog("log file reopened"));  // in a new file at the old path
}

TEST(ServiceProgramTest, IdleConnectionsOnTheNetPortHoldNoThreadsAndShutNobodyOut) {
  constexpr int kIdle = 1000, kMaxPending = 64;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < kIdle + 200) GTEST_SKIP() << "needs " << kIdle + 200 << " descriptors";
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ServiceProcess flooded("MaxPendingConnections = " + std::to_string(kMaxPending)), peer;
  ASSERT_TRUE(flooded.launch() && peer.launch()) << flooded.log() << peer.log();
  const long threadsAtStart = flooded.threads();

  std::vector<int> idle;
  sockaddr_in address{AF_INET, htons(flooded.netPort()), {htonl(INADDR_LOOPBACK)}, {}};
  for (int i = 0; i < kIdle; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << i;
    idle.push_back(fd);
  }
  // Every connection has been taken: all but the newest few were closed again.
  const auto closedByService = [&] {
    char byte;
    return std::count_if(idle.begin(), idle.end(), [&](int fd) { return ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0; });
  };
  EXPECT_TRUE(WaitUntil([&] { return closedByService() >= kIdle - kMaxPending; }, std::chrono::seconds(30)));
  // The reaper joins the readers of closed connections soon after they end.
  EXPECT_TRUE(
      WaitUntil([&] { return flooded.threads() <= threadsAtStart + kMaxPending + 4; }, std::chrono::seconds(10)))
      << flooded.threads() << " threads";

  // A local client registers, and a peer's new link gets in while the idle
  // connections still wait; acknowledged sends cross it both ways.
  TestClient alice, bob;
  ASSERT_TRUE(alice.NETInitZ641("alice", flooded.clientsPort()) && bob.NETInitZ641("bob", peer.clientsPort()));
  EXPECT_TRUE(bob.NETSendMessageZ1("in", 3, alice.NETWhoAmI())) << flooded.log();
  EXPECT_TRUE(alice.NETSendMessageZ1("out", 4, ("bob@" + peer.hostText()).c_str())) << peer.log();
  EXPECT_EQ(alice.nextText(), "2 in");
  EXPECT_EQ(bob.nextText(), "2 out");
  EXPECT_TRUE(flooded.waitLog("is closed for one from"));
  EXPECT_EQ(flooded.logCount("listens on every address without client-certificate verification"), 1u);
  for (int fd : idle) ::close(fd);
}

TEST(ServiceProgramTest, TheNetPortAdmitsOnlyPeersThatMayUseTheNameTheyGive) {
  TestAuthority ca("vantrel test ca");
  TempDir certs;
  ca.WriteHostFolder(certs.file("service"), {LocalHostName(), "localhost"}, {"127.0.0.1"});
  ca.WriteHostFolder(certs.file("peer"), {"peer.example"}, {});
  ServiceProcess tls("UseOpenSsl = 1\nCertificatesPath = " + certs.file("service") + "\nVerifyClientCertificate = 1");
  ServiceProcess loopback("NetListenAddress = 127.0.0.1");
  ASSERT_TRUE(tls.launch()) << tls.log();
  ASSERT_TRUE(loopback.launch()) << loopback.log();
  const std::string itself = "127.0.0.1~" + std::to_string(loopback.netPort());
  const struct {
    ServiceProcess* service;
    std::string host;
    short marker;
    std::string log;
  } rows[] = {
      {&tls, "peer.example~1", kVersionMarker, "Received a connection from host: peer.example~1"},
      {&tls, "other.example~1", kVersionMarker, "host other.example~1 from 127.0.0.1 is not named by its certificate"},
      {&loopback, "peer.example~1", kVersionMarker, "Received a connection from host: peer.example~1"},
      {&loopback, loopback.hostText(), kVersionMarker, "host " + loopback.hostText() + " from 127.0.0.1 names this"},
      {&loopback, itself, kVersionMarker, "host " + itself + " from 127.0.0.1 names this service itself; link refused"},
      {&loopback, "oldhost~1", 0, "Vantrel version there is Obsolete"},
  };
  for (const auto& row : rows) {
    StreamSocket link(row.service == &tls, "test peer");
    if (row.service == &tls) link.SetTlsSettings({certs.file("peer"), false, false});
    ASSERT_TRUE(link.Connect("127.0.0.1", row.service->netPort(), gSocketOptionsNet())) << row.host;
    ASSERT_TRUE(link.SendTypedMessageZ2(kHostName, row.marker, row.host.c_str(), row.host.size() + 1));
    EXPECT_TRUE(row.service->waitLog(row.log)) << row.service->log();
    if (row.log.find("Received") != std::string::npos) continue;
    // Refused: no answer, the service closes the link.
    short type, subtype;
    char* data = nullptr;
    unsigned length = 0;
    EXPECT_FALSE(link.WaitTypedMessageZ1(type, subtype, data, length, nullptr)) << row.host;
  }
  // Neither can be reached by any peer without a certificate: no warning.
  EXPECT_EQ(tls.logCount("without client-certificate verification") + loopback.logCount("client-certificate"), 0u);

  ServiceProcess elsewhere("NetListenAddress = 192.0.2.1");  // not this host's
  ASSERT_TRUE(elsewhere.start());
  EXPECT_EQ(elsewhere.waitExit(std::chrono::seconds(20)), 2) << elsewhere.log();
}

TEST(ServiceProgramTest, TheServiceManagerHearsReadyWatchdogAndStopping) {
  // The service manager's side of the notification: a datagram socket.
  TempDir dir;
  const std::string path = dir.file("notify");
  const int manager = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  path.copy(address.sun_path, path.size());
  ASSERT_EQ(::bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  timeval wait{10, 0};
  ::setsockopt(manager, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  // The datagrams in order, blank-separated, until `last` arrived or none came for 10 s.
  const auto heard = [manager](const std::string& last) {
    std::string said;
    char buffer[256];
    for (ssize_t got; said.size() < last.size() || said.compare(said.size() - last.size(), last.size(), last) != 0;) {
      if ((got = ::recv(manager, buffer, sizeof buffer, 0)) <= 0) break;
      said += (said.empty() ? "" : " ") + std::string(buffer, static_cast<std::size_t>(got));
    }
    return said;
  };

  ServiceProcess service;
  service.setEnv("NOTIFY_SOCKET", path);
  service.setEnv("WATCHDOG_USEC", "200000");
  ASSERT_TRUE(service.launch()) << service.log();
  // Ready comes once, when the clients port already answers; then the watchdog
  // is fed until the stop.
  EXPECT_EQ(heard("READY=1"), "READY=1");
  TestClient client;
  EXPECT_TRUE(client.NETInitZ641("early", service.clientsPort()));
  client.NETTerminate();
  EXPECT_EQ(heard("WATCHDOG=1"), "WATCHDOG=1");
  EXPECT_EQ(service.stop(), 0) << service.log();
  const std::string stopping = heard("STOPPING=1");
  EXPECT_TRUE(std::regex_match(stopping, std::regex("(WATCHDOG=1 )*STOPPING=1"))) << stopping;
  ::close(manager);
}

}  // namespace
}  // namespace vantrel::test
