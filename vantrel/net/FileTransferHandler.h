#pragma once
// CFileTransferHandler: moves one file at a time across a host link in
// acknowledged chunks.
//
// Sending side: the link's file writer calls SendFile for a local client's copy
// request. The handler posts the copy request (wire::kFileRequest), waits for
// the peer's kFileAccepted, then streams chunks of up to kFileChunkSize bytes,
// each followed by a marker letter (kFileChunk: more follow, kFileLastChunk),
// with at most a window of chunks waiting for their kFileChunkWritten. The
// window starts at five chunks and grows by one with every acknowledgement
// (each acknowledged chunk lets two more go, as TCP's slow start does) up to
// the limit the settings give, so a long link is kept full while a short one
// never holds more in flight than it needs. A peer that stops acknowledging
// for the answer time-out fails the copy; the peer's
// final report ("<digits>" then kFileFinal) ends the transfer. Every message
// after the request is wire::kFileTraffic, named by its last byte.
// The request carries the destination path and, after its NUL, the size of
// the source, which the sender checks again at the end: a source that changed
// size or modification time during the copy makes the sender abort.
// Receiving side: the link's file reader calls ReceiveFile for the peer's
// request; it answers kFileAccepted, writes every chunk to a temporary file
// beside the destination, answers kFileChunkWritten for each and at the end
// reports its final state. Only a complete copy whose byte count matches the
// announced size is renamed over the destination; any other end removes the
// temporary file and leaves the destination as it was.
//
// Owner: the link's file-transfer worker (one handler per link). Refers to,
// without owning, the link through iFileTransferLink, where every answer is
// posted.
// Threads: SendFile runs on the worker's file writer, ReceiveFile on its file
// reader, HandleFileEvent on the link's reader, Stop/AbortReceive on whichever
// thread terminates the link or restarts its file reader. The copy in flight,
// the flags and the final state are guarded by the monitor (mutex_ + cond_).
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/platform/eventqueue.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/filecopy.h"
#include "vantrel/net/servicestats.h"

// Where the handler posts the file messages for the peer. Implemented by the
// host link (its outgoing queue) and by test doubles.
class iFileTransferLink {
 public:
  virtual ~iFileTransferLink() = default;
  // Sends `event` to the peer after everything posted before it.
  virtual void PostFileEvent(std::unique_ptr<VantrelHostEvent> event) = 0;
  // The peer's address text, for log lines.
  virtual std::string HostText() const { return "the peer"; }
};

// How far a sender may run ahead of its peer.
struct cCopyFlowLimits {
  // The most file bytes sent and not yet acknowledged.
  std::uint64_t windowBytes = nVantrelIni::kDefaultFileCopyWindowBytes;
  // A copy whose peer says nothing for this long fails.
  std::chrono::milliseconds ackTimeout{std::chrono::seconds(nVantrelIni::kDefaultAnswerTimeoutSeconds)};
  // How much longer than twice the shortest round trip a chunk's may take
  // before the window stops growing: scheduling noise, not a queue.
  std::chrono::steady_clock::duration roundTripNoise = std::chrono::milliseconds(1);

  static cCopyFlowLimits From(std::uint64_t windowBytes, long answerTimeoutSeconds) {
    cCopyFlowLimits limits;
    limits.windowBytes = windowBytes;
    limits.ackTimeout = std::chrono::seconds(answerTimeoutSeconds);
    return limits;
  }
  // The window in whole chunks, at least one.
  int WindowChunks() const;
};

// The copy a handler is sending, as far as the peer has confirmed it. One
// value under the handler's monitor; what is known of a copy in flight is kept
// here, so that whoever reports on copies reads one snapshot.
//
// The window grows as TCP's does in slow start, one chunk per acknowledged
// chunk, but only while the link shows no queue: once a chunk's round trip is
// more than twice the shortest one seen (plus a little for scheduling noise),
// more in flight would only wait longer on the way, so the window stays. A
// short link therefore keeps a few chunks out and a long one fills.
struct cCopyInFlight {
  using tDuration = std::chrono::steady_clock::duration;
  static constexpr int kInitialChunks = 5;

  int limit = kInitialChunks;   // the window may grow to this many messages
  int window = kInitialChunks;  // messages that may be unacknowledged now
  int inFlight = 0;             // messages sent and not yet acknowledged
  tDuration shortestRoundTrip = tDuration::max();
  tDuration roundTripNoise = tDuration::zero();
  bool surplusReported = false;

  // A new copy: only its request may be unacknowledged until it is accepted.
  void Begin(int limitChunks, tDuration noise) {
    limit = limitChunks;
    roundTripNoise = noise;
    window = 1;
    inFlight = 0;
    shortestRoundTrip = tDuration::max();
    surplusReported = false;
  }
  // The request was accepted: chunks may go, starting from the initial window.
  void Open() { window = std::min(kInitialChunks, limit); }
  bool Room() const { return inFlight < window; }
  // One acknowledgement of a message that took `roundTrip` there and back;
  // with `grow` it may widen the window by one. False when nothing was
  // unacknowledged: a surplus that changes nothing.
  bool Acknowledge(bool grow, tDuration roundTrip) {
    if (inFlight == 0) return false;
    --inFlight;
    shortestRoundTrip = std::min(shortestRoundTrip, roundTrip);
    // An unknown round trip (the maximum) shows nothing about queues.
    const bool queued =
        roundTrip == tDuration::max() || roundTrip - shortestRoundTrip > shortestRoundTrip + roundTripNoise;
    if (grow && window < limit && !queued) ++window;
    return true;
  }
};

// Outcome of one SendFile: the completion state and the path it concerns.
struct cFileTransferResult {
  int state = 0;
  std::string fileName;
};

class CFileTransferHandler {
 public:
  static constexpr long kChunkWaitMs = 60000;

  explicit CFileTransferHandler(iFileTransferLink* link, cCopyFlowLimits limits = {});
  virtual ~CFileTransferHandler();
  CFileTransferHandler(const CFileTransferHandler&) = delete;
  CFileTransferHandler& operator=(const CFileTransferHandler&) = delete;

  // Copies `localPath`, opened with `requester`'s rights, to `dstPath` on the
  // peer. `request` is the local client's copy request; file messages travel in
  // its direction.
  std::unique_ptr<cFileTransferResult> SendFile(const std::string& localPath, const std::string& dstPath,
                                                const cVantrelMessage& request,
                                                const cCopyRequester& requester = cCopyRequester());
  // Receives one file into `dstPath` for the peer's `request` and reports the
  // final state to the sender. `announcedSize` is the size the sender gave
  // (none from older senders); `requester` limits where it may go. Returns that state.
  int ReceiveFile(const std::string& dstPath, const cVantrelMessage& request,
                  std::optional<std::uint64_t> announcedSize = std::nullopt,
                  const cCopyRequester& requester = cCopyRequester());

  // Every file-traffic message from the peer: `data` is the record's packed buffer,
  // which is copied.
  virtual void HandleFileEvent(const char* data, unsigned length, short type, short subtype);
  // The same for a message already rebuilt from its frame; the link's reader
  // comes this way, so a chunk reaches the file without another copy.
  void HandleFileEvent(std::unique_ptr<VantrelHostEvent> event);
  // Queues a received chunk for ReceiveFile.
  void PutFileChunkEvent(std::unique_ptr<VantrelHostEvent> event);
  // One chunk has been acknowledged: frees its place and widens the window.
  void SetFileChunkEventAck();

  // The link is going: ends a send and a receive in progress with kCopyStopped and
  // wakes every waiter. Later transfers on this handler end at once.
  void Stop();
  // Ends a receive in progress (its partial file is deleted), as the sender's
  // abort does, and makes a receive that has not yet begun end at once. Used
  // when the link restarts its file reader.
  void AbortReceive();
  // Lets the next ReceiveFile run after an AbortReceive.
  void ArmReceive();

  // Where the next SendFile (`sending`) or ReceiveFile reports its bytes; null:
  // nowhere. Set on the thread that then runs that transfer; the progress
  // must outlive it.
  void WatchProgress(bool sending, vantrel::stats::cCopyProgress* progress) {
    (sending ? sendProgress_ : receiveProgress_) = progress;
  }

  // How long ReceiveFile waits for the next chunk; shortened by tests.
  void SetChunkWaitMs(long milliseconds) { chunkWaitMs_ = milliseconds; }
  // Called by every sender of the process after each chunk it has read, with
  // the source path and the bytes read so far; lets tests change a source at
  // an exact point of its copy. Null (the default) calls nothing.
  using tChunkReadHook = void (*)(const std::string& source, std::uint64_t bytesRead);
  static void SetChunkReadHook(tChunkReadHook hook);

  // Observers for tests and diagnostics (taken under the monitor).
  cCopyInFlight InFlight() const;
  bool Sending() const;
  bool Receiving() const;

  // The state a final report ("<digits>" then kFileFinal) carries. Only the first (length - 2)
  // characters are read, so a single digit reads as 0; the peers rely on this
  // reading, so it stays. Characters that are not digits give -1.
  static int ParseFinalState(const char* data, unsigned length);

 private:
  void post(const cVantrelMessage& request, bool back, const char* data, unsigned length, short type);
  // Counts one more message in flight; done before it goes out, so that an
  // answer quicker than this thread finds it counted.
  void reserve();
  // Each waits under the monitor until its condition holds or the peer has said
  // nothing for the acknowledgement time-out; false on the time-out.
  bool awaitRoom();
  bool awaitAccepted();
  bool waitForWindow();
  bool awaitSendingEnded();
  template <class Done>
  bool awaitPeer(std::unique_lock<std::mutex>& lock, Done done);
  void acknowledge(bool grow);
  // Forgets what is in flight (under the monitor).
  void clearFlight();
  void finish(int state);
  // The peer has stopped answering: ends the send as failed and tells the
  // peer to drop what it has.
  void abandon(const cVantrelMessage& request, const std::string& dstPath);

  iFileTransferLink* const link_;
  const cCopyFlowLimits limits_;

  mutable std::mutex mutex_;
  std::condition_variable cond_;
  cCopyInFlight flight_;
  // When each message in flight went out, oldest first: the peer answers in
  // order, so the front is the one an acknowledgement is for.
  std::deque<std::chrono::steady_clock::time_point> sentAt_;
  // When the peer last answered the copy being sent.
  std::chrono::steady_clock::time_point lastHeard_;
  bool sending_ = false;
  bool receiving_ = false;
  bool stopRequested_ = false;
  bool receiveAborted_ = false;
  bool accepted_ = false;  // the peer has accepted the copy being sent
  RQPEventQueue chunks_;
  int finalState_ = 0;

  long chunkWaitMs_ = kChunkWaitMs;
  vantrel::stats::cCopyProgress* sendProgress_ = nullptr;     // the file writer only
  vantrel::stats::cCopyProgress* receiveProgress_ = nullptr;  // the file reader only
};
