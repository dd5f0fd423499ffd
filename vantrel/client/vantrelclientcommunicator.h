#pragma once
// CVantrelClientCommunicatorZ1: the client library's one connection to the
// Vantrel service on this machine.
//
// It connects to the service's client port, sends the owner's greeting block,
// and runs the reader thread "VTClntRdr", which turns every frame from the
// service into a cTypedMessageObject and hands it to the owner. Application
// threads send frames through sendMessage; the socket keeps each frame whole
// and lets a small frame sent during another thread's write ride along with
// that thread's next write, so no lock of ours is taken on the send path.
//
// Ownership: owned by exactly one cVantrelClientObjectImp (its owner), which it
// never owns. Owns its socket, its reader thread and its lock.
// Threads: the owner's application threads call Start, sendMessage and
// Terminate; the reader thread runs StartReader and calls back into the owner
// (new frames, termination, release of the queues, and last its exit). The lock
// guards only the terminated flag and the closing of the socket; every call into
// the owner is made with the lock released, because the owner calls Terminate
// in turn. An owner torn down from inside a callback defers its destruction to
// OnReaderExit, after which the reader touches neither owner nor communicator.
#include <atomic>
#include <mutex>
#include <string>
#include <string_view>

#include "vantrel/base/platform/collectable.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"

class cTypedMessageObject;

// What the communicator needs from its owner. cVantrelClientObjectImp
// implements it; the split keeps the communicator testable on its own.
// Every operation may be called on the reader thread.
class iVantrelClientCommunicatorOwner {
 public:
  virtual ~iVantrelClientCommunicatorOwner() = default;
  // Port of the local service's client listener.
  virtual unsigned short ClientPort() const = 0;
  // The greeting frame that Start sends (the block, and a long name after it).
  virtual std::string_view GreetingFrame() const = 0;
  // The client name, for log lines.
  virtual std::string ClientName() const = 0;
  // A new frame: the owner takes `frame` and decides where it goes.
  virtual void OnNewFrame(cTypedMessageObject* frame, short subtype) = 0;
  // The connection is going down: the owner ends its session.
  virtual void NETTerminate() = 0;
  // The reader has ended: the owner wakes everybody waiting on its queues, also
  // when the session never became valid (no greeting reply arrived).
  virtual void OnReaderEnded() = 0;
  // The reader's very last act: an owner whose destruction was put off because
  // it was asked for on this thread may now destroy itself, and with it the
  // communicator.
  virtual void OnReaderExit() {}
};

class CVantrelClientCommunicatorZ1 : public RWCollectable {
 public:
  explicit CVantrelClientCommunicatorZ1(iVantrelClientCommunicatorOwner* owner);
  // Terminates the connection and joins the reader. On the reader itself (only
  // from the owner's OnReaderExit, when the reader has nothing left to do) the
  // reader is detached instead.
  ~CVantrelClientCommunicatorZ1() override;
  CVantrelClientCommunicatorZ1(const CVantrelClientCommunicatorZ1&) = delete;
  CVantrelClientCommunicatorZ1& operator=(const CVantrelClientCommunicatorZ1&) = delete;

  // Connects, sends the greeting and starts the reader. False when the service
  // cannot be reached, the greeting cannot be sent or the communicator has
  // already been terminated. May throw on local faults (no thread can be made).
  bool Start();

  // Sends one frame, or hands it to a write under way on another thread (see
  // StreamSocket::PostTypedMessage). False once terminated or when the socket
  // refuses it.
  bool sendMessage(const char* data, unsigned length, short type, short subtype);

  // Closes the connection (the first call tells the owner) and, with `wait`,
  // joins the reader unless called on the reader itself. Every call with
  // `wait` joins, not only the first.
  void Terminate(bool wait);

  // The reader thread's body.
  void StartReader();

  bool Started() const { return started_.load(std::memory_order_acquire); }
  bool Terminated() const { return terminated_.load(std::memory_order_acquire); }
  // True on the reader thread, that is inside a callback to the owner.
  bool OnReaderThread() const { return reader_.IsCurrentThread(); }
  // Waits up to `milliseconds` for the reader to have finished its work
  // (negative: no limit). True when it has.
  bool WaitReaderEnded(long milliseconds);

  const char* nameOf() const override { return "CVantrelClientCommunicatorZ1"; }

 private:
  void ReadLoop();

  std::atomic<bool> started_{false};
  iVantrelClientCommunicatorOwner* const owner_;
  vantrel::platform::cThread reader_;
  std::mutex lock_;
  StreamSocket socket_;
  std::atomic<bool> terminated_{false};
  // Set once the reader runs, and once it has told the owner that it ended.
  RQPManualEvent readerRunning_;
  RQPManualEvent readerEnded_;
};
