#include "bench/zmqbroker.h"

#include <zmq.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <unordered_set>
#include <vector>

namespace vantrel::bench {

namespace {

constexpr char kData = 'd';
constexpr char kDataAcked = 'a';
constexpr char kAck = 'k';
// Routing id of a broker's link to its peer; client names never start with 0x01.
const std::string kPeerId = "\x01peer";

void* Context() {
  static void* const context = zmq_ctx_new();
  return context;
}

void Report(const char* what) {
  std::fprintf(stderr, "vantrel-bench: zeromq %s: %s\n", what, zmq_strerror(zmq_errno()));
}

void SetInt(void* socket, int option, int value) { zmq_setsockopt(socket, option, &value, sizeof value); }

// No high-water mark: a baseline that drops at a bound would not be measuring
// the same thing as a bus that loses nothing.
void* OpenSocket(int type) {
  void* socket = zmq_socket(Context(), type);
  if (socket == nullptr) return nullptr;
  SetInt(socket, ZMQ_SNDHWM, 0);
  SetInt(socket, ZMQ_RCVHWM, 0);
  SetInt(socket, ZMQ_LINGER, 0);
  return socket;
}

// A pair of inproc sockets that wakes a thread blocked in zmq_poll.
bool OpenStopPair(void*& receiver, void*& sender) {
  static std::atomic<unsigned> next{0};
  const std::string address = "inproc://vantrel-bench-stop-" + std::to_string(next++);
  receiver = zmq_socket(Context(), ZMQ_PAIR);
  sender = zmq_socket(Context(), ZMQ_PAIR);
  return receiver != nullptr && sender != nullptr && zmq_bind(receiver, address.c_str()) == 0 &&
         zmq_connect(sender, address.c_str()) == 0;
}

void CloseSocket(void*& socket) {
  if (socket != nullptr) zmq_close(socket);
  socket = nullptr;
}

// One multipart message, received whole.
struct cParts {
  std::vector<zmq_msg_t> parts;
  ~cParts() { Clear(); }
  void Clear() {
    for (zmq_msg_t& part : parts) zmq_msg_close(&part);
    parts.clear();
  }
  // `flags` apply to the first part (ZMQ_DONTWAIT: false when nothing waits);
  // the rest of a message arrives with it.
  bool Receive(void* socket, int flags = 0) {
    Clear();
    int more = 1;
    while (more) {
      parts.emplace_back();
      zmq_msg_init(&parts.back());
      if (zmq_msg_recv(&parts.back(), socket, parts.size() == 1 ? flags : 0) < 0) return false;
      more = zmq_msg_more(&parts.back());
    }
    return true;
  }
  std::string Text(std::size_t i) const {
    zmq_msg_t& part = const_cast<zmq_msg_t&>(parts[i]);
    return std::string(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
  }
  // Sends parts[first..] after `prefix`, moving the parts (no payload copy).
  bool Send(void* socket, const std::vector<std::string>& prefix, std::size_t first) {
    for (const std::string& text : prefix)
      if (zmq_send(socket, text.data(), text.size(), ZMQ_SNDMORE) < 0) return false;
    for (std::size_t i = first; i < parts.size(); ++i)
      if (zmq_msg_send(&parts[i], socket, i + 1 < parts.size() ? ZMQ_SNDMORE : 0) < 0) return false;
    return true;
  }
};

}  // namespace

bool cZmqBroker::Bind() {
  router_ = OpenSocket(ZMQ_ROUTER);
  if (router_ == nullptr) return Report("router"), false;
  SetInt(router_, ZMQ_ROUTER_MANDATORY, 1);
  if (zmq_bind(router_, "tcp://127.0.0.1:*") != 0) return Report("bind"), false;
  char endpoint[256];
  std::size_t size = sizeof endpoint;
  if (zmq_getsockopt(router_, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0) return Report("endpoint"), false;
  const std::string text(endpoint);
  port_ = static_cast<unsigned short>(std::stoi(text.substr(text.rfind(':') + 1)));
  return OpenStopPair(stopReceiver_, stopSender_);
}

bool cZmqBroker::Run(unsigned short peerPort) {
  if (router_ == nullptr) return false;
  thread_ = std::thread([this, peerPort] { Loop(peerPort); });
  return true;
}

void cZmqBroker::Stop() {
  if (thread_.joinable()) {
    zmq_send(stopSender_, "", 0, 0);
    thread_.join();
  }
  CloseSocket(router_);
  CloseSocket(stopSender_);
  CloseSocket(stopReceiver_);
}

void cZmqBroker::Loop(unsigned short peerPort) {
  void* peer = nullptr;
  if (peerPort != 0) {
    peer = OpenSocket(ZMQ_DEALER);
    zmq_setsockopt(peer, ZMQ_ROUTING_ID, kPeerId.data(), kPeerId.size());
    const std::string address = "tcp://127.0.0.1:" + std::to_string(peerPort);
    if (zmq_connect(peer, address.c_str()) != 0) Report("peer connect");
  }
  std::unordered_set<std::string> locals;
  zmq_pollitem_t items[] = {{router_, 0, ZMQ_POLLIN, 0}, {stopReceiver_, 0, ZMQ_POLLIN, 0}};
  cParts message;
  for (;;) {
    if (zmq_poll(items, 2, -1) < 0 || (items[1].revents & ZMQ_POLLIN) != 0) break;
    // Everything waiting is routed before the next poll: the idiomatic loop,
    // without a poll per message.
    while (message.Receive(router_, ZMQ_DONTWAIT)) {
      // From a client: [client][destination][...]; from the peer broker:
      // [peer][destination][sender][...].
      if (message.parts.size() < 2) continue;
      const bool fromPeer = message.Text(0) == kPeerId;
      if (fromPeer && message.parts.size() < 3) continue;
      const std::string destination = message.Text(1);
      const std::string sender = message.Text(fromPeer ? 2 : 0);
      const std::size_t rest = fromPeer ? 3 : 2;
      if (destination.empty()) {
        locals.insert(sender);
        zmq_send(router_, sender.data(), sender.size(), ZMQ_SNDMORE);
        zmq_send(router_, "", 0, 0);
      } else if (locals.count(destination) != 0) {
        if (!message.Send(router_, {destination, sender}, rest)) Report("route");
      } else if (peer != nullptr) {
        if (!message.Send(peer, {destination, sender}, rest)) Report("forward");
      }
    }
  }
  if (peer != nullptr) zmq_close(peer);
}

bool cZmqEndpoint::Connect(unsigned short port, const std::string& name) {
  socket_ = OpenSocket(ZMQ_DEALER);
  if (socket_ == nullptr) return Report("dealer"), false;
  zmq_setsockopt(socket_, ZMQ_ROUTING_ID, name.data(), name.size());
  const std::string address = "tcp://127.0.0.1:" + std::to_string(port);
  if (zmq_connect(socket_, address.c_str()) != 0) return Report("connect"), false;
  if (zmq_send(socket_, "", 0, 0) < 0) return Report("hello"), false;
  cParts reply;
  return reply.Receive(socket_) && OpenStopPair(stopReceiver_, stopSender_);
}

bool cZmqEndpoint::SendMessage(const std::string& destination, char kind, const char* data, std::uint32_t length) {
  return zmq_send(socket_, destination.data(), destination.size(), ZMQ_SNDMORE) >= 0 &&
         zmq_send(socket_, &kind, 1, ZMQ_SNDMORE) >= 0 && zmq_send(socket_, data, length, 0) >= 0;
}

bool cZmqEndpoint::Send(const std::string& destination, const char* data, std::uint32_t length) {
  return SendMessage(destination, kData, data, length);
}

bool cZmqEndpoint::SendAcked(const std::string& destination, const char* data, std::uint32_t length) {
  if (!SendMessage(destination, kDataAcked, data, length)) return false;
  cParts reply;
  while (reply.Receive(socket_))
    if (reply.parts.size() >= 2 && reply.Text(1) == std::string(1, kAck)) return true;
  return false;
}

void cZmqEndpoint::StartCounting() {
  counter_ = std::thread([this] { CountLoop(); });
}

void cZmqEndpoint::CountLoop() {
  zmq_pollitem_t items[] = {{socket_, 0, ZMQ_POLLIN, 0}, {stopReceiver_, 0, ZMQ_POLLIN, 0}};
  cParts message;
  for (;;) {
    if (zmq_poll(items, 2, -1) < 0 || (items[1].revents & ZMQ_POLLIN) != 0) break;
    std::uint64_t arrived = 0;
    while (message.Receive(socket_, ZMQ_DONTWAIT)) {
      // [sender][kind][payload]
      if (message.parts.size() < 3) continue;
      ++arrived;
      if (*static_cast<const char*>(zmq_msg_data(&message.parts[1])) == kDataAcked) {
        const std::string sender = message.Text(0);
        const char ack = kAck;
        zmq_send(socket_, sender.data(), sender.size(), ZMQ_SNDMORE);
        zmq_send(socket_, &ack, 1, 0);
      }
    }
    arrivals_.Add(arrived);
  }
  arrivals_.End();
}

void cZmqEndpoint::Close() {
  if (counter_.joinable()) {
    zmq_send(stopSender_, "", 0, 0);
    counter_.join();
  }
  CloseSocket(socket_);
  CloseSocket(stopSender_);
  CloseSocket(stopReceiver_);
}

}  // namespace vantrel::bench
