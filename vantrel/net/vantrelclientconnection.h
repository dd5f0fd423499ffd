#pragma once
// CVantrelClientConnection: the service end of one local client's socket. Its
// reader ("VTClntRdr") answers the client's greeting, has the session factory
// make the client's session and hands the session every later message; its
// writer ("VTClnWrtr") sends what is queued for the client and, once a batch is
// written, settles the receipts of its messages: that is when a sender hears
// "delivered". Messages waiting for the client are bounded in bytes
// (maxClientQueueBytes); answers are not counted, so they are never refused.
//
// Owner: the service's connection owner, which joins and deletes it after it has
// terminated. Owns its socket and the client's session; terminating only shuts
// the socket down, and the descriptor is closed by the destructor after both
// threads have been joined.
// Threads: the reader and the writer, plus any thread that calls Terminate (the
// router's clean-up, the owner, the session) or posts an event (any dispatching
// thread, under the router's lock). lock_ guards the termination mark, the
// client's name and the session; Terminate takes it only for its first part and
// calls the router and the owner after releasing it.
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/answerpath.h"
#include "vantrel/net/servicestats.h"
#include "vantrel/net/vantrelconnectioncontext.h"
#include "vantrel/net/vantrellinks.h"
#include "vantrel/support/sync.h"

class CVantrelClientConnection : public iVantrelClientLink {
 public:
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;

  // Takes over an accepted socket. Start runs the reader.
  CVantrelClientConnection(cSocketHandle&& accepted, std::shared_ptr<const cVantrelConnectionContext> context);
  // Terminates, joins both threads and deletes the session.
  ~CVantrelClientConnection() override;
  CVantrelClientConnection(const CVantrelClientConnection&) = delete;
  CVantrelClientConnection& operator=(const CVantrelClientConnection&) = delete;

  const char* nameOf() const override { return "CVantrelClientConnection"; }

  // Starts the reader; nothing once terminated.
  void Start();
  void Terminate(bool wait) override;
  // Queues an event for the writer, or writes a small one at once (see
  // writeNow). Called under the router's lock by other clients' readers and
  // links; the write cannot block, as the socket is checked for room first.
  bool Post(RWCollectable* event) override;
  // Messages refused at the queue bound so far.
  std::uint64_t RefusedMessages() const { return refused_.Total(); }
  // Called on the reader thread (the session's answers) and on other clients'
  // writers (delivered answers). Sent at once when the writer has nothing queued
  // or in hand and the socket has room, which saves the answer a thread
  // hand-over; queued otherwise, so nothing is overtaken and no other client's
  // writer waits on this client's socket.
  void SendAnswer(std::unique_ptr<VantrelClientEvent> answer) override;
  std::optional<std::uint32_t> PeerUser() const override { return peerUser_; }

 private:
  void runReader();
  void runWriter();
  void doReading();
  void doWriting();
  // Takes ownership of a queued item; the event to send, or null when the item
  // cannot go to a client (logged and deleted).
  static std::unique_ptr<VantrelClientEvent> sendable(std::unique_ptr<RWCollectable> item);
  // Bytes an event counts against the queue bound (0 for answers and others).
  static std::uint64_t queuedSize(const RWCollectable* item);
  // Deletes what is still queued; their senders hear "not delivered".
  void dropQueued();
  // Writes `event` on the calling thread when nothing is queued or being written
  // and the socket has room for it, so that it need not wait for the writer
  // thread to wake; a written message settles its receipt. False, leaving
  // `event` to the caller, when it cannot.
  bool writeNow(std::unique_ptr<VantrelClientEvent>& event);
  // Answers the greeting and creates the session. False ends the reader.
  bool greet(char* data, unsigned length, short type);
  void restartProcess();
  std::string clientName();

  // Counts what is written to the client; any thread that writes.
  void countWritten(const VantrelClientEvent& event);

  const std::shared_ptr<const cVantrelConnectionContext> context_;
  // This connection's counters, shared with the service's registry.
  const std::shared_ptr<vantrel::stats::cConnectionStats> stats_;
  vantrel::platform::cThread reader_;
  vantrel::platform::cThread writer_;
  RQPMutex lock_;
  StreamSocket socket_;
  bool registered_ = false;                         // reader only
  bool terminated_ = false;                         // guarded by lock_
  std::string clientName_;                          // guarded by lock_
  std::unique_ptr<iVantrelClientSession> session_;  // guarded by lock_; set once by the reader
  const int port_;                                  // the socket's peer port, for log lines
  // The client process's user, found in the system's socket tables at accept.
  const std::optional<std::uint32_t> peerUser_;
  // Events posted and not yet sent (or dropped) by the writer, plus an answer
  // being sent directly by the reader. Zero means the socket is free for a
  // direct send without overtaking anything.
  std::atomic<int> unsent_{0};
  // Bytes of messages queued and not yet taken by the writer (kept with the
  // counters, so the endpoint sees the queue without asking the connection).
  std::atomic<std::uint64_t>& queuedBytes_;
  cDropCounter refused_;
};
