#include "vantrel/net/filetransferworker.h"

#include <cstring>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/VantrelToolKit.h"
#include "vantrel/net/pendinganswers.h"
#include "vantrel/net/vantrellinks.h"
#include "vantrel/support/associativearray.h"

cFileTransferWorker::cFileTransferWorker(iFileTransferWorkerLink* link, iVantrelRouter* router,
                                         nParallel::nImplementation_sho::cThreadAttributes threadAttributes)
    : link_(link), router_(router), threadAttributes_(std::move(threadAttributes)), handler_(link) {}

cFileTransferWorker::~cFileTransferWorker() { Stop(); }

void cFileTransferWorker::PostRequest(std::unique_ptr<VantrelHostEvent> request) {
  {
    std::lock_guard<std::mutex> guard(writerLock_);
    if (!writerClosed_) {
      requests_.push_back(std::move(request));
      if (!writerRunning_) {
        // The previous writer has cleared its mark and takes nothing more: it
        // only has to end, so joining it here is short.
        writer_.Reset();
        writerRunning_ = true;
        writer_.Start([this] { runWriter(); }, "VTHstFlWr", "CVantrelHostConnection:FileWriterThread",
                      threadAttributes_);
      }
      return;
    }
  }
  answerBroken(std::move(request));
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
  peerRequests_.putEvent(request.release());
  readerRunning_ = true;
  reader_.Start([this] { runReader(); }, "VTHstFlRd", "CVantrelHostConnection:FileReaderThread", threadAttributes_);
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
  for (auto& request : waiting) answerBroken(std::move(request));
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
    sendOneFile(std::move(request));
  }
}

void cFileTransferWorker::sendOneFile(std::unique_ptr<VantrelHostEvent> request) {
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
    result = handler_.SendFile(localFile, remoteFile, *request);
  }
  parameters.AddCouple(vantrel::wire::kCopyState, static_cast<long>(result->state));
  parameters.AddCouple(vantrel::wire::kCopyFileName, result->fileName);
  std::string text;
  long length = 0;
  parameters.ToString(text, length, false, false);
  std::unique_ptr<VantrelClientEvent> answer(VantrelToolKit::CreateReturnClientEvent(
      *request, text.data(), static_cast<unsigned>(length), vantrel::wire::kDelivered, QTYPE_ASYNC));
  if (router_ == nullptr || !router_->dispatchClientEvent(answer.get())) {
    VLOG_WARN("CVantrelHostConnection::doFileWriting - requester %s is gone, copy result dropped",
              vantrel::log::Escaped(request->getFromClient()));
    return;
  }
  answer.release();  // the requester's connection has it now
}

void cFileTransferWorker::answerBroken(std::unique_ptr<VantrelHostEvent> request) {
  auto answer = cPendingAnswers::BrokenAnswer(request->getMessageId(), request->getToHost(), request->getToClient(),
                                              request->getFromHost(), request->getFromClient(), QTYPE_ASYNC);
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
    const char* path = request.getData();
    const std::string destination(path, strnlen(path, request.getDatalen()));
    handler_.ReceiveFile(destination, request);
  }
  readerRunning_ = false;
}
