#pragma once
// Sending whole frames (frame.h), independent of where the bytes go.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/frame.h"
#include "vantrel/base/socket/socketoptions.h"

namespace nCommunication::nSocket::nImplementation_sho {

// Where a frame writer's bytes go.
class iByteSink {
 public:
  virtual ~iByteSink() = default;
  // Whether frames may go out now: the connection is open and, when it is to
  // be encrypted, its TLS session is ready.
  virtual bool Writable() const = 0;
  // Whether several frames can go out in one gathered write.
  virtual bool Gathers() const = 0;
  // Writes every part in order, waiting when the connection pushes back,
  // bounded by the communication time-out from the first wait; may change
  // `parts`. `started` becomes true once a byte went out. False on failure,
  // time-out or close.
  virtual bool WriteAll(vantrel::platform::cSendBuffer* parts, std::size_t count, bool& started) = 0;
  // Waits `us` microseconds unless the connection closes first; false when it closed.
  virtual bool Pause(std::int64_t us) = 0;
  // Part of a frame went out and the rest cannot: the peer's reader is out of
  // step for good, so the connection must end.
  virtual void Abandon() = 0;
};

// Sends frames whole: stamps and encodes each header, delays frames by the
// options' simulated latency, puts a batch out in one gathered write, and
// keeps the frames of concurrent senders apart. Checks every frame against
// the maximum message size before anything of it goes out.
// Ownership: owned by one stream socket; borrows its sink, name and options;
// owns the send lock and the simulated-latency turn.
// Threads: any number of senders at once; the send lock is held for one
// frame's (or one batch's) write only.
class cFrameWriter {
 public:
  cFrameWriter(iByteSink& sink, const std::string& name, const cSocketOptions& options)
      : sink_(sink), name_(name), options_(options) {}

  // Sends one frame. `data` may be null only when `length` is 0.
  bool Send(short type, short subtype, const char* data, unsigned length);
  // Sends up to kMaxFramesPerBatch frames in order, in as few writes as the
  // sink allows. False as soon as one frame cannot be sent.
  bool Send(const cOutgoingFrame* frames, std::size_t count);

 private:
  bool Check(const char* data, unsigned length) const;
  // Writes `count` parts under the send lock; a frame cut off midway ends the connection.
  bool Write(vantrel::platform::cSendBuffer* parts, std::size_t count);

  iByteSink& sink_;
  const std::string& name_;
  const cSocketOptions& options_;
  std::mutex sendMutex_;
  std::atomic<std::uint64_t> latencyTurn_{0};
};

}  // namespace nCommunication::nSocket::nImplementation_sho
