#pragma once
// A stand-in for the Vantrel service's client port, for tests of the client
// library: a loopback listener that speaks frames, answers the greeting and
// acknowledges sends as the test tells it, and records every frame it receives.
//
// Ownership: the test owns it; it owns its listener, its accept thread and one
// connection (socket and reader thread) per accepted client.
// Threads: the accept thread and the connections' readers record frames and
// answer; the test thread reads the record and sends. A lock guards the record.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/frame.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/message/packmsg.h"

namespace vantrel::test {

class ScriptedService {
 public:
  // How the scripted service answers an acknowledged send (wire::kSend or kLocalSend).
  enum class tAck {
    eDelivered,     // a wire::kDelivered record on kChannelAnswers
    eRefused,       // a record of type 101 (neither answer type) on kChannelAnswers
    eNotDelivered,  // a wire::kNotDelivered record on kChannelMessages, as for an unknown client
    eNone,          // no answer at all
  };

  struct cOptions {
    std::string hostName = "scripted-host";
    unsigned short netPort = 9011;
    bool replyToGreeting = true;
    // Type of the greeting reply; -1 echoes the greeting's type.
    short greetingReplyType = -1;
    // Listen on this port; 0 takes a free one.
    unsigned short port = 0;
  };

  explicit ScriptedService(cOptions options);
  ScriptedService() : ScriptedService(cOptions{}) {}
  ~ScriptedService();
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;

  unsigned short Port() const { return port_; }
  void SetAck(tAck ack);

  bool WaitConnections(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // The next frame that connection `index` received (in order), or nothing
  // when none arrives within `timeout`.
  std::optional<cFrame> NextFrame(std::size_t index, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Sends a message record (type `type`) on `subtype`, as the service delivers one.
  bool SendRecord(std::size_t index, short type, short subtype, const std::string& payload,
                  std::uint32_t messageId = 0);
  void Close(std::size_t index);
  bool WaitPeerClosed(std::size_t index, std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  struct cConnection;
  void AcceptLoop();
  void ReadLoop(cConnection* connection);
  void Answer(cConnection* connection, const cFrame& frame);
  cConnection* Get(std::size_t index);

  const cOptions options_;
  StreamSocket listener_;
  unsigned short port_ = 0;
  std::thread acceptThread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<cConnection>> connections_;
  tAck ack_ = tAck::eDelivered;
};

}  // namespace vantrel::test
