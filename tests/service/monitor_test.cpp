// The monitoring endpoint of services inside the test process: its counts
// against known traffic, its formats, a copy in flight, misbehaving HTTP
// clients, and `vantrel-cli status` reading it.
#include <gtest/gtest.h>
#include <httplib.h>

#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "tests/base/socket/socketpair.h"
#include "tests/support/servicehelper.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/FileTransferHandler.h"

namespace vantrel::test {
namespace {

using nlohmann::json;

// A service whose endpoint listens on a free port.
struct MonitoredService {
  explicit MonitoredService(const std::string& extra = "")
      : port(FreePort()), service("MonitorPort = " + std::to_string(port) + "\n" + extra) {}
  unsigned short port;
  InProcessService service;
};

httplib::Result Get(unsigned short port, const std::string& path) {
  httplib::Client client("127.0.0.1", port);
  return client.Get(path);
}

json Status(unsigned short port) {
  const auto response = Get(port, "/status");
  return response && response->status == 200 ? json::parse(response->body) : json::object();
}

// The entry of `list` whose `key` is `value` (empty when there is none).
json Find(const json& list, const char* key, const std::string& value) {
  for (const auto& entry : list)
    if (entry.value(key, "") == value) return entry;
  return json::object();
}

// Parses the text exposition format strictly enough to catch what a scraper
// rejects: every sample after its family's TYPE line, each family typed once,
// each series once, values that are numbers. Series are keyed "name{labels}".
std::map<std::string, double> ParseMetrics(const std::string& text) {
  static const std::regex kSample(
      R"re(([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{((?:[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*",?)*)\})? ([-+0-9.eE]+|NaN|[+-]Inf))re");
  static const std::regex kType(R"(# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge|untyped))");
  std::map<std::string, double> series;
  std::set<std::string> typed;
  std::istringstream lines(text);
  std::string line;
  std::smatch match;
  while (std::getline(lines, line)) {
    if (std::regex_match(line, match, kType)) {
      EXPECT_TRUE(typed.insert(match[1]).second) << "typed twice: " << line;
    } else if (line.rfind("# HELP ", 0) != 0) {
      if (!std::regex_match(line, match, kSample)) {
        ADD_FAILURE() << "not a sample: " << line;
        continue;
      }
      EXPECT_EQ(typed.count(match[1]), 1u) << "sample before its TYPE: " << line;
      EXPECT_TRUE(series.emplace(match[1].str() + "{" + match[2].str() + "}", std::stod(match[3])).second)
          << "series twice: " << line;
    }
  }
  EXPECT_TRUE(!text.empty() && text.back() == '\n');
  return series;
}

TEST(MonitorEndpointTest, StatusAndMetricsCountKnownTraffic) {
  MonitoredService monitored;
  InProcessService& service = monitored.service;
  ASSERT_TRUE(service.vInitZ1());
  TestClient alice, bob;
  ASSERT_TRUE(alice.NETInitZ641("alice", service.GetClientsPortZ5181()));
  ASSERT_TRUE(bob.NETInitZ641("bob", service.GetClientsPortZ5181()));
  constexpr int kSent = 25;
  const std::string toBob = "bob@" + service.GetAddressHostText();
  for (int i = 0; i < kSent; ++i) ASSERT_TRUE(alice.NETSendMessageZ1("hello", 6, toBob.c_str()));
  // Not delivered: nobody of that name.
  ASSERT_TRUE(alice.NETSendMessageNowaitZ1(7, "lost", 5, ("nobody@" + service.GetAddressHostText()).c_str()));
  ASSERT_EQ(alice.nextText().substr(0, 4), std::to_string(wire::kNotDelivered) + " ");

  json status;
  ASSERT_TRUE(WaitUntil([&] {
    status = Status(monitored.port);
    return Find(status["clients"], "name", "alice").value("answers_not_delivered", 0) == 1;
  })) << status.dump(2);
  EXPECT_EQ(status["host"], service.GetAddressHostText());
  EXPECT_EQ(status["ports"]["clients"], service.GetClientsPortZ5181());
  EXPECT_EQ(status["ports"]["net"], service.GetNetPortZ5181());
  EXPECT_EQ(status["ports"]["monitor"], monitored.port);
  const json a = Find(status["clients"], "name", "alice");
  const json b = Find(status["clients"], "name", "bob");
  EXPECT_EQ(a["messages_in"], kSent + 1);
  EXPECT_EQ(a["answers_delivered"], kSent);
  EXPECT_EQ(a["messages_out"], kSent + 1);  // answers only
  EXPECT_EQ(b["messages_in"], 0);
  EXPECT_EQ(b["messages_out"], kSent);
  EXPECT_GT(b["bytes_out"].get<int>(), kSent * 6);
  EXPECT_EQ(b["state"], "connected");

  auto metrics = ParseMetrics(Get(monitored.port, "/metrics")->body);
  EXPECT_EQ(metrics["vantrel_messages_received_total{kind=\"client\"}"], kSent + 1);
  EXPECT_EQ(metrics["vantrel_messages_sent_total{kind=\"client\"}"], 2 * kSent + 1);
  EXPECT_EQ(metrics["vantrel_answers_sent_total{kind=\"client\",answer=\"delivered\"}"], kSent);
  EXPECT_EQ(metrics["vantrel_answers_sent_total{kind=\"client\",answer=\"not_delivered\"}"], 1);
  EXPECT_EQ(metrics["vantrel_clients{}"], 2);

  // A client that leaves takes its series along, not its counts.
  alice.NETTerminate();
  ASSERT_TRUE(WaitUntil([&] {
    metrics = ParseMetrics(Get(monitored.port, "/metrics")->body);
    return metrics["vantrel_clients{}"] == 1;
  }));
  EXPECT_EQ(metrics["vantrel_messages_received_total{kind=\"client\"}"], kSent + 2);  // and its farewell
  EXPECT_EQ(metrics["vantrel_clients_connected_total{}"], 2);
}

// The sender stops after its first chunk until the test has looked.
RQPManualEvent gFirstChunkRead;
RQPManualEvent gGoOn;
void HoldAfterFirstChunk(const std::string&, std::uint64_t) {
  gFirstChunkRead.Set();
  gGoOn.Wait(20000);
}

TEST(MonitorEndpointTest, ACopyInFlightShowsOnBothSidesUntilItEnds) {
  MonitoredService from, to;
  ASSERT_TRUE(from.service.vInitZ1());
  ASSERT_TRUE(to.service.vInitZ1());
  TempDir files;
  const std::string source = files.write("src", std::string(3 * 51200 + 17, 'x'));
  const std::string destination = files.file("dst");
  TestClient client;
  ASSERT_TRUE(client.NETInitZ641("copier", from.service.GetClientsPortZ5181()));
  gFirstChunkRead.Reset();
  gGoOn.Reset();
  CFileTransferHandler::SetChunkReadHook(&HoldAfterFirstChunk);
  const std::string request = ParameterText({{wire::kCopyLocalFile, source}, {wire::kCopyRemoteFile, destination}});
  ASSERT_TRUE(client.NETCopyFileZ1(4, request.data(), static_cast<unsigned>(request.size()),
                                   to.service.GetAddressHostText().c_str()));
  ASSERT_NE(gFirstChunkRead.Wait(20000), 0);

  const json sending = Status(from.port)["copies"];
  ASSERT_EQ(sending.size(), 1u) << sending.dump(2);
  EXPECT_EQ(sending[0]["direction"], "send");
  EXPECT_EQ(sending[0]["source"], source);
  EXPECT_EQ(sending[0]["destination"], destination);
  EXPECT_EQ(sending[0]["requester"], "copier");
  EXPECT_EQ(sending[0]["bytes_done"], 51200);
  EXPECT_EQ(sending[0]["bytes_total"], 3 * 51200 + 17);
  const json receiving = Find(Status(to.port)["copies"], "destination", destination);
  EXPECT_EQ(receiving.value("direction", ""), "receive");
  EXPECT_EQ(receiving.value("bytes_total", 0), 3 * 51200 + 17);
  EXPECT_EQ(Find(Status(from.port)["links"], "peer", to.service.GetAddressHostText()).value("state", ""), "connected");

  gGoOn.Set();
  EXPECT_EQ(client.next()->getType(), wire::kDelivered);
  CFileTransferHandler::SetChunkReadHook(nullptr);
  json status;
  ASSERT_TRUE(WaitUntil([&] {
    status = Status(from.port);
    return status["copies"].empty() && status["totals"]["copies_succeeded"] == 1;
  })) << status.dump(2);
}

// What the endpoint answers to `request` before it closes: the status line,
// "<closed>" for a close without one, "<silent>" for neither within 8 s.
std::string Exchange(RawPeer& peer, const std::string& request) {
  if (!request.empty()) peer.Send(request);
  const platform::tSocket socket = peer.socket.Get();
  if (platform::gPoll(socket, platform::tReadiness::eReadable, nullptr, platform::gSteadyNowUs() + 8'000'000) ==
      platform::tPollResult::eTimedOut)
    return "<silent>";
  char buffer[512];
  platform::cSocketResult result;
  const std::size_t got = platform::gReceive(socket, buffer, sizeof buffer, false, result);
  if (got == 0) return "<closed>";
  const std::string text(buffer, got);
  return text.substr(0, text.find("\r\n"));
}

TEST(MonitorEndpointTest, BadRequestsAreRefusedAndSlowClientsCutOffWhileTheServiceGoesOn) {
  MonitoredService monitored;
  ASSERT_TRUE(monitored.service.vInitZ1());
  const unsigned short port = monitored.port;
  struct Case {
    std::string request;
    std::string answer;
  };
  for (const Case& c : std::vector<Case>{
           {"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 200 OK"},
           {"GET /nothing-here HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 404 Not Found"},
           {"DELETE /status HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 404 Not Found"},
           {"GARBAGE\r\n\r\n", "HTTP/1.1 400 Bad Request"},
           {"POST /status HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n", "HTTP/1.1 413 Payload Too Large"},
       }) {
    RawPeer peer(port);
    EXPECT_EQ(Exchange(peer, c.request), c.answer) << c.request;
  }

  // More slow clients than the endpoint has workers: each is cut off, and
  // meanwhile the service routes messages as ever.
  std::vector<std::future<std::string>> slow;
  for (int i = 0; i < 4; ++i) {
    auto peer = std::make_shared<RawPeer>(port);
    slow.push_back(std::async(std::launch::async, [peer] { return Exchange(*peer, "GET /status HTTP/1.1\r\n"); }));
  }
  TestClient client;
  ASSERT_TRUE(client.NETInitZ641("busy", monitored.service.GetClientsPortZ5181()));
  const std::string self = "busy@" + monitored.service.GetAddressHostText();
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(client.NETSendMessageZ1("x", 2, self.c_str()));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
  for (auto& answer : slow) EXPECT_NE(answer.get(), "<silent>");
  EXPECT_EQ(Get(port, "/healthz")->status, 200);
}

TEST(MonitorEndpointTest, TheCliShowsTheStatusAsTables) {
  const std::string program = ProgramPath("vantrel-cli");
  MonitoredService monitored;
  ASSERT_TRUE(monitored.service.vInitZ1());
  TestClient carol;
  ASSERT_TRUE(carol.NETInitZ641("carol", monitored.service.GetClientsPortZ5181()));
  const auto shown = RunProgram(program, {"status", "--monitor-port", std::to_string(monitored.port)});
  EXPECT_EQ(shown.exitCode, 0);
  EXPECT_NE(shown.output.find("service " + monitored.service.GetAddressHostText()), std::string::npos) << shown.output;
  EXPECT_TRUE(std::regex_search(shown.output, std::regex("\n  carol +connected +[0-9:]+ +0 +0 B +0 +0 B")))
      << shown.output;
  EXPECT_NE(shown.output.find("LINKS\n  (none)"), std::string::npos) << shown.output;

  const unsigned short closed = FreePort();
  EXPECT_EQ(RunProgram(program, {"status", "--monitor-port", std::to_string(closed)}).exitCode, 3);
}

}  // namespace
}  // namespace vantrel::test
