#pragma once
// The ZeroMQ baseline the bus is compared with: a broker that routes addressed
// messages between named clients, the shape a message bus built on ZeroMQ
// takes. A broker is one thread with a ROUTER socket; clients are DEALER
// sockets whose routing id is their name. Two brokers linked to each other stand
// for two services on two hosts: a message for a client the broker does not
// know goes to the other broker.
//
// Frames, client to broker: [destination][kind][payload]; broker to client:
// [sender][kind][payload]; broker to broker: [destination][sender][kind][payload].
// An empty destination is a client's hello: the broker learns the name and
// answers with an empty frame, so that a client is routable once Connect
// returns. Every socket has no high-water mark and the ROUTER refuses to drop
// an unroutable message, so the baseline loses nothing either.
//
// Ownership: the benchmark owns brokers and endpoints. A broker owns its
// sockets and thread (joined by Stop or the destructor) and touches its sockets
// only on that thread, as ZeroMQ requires. An endpoint's socket is used by the
// sending thread, or, once StartCounting ran, only by its counting thread.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "bench/arrivals.h"

namespace vantrel::bench {

class cZmqBroker {
 public:
  cZmqBroker() = default;
  ~cZmqBroker() { Stop(); }
  cZmqBroker(const cZmqBroker&) = delete;
  cZmqBroker& operator=(const cZmqBroker&) = delete;

  // Binds a free loopback port; call before Run.
  bool Bind();
  // Starts routing; with `peerPort`, unknown destinations go to the broker
  // listening there.
  bool Run(unsigned short peerPort = 0);
  void Stop();
  unsigned short Port() const { return port_; }

 private:
  void Loop(unsigned short peerPort);

  void* router_ = nullptr;
  void* stopReceiver_ = nullptr;
  void* stopSender_ = nullptr;
  unsigned short port_ = 0;
  std::thread thread_;
};

class cZmqEndpoint {
 public:
  cZmqEndpoint() = default;
  ~cZmqEndpoint() { Close(); }
  cZmqEndpoint(const cZmqEndpoint&) = delete;
  cZmqEndpoint& operator=(const cZmqEndpoint&) = delete;

  // Connects as `name` and waits until the broker knows it.
  bool Connect(unsigned short port, const std::string& name);
  // Sends one message to `destination` and waits for the receiver's
  // acknowledgement.
  bool SendAcked(const std::string& destination, const char* data, std::uint32_t length);
  bool Send(const std::string& destination, const char* data, std::uint32_t length);

  // Receiving side: counts arriving messages (acknowledging those that ask)
  // on a thread of its own.
  void StartCounting();
  std::uint64_t Count() const { return arrivals_.Count(); }
  bool WaitForCount(std::uint64_t target, std::chrono::milliseconds timeout) {
    return arrivals_.WaitFor(target, timeout);
  }
  void Close();

 private:
  bool SendMessage(const std::string& destination, char kind, const char* data, std::uint32_t length);
  void CountLoop();

  void* socket_ = nullptr;
  void* stopReceiver_ = nullptr;
  void* stopSender_ = nullptr;
  std::thread counter_;
  cArrivals arrivals_;
};

}  // namespace vantrel::bench
