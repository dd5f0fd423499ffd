// Copies a 256 MiB file from one service to another on loopback and, in the
// same run, streams the same file over a plain loopback TCP connection in
// 51200-byte writes (the chunk size of a copy), then prints both rates.
//
// Usage: vantrel-bench [size-in-MiB] [path-of-the-vantrel-program]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "vantrel/base/platform/process.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/support/associativearray.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kChunk = 51200;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

unsigned short FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

// Reads `source` in chunk-sized pieces, sends them on a loopback connection and
// writes what arrives to `destination`. Returns the seconds it took, or -1.
double PlainStream(const std::string& source, const std::string& destination) {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 1) != 0)
    return -1;
  socklen_t length = sizeof address;
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);

  const auto start = Clock::now();
  std::thread receiver([&] {
    const int fd = ::accept(listener, nullptr, nullptr);
    std::FILE* out = std::fopen(destination.c_str(), "wb");
    std::vector<char> buffer(kChunk);
    for (;;) {
      const ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (got <= 0) break;
      std::fwrite(buffer.data(), 1, static_cast<std::size_t>(got), out);
    }
    std::fclose(out);
    ::close(fd);
  });
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  std::FILE* in = std::fopen(source.c_str(), "rb");
  std::vector<char> buffer(kChunk);
  for (;;) {
    const std::size_t count = std::fread(buffer.data(), 1, kChunk, in);
    std::size_t sent = 0;
    while (sent < count) {
      const ssize_t n = ::send(fd, buffer.data() + sent, count - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
    if (count < kChunk) break;
  }
  std::fclose(in);
  ::shutdown(fd, SHUT_WR);
  receiver.join();
  ::close(fd);
  ::close(listener);
  return Seconds(start);
}

struct cService {
  RQPProcessId pid = 0;
  unsigned short clientsPort = 0;
  unsigned short netPort = 0;
};

bool StartService(const std::string& program, const std::string& folder, cService& service) {
  service.clientsPort = FreePort();
  service.netPort = FreePort();
  const std::string ini = folder + "/Vantrel-" + std::to_string(service.netPort) + ".ini";
  std::ofstream(ini) << "; benchmark settings: defaults\n";
  const auto spawned = RQPCreateProcessZ0(
      program, {"--clients-port", std::to_string(service.clientsPort), "--net-port", std::to_string(service.netPort),
                "--config", ini, "--log-level", "warning", "--log-file", ini + ".log"});
  if (!spawned.ok()) {
    std::fprintf(stderr, "vantrel-bench: %s\n", spawned.errorText.c_str());
    return false;
  }
  service.pid = spawned.pid;
  return true;
}

// Registers with a service, trying until it answers (a completed greeting is
// the service's readiness).
bool Register(cVantrelClientObject& client, const char* name, unsigned short port) {
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (Clock::now() < deadline) {
    if (client.NETInitZ641(name, port)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // retry pacing, not synchronisation
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const long mebibytes = argc > 1 ? std::atol(argv[1]) : 256;
#ifdef VANTREL_SERVICE_PROGRAM
  std::string program = VANTREL_SERVICE_PROGRAM;
#else
  std::string program;
#endif
  if (argc > 2) program = argv[2];
  if (program.empty() || mebibytes <= 0) {
    std::fprintf(stderr, "usage: vantrel-bench [size-in-MiB] [path-of-the-vantrel-program]\n");
    return 2;
  }

  char folderTemplate[] = "/tmp/vantrel-bench-XXXXXX";
  if (::mkdtemp(folderTemplate) == nullptr) return 1;
  const std::string folder = folderTemplate;
  const std::string source = folder + "/source";
  const std::size_t bytes = static_cast<std::size_t>(mebibytes) << 20;
  {
    std::ofstream out(source, std::ios::binary);
    std::vector<char> block(1 << 20);
    unsigned x = 12345;
    for (auto& b : block) b = static_cast<char>((x = x * 1103515245u + 12345u) >> 16);
    for (long i = 0; i < mebibytes; ++i) {
      block[0] = static_cast<char>(i);
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
  }

  int status = 0;
  cService a, b;
  if (!StartService(program, folder, a) || !StartService(program, folder, b)) return 1;
  {
    cVantrelClientObject client;
    cVantrelClientObject peer;
    if (!Register(client, "bench", a.clientsPort) || !Register(peer, "bench-peer", b.clientsPort)) {
      std::fprintf(stderr, "vantrel-bench: the services did not answer\n");
      status = 1;
    } else {
      const std::string whoami = peer.NETWhoAmI();
      const std::string host = whoami.substr(whoami.rfind('@') + 1);

      double plain = PlainStream(source, folder + "/plain-copy");
      std::filesystem::remove(folder + "/plain-copy");

      CAssociativeArray request;
      request.AddCouple("$LOCALFILE", source);
      request.AddCouple("$REMOTEFILE", folder + "/remote-copy");
      std::string text;
      long length = 0;
      request.ToString(text, length, false, false);
      const auto start = Clock::now();
      long state = -1;
      if (client.NETCopyFileZ1(1, text.data(), static_cast<unsigned>(length), host.c_str())) {
        const cVantrelMessage* answer = client.NETWaitMessageX1();
        if (answer != nullptr && answer->getType() == 102) {
          CAssociativeArray result;
          result.FromString(answer->getData(), static_cast<long>(answer->getDatalen()));
          state = std::atol(result.GetValueOfParameter("$FILECOPYCOMPLETIONSTATE").c_str());
        }
      }
      const double copy = Seconds(start);
      const bool identical = state == 0 && std::filesystem::file_size(folder + "/remote-copy") == bytes;
      std::filesystem::remove(folder + "/remote-copy");
      // Measured again after the copy, so that neither side alone pays for a
      // cold page cache or a busy moment; the better run counts.
      const double again = PlainStream(source, folder + "/plain-copy");
      std::filesystem::remove(folder + "/plain-copy");
      if (again > 0 && (plain <= 0 || again < plain)) plain = again;

      const double megabytes = static_cast<double>(bytes) / 1e6;
      std::printf("file: %ld MiB\n", mebibytes);
      std::printf("plain loopback TCP, %zu-byte writes: %8.1f MB/s (%.3f s)\n", kChunk, megabytes / plain, plain);
      std::printf("remote copy between two services:  %8.1f MB/s (%.3f s), state %ld%s\n", megabytes / copy, copy,
                  state, identical ? "" : " (copy incomplete)");
      std::printf("ratio copy/plain: %.3f\n", plain / copy);
      if (!identical) status = 1;
    }
    client.NETTerminate();
    peer.NETTerminate();
  }
  RQPKillProcess(a.pid);
  RQPKillProcess(b.pid);
  RQPWaitProcess(a.pid);
  RQPWaitProcess(b.pid);
  std::filesystem::remove_all(folder);
  return status;
}
