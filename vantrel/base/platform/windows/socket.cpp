#include "vantrel/base/platform/socket.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "vantrel/base/platform/windows/win32.h"

#ifndef TCP_MAXRT
#define TCP_MAXRT 5  // ws2ipdef.h: retransmission time-out in seconds
#endif

namespace vantrel::platform {
namespace {

static_assert(sizeof(sockaddr_storage) <= sizeof(cSocketAddress::storage), "cSocketAddress cannot hold an address");

SOCKET AsSocket(tSocket socket) { return static_cast<SOCKET>(socket); }

tSocketFault Classify(int code) {
  switch (code) {
    case 0:
      return tSocketFault::eNone;
    case WSAEWOULDBLOCK:
      return tSocketFault::eWouldBlock;
    case WSAEINTR:
      return tSocketFault::eInterrupted;
    case WSAEINPROGRESS:
    case WSAEALREADY:
      return tSocketFault::eInProgress;
    case WSAECONNREFUSED:
      return tSocketFault::eRefused;
    case WSAETIMEDOUT:
      return tSocketFault::eTimedOut;
    case WSAEADDRINUSE:
    case WSAEACCES:  // a port held exclusively by another socket
      return tSocketFault::eAddressInUse;
    case WSAEMFILE:
    case WSAENOBUFS:
    case WSA_NOT_ENOUGH_MEMORY:
      return tSocketFault::eNoResources;
    default:
      return tSocketFault::eOther;
  }
}

cSocketResult Result(int code) { return {Classify(code), code}; }
cSocketResult LastError() { return Result(::WSAGetLastError()); }
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

cEndpoint NamedEndpoint(tSocket socket, int(WSAAPI* name)(SOCKET, sockaddr*, int*)) {
  sockaddr_storage address{};
  int size = sizeof address;
  if (name(AsSocket(socket), reinterpret_cast<sockaddr*>(&address), &size) != 0) return {};
  return Endpoint(address);
}

// Sockets are made non-inheritable at once, so that a program started by
// another thread never holds a listener or a connection open.
void NotInherited(SOCKET socket) { ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0); }

// Whether `socket` can be read now, without waiting.
bool ReadableNow(SOCKET socket) {
  fd_set read;
  FD_ZERO(&read);
  FD_SET(socket, &read);
  timeval zero{0, 0};
  return ::select(0, &read, nullptr, nullptr, &zero) > 0;
}

}  // namespace

std::string cSocketResult::Text() const { return win32::ErrorText(static_cast<unsigned long>(code)); }

cSocketResult gLastSocketError() { return LastError(); }

cSocketResult gTimedOut() { return Result(WSAETIMEDOUT); }

// ---- addresses ------------------------------------------------------------------

cLookupResult gLookUp(const std::string& host, unsigned short port, tLookup lookup) {
  win32::StartWinsock();
  cLookupResult result;
  addrinfo hints{};
  hints.ai_family = lookup == tLookup::eIPv4Only ? AF_INET : AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int rc = ::getaddrinfo(host.c_str(), port == 0 ? nullptr : service.c_str(), &hints, &found);
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  if (rc != 0 || !found) {
    result.error = rc != 0 ? win32::ErrorText(static_cast<unsigned long>(rc)) : "no address";
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
  win32::StartWinsock();
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

namespace {
// A new socket of this process: not inherited by children, non-blocking.
tSocket Adopted(SOCKET s, cSocketResult& result) {
  NotInherited(s);
  u_long on = 1;
  if (::ioctlsocket(s, FIONBIO, &on) != 0) {
    result = LastError();
    ::closesocket(s);
    return kNoSocket;
  }
  result = {};
  return static_cast<tSocket>(s);
}
}  // namespace

// ---- life of a socket -----------------------------------------------------------

tSocket gOpenStreamSocket(tAddressFamily family, cSocketResult& result) {
  win32::StartWinsock();
  const SOCKET s = ::WSASocketW(family == tAddressFamily::eIPv4 ? AF_INET : AF_INET6, SOCK_STREAM, IPPROTO_TCP, nullptr,
                                0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) {
    result = LastError();
    return kNoSocket;
  }
  return Adopted(s, result);
}

void gCloseSocket(tSocket socket) {
  if (socket != kNoSocket) ::closesocket(AsSocket(socket));
}

void gShutdownSocket(tSocket socket) { ::shutdown(AsSocket(socket), SD_BOTH); }
void gShutdownSending(tSocket socket) { ::shutdown(AsSocket(socket), SD_SEND); }

bool gIsOpenSocket(tSocket socket) {
  if (socket < 0) return false;
  int type = 0;
  int size = sizeof type;
  return ::getsockopt(AsSocket(socket), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type), &size) == 0;
}

// ---- options --------------------------------------------------------------------

cSocketResult gSetNonBlocking(tSocket socket, bool nonBlocking) {
  u_long mode = nonBlocking ? 1 : 0;
  return Status(::ioctlsocket(AsSocket(socket), FIONBIO, &mode));
}

// A send has no per-call "do not wait" flag here, so a blocking socket would
// wait in its sends; and a receive blocked in the system is not ended by a
// shutdown from another thread under every Windows (wine among them). Reads
// wait in gPoll next to the wake-up instead.
bool gAllowBlockingReceive(tSocket) { return false; }

cSocketResult gSetNoDelay(tSocket socket) {
  const BOOL on = TRUE;
  return Status(
      ::setsockopt(AsSocket(socket), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on));
}

cSocketResult gSetUnacknowledgedTimeout(tSocket socket, std::uint32_t milliseconds) {
  // The system counts whole seconds; a part of a second rounds up, so the
  // connection is never declared dead earlier than asked.
  const DWORD seconds = static_cast<DWORD>((static_cast<std::uint64_t>(milliseconds) + 999) / 1000);
  return Status(
      ::setsockopt(AsSocket(socket), IPPROTO_TCP, TCP_MAXRT, reinterpret_cast<const char*>(&seconds), sizeof seconds));
}

cSocketResult gSetReuseAddress(tSocket socket) {
  // Windows lets a listener bind a port that closing connections still hold
  // without any option; its SO_REUSEADDR would instead let a second listener
  // take a port in use. Exclusive use keeps "port in use" meaning what it says.
  const BOOL on = TRUE;
  return Status(
      ::setsockopt(AsSocket(socket), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof on));
}

cSocketResult gSetCloseOnExec(tSocket socket) {
  if (::SetHandleInformation(reinterpret_cast<HANDLE>(AsSocket(socket)), HANDLE_FLAG_INHERIT, 0)) return {};
  return Result(static_cast<int>(::GetLastError()));
}

// ---- listening and connecting ---------------------------------------------------

cSocketResult gBindIPv4(tSocket socket, tListenAddress address, unsigned short port) {
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_port = htons(port);
  in.sin_addr.s_addr = htonl(address == tListenAddress::eLoopback ? INADDR_LOOPBACK : INADDR_ANY);
  return Status(::bind(AsSocket(socket), reinterpret_cast<const sockaddr*>(&in), sizeof in));
}

cSocketResult gListen(tSocket socket) { return Status(::listen(AsSocket(socket), SOMAXCONN)); }

tSocket gAccept(tSocket listener, cSocketResult& result) {
  const SOCKET s = ::accept(AsSocket(listener), nullptr, nullptr);
  if (s == INVALID_SOCKET) {
    result = LastError();
    switch (result.code) {
      // Errors of the connection being taken, not of the listener.
      case WSAECONNRESET:
      case WSAECONNABORTED:
      case WSAENETDOWN:
      case WSAEHOSTUNREACH:
      case WSAENETUNREACH:
        result.fault = tSocketFault::eConnectionGone;
        break;
      default:
        break;
    }
    return kNoSocket;
  }
  return Adopted(s, result);
}

cSocketResult gStartConnect(tSocket socket, const cSocketAddress& address) {
  if (::connect(AsSocket(socket), reinterpret_cast<const sockaddr*>(address.storage), static_cast<int>(address.size)) ==
      0)
    return {};
  cSocketResult result = LastError();
  // A non-blocking connect under way says "would block" here.
  if (result.fault == tSocketFault::eWouldBlock) result.fault = tSocketFault::eInProgress;
  return result;
}

cSocketResult gConnectOutcome(tSocket socket) {
  int code = 0;
  int size = sizeof code;
  if (::getsockopt(AsSocket(socket), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&code), &size) != 0)
    return LastError();
  return Result(code);
}

// ---- moving bytes ---------------------------------------------------------------

std::size_t gReceive(tSocket socket, void* buffer, std::size_t size, bool mayWait, cSocketResult& result) {
  // There is no per-call "do not wait" flag: a blocking socket is asked first
  // whether data is there.
  if (!mayWait && !ReadableNow(AsSocket(socket))) {
    result = Result(WSAEWOULDBLOCK);
    return 0;
  }
  const int n =
      ::recv(AsSocket(socket), static_cast<char*>(buffer), static_cast<int>(std::min<std::size_t>(size, INT_MAX)), 0);
  if (n < 0) {
    result = LastError();
    return 0;
  }
  result = {};
  return static_cast<std::size_t>(n);
}

std::size_t gSendGathered(tSocket socket, const cSendBuffer* parts, std::size_t count, cSocketResult& result) {
  // A frame batch has at most 128 parts; more go out in the next call.
  constexpr std::size_t kMaxParts = 128;
  WSABUF vector[kMaxParts];
  const std::size_t used = std::min(count, kMaxParts);
  for (std::size_t i = 0; i < used; ++i) {
    vector[i].buf = static_cast<char*>(const_cast<void*>(parts[i].data));
    vector[i].len = static_cast<ULONG>(std::min<std::size_t>(parts[i].size, ULONG_MAX));
  }
  DWORD sent = 0;
  // A send to a peer that is gone fails with an error: Windows has no SIGPIPE.
  if (::WSASend(AsSocket(socket), vector, static_cast<DWORD>(used), &sent, 0, nullptr, nullptr) != 0) {
    result = LastError();
    return 0;
  }
  result = {};
  return sent;
}

// ---- waiting --------------------------------------------------------------------

// The wake-up is a UDP socket bound to the loopback address: Signal sends it one
// datagram that is never read, so it stays readable from then on, and select
// watches it next to the stream socket.
cWakeup::cWakeup() {
  win32::StartWinsock();
  const SOCKET s = ::WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
  if (s == INVALID_SOCKET) {
    failure_ = LastError();
    return;
  }
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  u_long on = 1;
  if (::bind(s, reinterpret_cast<const sockaddr*>(&in), sizeof in) != 0 || ::ioctlsocket(s, FIONBIO, &on) != 0) {
    failure_ = LastError();
    ::closesocket(s);
    return;
  }
  NotInherited(s);
  native_ = static_cast<std::intptr_t>(s);
}

cWakeup::~cWakeup() {
  if (native_ != kNoSocket) ::closesocket(AsSocket(native_));
}

void cWakeup::Signal() const {
  sockaddr_in self{};
  int size = sizeof self;
  if (::getsockname(AsSocket(native_), reinterpret_cast<sockaddr*>(&self), &size) != 0) return;
  const char one = 1;
  ::sendto(AsSocket(native_), &one, 1, 0, reinterpret_cast<const sockaddr*>(&self), size);
}

tPollResult gPoll(tSocket socket, tReadiness readiness, const cWakeup* wakeup, std::int64_t deadlineUs) {
  // select, not WSAPoll: WSAPoll does not report a failed non-blocking connect
  // on every Windows release, while select puts it in the exception set.
  for (;;) {
    fd_set read, write, failed;
    FD_ZERO(&read);
    FD_ZERO(&write);
    FD_ZERO(&failed);
    if (wakeup) FD_SET(AsSocket(wakeup->Native()), &read);
    if (socket != kNoSocket) {
      FD_SET(AsSocket(socket), readiness == tReadiness::eReadable ? &read : &write);
      FD_SET(AsSocket(socket), &failed);
    }
    timeval limit{};
    timeval* timeout = nullptr;
    if (deadlineUs >= 0) {
      const std::int64_t remaining = deadlineUs - gSteadyNowUs();
      if (remaining <= 0) return tPollResult::eTimedOut;
      const std::int64_t capped = std::min<std::int64_t>(remaining, std::int64_t{1} << 40);
      limit.tv_sec = static_cast<long>(std::min<std::int64_t>(capped / 1000000, LONG_MAX));
      limit.tv_usec = static_cast<long>(capped % 1000000);
      timeout = &limit;
    }
    if (socket == kNoSocket && !wakeup) {
      // Nothing to watch: select refuses empty sets, so just sleep to the deadline.
      if (!timeout) return tPollResult::eFailed;
      ::Sleep(static_cast<DWORD>(limit.tv_sec * 1000 + (limit.tv_usec + 999) / 1000));
      continue;
    }
    const int n = ::select(0, &read, &write, &failed, timeout);
    if (n < 0) {
      if (::WSAGetLastError() == WSAEINTR) continue;
      return tPollResult::eFailed;
    }
    if (n == 0) continue;  // the deadline decides
    if (wakeup && FD_ISSET(AsSocket(wakeup->Native()), &read)) return tPollResult::eWoken;
    return tPollResult::eReady;
  }
}

}  // namespace vantrel::platform
