// What a crowd of short-lived clients leaves behind in the service: resident
// memory and threads at start, at the peak and after every client has left.
// The scenario fails when the service keeps more than twice its memory at start.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/benchcore.h"
#include "bench/servicerunner.h"
#include "vantrel/base/platform/descriptors.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/client/vantrelclientobj.h"

namespace vantrel::bench {
namespace {

// A figure of /proc/<pid>/status ("VmRSS" in kB, "Threads"); 0 when unreadable.
long StatusField(const std::string& process, const std::string& field) {
  std::ifstream in("/proc/" + process + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
  }
  return 0;
}
long StatusField(long pid, const std::string& field) { return StatusField(std::to_string(pid), field); }

// Samples until `done` holds or the time is up; the scenario observes the
// service from outside, so it can only look.
template <class tDone>
bool WaitFor(tDone done, std::chrono::milliseconds timeout) {
  RQPManualEvent tick;
  const auto deadline = tClock::now() + timeout;
  while (!done()) {
    if (tClock::now() > deadline) return false;
    tick.Wait(50);
  }
  return true;
}

// What each of many clients registered at once costs: the service's threads and
// resident memory, and this process's resident memory for its client objects.
bool HoldCrowd(const cBenchOptions& options, cBenchTable& table, cBenchService& service) {
  const int held = options.quick ? std::min(options.crowdHeld, 200) : options.crowdHeld;
  const long pid = service.Pid();
  const long baseThreads = StatusField(pid, "Threads"), baseKb = StatusField(pid, "VmRSS");
  const long ownBaseKb = StatusField("self", "VmRSS");
  std::vector<std::unique_ptr<cVantrelClientObject>> clients;
  for (int i = 0; i < held; ++i) {
    auto client = std::make_unique<cVantrelClientObject>();
    const std::string name = "held" + std::to_string(i);
    if (!client->NETInitZ641(name.c_str(), service.ClientsPort())) {
      std::fprintf(stderr, "crowd: client %s cannot register\n", name.c_str());
      return false;
    }
    clients.push_back(std::move(client));
  }
  // Each one sends once, as in real work; the last one's answer says all have been read.
  for (auto& client : clients) client->NETSendMessageNoresponseZ1("hello", 6, client->NETWhoAmI());
  if (!clients.empty() && !clients.back()->NETSendMessageZ1("hello", 6, clients.back()->NETWhoAmI())) return false;
  const long threads = StatusField(pid, "Threads") - baseThreads;
  const double perClient = static_cast<double>(StatusField(pid, "VmRSS") - baseKb) / held;
  const double ownPerClient = static_cast<double>(StatusField("self", "VmRSS") - ownBaseKb) / held;
  const std::string heldText = std::to_string(held) + " held";
  table.Add({"crowd", "service RSS per client", heldText, "KiB", perClient, std::nullopt, false,
             std::to_string(threads) + " threads for the clients"});
  table.Add({"crowd", "client process RSS per client", heldText, "KiB", ownPerClient, std::nullopt, false,
             "this process, one client object each"});
  for (auto& client : clients) client->NETTerminate();
  return true;
}

bool RunCrowd(const cBenchOptions& options, cBenchTable& table) {
  // This process holds a socket for every client held at once.
  vantrel::platform::gRaiseDescriptorLimit();
  const int total = options.quick ? 600 : 3000;
  constexpr int kBatch = 500;
  cBenchService service(options.serviceProgram, options.serviceLogLevel);
  if (!service.Start()) {
    std::fprintf(stderr, "crowd: %s\n", service.Error().c_str());
    return false;
  }
  const long pid = service.Pid();
  // Settled: the readiness probe has come and gone.
  const long baseThreads = StatusField(pid, "Threads");
  WaitFor([&] { return StatusField(pid, "Threads") <= baseThreads; }, std::chrono::seconds(5));
  const long startKb = StatusField(pid, "VmRSS");
  long peakKb = startKb;
  for (int done = 0; done < total; done += kBatch) {
    std::vector<std::unique_ptr<cVantrelClientObject>> clients;
    for (int i = 0; i < std::min(kBatch, total - done); ++i) {
      auto client = std::make_unique<cVantrelClientObject>();
      const std::string name = "crowd" + std::to_string(done + i);
      if (!client->NETInitZ641(name.c_str(), service.ClientsPort())) {
        std::fprintf(stderr, "crowd: client %s cannot register\n", name.c_str());
        return false;
      }
      const std::string self = name + "@";
      client->NETSendMessageNoresponseZ1("hello", 6, self.c_str());
      clients.push_back(std::move(client));
    }
    peakKb = std::max(peakKb, StatusField(pid, "VmRSS"));
    for (auto& client : clients) client->NETTerminate();
  }
  // Every client's threads gone, then the keeper's rate-limited trim.
  if (!WaitFor([&] { return StatusField(pid, "Threads") <= baseThreads; }, std::chrono::seconds(60))) {
    std::fprintf(stderr, "crowd: the service keeps %ld threads (%ld at start)\n", StatusField(pid, "Threads"),
                 baseThreads);
    return false;
  }
  WaitFor([&] { return StatusField(pid, "VmRSS") <= 2 * startKb; }, std::chrono::seconds(5));
  const long afterKb = StatusField(pid, "VmRSS");
  const std::string clientsText = std::to_string(total) + " clients";
  table.Add({"crowd", "service RSS at start", clientsText, "MB", startKb / 1024.0, std::nullopt, false, ""});
  table.Add({"crowd", "service RSS at peak", clientsText, "MB", peakKb / 1024.0, std::nullopt, false,
             "batches of " + std::to_string(kBatch)});
  table.Add({"crowd", "service RSS after", clientsText, "MB", afterKb / 1024.0, std::nullopt, false,
             std::to_string(StatusField(pid, "Threads")) + " threads"});
  if (afterKb > 2 * startKb) {
    std::fprintf(stderr, "crowd: the service kept %ld kB after the crowd left (%ld kB at start)\n", afterKb, startKb);
    return false;
  }
  return HoldCrowd(options, table, service) && service.Stop() == 0;
}

}  // namespace

VANTREL_BENCH_SCENARIO("crowd", "service memory before, during and after a crowd of short-lived clients", RunCrowd);

}  // namespace vantrel::bench
