#pragma once
// Sending whole frames (frame.h), independent of where the bytes go.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/platform/thread.h"
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
//
// One sender at a time owns the connection (the "writer turn"). A sender that
// posts a small frame while another holds the turn does not wait and makes no
// write of its own: its frame is encoded into the pending buffer, and the
// holder writes everything pending in one more write before it gives the turn
// up. So a burst from several threads costs one system call per turn, not per
// frame, and a frame sent on an idle connection still goes out at once.
//
// A single thread that streams small frames never finds another write under
// way, so it would pay a system call per frame. With write-behind enabled, a
// small frame posted with PostBehind while nobody writes goes into the pending
// buffer too, and the writer's own flusher thread takes the turn and writes it:
// while that write is under way the next frames gather behind it. Only a frame
// that finds the flusher idle costs its sender a wake-up.
//
// Ownership: owned by one stream socket; borrows its sink, name and options;
// owns the turn, the pending buffer, the simulated-latency turn and the
// flusher thread, which it joins before it goes.
// Threads: any number of senders at once, and the flusher. mutex_ guards the
// turn, the pending buffer and the flusher's state; no write happens under it.
// spare_ belongs to the turn's holder.
class cFrameWriter {
 public:
  cFrameWriter(iByteSink& sink, const std::string& name, const cSocketOptions& options)
      : sink_(sink), name_(name), options_(options) {}
  // Lets a flusher that is writing finish, then joins it.
  ~cFrameWriter();
  cFrameWriter(const cFrameWriter&) = delete;
  cFrameWriter& operator=(const cFrameWriter&) = delete;

  // Sends one frame. `data` may be null only when `length` is 0.
  bool Send(short type, short subtype, const char* data, unsigned length);
  // Sends up to kMaxFramesPerBatch frames in order, in as few writes as the
  // sink allows. False as soon as one frame cannot be sent.
  bool Send(const cOutgoingFrame* frames, std::size_t count);
  // As Send, but a frame of up to kPostedFrameBytes posted while another
  // sender writes is copied behind that write and this returns true at once;
  // the frame then goes out with the holder's next write. Should that write
  // fail, the connection is ended, so a frame that was taken is either sent
  // or its connection is seen to break. Frames of one thread keep their order
  // whichever way they take.
  bool Post(short type, short subtype, const char* data, unsigned length);
  // Lets PostBehind hand frames to a flusher thread started, with these
  // attributes, at the first frame it takes. Call before sending.
  void EnableWriteBehind(const nParallel::nImplementation_sho::cThreadAttributes& attributes);
  // As Post, but a small frame that finds nobody writing is handed to the
  // flusher rather than written here (without write-behind: Post). The same
  // promise: a frame taken is sent, or the connection is ended.
  bool PostBehind(short type, short subtype, const char* data, unsigned length);
  // Waits, at most `timeout`, until every frame taken has been written or
  // failed, so that an orderly close loses none. False on time-out.
  bool Drain(std::chrono::milliseconds timeout);

  // Frames up to this size may be copied behind a write under way; larger
  // ones wait for the turn, so that no big payload is copied.
  static constexpr std::size_t kPostedFrameBytes = 4096;
  // The pending buffer takes at most this much; a sender finding it full waits
  // for the turn, so a connection that pushes back holds its senders back.
  static constexpr std::size_t kMaxPendingBytes = 256 * 1024;
  // Buffers above this size are given back once their burst is written.
  static constexpr std::size_t kKeptBufferBytes = 8 * 1024;
  // A holder writes others' posted frames at most this many times before
  // posting closes until the turn is free: its own send returns in bounded time.
  static constexpr int kMaxRoundsPerTurn = 4;

 private:
  bool Check(const char* data, unsigned length) const;
  // Writes `count` parts; the caller holds the turn. A frame cut off midway
  // ends the connection.
  bool Write(vantrel::platform::cSendBuffer* parts, std::size_t count);
  // Waits for the writer turn and takes it.
  void TakeTurn();
  // Writes what others posted meanwhile, then gives the turn up. `ok`: whether
  // the holder's own write succeeded; after a failure nothing more is written
  // and frames that were taken end the connection. Returns `ok` for chaining.
  // `bounded`: after kMaxRoundsPerTurn rounds, posts wait for the turn; the
  // flusher, whom no caller waits for, writes as long as frames come.
  bool ReleaseTurn(bool ok, bool bounded = true);
  // The flusher's body: writes what it is handed until the writer goes.
  void FlushLoop();
  // Encodes a frame at the end of the pending buffer; mutex_ held.
  void AppendPending(short type, short subtype, const char* data, unsigned length, std::int64_t now);

  iByteSink& sink_;
  const std::string& name_;
  const cSocketOptions& options_;
  std::mutex mutex_;
  std::condition_variable turnFree_;
  bool writing_ = false;       // guarded by mutex_: a sender holds the turn
  bool postsClosed_ = false;   // guarded by mutex_: posts wait for the turn until it is free
  std::vector<char> pending_;  // guarded by mutex_: encoded frames posted during the turn
  std::vector<char> spare_;    // the turn holder's: the pending frames being written
  std::atomic<std::uint64_t> latencyTurn_{0};
  // Write-behind: set once before sending; the flusher's start and hand-overs.
  std::optional<nParallel::nImplementation_sho::cThreadAttributes> behind_;
  std::condition_variable flushWanted_;
  bool flusherStarted_ = false;   // guarded by mutex_
  bool flusherFailed_ = false;    // guarded by mutex_: none could be started; senders write
  bool flushHandedOver_ = false;  // guarded by mutex_: the turn was taken for the flusher
  bool stopping_ = false;         // guarded by mutex_: the writer goes
  vantrel::platform::cThread flusher_;
};

}  // namespace nCommunication::nSocket::nImplementation_sho
