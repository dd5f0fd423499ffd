// One service and N peer hosts on loopback, each peer speaking the host
// protocol from one socket of this process: what the links cost the service
// (threads, descriptors, resident memory) and how fast it carries traffic both
// ways (fan-in from every peer to one local client, fan-out from that client
// to every peer).
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/benchcore.h"
#include "bench/servicerunner.h"
#include "vantrel/base/platform/descriptors.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/message/wire.h"

namespace vantrel::bench {
namespace {

long ProcField(long pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
  return 0;
}

long OpenDescriptors(long pid) {
  std::error_code error;
  long count = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error))
    ++count;
  return count;
}

bool RunCase(const cBenchOptions& options, cBenchTable& table, int peers) {
  cBenchService service(options.serviceProgram, options.serviceLogLevel);
  if (!service.Start()) {
    std::fprintf(stderr, "manyhosts: %s\n", service.Error().c_str());
    return false;
  }
  const long pid = service.Pid();
  const long baseThreads = ProcField(pid, "Threads"), baseFds = OpenDescriptors(pid), baseKb = ProcField(pid, "VmRSS");
  cVantrelClientObject controller;
  if (!controller.NETInitZ641("ctl", service.ClientsPort())) return false;
  const std::string ctlHost = controller.NETWhoAmI();
  const std::string toCtl = ctlHost.substr(ctlHost.find('@') + 1);
  nCommunication::nSocket::nImplementation_sho::cSocketOptions netOptions;
  std::vector<std::unique_ptr<StreamSocket>> links;
  const auto openStart = tClock::now();
  for (int i = 0; i < peers; ++i) {
    auto link = std::make_unique<StreamSocket>(false, "agent");
    const std::string me = "agent" + std::to_string(i) + "~9011";
    if (!link->Connect("127.0.0.1", service.NetPort(), netOptions) ||
        !link->SendTypedMessageZ2(wire::kHostName, wire::kVersionMarker, me.c_str(), me.size() + 1)) {
      std::fprintf(stderr, "manyhosts: peer %d cannot connect\n", i);
      return false;
    }
    links.push_back(std::move(link));
  }
  // A link's writer starts once its handshake is registered: all are when the
  // service runs two threads for each peer besides its own six (main, two
  // accept threads, the reaper, the controller's reader and writer).
  RQPManualEvent tick;
  const auto registeredBy = tClock::now() + std::chrono::seconds(30);
  while (ProcField(pid, "Threads") < 2L * peers + 6) {
    if (tClock::now() > registeredBy) {
      std::fprintf(stderr, "manyhosts: %d peers: the service runs %ld threads\n", peers, ProcField(pid, "Threads"));
      return false;
    }
    tick.Wait(10);
  }
  // Fan-out: one message from the controller to every agent, until each has it.
  const auto outStart = tClock::now();
  for (int i = 0; i < peers; ++i) {
    const std::string to = "agent@agent" + std::to_string(i) + "~9011";
    controller.NETSendMessageNoresponseZ1("cmd", 4, to.c_str());
  }
  for (auto& link : links) {
    short type = 0, subtype = 0;
    char* data = nullptr;
    unsigned length = 0;
    if (!link->WaitTypedMessageZ1(type, subtype, data, length, nullptr)) {
      std::fprintf(stderr, "manyhosts: a peer lost its link\n");
      return false;
    }
    StreamSocket::FreeMessage(data);
  }
  const double outMs = std::chrono::duration<double, std::milli>(tClock::now() - outStart).count();
  const long threads = ProcField(pid, "Threads"), fds = OpenDescriptors(pid), kb = ProcField(pid, "VmRSS");
  // Fan-in: every agent streams results to the controller.
  const int perPeer = options.quick ? 20 : 100;
  const auto inStart = tClock::now();
  for (int round = 0; round < perPeer; ++round)
    for (int i = 0; i < peers; ++i) {
      const std::string from = "agent" + std::to_string(i) + "~9011";
      const cVantrelMessage record(round, toCtl.c_str(), "ctl", from.c_str(), "agent", QTYPE_CLIENT,
                                   wire::kSendNoResponse, 0, "result", 7);
      links[i]->SendTypedMessageZ2(wire::kSendNoResponse, wire::kVersionMarker, record.getPackedBuf(),
                                   record.getPackedBufLen());
    }
  for (long got = 0; got < static_cast<long>(perPeer) * peers; ++got)
    if (controller.NETWaitMessageX1() == nullptr) return false;
  const double inSeconds = std::chrono::duration<double>(tClock::now() - inStart).count();
  const std::string size = std::to_string(peers) + " peers";
  const double perLinkKb = peers > 0 ? static_cast<double>(kb - baseKb) / peers : 0;
  table.Add({"manyhosts", "service threads", size, "threads", static_cast<double>(threads), std::nullopt, false,
             std::to_string(threads - baseThreads) + " for the links"});
  table.Add({"manyhosts", "service descriptors", size, "fds", static_cast<double>(fds), std::nullopt, false,
             std::to_string(fds - baseFds) + " for the links"});
  table.Add({"manyhosts", "service RSS per link", size, "KiB", perLinkKb, std::nullopt, false,
             std::to_string(kb / 1024) + " MB in all"});
  table.Add({"manyhosts", "fan-in", size, "msg/s", perPeer * peers / inSeconds, std::nullopt, true, ""});
  table.Add(
      {"manyhosts", "fan-out to every peer", size, "ms", outMs, std::nullopt, false,
       "links up in " +
           std::to_string(static_cast<int>(std::chrono::duration<double, std::milli>(outStart - openStart).count())) +
           " ms"});
  controller.NETTerminate();
  links.clear();
  return service.Stop() == 0;
}

bool RunManyHosts(const cBenchOptions& options, cBenchTable& table) {
  // This process holds every peer's socket.
  vantrel::platform::gRaiseDescriptorLimit();
  std::vector<int> counts = options.peerCounts;
  if (counts.empty()) counts = options.quick ? std::vector<int>{16, 64} : std::vector<int>{16, 64, 256, 1000};
  for (const int peers : counts)
    if (!RunCase(options, table, peers)) return false;
  return true;
}

}  // namespace

VANTREL_BENCH_SCENARIO("manyhosts", "one service and N peer hosts: cost per link, fan-in and fan-out", RunManyHosts);

}  // namespace vantrel::bench
