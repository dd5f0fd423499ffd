#include "vantrel/base/socket/streamsocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/frame.h"
#include "vantrel/base/socket/tls.h"

using namespace nCommunication::nSocket::nImplementation_sho;

namespace {

std::string ErrorText(int code) { return std::strerror(code); }

void CloseDescriptor(int fd) {
  if (fd >= 0) ::close(fd);
}

std::string AddressText(const sockaddr_storage& address, unsigned short& port) {
  char text[INET6_ADDRSTRLEN] = "";
  port = 0;
  if (address.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
    ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    port = ntohs(in->sin_port);
  } else if (address.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
    ::inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    port = ntohs(in6->sin6_port);
  }
  return text;
}

// Sends stay non-blocking (MSG_DONTWAIT); only reads wait in the kernel.
bool MakeBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) == 0;
}

// Marks a frame deadline that has not been computed yet (-1 means "none").
constexpr std::int64_t kNoDeadlineYet = -2;

bool IsIpLiteral(const std::string& host) {
  unsigned char buffer[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, host.c_str(), buffer) == 1 || ::inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

}  // namespace

// ---- cSocketHandle, status, gValidate ------------------------------------------

namespace nCommunication::nSocket::nImplementation_sho {

cSocketHandle::~cSocketHandle() { CloseDescriptor(fd_); }

cSocketHandle::cSocketHandle(cSocketHandle&& other) noexcept : fd_(other.fd_), options_(std::move(other.options_)) {
  other.fd_ = -1;
}

cSocketHandle& cSocketHandle::operator=(cSocketHandle&& other) noexcept {
  if (this != &other) {
    CloseDescriptor(fd_);
    fd_ = other.fd_;
    options_ = std::move(other.options_);
    other.fd_ = -1;
  }
  return *this;
}

int cSocketHandle::Release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

const char* gSocketStatusText(tSocketStatus status) {
  switch (status) {
    case tSocketStatus::eGood: return "good";
    case tSocketStatus::eClosed: return "closed";
    case tSocketStatus::eFailed: return "failed";
    case tSocketStatus::eInvalidHandle: return "invalid handle";
  }
  return "unknown";
}

cValidatedHandle gValidate(std::optional<cSocketHandle>&& handle) {
  cValidatedHandle result;
  if (!handle || !handle->fIsValid()) return result;
  if (::fcntl(handle->Number(), F_GETFD) < 0) return result;
  result.handle = std::move(*handle);
  handle.reset();
  result.status = tSocketStatus::eGood;
  return result;
}

}  // namespace nCommunication::nSocket::nImplementation_sho

// ---- c_Socket -------------------------------------------------------------------

c_Socket::c_Socket() {
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeFd_ < 0) throw cSocketError("c_Socket: eventfd failed: " + ErrorText(errno));
}

c_Socket::~c_Socket() {
  CloseDescriptor(fd_.exchange(-1));
  CloseDescriptor(wakeFd_);
}

std::int64_t c_Socket::SteadyNowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string c_Socket::PeerAddress() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return peerAddress_;
}

bool c_Socket::AdoptDescriptor(int descriptor) {
  sockaddr_storage local{}, peer{};
  socklen_t localSize = sizeof local, peerSize = sizeof peer;
  unsigned short localPort = 0, peerPort = 0;
  std::string peerText;
  if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &localSize) == 0) AddressText(local, localPort);
  if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerSize) == 0)
    peerText = AddressText(peer, peerPort);

  std::lock_guard<std::mutex> lock(stateMutex_);
  CloseDescriptor(fd_.exchange(descriptor));
  localPort_.store(localPort, std::memory_order_release);
  peerPort_.store(peerPort, std::memory_order_release);
  peerAddress_ = std::move(peerText);
  if (closed_.load(std::memory_order_acquire)) {
    ::shutdown(descriptor, SHUT_RDWR);
    return false;
  }
  return true;
}

void c_Socket::CloseSocket() {
  std::lock_guard<std::mutex> lock(stateMutex_);
  if (closed_.exchange(true, std::memory_order_acq_rel)) return;
  const std::uint64_t one = 1;
  // The wake descriptor stays readable from now on: every present and future
  // wait on this socket returns at once.
  [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
  const int fd = fd_.load(std::memory_order_acquire);
  if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

c_Socket::tWait c_Socket::WaitReady(int descriptor, short events, std::int64_t deadlineUs) const {
  for (;;) {
    if (IsClosed()) return tWait::eClosed;
    int timeoutMs = -1;
    if (deadlineUs >= 0) {
      const std::int64_t remaining = deadlineUs - SteadyNowUs();
      if (remaining <= 0) return tWait::eTimeout;
      timeoutMs = static_cast<int>(std::min<std::int64_t>((remaining + 999) / 1000, 1 << 30));
    }
    // The wake descriptor comes first so that a pure wait for a close (no
    // descriptor) polls it alone.
    pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {descriptor, events, 0}};
    const int n = ::poll(fds, descriptor >= 0 ? 2 : 1, timeoutMs);
    if (n < 0) {
      if (errno == EINTR) continue;
      return tWait::eError;
    }
    if (IsClosed() || fds[0].revents) return tWait::eClosed;
    if (n > 0 && descriptor >= 0 && fds[1].revents) return tWait::eReady;
  }
}

bool c_Socket::WaitClosedFor(std::int64_t us) const {
  if (us <= 0) return IsClosed();
  return WaitReady(-1, 0, SteadyNowUs() + us) == tWait::eClosed;
}

void c_Socket::CreateListenerSocket(unsigned short port, tBindScope scope) {
  if (Handle() >= 0) throw cSocketError("c_Socket::CreateListenerSocket - socket is already in use");
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) throw cSocketError("c_Socket::CreateListenerSocket - socket failed: " + ErrorText(errno));
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(scope == eLoopbackOnly ? INADDR_LOOPBACK : INADDR_ANY);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int code = errno;
    ::close(fd);
    if (code == EADDRINUSE) throw cAlreadyInUse(port);
    throw cSocketError(fmt::sprintf("c_Socket::CreateListenerSocket - bind to port %d failed: %s", port,
                                    ErrorText(code)));
  }
  if (::listen(fd, SOMAXCONN) != 0) {
    const int code = errno;
    ::close(fd);
    if (code == EADDRINUSE) throw cAlreadyInUse(port);
    throw cSocketError(fmt::sprintf("c_Socket::CreateListenerSocket - listen on port %d failed: %s", port,
                                    ErrorText(code)));
  }
  AdoptDescriptor(fd);
}

// ---- StreamSocket ---------------------------------------------------------------

StreamSocket::StreamSocket(bool useTls, std::string name) : useTls_(useTls), name_(std::move(name)) {}

StreamSocket::StreamSocket(cSocketHandle&& accepted, cTlsConnectionState tls, std::string name)
    : useTls_(tls != nullptr), name_(std::move(name)), options_(accepted.Options()), tlsContext_(std::move(tls)) {
  if (accepted.fIsValid()) {
    const int fd = accepted.Release();
    if (AdoptDescriptor(fd) && !useTls_) blockingReads_ = MakeBlocking(fd);
  }
  latencyLimiter_.SetCycle(options_.cycleLatencyThresholdLimit);
}

StreamSocket::~StreamSocket() {
  if (ssl_) SSL_free(ssl_);
}

void StreamSocket::SetTlsSettings(const cTlsSettings& settings) {
  tlsSettings_ = settings;
  tlsVerifyOverride_ = true;
}

void StreamSocket::SetCertificatesPath(const std::string& path) { tlsSettings_.certificatesPath = path; }

std::int64_t StreamSocket::DeadlineAfter(nTime::cDiff span) const {
  if (span.Microseconds() <= 0) return -1;
  return SteadyNowUs() + span.Microseconds();
}

void StreamSocket::ApplyConnectionOptions(int fd) const {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (options_.sendBufferDeprecateTime.Milliseconds() > 0) {
    const unsigned int ms = static_cast<unsigned int>(
        std::min<std::int64_t>(options_.sendBufferDeprecateTime.Milliseconds(), 0x7FFFFFFF));
    ::setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &ms, sizeof ms);
  }
}

bool StreamSocket::ConnectLocal(unsigned short port, const cSocketOptions& options) {
  return Connect("127.0.0.1", port, options);
}

bool StreamSocket::Connect(const std::string& host, unsigned short port, const cSocketOptions& options) {
  options_ = options;
  latencyLimiter_.SetCycle(options_.cycleLatencyThresholdLimit);
  if (IsClosed()) return false;

  std::shared_ptr<cTlsContext> clientContext;
  if (useTls_) {
    try {
      cTlsSettings settings = tlsSettings_;
      clientContext = std::make_shared<cTlsContext>(cTlsContext::eClient, settings);
    } catch (const cSocketError& e) {
      VLOG_ERROR("StreamSocket::Connect(%s) - %s", name_, e.what());
      return false;
    }
  }

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  if (const int rc = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &found); rc != 0 || !found) {
    VLOG_ERROR("StreamSocket::Connect(%s) - cannot resolve host %s: %s", name_, host, ::gai_strerror(rc));
    return false;
  }
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);

  const std::int64_t reactivationDeadline = SteadyNowUs() + std::max<std::int64_t>(0, options_.closedReactivationTimeout.Microseconds());
  std::int64_t retryDelayUs = 50'000;
  int connected = -1;
  int lastError = 0;
  for (;;) {
    bool refused = false;
    for (addrinfo* a = addresses.get(); a && connected < 0; a = a->ai_next) {
      const int fd = ::socket(a->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      if (fd < 0) throw cSocketError("StreamSocket::Connect - socket failed: " + ErrorText(errno));
      int code = 0;
      if (::connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
        code = errno;
        if (code == EINPROGRESS) {
          const tWait w = WaitReady(fd, POLLOUT, DeadlineAfter(options_.connectTimeout));
          if (w == tWait::eReady) {
            socklen_t size = sizeof code;
            if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &code, &size) != 0) code = errno;
          } else if (w == tWait::eClosed) {
            ::close(fd);
            return false;
          } else {
            code = ETIMEDOUT;
          }
        }
      }
      if (code == 0) {
        connected = fd;
        break;
      }
      ::close(fd);
      lastError = code;
      if (code == ECONNREFUSED) refused = true;
    }
    if (connected >= 0) break;
    if (!refused || SteadyNowUs() >= reactivationDeadline) {
      VLOG_ERROR("StreamSocket::Connect(%s) - cannot connect to %s:%d: %s", name_, host, port, ErrorText(lastError));
      return false;
    }
    // The peer is not listening (yet); a restarting service comes back shortly.
    if (WaitClosedFor(std::min(retryDelayUs, reactivationDeadline - SteadyNowUs()))) return false;
    retryDelayUs = std::min<std::int64_t>(retryDelayUs * 2, 500'000);
  }

  ApplyConnectionOptions(connected);
  if (!AdoptDescriptor(connected)) return false;
  if (!useTls_) {
    blockingReads_ = MakeBlocking(connected);
    return true;
  }

  SSL* ssl = SSL_new(clientContext->Native());
  if (!ssl) throw cSocketError("StreamSocket::Connect - SSL_new failed: " + gTlsErrorText());
  SSL_set_fd(ssl, connected);
  SSL_set_connect_state(ssl);
  if (!IsIpLiteral(host)) SSL_set_tlsext_host_name(ssl, host.c_str());
  if (tlsSettings_.verifyServerCertificate) {
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const int ok = IsIpLiteral(host) ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str())
                                     : X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
    if (ok != 1) {
      SSL_free(ssl);
      VLOG_ERROR("StreamSocket::Connect(%s) - cannot verify against host name %s", name_, host);
      CloseSocket();
      return false;
    }
  }
  return RunHandshake(ssl, connected, DeadlineAfter(options_.connectTimeout), "connect");
}

void StreamSocket::CreateListenerSocket(unsigned short port, tBindScope scope) {
  if (useTls_) {
    cTlsSettings settings = tlsSettings_;
    tlsContext_ = std::make_shared<cTlsContext>(cTlsContext::eServer, settings);
  }
  c_Socket::CreateListenerSocket(port, scope);
}

cAcceptResult StreamSocket::Accept(const cSocketOptions& options) {
  cAcceptResult result;
  const int listener = Handle();
  if (listener < 0) {
    result.status = IsClosed() ? tSocketStatus::eClosed : tSocketStatus::eFailed;
    return result;
  }
  for (;;) {
    const tWait w = WaitReady(listener, POLLIN, -1);
    if (w == tWait::eClosed) {
      result.status = tSocketStatus::eClosed;
      return result;
    }
    if (w == tWait::eError) {
      VLOG_ERROR("StreamSocket::Accept(%d) - poll failed: %s", listener, ErrorText(errno));
      result.status = tSocketStatus::eFailed;
      return result;
    }
    const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      const int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      if (options.sendBufferDeprecateTime.Milliseconds() > 0) {
        const unsigned int ms = static_cast<unsigned int>(
            std::min<std::int64_t>(options.sendBufferDeprecateTime.Milliseconds(), 0x7FFFFFFF));
        ::setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &ms, sizeof ms);
      }
      result.handle.emplace(fd, options);
      result.tls = tlsContext_;
      result.status = tSocketStatus::eGood;
      return result;
    }
    const int code = errno;
    switch (code) {
      case EAGAIN:
      case EINTR:
      case ECONNABORTED:
      case EPROTO:
      case ENETDOWN:
      case ENOPROTOOPT:
      case EHOSTDOWN:
      case ENONET:
      case EHOSTUNREACH:
      case EOPNOTSUPP:
      case ENETUNREACH:
      case EPERM:
        continue;  // that connection is gone; the listener is fine
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        VLOG_WARN("StreamSocket::Accept(%d) - %s; retrying", listener, ErrorText(code));
        if (WaitClosedFor(100'000)) {
          result.status = tSocketStatus::eClosed;
          return result;
        }
        continue;
      default:
        result.status = IsClosed() ? tSocketStatus::eClosed : tSocketStatus::eFailed;
        if (result.status == tSocketStatus::eFailed)
          VLOG_ERROR("StreamSocket::Accept(%d) - accept failed: %s", listener, ErrorText(code));
        return result;
    }
  }
}

bool StreamSocket::CompleteAcceptHandshake(const cSocketOptions& options) {
  if (!useTls_ || !tlsContext_) return true;
  const int fd = Handle();
  if (fd < 0 || IsClosed()) return false;
  SSL* ssl = SSL_new(tlsContext_->Native());
  if (!ssl) throw cSocketError("StreamSocket::CompleteAcceptHandshake - SSL_new failed: " + gTlsErrorText());
  SSL_set_fd(ssl, fd);
  SSL_set_accept_state(ssl);
  if (tlsVerifyOverride_)
    SSL_set_verify(ssl,
                   tlsSettings_.verifyClientCertificate ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT
                                                        : SSL_VERIFY_NONE,
                   nullptr);
  return RunHandshake(ssl, fd, DeadlineAfter(options.communicationTimeout), "accept");
}

bool StreamSocket::RunHandshake(ssl_st* ssl, int fd, std::int64_t deadlineUs, const char* what) {
  {
    std::lock_guard<std::mutex> lock(sslMutex_);
    ssl_ = ssl;
  }
  if (!HandshakeLoop(fd, deadlineUs, what)) {
    CloseSocket();
    return false;
  }
  tlsReady_.store(true, std::memory_order_release);
  return true;
}

// Drives the handshake on the non-blocking descriptor until it completes, fails
// or the deadline passes.
bool StreamSocket::HandshakeLoop(int fd, std::int64_t deadlineUs, const char* what) {
  for (;;) {
    int error = SSL_ERROR_NONE;
    std::string failure;
    {
      std::lock_guard<std::mutex> lock(sslMutex_);
      ERR_clear_error();
      const int rc = SSL_do_handshake(ssl_);
      if (rc == 1) return true;
      error = SSL_get_error(ssl_, rc);
      if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
        failure = gTlsErrorText();
        const long verify = SSL_get_verify_result(ssl_);
        if (verify != X509_V_OK) failure += std::string("; certificate: ") + X509_verify_cert_error_string(verify);
        if (error == SSL_ERROR_SYSCALL && errno != 0) failure += "; " + ErrorText(errno);
      }
    }
    if (!failure.empty()) {
      VLOG_ERROR("StreamSocket::RunHandshake(%s,%d) - TLS %s handshake failed with %s: %s", name_, fd, what,
                 PeerAddress(), failure);
      return false;
    }
    const tWait w = WaitReady(fd, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadlineUs);
    if (w == tWait::eReady) continue;
    if (w == tWait::eTimeout)
      VLOG_ERROR("StreamSocket::RunHandshake(%s,%d) - TLS %s handshake with %s timed out", name_, fd, what,
                 PeerAddress());
    return false;
  }
}

StreamSocket::tIo StreamSocket::RecvSome(int fd, char* buffer, std::size_t size, std::size_t& got, bool mayBlock) {
  got = 0;
  if (!ssl_) {
    // Between frames a plain socket waits inside recv: one system call per
    // burst instead of a failed read, a poll and a read. A close shuts the
    // connection down, which ends the recv at once.
    const int flags = mayBlock && blockingReads_ ? 0 : MSG_DONTWAIT;
    for (;;) {
      const ssize_t n = ::recv(fd, buffer, size, flags);
      if (n > 0) {
        got = static_cast<std::size_t>(n);
        return tIo::eDone;
      }
      if (n == 0) return tIo::eEof;
      if (errno == EINTR) {
        if (IsClosed()) return tIo::eEof;
        continue;
      }
      if (errno == EAGAIN || errno == EWOULDBLOCK) return tIo::eWantRead;
      return tIo::eError;
    }
  }
  // OpenSSL keeps decrypted bytes of a record beyond `size` to itself; they
  // come out of the next SSL_read without touching the socket, which is why a
  // read is always tried before a poll.
  std::lock_guard<std::mutex> lock(sslMutex_);
  ERR_clear_error();
  if (SSL_read_ex(ssl_, buffer, size, &got) == 1) return tIo::eDone;
  switch (SSL_get_error(ssl_, 0)) {
    case SSL_ERROR_WANT_READ: return tIo::eWantRead;
    case SSL_ERROR_WANT_WRITE: return tIo::eWantWrite;
    case SSL_ERROR_ZERO_RETURN: return tIo::eEof;
    default:
      VLOG_DEBUG("StreamSocket::RecvSome(%s,%d) - TLS read failed: %s", name_, fd, gTlsErrorText());
      return tIo::eError;
  }
}

bool StreamSocket::WaitForMore(int fd, tIo io, bool frameStarted, std::int64_t& deadlineUs) {
  if (io == tIo::eEof || io == tIo::eError) return false;
  // The first byte of a frame starts the clock: the rest of it must follow
  // within the communication time-out. Silence between frames is fine. The
  // clock is only read when a frame really has to be waited for.
  if (frameStarted && deadlineUs == kNoDeadlineYet) deadlineUs = DeadlineAfter(options_.communicationTimeout);
  const tWait w = WaitReady(fd, io == tIo::eWantWrite ? POLLOUT : POLLIN, frameStarted ? deadlineUs : -1);
  if (w == tWait::eReady) return true;
  if (w == tWait::eTimeout)
    VLOG_WARN("StreamSocket::WaitTypedMessageZ1(%s,%d) - frame from %s not completed within %lld ms", name_, fd,
              PeerAddress(), static_cast<long long>(options_.communicationTimeout.Milliseconds()));
  return false;
}

bool StreamSocket::Buffer(int fd, std::size_t need, bool frameStarted, std::int64_t& deadlineUs) {
  if (readEnd_ - readStart_ >= need) return true;
  if (!readBuffer_) readBuffer_ = std::make_unique<char[]>(kReadBufferSize);
  if (readStart_ == readEnd_) {
    readStart_ = readEnd_ = 0;
  } else if (kReadBufferSize - readStart_ < need) {
    std::memmove(readBuffer_.get(), readBuffer_.get() + readStart_, readEnd_ - readStart_);
    readEnd_ -= readStart_;
    readStart_ = 0;
  }
  while (readEnd_ - readStart_ < need) {
    std::size_t got = 0;
    const std::size_t room = kReadBufferSize - readEnd_;
    const std::size_t want = largePayloads_ ? std::min(room, need - (readEnd_ - readStart_)) : room;
    const tIo io = RecvSome(fd, readBuffer_.get() + readEnd_, want, got, !frameStarted);
    if (io == tIo::eDone) {
      readEnd_ += got;
      frameStarted = true;
      continue;
    }
    if (IsClosed() || !WaitForMore(fd, io, frameStarted, deadlineUs)) return false;
  }
  return true;
}

bool StreamSocket::ReadAll(int fd, char* buffer, std::size_t size, std::int64_t& deadlineUs) {
  std::size_t done = 0;
  while (done < size) {
    std::size_t got = 0;
    const tIo io = RecvSome(fd, buffer + done, size - done, got, false);
    if (io == tIo::eDone) {
      done += got;
      continue;
    }
    if (!WaitForMore(fd, io, true, deadlineUs)) return false;
  }
  return true;
}

bool StreamSocket::WaitTypedMessageZ1(short& type, short& subtype, char*& data, unsigned& length,
                                      iLatencyConfiguration* latency) {
  data = nullptr;
  length = 0;
  const int fd = Handle();
  if (fd < 0 || IsClosed()) return false;
  if (useTls_ && !tlsReady_.load(std::memory_order_acquire)) {
    VLOG_ERROR("StreamSocket::WaitTypedMessageZ1(%s,%d) - TLS handshake has not completed", name_, fd);
    return false;
  }

  std::int64_t deadlineUs = kNoDeadlineYet;
  if (!Buffer(fd, kFrameHeaderSize, readEnd_ > readStart_, deadlineUs)) return false;
  const cFrameHeader header =
      gDecodeFrameHeader(reinterpret_cast<const unsigned char*>(readBuffer_.get() + readStart_));
  switch (gCheckFrameHeader(header, options_.maxMessageSize)) {
    case tFrameCheck::eOk: break;
    case tFrameCheck::eBadMarker:
      VLOG_ERROR("StreamSocket::WaitTypedMessageZ1(%s,%d) - bad frame marker 0x%08x from %s; closing", name_, fd,
                 header.words.marker, PeerAddress());
      CloseSocket();  // the stream cannot be resynchronised
      return false;
    case tFrameCheck::eTooLong:
      VLOG_ERROR("StreamSocket::WaitTypedMessageZ1(%s,%d) - frame of %u bytes from %s exceeds the maximum of %u; closing",
                 name_, fd, header.words.length, PeerAddress(), options_.maxMessageSize);
      CloseSocket();
      return false;
  }
  readStart_ += kFrameHeaderSize;

  if (latency) {
    const nTime::cDiff measured =
        nTime::cPoint::Now() - nTime::cPoint::FromEpochMicroseconds(header.sendTimeMicroseconds);
    latency->Measure(measured, name_.empty() ? PeerAddress().c_str() : name_.c_str(), &latencyLimiter_);
  }

  const std::size_t size = header.words.length;
  // A small payload is gathered in the read buffer, so that whatever follows it
  // in the stream is read in the same call.
  largePayloads_ = size >= kDirectPayloadSize;
  if (!largePayloads_ && !Buffer(fd, size, true, deadlineUs)) return false;
  char* buffer = new char[size + 1];
  const std::size_t buffered = std::min(size, readEnd_ - readStart_);
  if (buffered > 0) std::memcpy(buffer, readBuffer_.get() + readStart_, buffered);
  readStart_ += buffered;
  if (buffered < size && !ReadAll(fd, buffer + buffered, size - buffered, deadlineUs)) {
    delete[] buffer;
    return false;
  }
  buffer[size] = '\0';
  type = header.type;
  subtype = header.subtype;
  data = buffer;
  length = header.words.length;
  return true;
}

bool StreamSocket::SendVector(int fd, iovec* parts, int count, bool& partial) {
  // The clock is read only when the socket pushes back.
  std::int64_t deadlineUs = kNoDeadlineYet;
  int first = 0;
  while (first < count && parts[first].iov_len == 0) ++first;
  while (first < count) {
    msghdr message{};
    message.msg_iov = parts + first;
    message.msg_iovlen = static_cast<std::size_t>(std::min(count - first, IOV_MAX));
    const ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      partial = partial || n > 0;
      std::size_t left = static_cast<std::size_t>(n);
      while (first < count && left >= parts[first].iov_len) left -= parts[first++].iov_len;
      if (first < count) {
        parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + left;
        parts[first].iov_len -= left;
      }
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      VLOG_DEBUG("StreamSocket::SendTypedMessageZ2(%s,%d) - send failed: %s", name_, fd, ErrorText(errno));
      return false;
    }
    if (!AwaitSendable(fd, POLLOUT, deadlineUs)) return false;
  }
  return true;
}

// Waits until a blocked send may go on. The communication time-out runs from the
// first time a send has to wait; false when it passed (logged) or the socket closed.
bool StreamSocket::AwaitSendable(int fd, short events, std::int64_t& deadlineUs) {
  if (deadlineUs == kNoDeadlineYet) deadlineUs = DeadlineAfter(options_.communicationTimeout);
  const tWait w = WaitReady(fd, events, deadlineUs);
  if (w == tWait::eTimeout)
    VLOG_WARN("StreamSocket::SendTypedMessageZ2(%s,%d) - send to %s not completed within %lld ms", name_, fd,
              PeerAddress(), static_cast<long long>(options_.communicationTimeout.Milliseconds()));
  return w == tWait::eReady;
}

bool StreamSocket::SendAll(int fd, const char* header, std::size_t headerSize, const char* payload,
                           std::size_t payloadSize, bool& partial) {
  iovec parts[2] = {{const_cast<char*>(header), headerSize}, {const_cast<char*>(payload), payloadSize}};
  partial = false;
  if (!ssl_) return SendVector(fd, parts, payloadSize > 0 ? 2 : 1, partial);
  std::int64_t deadlineUs = kNoDeadlineYet;
  int first = 0;
  const int count = payloadSize > 0 ? 2 : 1;
  while (first < count) {
    short waitFor = POLLOUT;
    {
      std::lock_guard<std::mutex> lock(sslMutex_);
      ERR_clear_error();
      std::size_t written = 0;
      // A retried SSL_write gets the same buffer and length, as OpenSSL requires.
      if (SSL_write_ex(ssl_, parts[first].iov_base, parts[first].iov_len, &written) == 1) {
        partial = true;
        ++first;
        continue;
      }
      const int error = SSL_get_error(ssl_, 0);
      if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
        VLOG_DEBUG("StreamSocket::SendTypedMessageZ2(%s,%d) - TLS write failed: %s", name_, fd, gTlsErrorText());
        return false;
      }
      if (error == SSL_ERROR_WANT_READ) waitFor = POLLIN;
    }
    if (!AwaitSendable(fd, waitFor, deadlineUs)) return false;
  }
  return true;
}

bool StreamSocket::CheckOutgoing(const char* data, unsigned length) const {
  if (length > 0 && !data) {
    VLOG_ERROR("StreamSocket::SendTypedMessageZ2(%s) - %u bytes announced without data", name_, length);
    return false;
  }
  if (length > options_.maxMessageSize) {
    VLOG_ERROR("StreamSocket::SendTypedMessageZ2(%s) - frame of %u bytes exceeds the maximum of %u", name_, length,
               options_.maxMessageSize);
    return false;
  }
  return true;
}

bool StreamSocket::SendTypedMessageZ2(short type, short subtype, const char* data, unsigned length) {
  if (!CheckOutgoing(data, length)) return false;
  const int fd = Handle();
  if (fd < 0 || IsClosed()) return false;
  // Never let a plain frame out on a connection that should be encrypted.
  if (useTls_ && !tlsReady_.load(std::memory_order_acquire)) return false;

  cFrameHeader header;
  header.words.marker = kFrameMarker;
  header.words.length = length;
  header.type = type;
  header.subtype = subtype;
  header.sendTimeMicroseconds = nTime::cPoint::Now().EpochMicroseconds();
  unsigned char raw[kFrameHeaderSize];
  gEncodeFrameHeader(header, raw);

  if (!options_.simulatedLatency.empty()) {
    // Diagnostic delay, stamped before it so that the receiver measures it.
    const auto index = simulatedLatencyIndex_.fetch_add(1, std::memory_order_relaxed);
    const nTime::cDiff delay = options_.simulatedLatency[index % options_.simulatedLatency.size()];
    if (delay.Microseconds() > 0 && WaitClosedFor(delay.Microseconds())) return false;
  }

  std::lock_guard<std::mutex> lock(sendMutex_);
  bool partial = false;
  if (SendAll(fd, reinterpret_cast<const char*>(raw), sizeof raw, data, length, partial)) return true;
  // Half a frame on the wire leaves the peer's reader out of step for good.
  if (partial) CloseSocket();
  return false;
}

bool StreamSocket::SendTypedMessages(const cOutgoingFrame* frames, std::size_t count) {
  // TLS and simulated latency go frame by frame: both work on single frames.
  if (count <= 1 || count > kMaxBatch || useTls_ || !options_.simulatedLatency.empty()) {
    for (std::size_t i = 0; i < count; ++i)
      if (!SendTypedMessageZ2(frames[i].type, frames[i].subtype, frames[i].data, frames[i].length)) return false;
    return true;
  }
  for (std::size_t i = 0; i < count; ++i)
    if (!CheckOutgoing(frames[i].data, frames[i].length)) return false;
  const int fd = Handle();
  if (fd < 0 || IsClosed()) return false;

  // One clock reading stamps the whole batch: it leaves in one write.
  const std::int64_t now = nTime::cPoint::Now().EpochMicroseconds();
  unsigned char raw[kMaxBatch][kFrameHeaderSize];
  iovec parts[2 * kMaxBatch];
  for (std::size_t i = 0; i < count; ++i) {
    cFrameHeader header;
    header.words.marker = kFrameMarker;
    header.words.length = frames[i].length;
    header.type = frames[i].type;
    header.subtype = frames[i].subtype;
    header.sendTimeMicroseconds = now;
    gEncodeFrameHeader(header, raw[i]);
    parts[2 * i] = {raw[i], kFrameHeaderSize};
    parts[2 * i + 1] = {const_cast<char*>(frames[i].data), frames[i].length};
  }
  std::lock_guard<std::mutex> lock(sendMutex_);
  bool partial = false;
  if (SendVector(fd, parts, static_cast<int>(2 * count), partial)) return true;
  if (partial) CloseSocket();
  return false;
}
