#include "vantrel/net/filetransferworker.h"

#include <cstring>
#include <utility>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/VantrelToolKit.h"
#include "vantrel/net/pendinganswers.h"
#include "vantrel/net/vantrellinks.h"
#include "vantrel/support/associativearray.h"

cFileTransferWorker::cFileTransferWorker(iFileTransferWorkerLink* link, iVantrelRouter* router,
                                         nParallel::nImplementation_sho::cThreadAttributes threadAttributes,
                                         std::shared_ptr<const cCopyPolicy> copies, cCopyFlowLimits flow,
                                         std::shared_ptr<vantrel::stats::cServiceStats> stats)
    : link_(link),
      router_(router),
      threadAttributes_(std::move(threadAttributes)),
      copies_(std::move(copies)),
      stats_(std::move(stats)),
      handler_(link, flow) {}

cFileTransferWorker::~cFileTransferWorker() { Stop(); }

void cFileTransferWorker::PostRequest(std::unique_ptr<VantrelHostEvent> request) {
  {
    std::lock_guard<std::mutex> guard(writerLock_);
    if (!writerClosed_) {
      requests_.push_back(std::move(request));
      if (writerRunning_) return;
      // The previous writer has cleared its mark and takes nothing more: it
      // only has to end, so joining it here is short.
      writer_.Reset();
      writerRunning_ = true;
      try {
        writer_.Start([this] { runWriter(); }, "VTHstFlWr", "CVantrelHostConnection:FileWriterThread",
                      threadAttributes_);
        return;
      } catch (const std::exception& e) {
        VLOG_ERROR("CVantrelHostConnection::StartFileWriter - Exception: %s", e.what());
        writerRunning_ = false;
      }
    } else {
      answerBroken(*request);
      return;
    }
  }
  // No writer could start: nothing queued would ever be copied.
  abandonQueued();
}

void cFileTransferWorker::abandonQueued() {
  std::deque<std::unique_ptr<VantrelHostEvent>> waiting;
  {
    std::lock_guard<std::mutex> guard(writerLock_);
    // A writer started meanwhile takes care of the queue.
    if (writerRunning_) return;
    waiting.swap(requests_);
  }
  for (auto& request : waiting) answerBroken(*request);
}

void cFileTransferWorker::OnPeerRequest(std::unique_ptr<VantrelHostEvent> request) {
  std::lock_guard<std::mutex> guard(readerLock_);
  if (readerClosed_) return;
  if (reader_.Started() && !reader_.Finished()) {
    VLOG_INFO("CVantrelHostConnection::doReading - new copy request from host %s, restarting the file reader",
              vantrel::log::Escaped(link_->HostText()));
    readerRunning_ = false;
    handler_.AbortReceive();
  }
  reader_.Reset();
  handler_.ArmReceive();
  const VantrelHostEvent& queued = *request;
  peerRequests_.putEvent(request.release());
  readerRunning_ = true;
  try {
    reader_.Start([this] { runReader(); }, "VTHstFlRd", "CVantrelHostConnection:FileReaderThread", threadAttributes_);
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::StartFileReader - Exception: %s", e.what());
    readerRunning_ = false;
    refusePeerRequest(queued);
    peerRequests_.clear();
  }
}

void cFileTransferWorker::refusePeerRequest(const VantrelHostEvent& request) {
  const std::string report = std::to_string(vantrel::wire::kCopyStopped) + '0' + vantrel::wire::kFileFinal;
  link_->PostFileEvent(std::unique_ptr<VantrelHostEvent>(VantrelToolKit::CreateReturnHostEvent(
      request, report.data(), static_cast<unsigned>(report.size()), vantrel::wire::kFileTraffic, QTYPE_SYNC)));
}

void cFileTransferWorker::OnTraffic(std::unique_ptr<VantrelHostEvent> traffic) {
  handler_.HandleFileEvent(std::move(traffic));
}

void cFileTransferWorker::Abort() { handler_.Stop(); }

void cFileTransferWorker::Stop() {
  handler_.Stop();
  std::deque<std::unique_ptr<VantrelHostEvent>> waiting;
  {
    std::lock_guard<std::mutex> guard(writerLock_);
    writerClosed_ = true;
    writerRunning_ = false;
    waiting.swap(requests_);
  }
  for (auto& request : waiting) answerBroken(*request);
  {
    std::lock_guard<std::mutex> guard(readerLock_);
    readerClosed_ = true;
    readerRunning_ = false;
    peerRequests_.clear();
    peerRequests_.TerminateZ72();
    // The reader needs none of these locks to end its receive.
    if (!reader_.IsCurrentThread()) reader_.Join();
  }
  // Not under the writer's lock: the writer takes it on its way out.
  if (!writer_.IsCurrentThread()) writer_.Join();
}

void cFileTransferWorker::runWriter() {
  try {
    writeFiles();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doFileWriting - Exception: %s", e.what());
    {
      std::lock_guard<std::mutex> guard(writerLock_);
      writerRunning_ = false;
    }
    abandonQueued();
  }
  VLOG_INFO("CVantrelHostConnection::StartFileWriter - Done, closing thread.\n");
}

void cFileTransferWorker::runReader() {
  try {
    readFiles();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doFileReading - Exception: %s", e.what());
  }
  VLOG_INFO("CVantrelHostConnection::StartFileReader - Done, closing thread.\n");
}

void cFileTransferWorker::writeFiles() {
  if (!link_->IsConnected()) {
    VLOG_INFO("CVantrelHostConnection::doFileWriting - waiting for connection to end");
    if (!link_->AwaitConnection()) {
      // Stop answers what is queued.
      std::lock_guard<std::mutex> guard(writerLock_);
      writerRunning_ = false;
      return;
    }
  }
  for (;;) {
    std::unique_ptr<VantrelHostEvent> request;
    {
      std::lock_guard<std::mutex> guard(writerLock_);
      if (!writerRunning_) return;
      // A request queued while the last one was copied keeps the writer going.
      if (requests_.empty()) {
        writerRunning_ = false;
        return;
      }
      request = std::move(requests_.front());
      requests_.pop_front();
    }
    try {
      sendOneFile(*request);
    } catch (const std::exception& e) {
      // This copy cannot go on; the next one may.
      VLOG_ERROR("CVantrelHostConnection::doFileWriting - Exception: %s", e.what());
      answerBroken(*request);
    }
  }
}

void cFileTransferWorker::sendOneFile(const VantrelHostEvent& event) {
  const VantrelHostEvent* request = &event;
  CAssociativeArray parameters;
  std::unique_ptr<cFileTransferResult> result;
  const bool readable = parameters.FromString(request->getData(), static_cast<long>(request->getDatalen()));
  const std::string localFile = parameters.GetValueOfParameter(vantrel::wire::kCopyLocalFile);
  const std::string remoteFile = parameters.GetValueOfParameter(vantrel::wire::kCopyRemoteFile);
  if (!readable || localFile.empty() || remoteFile.empty()) {
    VLOG_ERROR("CVantrelHostConnection::doFileWriting - copy request of %s without source or destination",
               vantrel::log::Escaped(request->getFromClient()));
    result = std::make_unique<cFileTransferResult>();
    result->state = VantrelToolKit::COPY_OPEN_FAILED;
    result->fileName = localFile;
  } else {
    // Requests that did not come from a local client's session have nobody's
    // rights to use: they are refused.
    const auto* copy = dynamic_cast<const cFileCopyRequest*>(request);
    if (copy != nullptr) {
      vantrel::stats::cCopyWatch watch(stats_.get(), vantrel::stats::cCopyProgress::tDirection::eSend, localFile,
                                       remoteFile, link_->HostText(), request->getFromClient());
      handler_.WatchProgress(true, watch.Progress());
      result = handler_.SendFile(localFile, remoteFile, *request, copy->Requester());
      handler_.WatchProgress(true, nullptr);
      watch.Finished(result->state == vantrel::wire::kCopyDone);
    } else {
      VLOG_ERROR("CVantrelHostConnection::doFileWriting - copy request of %s has no requester, refused",
                 request->getFromClient());
      result = std::make_unique<cFileTransferResult>();
      result->state = vantrel::wire::kCopyDenied;
      result->fileName = localFile;
    }
  }
  // The result repeats the request's parameters, so the application knows which copy it answers.
  const std::string echoed = readable ? std::string(request->getData(), request->getDatalen()) : std::string();
  std::unique_ptr<VantrelClientEvent> answer(VantrelToolKit::CreateCopyResultEvent(
      *request, echoed, result->state, result->fileName,
      copies_ != nullptr ? copies_->maxMessageSize : nVantrelIni::kDefaultMaxMessageSize));
  if (router_ == nullptr || !router_->dispatchClientEvent(answer.get())) {
    VLOG_WARN("CVantrelHostConnection::doFileWriting - requester %s is gone, copy result dropped",
              vantrel::log::Escaped(request->getFromClient()));
    return;
  }
  answer.release();  // the requester's connection has it now
}

void cFileTransferWorker::answerBroken(const VantrelHostEvent& request) {
  auto answer = cPendingAnswers::BrokenAnswer(request.getMessageId(), request.getToHost(), request.getToClient(),
                                              request.getFromHost(), request.getFromClient(), QTYPE_ASYNC);
  if (router_ != nullptr && router_->dispatchClientEvent(answer.get())) answer.release();
}

void cFileTransferWorker::readFiles() {
  if (!link_->IsConnected()) {
    VLOG_INFO("CVantrelHostConnection::doFileReading - waiting for connection to end");
    if (!link_->AwaitConnection()) {
      readerRunning_ = false;
      return;
    }
  }
  while (readerRunning_) {
    std::unique_ptr<RWCollectable> item(peerRequests_.get());
    if (item == nullptr) break;
    const auto& request = static_cast<const VantrelHostEvent&>(*item);
    const cAnnouncedCopy copy = cAnnouncedCopy::Parse(request.getData(), request.getDatalen());
    const std::string peer = link_->HostText();
    vantrel::stats::cCopyWatch watch(stats_.get(), vantrel::stats::cCopyProgress::tDirection::eReceive, "", copy.path,
                                     peer, peer);
    handler_.WatchProgress(false, watch.Progress());
    const int state = handler_.ReceiveFile(copy.path, request, copy.size, cCopyRequester::Host(peer, copies_));
    handler_.WatchProgress(false, nullptr);
    watch.Finished(state == vantrel::wire::kCopyDone);
  }
  readerRunning_ = false;
}
