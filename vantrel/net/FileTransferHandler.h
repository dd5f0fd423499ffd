#pragma once
// CFileTransferHandler: moves one file at a time across a host link in
// acknowledged chunks.
//
// Sending side: the link's file writer calls SendFile for a local client's copy
// request. The handler posts the copy request (wire::kFileRequest), waits for
// the peer's kFileAccepted, then streams chunks of up to kFileChunkSize bytes,
// each followed by a marker letter (kFileChunk: more follow, kFileLastChunk),
// with at most `window` chunks waiting for their kFileChunkWritten. The peer's
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
// thread terminates the link or restarts its file reader. Credits, window,
// flags and the final state are guarded by the monitor (mutex_ + cond_).
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

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
};

// Outcome of one SendFile: the completion state and the path it concerns.
struct cFileTransferResult {
  int state = 0;
  std::string fileName;
};

class CFileTransferHandler {
 public:
  static constexpr int kWindow = 5;
  static constexpr long kChunkWaitMs = 60000;
  static constexpr long kSendPollMs = 1000;

  explicit CFileTransferHandler(iFileTransferLink* link);
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
  // One chunk has been acknowledged: returns one credit.
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
  int Credits() const;
  bool Sending() const;
  bool Receiving() const;

  // The state a final report ("<digits>" then kFileFinal) carries. Only the first (length - 2)
  // characters are read, so a single digit reads as 0; the peers rely on this
  // reading, so it stays. Characters that are not digits give -1.
  static int ParseFinalState(const char* data, unsigned length);

 private:
  void post(const cVantrelMessage& request, bool back, const char* data, unsigned length, short type);
  // Taking a credit: reserved before the message goes out, so that an answer
  // quicker than this thread is counted; then waited for while none is left.
  void reserveCredit();
  void awaitCredit();
  void waitForWindow();
  // True when sending ended (by the final report or Stop) within `milliseconds`.
  bool waitSendingEnded(long milliseconds);
  void finish(int state);

  iFileTransferLink* const link_;

  mutable std::mutex mutex_;
  std::condition_variable cond_;
  int credits_ = kWindow;
  int window_ = kWindow;
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
