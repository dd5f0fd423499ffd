#include "vantrel/net/vantrelclientconnection.h"

#include <utility>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/fileuser.h"
#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/latency.h"
#include "vantrel/message/clientname.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/greeting.h"

using namespace vantrel::wire;
using nCommunication::nSocket::nImplementation_sho::gLatencyConfiguration;
using nCommunication::nSocket::nImplementation_sho::tLatencyPath;

CVantrelClientConnection::CVantrelClientConnection(cSocketHandle&& accepted,
                                                   std::shared_ptr<const cVantrelConnectionContext> context)
    : context_(std::move(context)),
      stats_(context_->stats != nullptr
                 ? context_->stats->AddConnection(vantrel::stats::tConnectionKind::eClient, false, false)
                 : std::make_shared<vantrel::stats::cConnectionStats>(vantrel::stats::tConnectionKind::eClient, false,
                                                                      false)),
      socket_(std::move(accepted), nullptr, "client"),
      port_(socket_.PeerPort()),
      peerUser_(vantrel::platform::gLoopbackPeerUser(socket_.Handle())),
      queuedBytes_(stats_->counters.queuedBytes) {
  if (!peerUser_) VLOG_WARN("CVantrelClientConnection - the user of the client on port %d is unknown", port_);
}

CVantrelClientConnection::~CVantrelClientConnection() {
  Terminate(true);
  if (context_->stats != nullptr) context_->stats->RemoveConnection(stats_);
}

void CVantrelClientConnection::countWritten(const VantrelClientEvent& event) {
  auto& counters = stats_->counters;
  const short type = event.getType();
  if (type == kDelivered)
    vantrel::stats::Add(counters.delivered);
  else if (type == kNotDelivered)
    vantrel::stats::Add(counters.notDelivered);
  vantrel::stats::Add(counters.messagesOut);
  vantrel::stats::Add(counters.bytesOut, event.getPackedBufLen());
}

void CVantrelClientConnection::Start() {
  RQPMutexGuard guard(lock_);
  if (terminated_) return;
  reader_.Start([this] { runReader(); }, "VTClntRdr", "CVantrelClientConnection:ReaderThread",
                context_->threadAttributes);
}

std::string CVantrelClientConnection::clientName() {
  RQPMutexGuard guard(lock_);
  return clientName_;
}

void CVantrelClientConnection::restartProcess() {
  if (context_->restartProcess) context_->restartProcess();
}

void CVantrelClientConnection::runReader() {
  vantrel::platform::cThread::RaiseCurrentPriority();
  try {
    doReading();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClientConnection::doReading - Error reading from socket %s", e.what());
    restartProcess();
  } catch (...) {
    VLOG_ERROR("CVantrelClientConnection::doReading - Error reading from socket ... ");
    restartProcess();
  }
  Terminate(false);
  VLOG_DEBUG("CVantrelClientConnection::StartReader - Done (%s,%d)", vantrel::log::Escaped(clientName()), port_);
}

void CVantrelClientConnection::runWriter() {
  doWriting();
  Terminate(false);
  VLOG_DEBUG("CVantrelClientConnection::StartWriter - Done (%s,%d)", vantrel::log::Escaped(clientName()), port_);
}

bool CVantrelClientConnection::greet(char* data, unsigned length, short type) {
  std::string name;
  if (!gReadGreetingName(data, length, name)) {
    VLOG_ERROR("CVantrelClientConnection::doReading - greeting of %u bytes is too short, connection closed", length);
    return false;
  }
  if (context_->sessions == nullptr) {
    VLOG_ERROR("CVantrelClientConnection::doReading - no session can be made, connection closed");
    return false;
  }
  if (const std::string problem = vantrel::ClientNameProblem(name); !problem.empty()) {
    VLOG_ERROR("CVantrelClientConnection::greet - client name \"%s\" refused: %s; connection closed (port %d)",
               vantrel::log::Escaped(name), problem, port_);
    // A reply of type 0 is the refusal that client libraries understand.
    socket_.SendTypedMessageZ2(0, kChannelAnswers, data, kGreetingSize);
    return false;
  }
  gFillGreetingReply(data, context_->hostName, context_->netPort);

  // Registered before the reply goes out, so the client is reachable as soon as
  // it knows it is connected.
  std::unique_ptr<iVantrelClientSession> session = context_->sessions->CreateClientSession(name, this);
  {
    RQPMutexGuard guard(lock_);
    if (!terminated_) {
      session_ = std::move(session);
      clientName_ = name;
      stats_->SetName(name);
      stats_->SetState(vantrel::stats::tLinkState::eConnected);
    }
  }
  if (session != nullptr) {
    // Terminated meanwhile: Terminate could not see the session.
    if (context_->router != nullptr) context_->router->removeClient(session.get());
    return false;
  }
  socket_.SendTypedMessageZ2(type, kChannelAnswers, data, length);
  RQPMutexGuard guard(lock_);
  if (terminated_) return false;
  registered_ = true;
  writer_.Start([this] { runWriter(); }, "VTClnWrtr", "CVantrelClientConnection:WriterThread",
                context_->threadAttributes);
  return true;
}

void CVantrelClientConnection::doReading() {
  short type = 0;
  short subtype = 0;
  char* data = nullptr;
  unsigned length = 0;
  if (!registered_) {
    if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, gLatencyConfiguration(tLatencyPath::local))) {
      {
        RQPMutexGuard guard(lock_);
        if (terminated_) return;  // closed by the service itself
      }
      if (socket_.PeerLeftSilently()) {
        // A port or health check: connected and closed without a word. Nothing
        // is wrong with the service, so it goes on.
        VLOG_DEBUG("CVantrelClientConnection::doReading - connection on port %d closed before its greeting (a probe)",
                   port_);
        return;
      }
      VLOG_ERROR("exiting vantrel with error. Message was not read  Should restart automatically");
      restartProcess();
      return;
    }
    const bool greeted = greet(data, length, type);
    StreamSocket::FreeMessage(data);
    if (!greeted) return;
  }
  iVantrelClientSession* session = session_.get();  // set once by this thread in greet
  auto* const latency = gLatencyConfiguration(tLatencyPath::local);
  for (;;) {
    data = nullptr;
    if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, latency)) {
      VLOG_DEBUG("CVantrelClientConnection::doReading - terminate");
      return;
    }
    vantrel::stats::Add(stats_->counters.messagesIn);
    vantrel::stats::Add(stats_->counters.bytesIn, length);
    if (!session->handleFrame(StreamSocket::tFrameData(data), length, type, subtype)) return;
  }
}

namespace {
// Messages up to this size may be written by the thread that routes them. A
// socket that polls writable has room for at least a third of its send buffer
// (never below a few KiB), so such a write cannot block that thread.
constexpr std::uint64_t kWriteNowBytes = 2048;
}  // namespace

std::uint64_t CVantrelClientConnection::queuedSize(const RWCollectable* item) {
  const auto* event = dynamic_cast<const VantrelClientEvent*>(item);
  if (event == nullptr || event->getType() == kDelivered || event->getType() == kNotDelivered) return 0;
  return event->getPackedBufLen();
}

std::unique_ptr<VantrelClientEvent> CVantrelClientConnection::sendable(std::unique_ptr<RWCollectable> item) {
  auto* event = dynamic_cast<VantrelClientEvent*>(item.get());
  if (event == nullptr) {
    VLOG_ERROR("CVantrelClientConnection::doWriting - unexpected %s on the queue dropped", item->nameOf());
    return nullptr;
  }
  const short subtype = event->getSubtype();
  if (subtype < 0 || subtype >= kChannelCount) {
    // The client uses the subtype as a queue index.
    VLOG_ERROR("CVantrelClientConnection::doWriting - message of type %d with subtype %d dropped", event->getType(),
               subtype);
    return nullptr;
  }
  item.release();
  return std::unique_ptr<VantrelClientEvent>(event);
}

void CVantrelClientConnection::doWriting() {
  std::vector<std::unique_ptr<VantrelClientEvent>> batch;
  batch.reserve(StreamSocket::kMaxBatch);
  StreamSocket::cOutgoingFrame frames[StreamSocket::kMaxBatch];
  try {
    for (;;) {
      RWCollectable* item = eventQueue().waitEvent();
      if (item == nullptr) return;
      // Whatever else is already waiting goes out in the same write.
      int taken = 0;
      std::uint64_t takenBytes = 0;
      while (item != nullptr) {
        ++taken;
        takenBytes += queuedSize(item);
        if (auto event = sendable(std::unique_ptr<RWCollectable>(item))) batch.push_back(std::move(event));
        if (batch.size() == StreamSocket::kMaxBatch) break;
        item = eventQueue().get();
      }
      queuedBytes_.fetch_sub(takenBytes, std::memory_order_acq_rel);
      for (std::size_t i = 0; i < batch.size(); ++i) {
        const VantrelClientEvent& event = *batch[i];
        frames[i] = {event.getType(), event.getSubtype(), event.getPackedBuf(),
                     static_cast<unsigned>(event.getPackedBufLen())};
      }
      const bool sent = socket_.SendTypedMessages(frames, batch.size());
      // Written: now their senders hear "delivered". Not written: clearing the
      // batch tells them "not delivered".
      if (sent) {
        for (auto& event : batch) {
          countWritten(*event);
          event->settle(true);
        }
      }
      batch.clear();
      unsent_.fetch_sub(taken, std::memory_order_acq_rel);
      if (!sent) return;
    }
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClientConnection::doWriting - Error writing to socket: %s", e.what());
  }
}

bool CVantrelClientConnection::Post(RWCollectable* event) {
  if (event == nullptr) return false;
  const std::uint64_t bytes = queuedSize(event);
  if (bytes > 0 && bytes <= kWriteNowBytes) {
    // Only messages take this way here; answers come through SendAnswer.
    std::unique_ptr<VantrelClientEvent> message(static_cast<VantrelClientEvent*>(event));
    if (writeNow(message)) return true;
    event = message.release();
  }
  if (bytes > 0 && queuedBytes_.fetch_add(bytes, std::memory_order_acq_rel) + bytes > context_->maxClientQueueBytes) {
    queuedBytes_.fetch_sub(bytes, std::memory_order_acq_rel);
    const auto* message = static_cast<const VantrelClientEvent*>(event);
    std::uint64_t total = 0;
    if (refused_.Count(total))
      VLOG_WARN(
          "CVantrelClientConnection::Post - queue of client %s is full (%llu bytes), message of type %d from %s "
          "refused (%llu refused so far)",
          vantrel::log::Escaped(clientName()), static_cast<unsigned long long>(context_->maxClientQueueBytes),
          message->getType(), vantrel::log::Escaped(message->getFromClient()), static_cast<unsigned long long>(total));
    vantrel::stats::Add(stats_->counters.drops);
    delete event;  // its sender, if it waits, hears "not delivered"
    return false;
  }
  unsent_.fetch_add(1, std::memory_order_acq_rel);
  if (eventQueue().putEvent(event)) return true;
  unsent_.fetch_sub(1, std::memory_order_acq_rel);
  queuedBytes_.fetch_sub(bytes, std::memory_order_acq_rel);
  return false;
}

void CVantrelClientConnection::dropQueued() {
  while (RWCollectable* item = eventQueue().get()) {
    queuedBytes_.fetch_sub(queuedSize(item), std::memory_order_acq_rel);
    delete item;
  }
}

void CVantrelClientConnection::SendAnswer(std::unique_ptr<VantrelClientEvent> answer) {
  if (answer == nullptr || writeNow(answer)) return;
  Post(answer.release());
}

bool CVantrelClientConnection::writeNow(std::unique_ptr<VantrelClientEvent>& event) {
  int idle = 0;
  if (!unsent_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel)) return false;
  // A client that reads nothing fills its socket; then its writer waits, not
  // the caller. The socket is ours alone while unsent_ is held.
  namespace platform = vantrel::platform;
  if (platform::gPoll(socket_.Handle(), platform::tReadiness::eWritable, nullptr, platform::gSteadyNowUs() + 1) !=
      platform::tPollResult::eReady) {
    unsent_.fetch_sub(1, std::memory_order_acq_rel);
    return false;
  }
  bool sent = true;
  std::unique_ptr<VantrelClientEvent> written = sendable(std::move(event));
  try {
    if (written)
      sent = socket_.SendTypedMessageZ2(written->getType(), written->getSubtype(), written->getPackedBuf(),
                                        static_cast<unsigned>(written->getPackedBufLen()));
  } catch (const std::exception& e) {
    // A failed write ends this connection only, whichever thread wrote.
    VLOG_ERROR("CVantrelClientConnection::doWriting - Error writing to socket: %s", e.what());
    sent = false;
  }
  unsent_.fetch_sub(1, std::memory_order_acq_rel);
  if (!sent) {
    // As when the writer fails: the connection ends (the reader's next wait
    // fails), and the unwritten message tells its sender so as it goes.
    socket_.CloseSocket();
    return true;
  }
  // Settled after the socket is free again, so that an answer this sets off
  // for a client writing to itself can take the direct way too.
  if (written) {
    countWritten(*written);
    written->settle(true);
  }
  return true;
}

void CVantrelClientConnection::Terminate(bool wait) {
  bool first = false;
  iVantrelClientSession* session = nullptr;
  {
    RQPMutexGuard guard(lock_);
    if (!terminated_) {
      first = true;
      VLOG_DEBUG("CVantrelClientConnection::Terminate (%s,%d)", vantrel::log::Escaped(clientName_), port_);
      socket_.CloseSocket();
      terminated_ = true;
      stats_->SetState(vantrel::stats::tLinkState::eClosed);
      eventQueue().TerminateZ72();
      session = session_.get();
    }
  }
  if (first) {
    if (session != nullptr && context_->router != nullptr) context_->router->removeClient(session);
    // The client will read nothing more: its senders learn it now, not when the
    // connection is finally deleted.
    dropQueued();
    if (context_->owner != nullptr) context_->owner->Ended(this);
  }
  if (wait) {
    reader_.Join();
    writer_.Join();
  }
}
