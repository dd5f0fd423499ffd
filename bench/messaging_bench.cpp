// Message scenarios: acknowledged-send latency and one-way throughput through
// the public client API, local (sender and receiver on one service) and remote
// (two services linked over loopback, the destination addressed as host~port),
// each beside the plain-TCP relay floor of the same shape measured in the same
// run (one relay for local, a chain of two for remote).
#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/arrivals.h"
#include "bench/benchcore.h"
#include "bench/servicerunner.h"
#include "bench/tcprelay.h"
#include "bench/zmqbroker.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/client/vantrelclientobj.h"

namespace vantrel::bench {

namespace {

const std::vector<std::size_t> kSizes = {64, 1024, 64 * 1024};
constexpr int kWarmUp = 50;
constexpr std::size_t kMaxLatencySamples = 200000;
// Bounds the backlog a one-way run can build up in the service's queues.
constexpr std::size_t kMaxThroughputBytes = 256u << 20;
constexpr std::size_t kMaxThroughputMessages = 1000000;
constexpr auto kArrivalTimeout = std::chrono::seconds(60);
constexpr const char* kReceiverName = "benchreceiver";
constexpr const char* kSenderName = "benchsender";

// A receiving client that counts what arrives on the message channel and drops
// it at once, so that the receiver costs as little as a floor receiver.
// Owned by the scenario; NewMessageEvent runs on the library's reader thread,
// WaitForCount on the scenario's thread.
class cSinkClient : public cVantrelClientObject {
 public:
  ~cSinkClient() { NETTerminate(); }

  bool NewMessageEvent(cTypedMessageObject* message, short channel) override {
    if (channel != 0) return cVantrelClientObject::NewMessageEvent(message, channel);
    delete message;
    arrivals_.Add();
    return false;
  }

  std::uint64_t Count() const { return arrivals_.Count(); }
  bool WaitForCount(std::uint64_t target, std::chrono::milliseconds timeout) {
    return arrivals_.WaitFor(target, timeout);
  }

 private:
  cArrivals arrivals_;
};

// The payload of one case: printable bytes ending in a zero, so that the
// library's log lines, which print data as text, stay within it.
std::vector<char> Payload(std::size_t size) {
  std::vector<char> data(size, 'v');
  data.back() = '\0';
  return data;
}

// The bus side of a scenario: one or two services, a receiver and a sender.
struct cBusSetup {
  std::unique_ptr<cBenchService> senderService;
  std::unique_ptr<cBenchService> receiverService;  // the same as the sender's when local
  cSinkClient receiver;
  cVantrelClientObject sender;
  std::string destination;

  // `monitorPort`: the sending service's monitoring endpoint (0: off).
  bool Open(const cBenchOptions& options, bool remote, unsigned short monitorPort = 0) {
    senderService = std::make_unique<cBenchService>(options.serviceProgram, options.serviceLogLevel);
    senderService->SetMonitorPort(monitorPort);
    if (!senderService->Start()) return Fail("service", senderService->Error());
    cBenchService* destinationService = senderService.get();
    if (remote) {
      receiverService = std::make_unique<cBenchService>(options.serviceProgram, options.serviceLogLevel);
      if (!receiverService->Start()) return Fail("second service", receiverService->Error());
      destinationService = receiverService.get();
    }
    if (!receiver.NETInitZ641(kReceiverName, destinationService->ClientsPort()))
      return Fail("receiver", "cannot register");
    if (!sender.NETInitZ641(kSenderName, senderService->ClientsPort())) return Fail("sender", "cannot register");
    // Local: the plain host name, which the library sends on the local path.
    // Remote: the receiver's own address, which carries its service's net port.
    destination =
        remote ? std::string(receiver.NETWhoAmI()) : std::string(kReceiverName) + "@" + sender.NETLocalHostName();
    return true;
  }

  static bool Fail(const char* what, const std::string& why) {
    std::fprintf(stderr, "vantrel-bench: %s: %s\n", what, why.c_str());
    return false;
  }
};

// The floor of the same shape.
struct cFloorSetup {
  cTcpRelay last;
  cTcpRelay first;  // used only for the remote shape
  cFloorEndpoint receiver;
  cFloorEndpoint sender;

  bool Open(bool remote) {
    if (!last.Start()) return false;
    if (!receiver.Connect(last.Port(), tFloorKind::eHelloReceiver)) return false;
    receiver.StartCounting();
    unsigned short entry = last.Port();
    if (remote) {
      if (!first.Start(last.Port())) return false;
      entry = first.Port();
    }
    return sender.Connect(entry, tFloorKind::eHelloSender);
  }
};

// The ZeroMQ broker of the same shape: one broker, or two linked brokers with
// the sender on the first and the receiver on the second.
struct cZmqSetup {
  cZmqBroker first;
  cZmqBroker last;  // used only for the remote shape
  cZmqEndpoint receiver;
  cZmqEndpoint sender;
  const std::string destination = kReceiverName;

  bool Open(bool remote) {
    if (!first.Bind()) return false;
    if (remote && !last.Bind()) return false;
    if (!first.Run(remote ? last.Port() : 0)) return false;
    if (remote && !last.Run(first.Port())) return false;
    if (!receiver.Connect(remote ? last.Port() : first.Port(), kReceiverName)) return false;
    receiver.StartCounting();
    return sender.Connect(first.Port(), kSenderName);
  }
};

// The machine is shared (builds, other benchmarks), so the bus and its floor
// take turns in short slices rather than one long run each: a change of load
// then falls on both.
constexpr int kRounds = 5;

// Sends with acknowledgement for `span`, one sample per send. `send` returns
// false when a send failed.
template <class tSend>
bool CollectLatency(tClock::duration span, tSend&& send, std::vector<double>& samples) {
  const auto end = tClock::now() + span;
  while (samples.size() < kMaxLatencySamples) {
    const auto before = tClock::now();
    if (!send()) return false;
    const auto after = tClock::now();
    samples.push_back(Micros(before, after));
    if (after >= end) break;
  }
  return true;
}

template <class tSend>
bool WarmUp(tSend&& send) {
  for (int i = 0; i < kWarmUp; ++i)
    if (!send()) return false;
  return true;
}

struct cThroughput {
  std::uint64_t messages = 0;
  double seconds = 0;
  double MessagesPerSecond() const { return seconds > 0 ? static_cast<double>(messages) / seconds : 0; }
  double MibPerSecond(std::size_t size) const { return MessagesPerSecond() * static_cast<double>(size) / (1 << 20); }
};

// Sends one way for `span` (or up to the byte bound), then waits until the
// receiver has counted all; the time runs from the first send to the last
// arrival and is added to `result`. `count` reads the receiver's running total.
template <class tSend, class tCount, class tWait>
bool MeasureThroughput(tClock::duration span, std::size_t size, tSend&& send, tCount&& count, tWait&& wait,
                       cThroughput& result) {
  // Warm-up: the path is up (a remote link made) and the receiver counting.
  const std::uint64_t base = count();
  for (int i = 0; i < kWarmUp; ++i)
    if (!send()) return false;
  if (!wait(base + kWarmUp)) return false;

  const std::uint64_t limit = std::min<std::uint64_t>(kMaxThroughputMessages, kMaxThroughputBytes / size) / kRounds + 1;
  const auto start = tClock::now();
  const auto end = start + span;
  std::uint64_t sent = 0;
  // The clock is read once per batch to keep it out of the sending loop.
  while (sent < limit && tClock::now() < end) {
    for (int i = 0; i < 16 && sent < limit; ++i, ++sent)
      if (!send()) return false;
  }
  if (!wait(base + kWarmUp + sent)) {
    std::fprintf(stderr, "vantrel-bench: only %llu of %llu messages arrived\n",
                 static_cast<unsigned long long>(count() - base - kWarmUp), static_cast<unsigned long long>(sent));
    return false;
  }
  result.seconds += Micros(start, tClock::now()) / 1e6;
  result.messages += sent;
  return true;
}

bool BusSendFailed(cBusSetup& bus) {
  return cBusSetup::Fail("acknowledged send", "failed with status " + std::to_string(bus.sender.NETGetLastStatus()));
}

// Calls `measure(bus, floor, zmq, path, size, payload)` for every path and
// size, with the bus, its floor and the ZeroMQ broker of the same shape open
// (local: one hop; remote: two). Stops at the first case that fails.
template <class Measure>
bool ForEachCase(const cBenchOptions& options, Measure measure) {
  for (const bool remote : {false, true}) {
    cBusSetup bus;
    cFloorSetup floor;
    cZmqSetup zmq;
    if (!bus.Open(options, remote)) return false;
    if (!floor.Open(remote)) return cBusSetup::Fail("floor", "relay did not start");
    if (!zmq.Open(remote)) return cBusSetup::Fail("zeromq", "broker did not start");
    const std::string path = remote ? "remote" : "local";
    for (const std::size_t size : kSizes)
      if (!measure(bus, floor, zmq, path, size, Payload(size))) return false;
  }
  return true;
}

bool RunLatency(const cBenchOptions& options, cBenchTable& table) {
  return ForEachCase(options, [&](cBusSetup& bus, cFloorSetup& floor, cZmqSetup& zmq, const std::string& path,
                                  std::size_t size, const std::vector<char>& data) {
    const auto length = static_cast<unsigned>(size);
    auto floorSend = [&] { return floor.sender.SendAcked(data.data(), length); };
    auto zmqSend = [&] { return zmq.sender.SendAcked(zmq.destination, data.data(), length); };
    auto busSend = [&] { return bus.sender.NETSendMessageZ1(data.data(), length, bus.destination.c_str()); };
    const auto slice = options.caseBudget / kRounds;
    std::vector<double> floorSamples;
    std::vector<double> busSamples;
    std::vector<double> zmqSamples;
    if (!WarmUp(floorSend)) return cBusSetup::Fail("floor", "acknowledged send failed");
    if (!WarmUp(zmqSend)) return cBusSetup::Fail("zeromq", "acknowledged send failed");
    if (!WarmUp(busSend)) return BusSendFailed(bus);
    for (int round = 0; round < kRounds; ++round) {
      if (!CollectLatency(slice, floorSend, floorSamples)) return cBusSetup::Fail("floor", "acknowledged send failed");
      if (!CollectLatency(slice, zmqSend, zmqSamples)) return cBusSetup::Fail("zeromq", "acknowledged send failed");
      if (!CollectLatency(slice, busSend, busSamples)) return BusSendFailed(bus);
    }
    const std::string note = std::to_string(busSamples.size()) + "/" + std::to_string(floorSamples.size()) + "/" +
                             std::to_string(zmqSamples.size()) + " samples";
    for (const double p : {50.0, 99.0}) {
      cBenchRow row{"latency",
                    path + " ack p" + std::to_string(static_cast<int>(p)),
                    SizeText(size),
                    "us",
                    Percentile(busSamples, p),
                    Percentile(floorSamples, p),
                    false,
                    note};
      row.zeromq = Percentile(zmqSamples, p);
      table.Add(std::move(row));
    }
    return true;
  });
}

bool RunThroughput(const cBenchOptions& options, cBenchTable& table) {
  return ForEachCase(options, [&](cBusSetup& bus, cFloorSetup& floor, cZmqSetup& zmq, const std::string& path,
                                  std::size_t size, const std::vector<char>& data) {
    const auto length = static_cast<unsigned>(size);
    cThroughput floorResult;
    cThroughput busResult;
    cThroughput zmqResult;
    const auto slice = options.caseBudget / kRounds;
    for (int round = 0; round < kRounds; ++round) {
      if (!MeasureThroughput(
              slice, size, [&] { return floor.sender.Send(data.data(), length); },
              [&] { return floor.receiver.Count(); },
              [&](std::uint64_t target) { return floor.receiver.WaitForCount(target, kArrivalTimeout); }, floorResult))
        return cBusSetup::Fail("floor", "one-way run failed");
      if (!MeasureThroughput(
              slice, size, [&] { return zmq.sender.Send(zmq.destination, data.data(), length); },
              [&] { return zmq.receiver.Count(); },
              [&](std::uint64_t target) { return zmq.receiver.WaitForCount(target, kArrivalTimeout); }, zmqResult))
        return cBusSetup::Fail("zeromq", "one-way run failed");
      if (!MeasureThroughput(
              slice, size,
              [&] { return bus.sender.NETSendMessageNoresponseZ1(data.data(), length, bus.destination.c_str()); },
              [&] { return bus.receiver.Count(); },
              [&](std::uint64_t target) { return bus.receiver.WaitForCount(target, kArrivalTimeout); }, busResult))
        return cBusSetup::Fail("one-way send", "failed with status " + std::to_string(bus.sender.NETGetLastStatus()));
    }
    char note[128];
    std::snprintf(note, sizeof note, "%.1f/%.1f/%.1f MiB/s, %llu msgs", busResult.MibPerSecond(size),
                  floorResult.MibPerSecond(size), zmqResult.MibPerSecond(size),
                  static_cast<unsigned long long>(busResult.messages));
    cBenchRow row{"throughput",
                  path + " one-way",
                  SizeText(size),
                  "msg/s",
                  busResult.MessagesPerSecond(),
                  floorResult.MessagesPerSecond(),
                  true,
                  note};
    row.zeromq = zmqResult.MessagesPerSecond();
    table.Add(std::move(row));
    return true;
  });
}

// What monitoring costs: one-way throughput through a service whose endpoint
// is scraped ten times a second, beside one whose endpoint is off, in turns.
// Rates differ by more than the endpoint costs from turn to turn, so the cost
// is also measured where it arises: the service's CPU time for a scrape of
// both pages (idle, many in a row), as a share of the CPU time the service
// spends per second under one-way traffic.
bool RunMonitoring(const cBenchOptions& options, cBenchTable& table) {
  const unsigned short port = FreeTcpPort(true);
  cBusSetup off;
  cBusSetup on;
  if (!off.Open(options, false) || !on.Open(options, false, port)) return false;
  constexpr int kTimedScrapes = 500;
  httplib::Client timed("127.0.0.1", port);
  const std::uint64_t idleBefore = on.senderService->CpuNanoseconds();
  for (int i = 0; i < kTimedScrapes; ++i)
    if (!timed.Get("/metrics") || !timed.Get("/status")) return cBusSetup::Fail("monitoring", "scrape failed");
  const double scrapeNs =
      static_cast<double>(on.senderService->CpuNanoseconds() - idleBefore) / static_cast<double>(kTimedScrapes);
  RQPManualEvent stop;
  std::atomic<std::uint64_t> scrapes{0};
  std::thread scraper([&] {
    httplib::Client client("127.0.0.1", port);
    do {
      for (const char* path : {"/metrics", "/status"})
        if (const auto response = client.Get(path); response && response->status == 200) ++scrapes;
    } while (stop.Wait(100) == 0);
  });
  bool ok = true;
  for (const std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
    const std::vector<char> data = Payload(size);
    const auto length = static_cast<unsigned>(size);
    cThroughput offResult;
    cThroughput onResult;
    std::uint64_t onCpu = 0;
    const auto slice = options.caseBudget / kRounds;
    const auto measure = [&](cBusSetup& bus, cThroughput& result) {
      const std::uint64_t cpuBefore = bus.senderService->CpuNanoseconds();
      const bool measured = MeasureThroughput(
          slice, size,
          [&] { return bus.sender.NETSendMessageNoresponseZ1(data.data(), length, bus.destination.c_str()); },
          [&] { return bus.receiver.Count(); },
          [&](std::uint64_t target) { return bus.receiver.WaitForCount(target, kArrivalTimeout); }, result);
      if (&bus == &on) onCpu += bus.senderService->CpuNanoseconds() - cpuBefore;
      return measured;
    };
    // Turns in alternating order, so that neither side always runs first.
    for (int round = 0; round < kRounds && ok; ++round)
      ok = round % 2 == 0 ? measure(off, offResult) && measure(on, onResult)
                          : measure(on, onResult) && measure(off, offResult);
    if (!ok) break;
    char note[96];
    std::snprintf(note, sizeof note, "floor: endpoint off; %llu scrapes so far",
                  static_cast<unsigned long long>(scrapes.load()));
    table.Add({"monitoring", "local one-way, endpoint scraped", SizeText(size), "msg/s", onResult.MessagesPerSecond(),
               offResult.MessagesPerSecond(), true, note});
    // Ten scrapes of both pages a second, against what the service spends a
    // second under this traffic.
    const double share = 100.0 * 10 * scrapeNs / (static_cast<double>(onCpu) / onResult.seconds);
    std::snprintf(note, sizeof note, "%.0f us CPU per scrape of both pages", scrapeNs / 1000);
    table.Add({"monitoring", "endpoint's share of service CPU, 10 scrapes/s", SizeText(size), "%", share, std::nullopt,
               false, note});
  }
  stop.Set();
  scraper.join();
  return ok || cBusSetup::Fail("monitoring", "one-way run failed");
}

}  // namespace

VANTREL_BENCH_SCENARIO("monitoring", "one-way throughput with the monitoring endpoint scraped, beside it off",
                       RunMonitoring);
VANTREL_BENCH_SCENARIO("latency", "acknowledged-send latency (p50, p99), local and remote, beside the TCP floor",
                       RunLatency);
VANTREL_BENCH_SCENARIO("throughput", "one-way (no-response) throughput, local and remote, beside the TCP floor",
                       RunThroughput);

}  // namespace vantrel::bench
