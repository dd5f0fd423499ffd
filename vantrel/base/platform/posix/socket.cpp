#include "vantrel/base/platform/socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

namespace vantrel::platform {
namespace {

static_assert(sizeof(sockaddr_storage) <= sizeof(cSocketAddress::storage), "cSocketAddress cannot hold an address");

int Fd(tSocket socket) { return static_cast<int>(socket); }

tSocketFault Classify(int code) {
  switch (code) {
    case 0:
      return tSocketFault::eNone;
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
      return tSocketFault::eWouldBlock;
    case EINTR:
      return tSocketFault::eInterrupted;
    case EINPROGRESS:
      return tSocketFault::eInProgress;
    case ECONNREFUSED:
      return tSocketFault::eRefused;
    case ETIMEDOUT:
      return tSocketFault::eTimedOut;
    case EADDRINUSE:
      return tSocketFault::eAddressInUse;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return tSocketFault::eNoResources;
    default:
      return tSocketFault::eOther;
  }
}

cSocketResult Result(int code) { return {Classify(code), code}; }
cSocketResult LastError() { return Result(errno); }
cSocketResult Status(int rc) { return rc == 0 ? cSocketResult{} : LastError(); }

cEndpoint Endpoint(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = "";
  cEndpoint endpoint;
  if (address.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
    ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    endpoint.port = ntohs(in->sin_port);
  } else if (address.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
    ::inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    endpoint.port = ntohs(in6->sin6_port);
  }
  endpoint.address = text;
  return endpoint;
}

cEndpoint NamedEndpoint(tSocket socket, int (*name)(int, sockaddr*, socklen_t*)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (name(Fd(socket), reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return Endpoint(address);
}

}  // namespace

std::string cSocketResult::Text() const { return std::strerror(code); }

cSocketResult gLastSocketError() { return LastError(); }

cSocketResult gTimedOut() { return Result(ETIMEDOUT); }

// ---- addresses ------------------------------------------------------------------

cLookupResult gLookUp(const std::string& host, unsigned short port, tLookup lookup) {
  cLookupResult result;
  addrinfo hints{};
  hints.ai_family = lookup == tLookup::eIPv4Only ? AF_INET : AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int rc = ::getaddrinfo(host.c_str(), port == 0 ? nullptr : service.c_str(), &hints, &found);
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  if (rc != 0 || !found) {
    result.error = rc != 0 ? ::gai_strerror(rc) : "no address";
    return result;
  }
  for (const addrinfo* a = found; a; a = a->ai_next) {
    if ((a->ai_family != AF_INET && a->ai_family != AF_INET6) || a->ai_addrlen > sizeof(cSocketAddress::storage))
      continue;
    cSocketAddress& address = result.addresses.emplace_back();
    address.family = a->ai_family == AF_INET ? tAddressFamily::eIPv4 : tAddressFamily::eIPv6;
    address.size = static_cast<std::uint32_t>(a->ai_addrlen);
    std::memcpy(address.storage, a->ai_addr, a->ai_addrlen);
  }
  if (result.addresses.empty()) result.error = "no IP address";
  return result;
}

bool gIsNumericAddress(const std::string& text) {
  unsigned char buffer[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, text.c_str(), buffer) == 1 || ::inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

cEndpoint gFormatAddress(const cSocketAddress& address) {
  sockaddr_storage storage{};
  std::memcpy(&storage, address.storage, std::min<std::size_t>(address.size, sizeof storage));
  return Endpoint(storage);
}

cEndpoint gLocalEndpoint(tSocket socket) { return NamedEndpoint(socket, &::getsockname); }
cEndpoint gPeerEndpoint(tSocket socket) { return NamedEndpoint(socket, &::getpeername); }

// ---- life of a socket -----------------------------------------------------------

tSocket gOpenStreamSocket(tAddressFamily family, cSocketResult& result) {
  const int fd =
      ::socket(family == tAddressFamily::eIPv4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  result = fd < 0 ? LastError() : cSocketResult{};
  return fd < 0 ? kNoSocket : fd;
}

void gCloseSocket(tSocket socket) {
  if (socket != kNoSocket) ::close(Fd(socket));
}

void gShutdownSocket(tSocket socket) { ::shutdown(Fd(socket), SHUT_RDWR); }
void gShutdownSending(tSocket socket) { ::shutdown(Fd(socket), SHUT_WR); }

bool gIsOpenSocket(tSocket socket) { return socket >= 0 && ::fcntl(Fd(socket), F_GETFD) >= 0; }

// ---- options --------------------------------------------------------------------

cSocketResult gSetNonBlocking(tSocket socket, bool nonBlocking) {
  const int flags = ::fcntl(Fd(socket), F_GETFL);
  if (flags < 0) return LastError();
  return Status(::fcntl(Fd(socket), F_SETFL, nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK));
}

// Sends pass MSG_DONTWAIT, so a blocking socket still never waits in a send.
bool gAllowBlockingReceive(tSocket socket) { return gSetNonBlocking(socket, false).Ok(); }

cSocketResult gSetNoDelay(tSocket socket) {
  const int on = 1;
  return Status(::setsockopt(Fd(socket), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
}

cSocketResult gSetUnacknowledgedTimeout(tSocket socket, std::uint32_t milliseconds) {
  const unsigned int ms = milliseconds;
  return Status(::setsockopt(Fd(socket), IPPROTO_TCP, TCP_USER_TIMEOUT, &ms, sizeof ms));
}

cSocketResult gSetReuseAddress(tSocket socket) {
  const int on = 1;
  return Status(::setsockopt(Fd(socket), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on));
}

cSocketResult gSetCloseOnExec(tSocket socket) {
  const int flags = ::fcntl(Fd(socket), F_GETFD);
  if (flags < 0) return Status(-1);
  return Status(::fcntl(Fd(socket), F_SETFD, flags | FD_CLOEXEC));
}

// ---- listening and connecting ---------------------------------------------------

cSocketResult gBindIPv4(tSocket socket, tListenAddress address, unsigned short port) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_port = htons(port);
  in.sin_addr.s_addr = htonl(address == tListenAddress::eLoopback ? INADDR_LOOPBACK : INADDR_ANY);
  return Status(::bind(Fd(socket), reinterpret_cast<const sockaddr*>(&in), sizeof in));
}

cSocketResult gListen(tSocket socket) { return Status(::listen(Fd(socket), SOMAXCONN)); }

tSocket gAccept(tSocket listener, cSocketResult& result) {
  const int fd = ::accept4(Fd(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd >= 0) {
    result = {};
    return fd;
  }
  result = LastError();
  switch (result.code) {
    // Errors of the connection being taken (accept(2) passes pending network
    // errors on), not of the listener.
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
    case EPERM:  // refused by a firewall rule
      result.fault = tSocketFault::eConnectionGone;
      break;
    default:
      break;
  }
  return kNoSocket;
}

cSocketResult gStartConnect(tSocket socket, const cSocketAddress& address) {
  return Status(::connect(Fd(socket), reinterpret_cast<const sockaddr*>(address.storage), address.size));
}

cSocketResult gConnectOutcome(tSocket socket) {
  int code = 0;
  socklen_t size = sizeof code;
  if (::getsockopt(Fd(socket), SOL_SOCKET, SO_ERROR, &code, &size) != 0) return LastError();
  return Result(code);
}

// ---- moving bytes ---------------------------------------------------------------

std::size_t gReceive(tSocket socket, void* buffer, std::size_t size, bool mayWait, cSocketResult& result) {
  const ssize_t n = ::recv(Fd(socket), buffer, size, mayWait ? 0 : MSG_DONTWAIT);
  result = n < 0 ? LastError() : cSocketResult{};
  return n < 0 ? 0 : static_cast<std::size_t>(n);
}

std::size_t gSendGathered(tSocket socket, const cSendBuffer* parts, std::size_t count, cSocketResult& result) {
  // A frame batch has at most 128 parts; more go out in the next call.
  constexpr std::size_t kMaxParts = std::min<std::size_t>(128, IOV_MAX);
  iovec vector[kMaxParts];
  const std::size_t used = std::min(count, kMaxParts);
  for (std::size_t i = 0; i < used; ++i) vector[i] = {const_cast<void*>(parts[i].data), parts[i].size};
  msghdr message{};
  message.msg_iov = vector;
  message.msg_iovlen = used;
  // MSG_NOSIGNAL: a peer that is gone fails the call instead of raising SIGPIPE.
  const ssize_t n = ::sendmsg(Fd(socket), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  result = n < 0 ? LastError() : cSocketResult{};
  return n < 0 ? 0 : static_cast<std::size_t>(n);
}

// ---- waiting --------------------------------------------------------------------

cWakeup::cWakeup() {
  const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd < 0)
    failure_ = LastError();
  else
    native_ = fd;
}

cWakeup::~cWakeup() {
  if (native_ != kNoSocket) ::close(Fd(native_));
}

void cWakeup::Signal() const {
  // Never read back: the descriptor stays readable from now on.
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(Fd(native_), &one, sizeof one);
}

tPollResult gPoll(tSocket socket, tReadiness readiness, const cWakeup* wakeup, std::int64_t deadlineUs) {
  pollfd fds[2];
  nfds_t count = 0;
  const short events = readiness == tReadiness::eReadable ? POLLIN : POLLOUT;
  if (wakeup) fds[count++] = {Fd(wakeup->Native()), POLLIN, 0};
  if (socket != kNoSocket) fds[count++] = {Fd(socket), events, 0};
  for (;;) {
    int timeoutMs = -1;
    if (deadlineUs >= 0) {
      const std::int64_t remaining = deadlineUs - gSteadyNowUs();
      if (remaining <= 0) return tPollResult::eTimedOut;
      timeoutMs = static_cast<int>(std::min<std::int64_t>((remaining + 999) / 1000, 1 << 30));
    }
    const int n = ::poll(fds, count, timeoutMs);
    if (n < 0) {
      if (errno == EINTR) continue;
      return tPollResult::eFailed;
    }
    if (n == 0) continue;  // the deadline decides
    if (wakeup && fds[0].revents) return tPollResult::eWoken;
    return tPollResult::eReady;
  }
}

}  // namespace vantrel::platform
