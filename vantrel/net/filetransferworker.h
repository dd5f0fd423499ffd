#pragma once
// cFileTransferWorker: the file-transfer threads of one host link. Local
// clients' copy requests for the peer (type 5) queue for the file writer
// "VTHstFlWr", which copies them one after the other and answers each requester
// with its copy result; the peer's copy request (type 6) gets a file reader
// "VTHstFlRd", which receives the file. Both run the link's CFileTransferHandler,
// which the worker owns and feeds with the peer's chunk traffic (type 7).
//
// Owner: the host link (one worker per link, stopped by the link's Terminate).
// Refers to, without owning, the link (through iFileTransferWorkerLink) and the
// router, which receives the copy results.
// An exception on a file thread ends only the copy it met: that copy is
// answered as broken and the next request starts a new thread.
// Threads: PostRequest on any dispatching thread (under the router's lock);
// OnPeerRequest and OnTraffic on the link's reader; Abort and Stop on whichever
// thread terminates the link; plus the worker's own two threads.
// Locks: writerLock_ guards the writer's queue, its running and closed marks
// and its start; readerLock_ guards the reader's marks and every stop, join and
// start of the reader. The reader's queue has a lock of its own, because the
// reader takes from it while a new request may hold readerLock_ to join it.
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "vantrel/base/platform/eventqueue.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/FileTransferHandler.h"

class iVantrelRouter;

// What the worker needs of its host link besides a way to post file messages.
class iFileTransferWorkerLink : public iFileTransferLink {
 public:
  // True while the link is connected (from the handshake until it breaks).
  virtual bool IsConnected() const = 0;
  // Blocks until the link has connected or failed to; true when connected.
  virtual bool AwaitConnection() = 0;
  std::string HostText() const override = 0;
};

class cFileTransferWorker {
 public:
  // `router` may be null (nothing is answered). `copies` limits what the
  // peer's copy requests may write (null: anywhere); `flow` bounds this side's
  // copies to the peer. `stats` (may be null, else outlives the worker) shows
  // the copies in flight.
  cFileTransferWorker(iFileTransferWorkerLink* link, iVantrelRouter* router,
                      nParallel::nImplementation_sho::cThreadAttributes threadAttributes,
                      std::shared_ptr<const cCopyPolicy> copies = nullptr, cCopyFlowLimits flow = {},
                      std::shared_ptr<vantrel::stats::cServiceStats> stats = nullptr);
  // Stops; the link must not call the worker any more.
  ~cFileTransferWorker();
  cFileTransferWorker(const cFileTransferWorker&) = delete;
  cFileTransferWorker& operator=(const cFileTransferWorker&) = delete;

  // A local client's copy request for the peer. Queued for the file writer,
  // which is started when it is not running; after Stop the request is answered
  // at once as broken.
  void PostRequest(std::unique_ptr<VantrelHostEvent> request);
  // The peer's copy request (valid, its data the destination path). A file
  // reader still busy with an earlier request is stopped first (its partial
  // file is deleted). Dropped after Stop.
  void OnPeerRequest(std::unique_ptr<VantrelHostEvent> request);
  // The peer's chunk traffic for the transfer in progress.
  void OnTraffic(std::unique_ptr<VantrelHostEvent> traffic);

  // The link is going: a send or receive in progress ends with state 5 and
  // every waiter wakes. Takes only the handler's lock, so the link may call it
  // under its own.
  void Abort();
  // Aborts, ends both queues (copy requests still waiting are answered as
  // broken) and joins both threads unless called on one of them. Any number of
  // calls, from any thread that holds none of the link's locks.
  void Stop();

 private:
  void runWriter();
  void runReader();
  void writeFiles();
  void readFiles();
  // Copies one local client's request and answers it with the copy result.
  void sendOneFile(const VantrelHostEvent& request);
  void answerBroken(const VantrelHostEvent& request);
  // The writer has ended without taking what is queued: answers it as broken.
  void abandonQueued();
  // Tells the peer its request cannot be received (no file reader could start).
  void refusePeerRequest(const VantrelHostEvent& request);

  iFileTransferWorkerLink* const link_;
  iVantrelRouter* const router_;
  const nParallel::nImplementation_sho::cThreadAttributes threadAttributes_;
  const std::shared_ptr<const cCopyPolicy> copies_;
  const std::shared_ptr<vantrel::stats::cServiceStats> stats_;
  // Outlives both threads: they are joined in Stop, before the members go.
  CFileTransferHandler handler_;

  std::mutex writerLock_;
  std::deque<std::unique_ptr<VantrelHostEvent>> requests_;  // guarded by writerLock_
  bool writerRunning_ = false;                              // guarded by writerLock_
  bool writerClosed_ = false;                               // guarded by writerLock_
  vantrel::platform::cThread writer_;

  std::mutex readerLock_;
  RQPEventQueue peerRequests_;
  bool readerClosed_ = false;  // guarded by readerLock_
  // Cleared to make a running reader stop after its current file.
  std::atomic<bool> readerRunning_{false};
  vantrel::platform::cThread reader_;
};
