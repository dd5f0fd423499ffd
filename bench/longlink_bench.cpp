// Long links: two services whose link runs through a relay that delays each
// direction by half a round trip (1, 10, 50 and 100 ms; 0 is the direct
// loopback link). For each: a remote copy of 64 MiB (checked byte for byte),
// the acknowledged-send latency and the one-way message rate at 64 B. Last, the
// resident memory of the receiving service while a large copy crosses the
// 100 ms link, beside the copy window it must stay within (plus 16 MiB).
//
// Every round trip gets a relay of its own, so each is a new link with a window
// that starts small again, as a new host's would.
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "bench/arrivals.h"
#include "bench/benchcore.h"
#include "bench/servicerunner.h"
#include "bench/tcprelay.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/message/wire.h"
#include "vantrel/support/associativearray.h"

namespace vantrel::bench {
namespace {

constexpr std::size_t kCopyMiB = 64;
constexpr std::size_t kMessageSize = 64;
constexpr int kRoundTripsMs[] = {0, 1, 10, 50, 100};

bool Fail(const std::string& what) {
  std::fprintf(stderr, "vantrel-bench longlink: %s\n", what.c_str());
  return false;
}

double Seconds(tClock::time_point since) { return std::chrono::duration<double>(tClock::now() - since).count(); }

// Counts the messages that arrive on the message channel and drops them.
// NewMessageEvent runs on the library's reader, WaitForCount on the scenario's thread.
class cCounter : public cVantrelClientObject {
 public:
  ~cCounter() { NETTerminate(); }
  bool NewMessageEvent(cTypedMessageObject* message, short channel) override {
    if (channel != 0) return cVantrelClientObject::NewMessageEvent(message, channel);
    delete message;
    arrivals_.Add();
    return false;
  }
  bool WaitForCount(std::uint64_t target, std::chrono::seconds timeout) { return arrivals_.WaitFor(target, timeout); }

 private:
  cArrivals arrivals_;
};

bool SameContent(const std::string& a, const std::string& b) {
  std::ifstream left(a, std::ios::binary);
  std::ifstream right(b, std::ios::binary);
  std::vector<char> x(1 << 20), y(1 << 20);
  while (left && right) {
    left.read(x.data(), static_cast<std::streamsize>(x.size()));
    right.read(y.data(), static_cast<std::streamsize>(y.size()));
    if (left.gcount() != right.gcount() || !std::equal(x.begin(), x.begin() + left.gcount(), y.begin())) return false;
  }
  return !left && !right;
}

// /proc/<pid>/status "VmRSS" in KiB; 0 when unreadable.
long RssKiB(long pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return 0;
}

// Copies `source` to `destination` on `host`; the seconds it took, or -1.
double Copy(cVantrelClientObject& client, const std::string& source, const std::string& destination,
            const std::string& host) {
  CAssociativeArray request;
  request.AddCouple(wire::kCopyLocalFile, source);
  request.AddCouple(wire::kCopyRemoteFile, destination);
  std::string text;
  long length = 0;
  request.ToString(text, length, false, false);
  const auto start = tClock::now();
  if (!client.NETCopyFileZ1(1, text.data(), static_cast<unsigned>(length), host.c_str())) return -1;
  const cVantrelMessage* answer = client.NETWaitMessageX1();
  const double seconds = Seconds(start);
  if (answer == nullptr || answer->getType() != wire::kDelivered) return -1;
  CAssociativeArray result;
  result.FromString(answer->getData(), static_cast<long>(answer->getDatalen()));
  return result.GetValueOfParameter(wire::kCopyState) == std::to_string(wire::kCopyDone) ? seconds : -1;
}

bool RunLongLink(const cBenchOptions& options, cBenchTable& table) {
  const cBenchFolder scratch("long");
  if (scratch.Path().empty()) return Fail("cannot make a temporary folder");
  const std::filesystem::path& folder = scratch.Path();
  const std::size_t copyMiB = options.quick ? 16 : kCopyMiB;
  const std::string source = (folder / "source").string();
  const std::string copied = (folder / "copied").string();
  if (!WriteSource(source, copyMiB)) return Fail("cannot write the source file");

  cBenchService sender(options.serviceProgram, options.serviceLogLevel);
  cBenchService receiver(options.serviceProgram, options.serviceLogLevel);
  if (!sender.Start()) return Fail(sender.Error());
  if (!receiver.Start()) return Fail(receiver.Error());
  // Before any link or client: everything the copies and messages cost counts.
  const long before = RssKiB(receiver.Pid());
  cVantrelClientObject client;
  cCounter sink;
  if (!client.NETInitZ641("benchlong", sender.ClientsPort()) || !sink.NETInitZ641("benchsink", receiver.ClientsPort()))
    return Fail("cannot register");
  const std::vector<char> payload(kMessageSize, 'v');
  std::uint64_t arrived = 0;

  for (const int roundTripMs : kRoundTripsMs) {
    cDelayRelay relay(std::chrono::microseconds(roundTripMs * 500));
    unsigned short port = receiver.NetPort();
    if (roundTripMs > 0) {
      if (!relay.Start(receiver.NetPort())) return Fail("cannot start the relay");
      port = relay.Port();
    }
    const std::string host = "127.0.0.1~" + std::to_string(port);
    const std::string where = roundTripMs == 0 ? "loopback" : std::to_string(roundTripMs) + " ms";

    // Acknowledged sends first: they open the link, so the copy starts on a link that is up.
    std::vector<double> samples;
    const std::string to = "benchsink@" + host;
    const auto start = tClock::now();
    while (samples.size() < 5 || (tClock::now() - start < options.caseBudget && samples.size() < 20000)) {
      const auto sent = tClock::now();
      if (!client.NETSendMessageZ1(payload.data(), kMessageSize, to.c_str())) return Fail("a send failed at " + where);
      samples.push_back(Micros(sent, tClock::now()));
    }
    arrived += samples.size();
    table.Add({"longlink", "ack p50, " + where, SizeText(kMessageSize), "us", Percentile(samples, 50), std::nullopt,
               false, std::to_string(samples.size()) + " samples"});

    const double seconds = Copy(client, source, copied, host);
    if (seconds < 0 || !SameContent(source, copied)) return Fail("the copy failed or differs at " + where);
    std::filesystem::remove(copied);
    table.Add({"longlink", "copy, " + where, SizeText(copyMiB << 20), "MB/s",
               static_cast<double>(copyMiB << 20) / 1e6 / seconds, std::nullopt, true, "byte-identical"});

    // One-way: as many as the case time allows, counted once all have arrived.
    std::uint64_t count = 0;
    const auto oneWay = tClock::now();
    while (tClock::now() - oneWay < options.caseBudget && count < 1000000) {
      if (!client.NETSendMessageNoresponseZ1(payload.data(), kMessageSize, to.c_str()))
        return Fail("a one-way send failed at " + where);
      ++count;
    }
    arrived += count;
    if (!sink.WaitForCount(arrived, std::chrono::seconds(120))) return Fail("one-way messages were lost at " + where);
    table.Add({"longlink", "one-way, " + where, SizeText(kMessageSize), "msg/s",
               static_cast<double>(count) / Seconds(oneWay), std::nullopt, true, std::to_string(count) + " messages"});
  }

  // The receiving service's memory while a large copy crosses the 100 ms link.
  const std::size_t largeMiB = options.quick ? 64 : options.largeCopyMiB;
  const std::string large = (folder / "large").string();
  if (!WriteSource(large, largeMiB)) return Fail("cannot write the large file");
  cDelayRelay relay(std::chrono::milliseconds(50));
  if (!relay.Start(receiver.NetPort())) return Fail("cannot start the relay");
  long peak = before;
  auto copying = std::async(std::launch::async,
                            [&] { return Copy(client, large, copied, "127.0.0.1~" + std::to_string(relay.Port())); });
  do peak = std::max(peak, RssKiB(receiver.Pid()));
  while (copying.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready);
  const double seconds = copying.get();
  std::filesystem::remove(large);
  std::error_code ec;
  if (seconds < 0 || std::filesystem::file_size(copied, ec) != largeMiB << 20) return Fail("the large copy failed");
  const long window = static_cast<long>(nVantrelIni::kDefaultFileCopyWindowBytes >> 10);
  table.Add({"longlink", "receiver RSS growth since start, 100 ms", SizeText(largeMiB << 20), "KiB",
             static_cast<double>(peak - before), static_cast<double>(window + (16 << 10)), false,
             "peak " + std::to_string(peak) + " KiB; floor: window + 16 MiB; " +
                 std::to_string(static_cast<int>(static_cast<double>(largeMiB << 20) / 1e6 / seconds)) + " MB/s"});
  client.NETTerminate();
  return true;
}

}  // namespace

VANTREL_BENCH_SCENARIO("longlink", "copies, acknowledged and one-way messages over links of 1-100 ms round trip",
                       RunLongLink);

}  // namespace vantrel::bench
