#pragma once
// The floor the bus is compared with: the least a relay over loopback TCP can
// cost. A sender connects to a relay, a receiver to the same relay (or to the
// next relay of a chain); the relay forwards each frame to its receiver and,
// when the frame asks for it, acknowledges it back to the sender once it has
// forwarded it. A chain of two relays stands for two services on two hosts:
// the last relay acknowledges, the first passes the acknowledgement back.
//
// Frames: a 4-byte payload length (network byte order), a 1-byte kind, then
// the payload. TCP_NODELAY on every connection. No queues and no thread
// hand-offs: each direction of a relay is one thread that reads a frame and
// writes it on.
//
// Ownership: the benchmark owns relays and endpoints; a relay owns its
// listening socket, its connections and its threads (joined by Stop or the
// destructor). An endpoint is used by one thread at a time, except that a
// receiving endpoint's counting thread runs beside the sending thread.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/arrivals.h"

namespace vantrel::bench {

enum class tFloorKind : std::uint8_t {
  eData = 0,       // forward, no acknowledgement
  eDataAcked = 1,  // forward, then acknowledge to the sender
  eAck = 2,
  eHelloSender = 3,   // first frame of a connection that sends data
  eHelloReceiver = 4  // first frame of a connection that receives data
};

inline constexpr std::size_t kFloorHeaderSize = 5;

// Header encoding shared by the relay and the endpoints.
void EncodeFloorHeader(std::uint8_t* header, std::uint32_t length, tFloorKind kind);
void DecodeFloorHeader(const std::uint8_t* header, std::uint32_t& length, tFloorKind& kind);

// Whole-buffer socket I/O; false on a closed or broken connection.
bool WriteAll(int fd, const void* data, std::size_t length);
bool ReadAll(int fd, void* data, std::size_t length);
// Writes header and payload as one frame without joining them in memory.
bool WriteFrame(int fd, tFloorKind kind, const char* payload, std::uint32_t length);
// Reads one frame into `buffer` (reused between calls, so it may be longer
// than the frame; `length` is the frame's). Frames longer than `maxLength`
// fail the read.
bool ReadFrame(int fd, tFloorKind& kind, std::vector<char>& buffer, std::uint32_t& length, std::uint32_t maxLength);

class cTcpRelay {
 public:
  cTcpRelay() = default;
  ~cTcpRelay() { Stop(); }
  cTcpRelay(const cTcpRelay&) = delete;
  cTcpRelay& operator=(const cTcpRelay&) = delete;

  // Listens on a free loopback port. With `nextHopPort` the relay forwards to
  // the relay listening there (connecting as its sender) instead of to a
  // receiver of its own, and passes that relay's acknowledgements back.
  bool Start(unsigned short nextHopPort = 0);
  void Stop();
  unsigned short Port() const { return port_; }

 private:
  void AcceptLoop();
  void ForwardLoop(int upstream);
  void AckLoop();
  void ShutdownAll();

  int listener_ = -1;
  unsigned short port_ = 0;
  bool lastHop_ = true;
  std::mutex mutex_;  // guards connections_ and threads_
  std::vector<int> connections_;
  std::vector<std::thread> threads_;
  std::mutex writeMutex_;  // keeps frames whole when several senders forward
  std::atomic<int> downstream_{-1};
  std::atomic<int> upstreamForAcks_{-1};
  std::thread acceptThread_;
  std::atomic<bool> stopping_{false};
};

// A client of a relay.
class cFloorEndpoint {
 public:
  cFloorEndpoint() = default;
  ~cFloorEndpoint();
  cFloorEndpoint(const cFloorEndpoint&) = delete;
  cFloorEndpoint& operator=(const cFloorEndpoint&) = delete;

  bool Connect(unsigned short port, tFloorKind hello);
  // Sends one frame and waits for its acknowledgement.
  bool SendAcked(const char* data, std::uint32_t length);
  bool Send(const char* data, std::uint32_t length);

  // Receiving side: counts arriving data frames on a thread of its own.
  void StartCounting();
  std::uint64_t Count() const { return arrivals_.Count(); }
  // Waits until at least `target` frames have arrived; false at the deadline
  // or when the connection ended first.
  bool WaitForCount(std::uint64_t target, std::chrono::milliseconds timeout) {
    return arrivals_.WaitFor(target, timeout);
  }
  void Close();

 private:
  int fd_ = -1;
  std::vector<char> buffer_;
  std::thread counter_;
  cArrivals arrivals_;
};

// A long link between two programs on one machine: a byte-for-byte TCP
// forwarder that holds what it reads in each direction for a set delay (half a
// round trip), with optional jitter, before writing it on. Bytes are never
// reordered (a piece is never due before the one read ahead of it) and never
// throttled: only the delay and the peers' own windows limit the rate. No
// kernel support is needed.
//
// Every accepted connection gets a connection to `targetPort` and two pumps
// (a reader and a writer thread per direction). A reader that meets the end of
// its stream passes it on after the data before it; Stop breaks every
// connection at once, as a failed network would.
//
// Ownership: the creator owns the relay; the relay owns its listener, its
// connections and its threads (joined by Stop or the destructor). Start and
// Stop are called by one thread; the pumps share only their queues (each with
// its own lock).
class cDelayRelay {
 public:
  // `oneWay` delays each direction; `jitter` adds a uniform ±jitter to each
  // piece, as far as the order of the bytes allows.
  cDelayRelay(std::chrono::microseconds oneWay, std::chrono::microseconds jitter = {});
  ~cDelayRelay();
  cDelayRelay(const cDelayRelay&) = delete;
  cDelayRelay& operator=(const cDelayRelay&) = delete;

  // Listens on a free loopback port and forwards to `targetPort` on loopback.
  bool Start(unsigned short targetPort);
  void Stop();
  unsigned short Port() const { return port_; }
  // Connections accepted so far.
  int Accepted() const { return accepted_.load(); }

 private:
  struct cPipe;
  void AcceptLoop();
  void Read(cPipe& pipe);
  void Write(cPipe& pipe);

  const std::chrono::microseconds oneWay_;
  const std::chrono::microseconds jitter_;
  unsigned short targetPort_ = 0;
  int listener_ = -1;
  unsigned short port_ = 0;
  std::atomic<int> accepted_{0};
  std::atomic<bool> stopping_{false};
  std::thread acceptThread_;
  std::mutex mutex_;  // guards pipes_ and threads_
  std::vector<std::unique_ptr<cPipe>> pipes_;
  std::vector<std::thread> threads_;
};

}  // namespace vantrel::bench
