#include "vantrel/base/socket/hostlookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "vantrel/base/log/log.h"

namespace nCommunication::nSocket::nImplementation_sho {
namespace {

using Clock = std::chrono::steady_clock;

// One connect attempt bounded by `deadline`; true when it completed.
bool ConnectWithin(const addrinfo& address, Clock::time_point deadline) {
  const int fd = ::socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = ::connect(fd, address.ai_addr, address.ai_addrlen) == 0;
  if (!ok && errno == EINPROGRESS) {
    for (;;) {
      const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (remaining <= 0) break;
      pollfd p{fd, POLLOUT, 0};
      const int n = ::poll(&p, 1, static_cast<int>(remaining));
      if (n < 0 && errno == EINTR) continue;
      if (n > 0) {
        int code = 0;
        socklen_t size = sizeof code;
        ok = ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &size) == 0 && code == 0;
      }
      break;
    }
  }
  ::close(fd);
  return ok;
}

}  // namespace

std::optional<nTime::cDiff> gPing(const std::string& host, unsigned short port, nTime::cDiff timeout) {
  if (timeout < nTime::cDiff::FromSeconds(1)) timeout = nTime::cDiff::FromSeconds(1);
  const auto start = Clock::now();
  const auto deadline = start + timeout.Chrono();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  if (::getaddrinfo(host.c_str(), service.c_str(), &hints, &found) != 0 || !found) {
    VLOG_INFO("gPing - cannot resolve %s", host);
    return std::nullopt;
  }
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);
  for (const addrinfo* a = addresses.get(); a; a = a->ai_next) {
    if (ConnectWithin(*a, deadline))
      return nTime::cDiff::FromMicroseconds(
          std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
    if (Clock::now() >= deadline) break;
  }
  return std::nullopt;
}

std::optional<std::string> gGetHostByName(const std::string& name) {
  if (name.empty()) return std::nullopt;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int rc = ::getaddrinfo(name.c_str(), nullptr, &hints, &found); rc != 0 || !found) {
    VLOG_INFO("gGetHostByName - cannot resolve %s: %s", name, ::gai_strerror(rc));
    return std::nullopt;
  }
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);
  char text[INET_ADDRSTRLEN] = "";
  const auto* in = reinterpret_cast<const sockaddr_in*>(addresses->ai_addr);
  if (!::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) return std::nullopt;
  return std::string(text);
}

std::string gGetLocalHostName(const std::string& fallback) {
  char buffer[256] = "";
  if (::gethostname(buffer, sizeof buffer - 1) != 0 || buffer[0] == '\0') return fallback;
  buffer[sizeof buffer - 1] = '\0';
  return buffer;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
