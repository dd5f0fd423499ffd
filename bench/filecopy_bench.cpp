// File-copy scenario: a remote copy of a large file between two services linked
// over loopback, beside a plain loopback TCP stream of the same file in
// 51200-byte writes (the chunk size of a copy) measured in the same run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/benchcore.h"
#include "bench/servicerunner.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/message/wire.h"
#include "vantrel/support/associativearray.h"

namespace vantrel::bench {
namespace {

constexpr std::size_t kChunk = wire::kFileChunkSize;

double Seconds(tClock::time_point since) { return std::chrono::duration<double>(tClock::now() - since).count(); }

// Reads `source` in chunk-sized pieces, sends them on a loopback connection and
// writes what arrives to `destination`: the work a copy does, without the bus.
// Returns the seconds it took, or -1.
double PlainStream(const std::string& source, const std::string& destination) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 1) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listener);
    return -1;
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

  const auto start = tClock::now();
  std::thread receiver([&] {
    const int peer = ::accept(listener, nullptr, nullptr);
    std::FILE* out = std::fopen(destination.c_str(), "wb");
    std::vector<char> buffer(kChunk);
    for (ssize_t got; peer >= 0 && out != nullptr && (got = ::recv(peer, buffer.data(), buffer.size(), 0)) > 0;)
      std::fwrite(buffer.data(), 1, static_cast<std::size_t>(got), out);
    if (out != nullptr) std::fclose(out);
    if (peer >= 0) ::close(peer);
  });
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  std::FILE* in = ok ? std::fopen(source.c_str(), "rb") : nullptr;
  std::vector<char> buffer(kChunk);
  while (in != nullptr) {
    const std::size_t count = std::fread(buffer.data(), 1, kChunk, in);
    for (std::size_t sent = 0; sent < count;) {
      const ssize_t n = ::send(fd, buffer.data() + sent, count - sent, MSG_NOSIGNAL);
      if (n <= 0) {
        ok = false;
        break;
      }
      sent += static_cast<std::size_t>(n);
    }
    if (!ok || count < kChunk) break;
  }
  if (in != nullptr) std::fclose(in);
  ::shutdown(fd, SHUT_RDWR);
  receiver.join();
  ::close(fd);
  ::close(listener);
  return ok ? Seconds(start) : -1;
}

bool Fail(const char* what) {
  std::fprintf(stderr, "vantrel-bench filecopy: %s\n", what);
  return false;
}

bool RunFileCopy(const cBenchOptions& options, cBenchTable& table) {
  const std::size_t mebibytes = options.quick ? 32 : 256;
  const std::size_t bytes = mebibytes << 20;
  const cBenchFolder scratch("copy");
  if (scratch.Path().empty()) return Fail("cannot make a temporary folder");
  const std::filesystem::path& folder = scratch.Path();

  const std::string source = (folder / "source").string();
  if (!WriteSource(source, mebibytes)) return Fail("cannot write the source file");

  cBenchService sender(options.serviceProgram, options.serviceLogLevel);
  cBenchService receiver(options.serviceProgram, options.serviceLogLevel);
  if (!sender.Start()) return Fail(sender.Error().c_str());
  if (!receiver.Start()) return Fail(receiver.Error().c_str());
  cVantrelClientObject client;
  if (!client.NETInitZ641("benchcopy", sender.ClientsPort())) return Fail("cannot register with the sender");
  const std::string host = "127.0.0.1~" + std::to_string(receiver.NetPort());

  CAssociativeArray request;
  request.AddCouple(wire::kCopyLocalFile, source);
  request.AddCouple(wire::kCopyRemoteFile, (folder / "remote-copy").string());
  std::string text;
  long length = 0;
  request.ToString(text, length, false, false);

  // Rounds of one plain stream and one copy each; the medians of both count,
  // so that neither side alone pays for a cold page cache or a busy moment.
  const int rounds = options.quick ? 1 : 5;
  std::vector<double> plainSeconds;
  std::vector<double> copySeconds;
  for (int round = 0; round < rounds; ++round) {
    const double plain = PlainStream(source, (folder / "plain-copy").string());
    std::filesystem::remove(folder / "plain-copy");
    if (plain > 0) plainSeconds.push_back(plain);

    const auto start = tClock::now();
    if (!client.NETCopyFileZ1(1, text.data(), static_cast<unsigned>(length), host.c_str()))
      return Fail("the copy request was not sent");
    const cVantrelMessage* answer = client.NETWaitMessageX1();
    copySeconds.push_back(Seconds(start));
    if (answer == nullptr || answer->getType() != wire::kDelivered) return Fail("no copy result");
    CAssociativeArray result;
    result.FromString(answer->getData(), static_cast<long>(answer->getDatalen()));
    const std::string state = result.GetValueOfParameter(wire::kCopyState);
    std::error_code ec;
    if (state != std::to_string(wire::kCopyDone) || std::filesystem::file_size(folder / "remote-copy", ec) != bytes)
      return Fail(("the copy did not complete, state " + state).c_str());
    std::filesystem::remove(folder / "remote-copy");
    std::fprintf(stderr, "filecopy round %d: plain %.0f MB/s, copy %.0f MB/s\n", round + 1,
                 plain > 0 ? static_cast<double>(bytes) / 1e6 / plain : 0.0,
                 static_cast<double>(bytes) / 1e6 / copySeconds.back());
  }
  client.NETTerminate();

  const double megabytes = static_cast<double>(bytes) / 1e6;
  const double copy = Percentile(copySeconds, 50);
  table.Add({"filecopy", "remote copy", SizeText(bytes), "MB/s", megabytes / copy,
             plainSeconds.empty() ? std::nullopt : std::optional<double>(megabytes / Percentile(plainSeconds, 50)),
             true, "median of " + std::to_string(rounds) + " rounds; floor: plain loopback stream, 51200-byte writes"});
  return true;
}

}  // namespace

VANTREL_BENCH_SCENARIO("filecopy", "remote file copy between two services beside a plain loopback TCP stream",
                       RunFileCopy);

}  // namespace vantrel::bench
