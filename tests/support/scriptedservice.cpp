#include "tests/support/scriptedservice.h"

#include <cstring>
#include <deque>

#include "vantrel/message/clientname.h"

namespace vantrel::test {

using namespace vantrel::wire;

struct ScriptedService::cConnection {
  explicit cConnection(StreamSocket::cSocketHandle&& handle) : socket(std::move(handle), nullptr, "scripted") {}
  StreamSocket socket;
  std::thread reader;
  std::deque<cFrame> unread;
  bool peerClosed = false;
  std::string clientName;
};

ScriptedService::ScriptedService(cOptions options) : options_(std::move(options)), listener_(false, "scripted") {
  listener_.CreateListenerSocket(options_.port, c_Socket::eLoopbackOnly);
  port_ = listener_.LocalPort();
  acceptThread_ = std::thread([this] { AcceptLoop(); });
}

ScriptedService::~ScriptedService() {
  listener_.CloseSocket();
  acceptThread_.join();
  std::vector<std::unique_ptr<cConnection>> connections;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connections.swap(connections_);
  }
  for (auto& connection : connections) connection->socket.CloseSocket();
  for (auto& connection : connections) connection->reader.join();
}

void ScriptedService::SetAck(tAck ack) {
  std::lock_guard<std::mutex> lock(mutex_);
  ack_ = ack;
}

void ScriptedService::AcceptLoop() {
  for (;;) {
    auto accepted = listener_.Accept(StreamSocket::cSocketOptions());
    if (!accepted.handle) return;
    auto connection = std::make_unique<cConnection>(std::move(*accepted.handle));
    cConnection* raw = connection.get();
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(std::move(connection));
    raw->reader = std::thread([this, raw] { ReadLoop(raw); });
    changed_.notify_all();
  }
}

void ScriptedService::ReadLoop(cConnection* connection) {
  for (;;) {
    cFrame frame = ReadFrame(connection->socket);
    if (!frame.ok) break;
    Answer(connection, frame);
    std::lock_guard<std::mutex> lock(mutex_);
    connection->unread.push_back(std::move(frame));
    changed_.notify_all();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  connection->peerClosed = true;
  changed_.notify_all();
}

void ScriptedService::Answer(cConnection* connection, const cFrame& frame) {
  if (frame.type == kGreeting && frame.data.size() >= kGreetingSize) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      connection->clientName = vantrel::GreetingClientName(frame.data.data(), frame.data.size());
    }
    if (!options_.replyToGreeting) return;
    std::string reply = frame.data;
    std::memset(reply.data() + kGreetingHostOffset, 0, kGreetingFieldSize);
    std::memcpy(reply.data() + kGreetingHostOffset, options_.hostName.data(),
                std::min<std::size_t>(options_.hostName.size(), kGreetingFieldSize));
    std::memcpy(reply.data() + kGreetingPortOffset, &options_.netPort, sizeof(options_.netPort));
    const short type = options_.greetingReplyType < 0 ? frame.type : options_.greetingReplyType;
    connection->socket.SendTypedMessageZ2(type, kChannelAnswers, reply.data(), static_cast<unsigned>(reply.size()));
    return;
  }
  if (frame.type != kSend && frame.type != kLocalSend) return;
  std::unique_lock<std::mutex> lock(mutex_);
  const tAck ack = ack_;
  // 101 stands for any answer type other than the two a service gives.
  const short type = ack == tAck::eDelivered ? kDelivered : ack == tAck::eRefused ? 101 : kNotDelivered;
  const short subtype = ack == tAck::eNotDelivered ? kChannelMessages : kChannelAnswers;
  const cVantrelMessage answer(0, options_.hostName.c_str(), connection->clientName.c_str(), options_.hostName.c_str(),
                               "", QTYPE_SYNC, type, subtype, "", 1);
  lock.unlock();
  if (ack == tAck::eNone) return;
  connection->socket.SendTypedMessageZ2(type, subtype, answer.getPackedBuf(), answer.getPackedBufLen());
}

ScriptedService::cConnection* ScriptedService::Get(std::size_t index) {
  std::lock_guard<std::mutex> lock(mutex_);
  return index < connections_.size() ? connections_[index].get() : nullptr;
}

bool ScriptedService::WaitConnections(std::size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return connections_.size() >= count; });
}

std::optional<cFrame> ScriptedService::NextFrame(std::size_t index, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!changed_.wait_for(lock, timeout,
                         [&] { return index < connections_.size() && !connections_[index]->unread.empty(); }))
    return std::nullopt;
  cFrame frame = std::move(connections_[index]->unread.front());
  connections_[index]->unread.pop_front();
  return frame;
}

bool ScriptedService::SendRecord(std::size_t index, short type, short subtype, const std::string& payload,
                                 std::uint32_t messageId) {
  cConnection* connection = Get(index);
  if (connection == nullptr) return false;
  std::unique_lock<std::mutex> lock(mutex_);
  const cVantrelMessage record(messageId, options_.hostName.c_str(), connection->clientName.c_str(), "elsewhere",
                               "sender", QTYPE_SYNC, type, subtype, payload.c_str(),
                               static_cast<std::uint32_t>(payload.size() + 1));
  lock.unlock();
  return connection->socket.SendTypedMessageZ2(type, subtype, record.getPackedBuf(), record.getPackedBufLen());
}

void ScriptedService::Close(std::size_t index) {
  if (cConnection* connection = Get(index)) connection->socket.CloseSocket();
}

bool ScriptedService::WaitPeerClosed(std::size_t index, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout,
                           [&] { return index < connections_.size() && connections_[index]->peerClosed; });
}

}  // namespace vantrel::test
