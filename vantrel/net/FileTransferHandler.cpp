#include "vantrel/net/FileTransferHandler.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/VantrelToolKit.h"

using namespace vantrel::wire;

namespace {
constexpr int kCopied = kCopyDone;
constexpr int kOpenFailed = kCopyOpenFailed;
constexpr int kCloseFailed = kCopyCloseFailed;
constexpr int kSenderFailed = kCopyReadFailed;
constexpr int kReceiverGaveUp = kCopyWriteFailed;
constexpr int kStopped = kCopyStopped;

std::atomic<CFileTransferHandler::tChunkReadHook> gChunkReadHook{nullptr};
}  // namespace

int cCopyFlowLimits::WindowChunks() const {
  const std::uint64_t chunks = windowBytes / kFileChunkSize;
  return static_cast<int>(std::clamp<std::uint64_t>(chunks, 1, 1u << 20));
}

CFileTransferHandler::CFileTransferHandler(iFileTransferLink* link, cCopyFlowLimits limits)
    : link_(link), limits_(limits) {
  VLOG_DEBUG("CFileTransferHandler::CFileTransferHandler - initializing.");
}

CFileTransferHandler::~CFileTransferHandler() = default;

void CFileTransferHandler::SetChunkReadHook(tChunkReadHook hook) {
  gChunkReadHook.store(hook, std::memory_order_release);
}

cCopyInFlight CFileTransferHandler::InFlight() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return flight_;
}

bool CFileTransferHandler::Sending() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sending_;
}

bool CFileTransferHandler::Receiving() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return receiving_;
}

void CFileTransferHandler::post(const cVantrelMessage& request, bool back, const char* data, unsigned length,
                                short type) {
  link_->PostFileEvent(std::unique_ptr<VantrelHostEvent>(
      back ? VantrelToolKit::CreateReturnHostEvent(request, data, length, type, QTYPE_SYNC)
           : VantrelToolKit::CreateSendHostEvent(request, data, length, type, QTYPE_SYNC)));
}

void CFileTransferHandler::reserve() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++flight_.inFlight;
  sentAt_.push_back(std::chrono::steady_clock::now());
}

void CFileTransferHandler::clearFlight() {
  flight_.inFlight = 0;
  sentAt_.clear();
}

template <class Done>
bool CFileTransferHandler::awaitPeer(std::unique_lock<std::mutex>& lock, Done done) {
  // The deadline moves with every answer of the peer: a slow link that keeps
  // acknowledging never times out, a silent one does.
  for (;;) {
    const auto deadline = lastHeard_ + limits_.ackTimeout;
    if (cond_.wait_until(lock, deadline, done)) return true;
    if (std::chrono::steady_clock::now() >= lastHeard_ + limits_.ackTimeout) return false;
  }
}

bool CFileTransferHandler::awaitRoom() {
  std::unique_lock<std::mutex> lock(mutex_);
  return awaitPeer(lock, [this] { return !sending_ || flight_.Room(); });
}

bool CFileTransferHandler::awaitAccepted() {
  std::unique_lock<std::mutex> lock(mutex_);
  return awaitPeer(lock, [this] { return !sending_ || flight_.inFlight == 0; });
}

bool CFileTransferHandler::waitForWindow() {
  std::unique_lock<std::mutex> lock(mutex_);
  // Reads the receiving flag on purpose: a host that only sends does not wait
  // here, and the peers are built around that.
  return awaitPeer(lock, [this] { return !receiving_ || flight_.inFlight == 0; });
}

bool CFileTransferHandler::awaitSendingEnded() {
  std::unique_lock<std::mutex> lock(mutex_);
  return awaitPeer(lock, [this] { return !sending_; });
}

void CFileTransferHandler::finish(int state) {
  std::lock_guard<std::mutex> lock(mutex_);
  sending_ = false;
  clearFlight();
  // A report of success before the destination was accepted comes from a peer
  // that reads one digit: it could not open the destination.
  finalState_ = state == kCopied && !accepted_ ? kOpenFailed : state;
  cond_.notify_all();
}

void CFileTransferHandler::abandon(const cVantrelMessage& request, const std::string& dstPath) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sending_ = false;
    clearFlight();
    finalState_ = kStopped;
    cond_.notify_all();
  }
  VLOG_ERROR("CFileTransferHandler::SendFile - no answer from %s for %lld s; the copy to %s is abandoned",
             vantrel::log::Escaped(link_->HostText()),
             static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(limits_.ackTimeout).count()),
             vantrel::log::Escaped(dstPath));
  // A receiver that is only slow drops its partial file and reports; that late
  // report finds no copy waiting for it.
  const char abort = kFileAbort;
  post(request, false, &abort, 1, kFileTraffic);
}

std::unique_ptr<cFileTransferResult> CFileTransferHandler::SendFile(const std::string& localPath,
                                                                    const std::string& dstPath,
                                                                    const cVantrelMessage& request,
                                                                    const cCopyRequester& requester) {
  VLOG_DEBUG("CFileTransferHandler::SendFile(dstFilePath=%s) - starting", vantrel::log::Escaped(dstPath));
  auto result = std::make_unique<cFileTransferResult>();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopRequested_) {
      // The link is gone: nothing could be sent or answered.
      result->state = kStopped;
      result->fileName = dstPath;
      VLOG_INFO("CFileTransferHandler::SendFile - done");
      return result;
    }
    sending_ = true;
    accepted_ = false;
    flight_.Begin(limits_.WindowChunks(), limits_.roundTripNoise);
    sentAt_.clear();
    lastHeard_ = std::chrono::steady_clock::now();
  }
  cCopySource source;
  const int opened = source.Open(requester, localPath);
  if (opened != kCopied) {
    {
      // Nothing was asked of the peer, so nothing of it is to be accepted.
      std::lock_guard<std::mutex> lock(mutex_);
      sending_ = false;
      cond_.notify_all();
    }
    result->state = opened;
    result->fileName = localPath;
    VLOG_INFO("CFileTransferHandler::SendFile - done");
    return result;
  }
  const std::uint64_t announced = source.Status().size;
  if (sendProgress_ != nullptr) sendProgress_->bytesTotal.store(announced, std::memory_order_relaxed);

  // The copy request goes alone; the peer's "A" acknowledges it.
  reserve();
  const std::string requestData = cAnnouncedCopy::Build(dstPath, announced);
  post(request, false, requestData.data(), static_cast<unsigned>(requestData.size()), kFileRequest);
  bool answering = awaitAccepted();
  if (answering) {
    std::lock_guard<std::mutex> lock(mutex_);
    flight_.Open();
  }

  const tChunkReadHook hook = gChunkReadHook.load(std::memory_order_acquire);
  std::uint64_t total = 0;
  bool finished = false;
  while (answering && !finished) {
    // Room first, then the read: a chunk is never held while the window is full.
    answering = awaitRoom();
    if (!answering) break;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!sending_) break;
    }
    // The chunk is read straight into its record; only a short last chunk is
    // copied once more, into a record of its own size.
    std::unique_ptr<VantrelHostEvent> chunk(
        VantrelToolKit::CreateSendHostEvent(request, cVantrelMessage::tDataSpace{kFileChunkSize + 1}, kFileTraffic));
    char* data = chunk->mutableData();
    const auto read = source.File().ReadFull(data, kFileChunkSize);
    if (!read) {
      const int error = vantrel::platform::gLastFileError();
      VLOG_ERROR("CFileTransferHandler::SendFile - error reading %s: %s", vantrel::log::Escaped(localPath),
                 vantrel::platform::gFileErrorText(error));
      break;
    }
    const std::size_t count = *read;
    total += count;
    if (sendProgress_ != nullptr) sendProgress_->bytesDone.store(total, std::memory_order_relaxed);
    if (hook != nullptr) hook(localPath, total);
    const bool last = count < kFileChunkSize;
    // A source that grew, shrank or was rewritten would arrive as a mixture of
    // two versions: the copy is abandoned instead.
    if (total > announced || (last && (total != announced || source.Changed()))) {
      VLOG_ERROR("CFileTransferHandler::SendFile - %s changed during the copy for %s (%llu bytes read, %llu announced)",
                 vantrel::log::Escaped(localPath), vantrel::log::Escaped(requester.Who()),
                 static_cast<unsigned long long>(total), static_cast<unsigned long long>(announced));
      break;
    }
    data[count] = last ? kFileLastChunk : kFileChunk;
    if (count < kFileChunkSize) {
      chunk.reset(VantrelToolKit::CreateSendHostEvent(request, data, static_cast<unsigned>(count + 1), kFileTraffic,
                                                      QTYPE_SYNC));
    }
    reserve();
    link_->PostFileEvent(std::move(chunk));
    if (last) {
      answering = waitForWindow();
      finished = answering;
    }
  }
  const bool closeFailed = !source.File().Close();

  int state = kCopied;
  bool decided = false;
  if (answering && !finished) {
    bool stillSending = false;
    bool stopped = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stillSending = sending_;
      stopped = stopRequested_;
    }
    if (stillSending || stopped) {
      const char abort = kFileAbort;
      post(request, false, &abort, 1, kFileTraffic);
      if (stillSending) {
        answering = awaitSendingEnded();
        state = kSenderFailed;
      } else {
        state = kStopped;
      }
      decided = true;
    }
  }
  if (answering && !decided) {
    answering = awaitSendingEnded();
    int finalState = 0;
    bool stopped = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      finalState = finalState_;
      stopped = stopRequested_;
    }
    // A link that broke before the receiver's report cannot vouch for the copy.
    if (stopped || (finalState != kCopied && finalState != kStopped)) {
      state = kStopped;
    } else {
      state = closeFailed ? kCloseFailed : kCopied;
    }
  }
  if (!answering) {
    abandon(request, dstPath);
    state = kStopped;
  }
  if (state == kStopped) {
    std::lock_guard<std::mutex> lock(mutex_);
    // An unreadable report carries no state of its own.
    result->state = finalState_ < 0 ? kStopped : finalState_;
    result->fileName = dstPath;
  } else {
    result->state = state;
    result->fileName = localPath;
  }
  VLOG_INFO("CFileTransferHandler::SendFile - done");
  return result;
}

int CFileTransferHandler::ReceiveFile(const std::string& dstPath, const cVantrelMessage& request,
                                      std::optional<std::uint64_t> announcedSize, const cCopyRequester& requester) {
  VLOG_DEBUG("CFileTransferHandler::ReceiveFile(dstFilePath=%s) - starting", vantrel::log::Escaped(dstPath));
  int state = kStopped;
  bool stopped = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped = stopRequested_ || receiveAborted_;
    if (!stopped) {
      receiving_ = true;
      // Anything left from an earlier transfer is stale.
      chunks_.clear();
      chunks_.InitZ72();
    }
  }
  cCopyTarget target;
  const int opened = stopped ? kStopped : target.Open(requester, dstPath);
  if (!stopped) state = opened;
  if (opened == kCopied) {
    const char accepted = kFileAccepted;
    post(request, true, &accepted, 1, kFileTraffic);
    if (receiveProgress_ != nullptr && announcedSize)
      receiveProgress_->bytesTotal.store(*announcedSize, std::memory_order_relaxed);
    std::uint64_t total = 0;
    bool finished = false;
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!receiving_) break;
      }
      if (finished) break;
      RWCollectable* item = nullptr;
      if (chunks_.waitEvent(item, chunkWaitMs_) != htEvent || item == nullptr) break;
      std::unique_ptr<VantrelHostEvent> chunk(static_cast<VantrelHostEvent*>(item));
      const unsigned length = chunk->getDatalen();
      const char* data = chunk->getData();
      if (length > 1 && !target.Write(data, length - 1)) {
        const int error = vantrel::platform::gLastFileError();
        VLOG_ERROR("CFileTransferHandler::ReceiveFile - error writing %s: %s", vantrel::log::Escaped(dstPath),
                   vantrel::platform::gFileErrorText(error));
        break;
      }
      total += length - 1;
      if (receiveProgress_ != nullptr) receiveProgress_->bytesDone.store(total, std::memory_order_relaxed);
      if (data[length - 1] == kFileLastChunk) finished = true;
      const char written = kFileChunkWritten;
      post(request, true, &written, 1, kFileTraffic);
    }
    bool stillReceiving = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stillReceiving = receiving_;
    }
    if (finished && stillReceiving) {
      if (announcedSize && total != *announcedSize) {
        VLOG_ERROR(
            "CFileTransferHandler::ReceiveFile - %llu bytes arrived for %s from %s, %llu were announced; discarded",
            static_cast<unsigned long long>(total), vantrel::log::Escaped(dstPath),
            vantrel::log::Escaped(requester.Who()), static_cast<unsigned long long>(*announcedSize));
        target.Discard();
        state = kSenderFailed;
      } else {
        state = target.Commit();
      }
    } else {
      chunks_.TerminateZ72();
      target.Discard();
      state = stillReceiving ? kReceiverGaveUp : kStopped;
    }
  }
  // One digit more than the state: peers drop the last digit when they read it.
  const std::string report = std::to_string(state) + '0' + kFileFinal;
  post(request, true, report.data(), static_cast<unsigned>(report.size()), kFileTraffic);
  VLOG_INFO("CFileTransferHandler::ReceiveFile - done");
  return state;
}

int CFileTransferHandler::ParseFinalState(const char* data, unsigned length) {
  if (length < 2) return 0;
  const unsigned digits = length - 2;
  // More digits than any state has cannot be a state.
  if (digits > 9) return -1;
  int value = 0;
  for (unsigned i = 0; i < digits; ++i) {
    if (data[i] < '0' || data[i] > '9') return -1;
    value = value * 10 + (data[i] - '0');
  }
  return value;
}

void CFileTransferHandler::HandleFileEvent(const char* data, unsigned length, short type, short subtype) {
  HandleFileEvent(std::make_unique<VantrelHostEvent>(data, static_cast<long>(length), type, subtype));
}

void CFileTransferHandler::HandleFileEvent(std::unique_ptr<VantrelHostEvent> event) {
  VLOG_DEBUG("CFileTransferHandler::HandleFileEvent(type=%d)", event->getType());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!sending_ && !receiving_) {
      VLOG_WARN("CFileTransferHandler::HandleFileEvent - no transfer in progress, message of %u bytes ignored",
                event->getPackedBufLen());
      return;
    }
  }
  if (!event->isValid() || event->getDatalen() == 0) {
    VLOG_WARN("CFileTransferHandler::HandleFileEvent - malformed file message dropped");
    return;
  }
  const char* payload = event->getData();
  const unsigned payloadLength = event->getDatalen();
  const char marker = payload[payloadLength - 1];
  switch (marker) {
    case kFileAccepted: {
      std::lock_guard<std::mutex> lock(mutex_);
      accepted_ = true;
    }
      acknowledge(false);
      return;
    case kFileChunkWritten:
      SetFileChunkEventAck();
      return;
    case kFileChunk:
    case kFileLastChunk:
      PutFileChunkEvent(std::move(event));
      return;
    case kFileAbort: {
      VLOG_INFO("CFileTransferHandler::HandleFileEvent - the sender aborts");
      std::lock_guard<std::mutex> lock(mutex_);
      receiving_ = false;
      chunks_.TerminateZ72();
      cond_.notify_all();
      return;
    }
    case kFileFinal: {
      int state = ParseFinalState(payload, payloadLength);
      if (state < 0) {
        VLOG_WARN("CFileTransferHandler::HandleFileEvent - final report '%s' is not a number, taken as a failure",
                  vantrel::log::Escaped(std::string(payload, payloadLength)));
      }
      finish(state);
      return;
    }
    default:
      VLOG_WARN("CFileTransferHandler::HandleFileEvent - unknown marker %d dropped",
                static_cast<int>(static_cast<unsigned char>(marker)));
      return;
  }
}

void CFileTransferHandler::PutFileChunkEvent(std::unique_ptr<VantrelHostEvent> event) {
  VLOG_DEBUG("CFileTransferHandler::PutFileChunkEvent");
  // A terminated queue deletes what it refuses.
  chunks_.putEvent(event.release());
}

void CFileTransferHandler::SetFileChunkEventAck() { acknowledge(true); }

void CFileTransferHandler::acknowledge(bool grow) {
  bool surplus = false;
  int window = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    lastHeard_ = now;
    const auto roundTrip = sentAt_.empty() ? cCopyInFlight::tDuration::max() : now - sentAt_.front();
    if (!sentAt_.empty()) sentAt_.pop_front();
    // An acknowledgement of nothing must not let more than the window go.
    if (!flight_.Acknowledge(grow, roundTrip) && !flight_.surplusReported) {
      flight_.surplusReported = true;
      surplus = true;
    }
    window = flight_.window;
    cond_.notify_all();
  }
  if (surplus) {
    VLOG_ERROR(
        "CFileTransferHandler::SetFileChunkEventAck - protocol error: %s acknowledges more than was sent; the "
        "surplus is ignored",
        vantrel::log::Escaped(link_->HostText()));
  }
  VLOG_DEBUG("CFileTransferHandler::SetFileChunkEventAck(Counter=%d)", window);
}

void CFileTransferHandler::Stop() {
  // Every link stops its own handler; a stop never waits for another one.
  std::lock_guard<std::mutex> lock(mutex_);
  stopRequested_ = true;
  sending_ = false;
  clearFlight();
  finalState_ = kStopped;
  receiving_ = false;
  chunks_.TerminateZ72();
  cond_.notify_all();
}

void CFileTransferHandler::AbortReceive() {
  std::lock_guard<std::mutex> lock(mutex_);
  receiveAborted_ = true;
  receiving_ = false;
  chunks_.TerminateZ72();
  cond_.notify_all();
}

void CFileTransferHandler::ArmReceive() {
  std::lock_guard<std::mutex> lock(mutex_);
  receiveAborted_ = false;
}
