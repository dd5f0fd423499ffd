#include "bench/tcprelay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

namespace vantrel::bench {

namespace {

// Large enough for the biggest case of any scenario; a floor never needs to
// defend against hostile peers, only against its own bugs.
constexpr std::uint32_t kMaxFrame = 16u << 20;

void NoDelay(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int ConnectLoopback(unsigned short port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  NoDelay(fd);
  return fd;
}

}  // namespace

void EncodeFloorHeader(std::uint8_t* header, std::uint32_t length, tFloorKind kind) {
  const std::uint32_t wire = htonl(length);
  std::memcpy(header, &wire, 4);
  header[4] = static_cast<std::uint8_t>(kind);
}

void DecodeFloorHeader(const std::uint8_t* header, std::uint32_t& length, tFloorKind& kind) {
  std::uint32_t wire = 0;
  std::memcpy(&wire, header, 4);
  length = ntohl(wire);
  kind = static_cast<tFloorKind>(header[4]);
}

bool WriteAll(int fd, const void* data, std::size_t length) {
  const char* at = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t done = ::send(fd, at, length, MSG_NOSIGNAL);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    at += done;
    length -= static_cast<std::size_t>(done);
  }
  return true;
}

bool ReadAll(int fd, void* data, std::size_t length) {
  char* at = static_cast<char*>(data);
  while (length > 0) {
    const ssize_t done = ::recv(fd, at, length, 0);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    at += done;
    length -= static_cast<std::size_t>(done);
  }
  return true;
}

bool WriteFrame(int fd, tFloorKind kind, const char* payload, std::uint32_t length) {
  std::uint8_t header[kFloorHeaderSize];
  EncodeFloorHeader(header, length, kind);
  iovec parts[2] = {{header, kFloorHeaderSize}, {const_cast<char*>(payload), length}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = length > 0 ? 2 : 1;
  std::size_t left = kFloorHeaderSize + length;
  while (left > 0) {
    const ssize_t done = ::sendmsg(fd, &message, MSG_NOSIGNAL);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    left -= static_cast<std::size_t>(done);
    // A partial write: advance through the parts.
    std::size_t skip = static_cast<std::size_t>(done);
    while (message.msg_iovlen > 0 && skip >= message.msg_iov[0].iov_len) {
      skip -= message.msg_iov[0].iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
      message.msg_iov[0].iov_base = static_cast<char*>(message.msg_iov[0].iov_base) + skip;
      message.msg_iov[0].iov_len -= skip;
    }
  }
  return true;
}

bool ReadFrame(int fd, tFloorKind& kind, std::vector<char>& buffer, std::uint32_t& length, std::uint32_t maxLength) {
  std::uint8_t header[kFloorHeaderSize];
  if (!ReadAll(fd, header, sizeof header)) return false;
  DecodeFloorHeader(header, length, kind);
  if (length > maxLength) return false;
  if (buffer.size() < length) buffer.resize(length);
  return ReadAll(fd, buffer.data(), length);
}

// ---- relay ---------------------------------------------------------------------

namespace {

// A listening socket on a free loopback port; -1 on failure.
int ListenOnLoopback(unsigned short& port) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) return -1;
  const int on = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 16) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    ::close(listener);
    return -1;
  }
  port = ntohs(address.sin_port);
  return listener;
}

}  // namespace

bool cTcpRelay::Start(unsigned short nextHopPort) {
  listener_ = ListenOnLoopback(port_);
  if (listener_ < 0) return false;

  if (nextHopPort != 0) {
    lastHop_ = false;
    downstream_ = ConnectLoopback(nextHopPort);
    if (downstream_ < 0 || !WriteFrame(downstream_, tFloorKind::eHelloSender, nullptr, 0)) return false;
    threads_.emplace_back([this] { AckLoop(); });
  }
  acceptThread_ = std::thread([this] { AcceptLoop(); });
  return true;
}

void cTcpRelay::AcceptLoop() {
  std::vector<char> hello;
  while (!stopping_) {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    NoDelay(fd);
    {
      // Registered before the hello is read, so that Stop can end that read.
      std::lock_guard<std::mutex> guard(mutex_);
      connections_.push_back(fd);
      if (stopping_) ::shutdown(fd, SHUT_RDWR);
    }
    tFloorKind kind;
    std::uint32_t length = 0;
    if (!ReadFrame(fd, kind, hello, length, 0)) continue;
    if (kind == tFloorKind::eHelloReceiver && lastHop_) {
      downstream_ = fd;
    } else if (kind == tFloorKind::eHelloSender) {
      std::lock_guard<std::mutex> guard(mutex_);
      threads_.emplace_back([this, fd] { ForwardLoop(fd); });
    }
  }
}

void cTcpRelay::ForwardLoop(int upstream) {
  std::vector<char> payload;
  tFloorKind kind;
  std::uint32_t length = 0;
  if (!lastHop_) upstreamForAcks_ = upstream;
  while (ReadFrame(upstream, kind, payload, length, kMaxFrame)) {
    if (kind != tFloorKind::eData && kind != tFloorKind::eDataAcked) continue;
    const int downstream = downstream_;
    if (downstream < 0) return;
    {
      std::lock_guard<std::mutex> guard(writeMutex_);
      if (!WriteFrame(downstream, kind, payload.data(), length)) return;
    }
    // Only the last relay acknowledges; earlier relays pass its answer back.
    if (kind == tFloorKind::eDataAcked && lastHop_ && !WriteFrame(upstream, tFloorKind::eAck, nullptr, 0)) return;
  }
}

void cTcpRelay::AckLoop() {
  std::vector<char> payload;
  tFloorKind kind;
  std::uint32_t length = 0;
  while (ReadFrame(downstream_, kind, payload, length, kMaxFrame)) {
    if (kind != tFloorKind::eAck) continue;
    const int upstream = upstreamForAcks_;
    if (upstream < 0 || !WriteFrame(upstream, tFloorKind::eAck, nullptr, 0)) return;
  }
}

void cTcpRelay::ShutdownAll() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (listener_ >= 0) ::shutdown(listener_, SHUT_RDWR);
  if (downstream_ >= 0) ::shutdown(downstream_, SHUT_RDWR);
  for (int fd : connections_) ::shutdown(fd, SHUT_RDWR);
}

void cTcpRelay::Stop() {
  stopping_ = true;
  ShutdownAll();
  if (acceptThread_.joinable()) acceptThread_.join();
  for (std::thread& thread : threads_)
    if (thread.joinable()) thread.join();
  threads_.clear();
  // Descriptors are closed only after every thread that used them has ended.
  for (int fd : connections_) ::close(fd);
  connections_.clear();
  if (!lastHop_ && downstream_ >= 0) ::close(downstream_);
  downstream_ = -1;
  if (listener_ >= 0) ::close(listener_);
  listener_ = -1;
}

// ---- endpoint ------------------------------------------------------------------

cFloorEndpoint::~cFloorEndpoint() { Close(); }

bool cFloorEndpoint::Connect(unsigned short port, tFloorKind hello) {
  fd_ = ConnectLoopback(port);
  return fd_ >= 0 && WriteFrame(fd_, hello, nullptr, 0);
}

bool cFloorEndpoint::Send(const char* data, std::uint32_t length) {
  return WriteFrame(fd_, tFloorKind::eData, data, length);
}

bool cFloorEndpoint::SendAcked(const char* data, std::uint32_t length) {
  if (!WriteFrame(fd_, tFloorKind::eDataAcked, data, length)) return false;
  tFloorKind kind;
  std::uint32_t ackLength = 0;
  return ReadFrame(fd_, kind, buffer_, ackLength, kMaxFrame) && kind == tFloorKind::eAck;
}

void cFloorEndpoint::StartCounting() {
  counter_ = std::thread([this] {
    std::vector<char> payload;
    tFloorKind kind;
    std::uint32_t length = 0;
    while (ReadFrame(fd_, kind, payload, length, kMaxFrame)) {
      if (kind != tFloorKind::eData && kind != tFloorKind::eDataAcked) continue;
      arrivals_.Add();
    }
    arrivals_.End();
  });
}

void cFloorEndpoint::Close() {
  if (fd_ >= 0) ::shutdown(fd_, SHUT_RDWR);
  if (counter_.joinable()) counter_.join();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

// ---- delaying relay ----------------------------------------------------------

// One direction of one connection: what was read, each piece with the time it
// is due on the other side.
struct cDelayRelay::cPipe {
  int from = -1;
  int to = -1;
  std::mutex mutex;
  std::condition_variable changed;
  struct cPiece {
    std::chrono::steady_clock::time_point due;
    std::vector<char> bytes;  // empty: the end of the stream
  };
  std::deque<cPiece> pieces;  // guarded by mutex
  bool broken = false;        // guarded by mutex
  std::chrono::steady_clock::time_point lastDue;
  std::minstd_rand random{12345};
};

cDelayRelay::cDelayRelay(std::chrono::microseconds oneWay, std::chrono::microseconds jitter)
    : oneWay_(oneWay), jitter_(jitter) {}

cDelayRelay::~cDelayRelay() { Stop(); }

bool cDelayRelay::Start(unsigned short targetPort) {
  targetPort_ = targetPort;
  listener_ = ListenOnLoopback(port_);
  if (listener_ < 0) return false;
  acceptThread_ = std::thread([this] { AcceptLoop(); });
  return true;
}

void cDelayRelay::AcceptLoop() {
  while (!stopping_) {
    const int near = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (near < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    const int far = ConnectLoopback(targetPort_);
    if (far < 0) {
      ::close(near);
      continue;
    }
    NoDelay(near);
    ++accepted_;
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& [from, to] : {std::pair{near, far}, std::pair{far, near}}) {
      pipes_.push_back(std::make_unique<cPipe>());
      cPipe& pipe = *pipes_.back();
      pipe.from = from;
      pipe.to = to;
      threads_.emplace_back([this, &pipe] { Read(pipe); });
      threads_.emplace_back([this, &pipe] { Write(pipe); });
    }
    if (stopping_) {
      ::shutdown(near, SHUT_RDWR);
      ::shutdown(far, SHUT_RDWR);
    }
  }
}

void cDelayRelay::Read(cPipe& pipe) {
  std::uniform_int_distribution<long long> spread(-jitter_.count(), jitter_.count());
  for (;;) {
    std::vector<char> bytes(256 * 1024);
    const ssize_t got = ::recv(pipe.from, bytes.data(), bytes.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    auto due = std::chrono::steady_clock::now() + oneWay_ + std::chrono::microseconds(spread(pipe.random));
    // Jitter may delay a piece, never let it overtake the one before.
    due = std::max(due, pipe.lastDue);
    pipe.lastDue = due;
    std::lock_guard<std::mutex> guard(pipe.mutex);
    pipe.pieces.push_back({due, std::move(bytes)});
    pipe.changed.notify_all();
    if (got <= 0) return;
  }
}

void cDelayRelay::Write(cPipe& pipe) {
  std::unique_lock<std::mutex> lock(pipe.mutex);
  for (;;) {
    pipe.changed.wait(lock, [&] { return !pipe.pieces.empty() || pipe.broken; });
    if (pipe.broken) return;
    const auto due = pipe.pieces.front().due;
    if (pipe.changed.wait_until(lock, due, [&] { return pipe.broken; })) return;
    std::vector<char> bytes = std::move(pipe.pieces.front().bytes);
    pipe.pieces.pop_front();
    lock.unlock();
    // The end of the stream (or a broken read) goes on as a half close.
    const bool ok = !bytes.empty() && WriteAll(pipe.to, bytes.data(), bytes.size());
    if (!ok) {
      ::shutdown(pipe.to, SHUT_WR);
      if (!bytes.empty()) ::shutdown(pipe.from, SHUT_RDWR);
      return;
    }
    lock.lock();
  }
}

void cDelayRelay::Stop() {
  stopping_ = true;
  if (listener_ >= 0) ::shutdown(listener_, SHUT_RDWR);
  if (acceptThread_.joinable()) acceptThread_.join();
  {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto& pipe : pipes_) {
      ::shutdown(pipe->from, SHUT_RDWR);
      std::lock_guard<std::mutex> pipeGuard(pipe->mutex);
      pipe->broken = true;
      pipe->changed.notify_all();
    }
  }
  for (std::thread& thread : threads_)
    if (thread.joinable()) thread.join();
  threads_.clear();
  // Each connection appears as `from` of one of its two pipes.
  for (auto& pipe : pipes_) ::close(pipe->from);
  pipes_.clear();
  if (listener_ >= 0) ::close(listener_);
  listener_ = -1;
}

}  // namespace vantrel::bench
