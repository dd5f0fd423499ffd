#include "vantrel/net/vantrelnetconnection.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/env/integer.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/address.h"
#include "vantrel/base/socket/latency.h"
#include "vantrel/message/wire.h"

using namespace vantrel::wire;
using nCommunication::nSocket::nImplementation_sho::cTlsSettings;
using nCommunication::nSocket::nImplementation_sho::gLatencyConfiguration;
using nCommunication::nSocket::nImplementation_sho::gSplitHostPort;
using nCommunication::nSocket::nImplementation_sho::tLatencyPath;

namespace {
std::shared_ptr<vantrel::stats::cConnectionStats> LinkStats(const cVantrelConnectionContext& context, bool outgoing,
                                                            bool tls) {
  if (context.stats != nullptr)
    return context.stats->AddConnection(vantrel::stats::tConnectionKind::eLink, outgoing, tls);
  return std::make_shared<vantrel::stats::cConnectionStats>(vantrel::stats::tConnectionKind::eLink, outgoing, tls);
}
}  // namespace

namespace {
constexpr long kDefaultPingSeconds = 120;

bool IsWaitedRequest(short type) { return type == kSend || type == kSendNoWait; }
// What counts against the queue bound: the messages clients send, not answers
// or file traffic (which has its own acknowledgements).
bool IsBoundedMessage(short type) { return type == kSend || type == kSendNoResponse || type == kSendNoWait; }
QType AnswerQType(short requestType) { return requestType == kSendNoWait ? QTYPE_ASYNC : QTYPE_SYNC; }

cTlsSettings TlsSettings(const cVantrelTlsChoice& tls) {
  return cTlsSettings{tls.certificatesPath, tls.verifyServerCertificate, tls.verifyClientCertificate};
}
}  // namespace

tLinkHandshake gReadLinkHandshake(short type, short subtype, const char* data, unsigned length, std::string& peer) {
  // The host text is sent with its terminating zero; the last byte is never
  // part of it, whatever it holds.
  peer.assign(data, data != nullptr && length > 0 ? strnlen(data, length - 1) : 0);
  if (subtype != kVersionMarker) return tLinkHandshake::eObsolete;
  if (type != kHostName || peer.empty()) return tLinkHandshake::eNotHostName;
  return tLinkHandshake::eOk;
}

CVantrelHostConnection::CVantrelHostConnection(const std::string& hostText,
                                               std::shared_ptr<const cVantrelConnectionContext> context)
    : context_(std::move(context)),
      outgoing_(true),
      stats_(LinkStats(*context_, true, context_->tls.useOpenSsl)),
      host_(hostText),
      socket_(context_->tls.useOpenSsl, "link " + hostText),
      lastActivity_(RQPSysTime()),
      lastReceived_(RQPSysTime()),
      queuedBytes_(stats_->counters.queuedBytes),
      answers_(std::make_shared<cAnswerPath>(
          [this](const cVantrelMessage& request, bool delivered) { answerPeer(request, delivered); })),
      files_(this, context_->router, context_->threadAttributes, context_->copies,
             cCopyFlowLimits::From(context_->fileCopyWindowBytes, context_->answerTimeoutSeconds), context_->stats) {
  if (context_->tls.useOpenSsl) socket_.SetTlsSettings(TlsSettings(context_->tls));
  stats_->SetName(hostText);
  pending_.SetGauge(&stats_->counters.pendingAnswers);
  postHandler_ = signOn([this](BaseEvent* event) { return post(event); });
  if (context_->router != nullptr) context_->router->registerHostEvent(hostText.c_str(), this, postHandler_);
}

CVantrelHostConnection::CVantrelHostConnection(cSocketHandle&& accepted, cTlsConnectionState tlsState,
                                               std::shared_ptr<const cVantrelConnectionContext> context)
    : context_(std::move(context)),
      outgoing_(false),
      stats_(LinkStats(*context_, false, static_cast<bool>(tlsState))),
      socket_(std::move(accepted), tlsState, "link"),
      lastActivity_(RQPSysTime()),
      lastReceived_(RQPSysTime()),
      queuedBytes_(stats_->counters.queuedBytes),
      answers_(std::make_shared<cAnswerPath>(
          [this](const cVantrelMessage& request, bool delivered) { answerPeer(request, delivered); })),
      files_(this, context_->router, context_->threadAttributes, context_->copies,
             cCopyFlowLimits::From(context_->fileCopyWindowBytes, context_->answerTimeoutSeconds), context_->stats) {
  if (tlsState) socket_.SetTlsSettings(TlsSettings(context_->tls));
  pending_.SetGauge(&stats_->counters.pendingAnswers);
  postHandler_ = signOn([this](BaseEvent* event) { return post(event); });
}

CVantrelHostConnection::~CVantrelHostConnection() {
  // Joins every thread, the worker's too: nothing counts any more.
  Terminate(true);
  if (context_->stats != nullptr) context_->stats->RemoveConnection(stats_);
}

void CVantrelHostConnection::countWritten(short type, std::size_t bytes) {
  auto& counters = stats_->counters;
  if (type == kDelivered)
    vantrel::stats::Add(counters.delivered);
  else if (type == kNotDelivered)
    vantrel::stats::Add(counters.notDelivered);
  vantrel::stats::Add(counters.messagesOut);
  vantrel::stats::Add(counters.bytesOut, bytes);
}

std::string CVantrelHostConnection::HostText() const {
  std::lock_guard<std::mutex> guard(hostMutex_);
  return host_;
}

long CVantrelHostConnection::PingTimeoutSeconds() {
  RQEnvContainerClass env;
  const char* text = env.RQEGetEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS");
  if (text == nullptr || *text == '\0') return kDefaultPingSeconds;
  std::string error;
  const auto seconds = vantrel::env::ParseInteger(text, INT32_MIN, INT32_MAX, &error);
  if (!seconds) {
    VLOG_WARN("CVantrelHostConnection - VANTREL_INTERNAL_PING_TIMEOUT_SECONDS %s, %ld used", error,
              kDefaultPingSeconds);
    return kDefaultPingSeconds;
  }
  // A shorter span would make the writer check faster than it can measure.
  return *seconds < 1 ? 1 : static_cast<long>(*seconds);
}

void CVantrelHostConnection::Start() {
  try {
    RQPMutexGuard guard(lock_);
    if (terminated_) return;
    if (outgoing_) {
      writer_.Start([this] { runWriter(); }, "VTHstWrtr", "CVantrelHostConnection:WriterThread",
                    context_->threadAttributes);
    } else {
      reader_.Start([this] { runReader(); }, "VTHstRdr", "CVantrelHostConnection:ReaderThread",
                    context_->threadAttributes);
    }
    return;
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::Start - Exception: %s", e.what());
  }
  // A link without its thread would stay registered and never end.
  Terminate(false);
}

void CVantrelHostConnection::runReader() {
  try {
    doReading();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doReading - Exception: %s", e.what());
  }
  bool ended = false;
  {
    RQPMutexGuard guard(lock_);
    ended = terminated_;
  }
  // A plain link whose peer hangs up before its first byte is, most often, a
  // TLS service that could not read our plain host-name message.
  if (!ended && outgoing_ && !givenWay_.load(std::memory_order_acquire))
    fail(socket_.PeerLeftSilently() && !context_->tls.useOpenSsl
             ? "the peer closed the link without a word; does it use TLS (UseOpenSsl = 1)?"
             : "the peer closed the link or the connection was lost");
  VLOG_DEBUG("CVantrelHostConnection::StartReader - before terminate");
  Terminate(false);
  VLOG_DEBUG("CVantrelHostConnection::StartReader - Done");
}

void CVantrelHostConnection::runWriter() {
  try {
    doWriting();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doWriting - Exception: %s", e.what());
  }
  Terminate(false);
  VLOG_DEBUG("CVantrelHostConnection::StartWriter - Done(%s,%d)", vantrel::log::Escaped(HostText()),
             socket_.PeerPort());
}

void CVantrelHostConnection::connected() {
  stats_->SetState(vantrel::stats::tLinkState::eConnected);
  pending_.Open();
  connectedEvent_.Set();
}

void CVantrelHostConnection::connectFailed() { connectedEvent_.Set(); }

bool CVantrelHostConnection::AwaitConnection() {
  connectedEvent_.Wait();
  return pending_.IsOpen();
}

bool CVantrelHostConnection::connectToPeer() {
  const std::string text = HostText();
  const auto split = gSplitHostPort(text, context_->addressPortDelimiter.c_str());
  unsigned short port = context_->netPort;
  if (!split.hasDelimiter) {
    VLOG_DEBUG("CVantrelHostConnection::connect - port not set");
  } else if (!split.port.has_value()) {
    VLOG_ERROR("CVantrelHostConnection::connect - host text '%s' carries no valid port", vantrel::log::Escaped(text));
    fail("the host text carries no valid port");
    return false;
  } else {
    port = *split.port;
  }
  VLOG_INFO("Connecting to %s:%d.", vantrel::log::Escaped(split.host), port);
  try {
    std::string why;
    if (!socket_.Connect(split.host, port, context_->netOptions, &why)) {
      if (!why.empty()) fail(why);  // empty: closed by the service itself
      return false;
    }
  } catch (const std::exception& e) {
    // Unusable TLS files: nothing can be sent on this link.
    VLOG_ERROR("CVantrelHostConnection::connect - %s", e.what());
    fail(e.what());
    return false;
  }
  // A name that resolves to one of this host's own addresses leads back here;
  // such messages are delivered locally, never over a link to itself.
  const std::string reached = socket_.PeerAddress() + context_->addressPortDelimiter + std::to_string(port);
  if (context_->router != nullptr && context_->router->isLocalHost(reached.c_str())) {
    VLOG_ERROR("CVantrelHostConnection::connect - %s leads back to this service (%s); link refused",
               vantrel::log::Escaped(text), reached);
    fail("the address leads back to this service");
    return false;
  }
  const std::string& me = context_->addressHostText;
  if (!socket_.SendTypedMessageZ2(kHostName, kVersionMarker, me.c_str(), static_cast<unsigned>(me.size() + 1))) {
    VLOG_ERROR("Error sending host-name message to host %s.", vantrel::log::Escaped(text));
    fail("the connection was lost before the host-name message went out");
    return false;
  }
  VLOG_INFO("Connection to %s:%d Succeeded.", vantrel::log::Escaped(split.host), port);
  lastActivity_ = RQPSysTime();
  return true;
}

bool CVantrelHostConnection::receiveHandshake() {
  if (!socket_.CompleteAcceptHandshake(context_->netOptions)) {
    VLOG_ERROR("CVantrelHostConnection::doReading - TLS handshake with %s failed", socket_.PeerAddress());
    connectFailed();
    return false;
  }
  short type = 0;
  short subtype = 0;
  char* data = nullptr;
  unsigned length = 0;
  if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, gLatencyConfiguration(tLatencyPath::net))) {
    VLOG_ERROR("CVantrelHostConnection::doReading - Error receiving connection from host %s, No Data .",
               socket_.PeerAddress());
    connectFailed();
    return false;
  }
  std::string peer;
  const tLinkHandshake handshake = gReadLinkHandshake(type, subtype, data, length, peer);
  StreamSocket::FreeMessage(data);
  if (handshake == tLinkHandshake::eObsolete) {
    VLOG_ERROR(
        "CVantrelHostConnection::doReading - Error receiving connection from host %s, Vantrel version there is "
        "Obsolete.",
        vantrel::log::Escaped(peer));
    connectFailed();
    return false;
  }
  if (handshake != tLinkHandshake::eOk) {
    VLOG_ERROR("CVantrelHostConnection::doReading - first message from %s is not a host-name message (type %d)",
               socket_.PeerAddress(), type);
    connectFailed();
    return false;
  }
  if (!admitPeer(peer)) {
    connectFailed();
    return false;
  }
  {
    std::lock_guard<std::mutex> guard(hostMutex_);
    host_ = peer;
  }
  stats_->SetName(peer);
  iVantrelRouter* router = context_->router;
  if (router != nullptr) router->registerHostEvent(peer.c_str(), this, postHandler_);
  if (context_->owner != nullptr) context_->owner->Admitted(this);
  VLOG_INFO("CVantrelHostConnection::doReading - Received a connection from host: %s", vantrel::log::Escaped(peer));
  connected();
  bool terminated = false;
  {
    RQPMutexGuard guard(lock_);
    terminated = terminated_;
    if (!terminated) {
      writer_.Start([this] { runWriter(); }, "VTHstWrtr", "CVantrelHostConnection:WriterThread",
                    context_->threadAttributes);
    }
  }
  if (terminated) {
    // Terminate ran before the registration and could not undo it.
    if (router != nullptr) router->removeHost(this);
    return false;
  }
  return true;
}

bool CVantrelHostConnection::admitPeer(const std::string& peer) {
  // Registered under its own name, a peer would take this service's messages.
  if (context_->router != nullptr && context_->router->isLocalHost(peer.c_str())) {
    VLOG_ERROR("CVantrelHostConnection::doReading - host %s from %s names this service itself; link refused",
               vantrel::log::Escaped(peer), socket_.PeerAddress());
    return false;
  }
  if (!context_->tls.useOpenSsl || !context_->tls.verifyClientCertificate) return true;
  // The name a peer gives itself must be one its verified certificate proves.
  const std::string host = gSplitHostPort(peer, context_->addressPortDelimiter).host;
  if (socket_.PeerCertificateNames(host)) return true;
  VLOG_ERROR("CVantrelHostConnection::doReading - host %s from %s is not named by its certificate; link refused",
             vantrel::log::Escaped(peer), socket_.PeerAddress());
  return false;
}

void CVantrelHostConnection::doReading() {
  if (!outgoing_ && !receiveHandshake()) return;
  auto* const latency = gLatencyConfiguration(tLatencyPath::net);
  for (;;) {
    short type = 0;
    short subtype = 0;
    char* data = nullptr;
    unsigned length = 0;
    if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, latency)) return;
    vantrel::stats::Add(stats_->counters.messagesIn);
    vantrel::stats::Add(stats_->counters.bytesIn, length);
    // The records made from the frame take its buffer over rather than copy it.
    tFrameData frame(data);
    if (subtype != kVersionMarker) {
      VLOG_ERROR("CVantrelHostConnection::doReading - Socket error while reading from host %s",
                 vantrel::log::Escaped(HostText()));
      if (type == kDelivered || type == kNotDelivered) deliverAnswer(kNotDelivered, subtype, std::move(frame), length);
      return;
    }
    lastReceived_ = RQPSysTime();
    dispatchReceived(type, std::move(frame), length);
  }
}

void CVantrelHostConnection::dispatchReceived(short type, tFrameData data, unsigned length) {
  switch (type) {
    case kSend:
    case kSendNoResponse:
    case kSendNoWait:
      deliverForward(type, std::move(data), length);
      break;
    case kFileRequest:
      onFileRequest(std::move(data), length);
      break;
    case kFileTraffic:
      files_.OnTraffic(
          std::make_unique<VantrelHostEvent>(std::move(data), static_cast<long>(length), kFileTraffic, kVersionMarker));
      break;
    case kDelivered:
    case kNotDelivered:
      deliverAnswer(type, kVersionMarker, std::move(data), length);
      break;
    case kPing:
      break;
    default:
      VLOG_WARN("CVantrelHostConnection::doReading - unknown message type %d from host %s dropped", type,
                vantrel::log::Escaped(HostText()));
      break;
  }
}

void CVantrelHostConnection::deliverForward(short type, tFrameData data, unsigned length) {
  auto event = std::make_unique<VantrelClientEvent>(std::move(data), static_cast<long>(length), type, kVersionMarker);
  if (!event->isValid()) {
    VLOG_WARN("CVantrelHostConnection::doReading - malformed record of type %d from host %s dropped", type,
              vantrel::log::Escaped(HostText()));
    return;
  }
  const bool waits = IsWaitedRequest(type);
  // The local client's writer answers the peer once it has written the message
  // (or whoever drops it on the way).
  if (waits) event->setReceipt(answers_);
  // Shares the event's bytes; stays valid after the event has been handed on.
  const cVantrelMessage request(*event);
  const bool routed = context_->router != nullptr && context_->router->dispatchClientEvent(event.get());
  if (routed) {
    event.release();  // the addressee's connection has it now
  } else {
    event->dropReceipt();
  }
  VLOG_DEBUG("CVantrelHostConnection::doReading - message %u of type %d from %s@%s for %s %s", request.getMessageId(),
             type, vantrel::log::Escaped(request.getFromClient()), vantrel::log::Escaped(request.getFromHost()),
             vantrel::log::Escaped(request.getToClient()), routed ? "queued" : "not delivered");
  if (waits && !routed) answerPeer(request, false);
}

void CVantrelHostConnection::answerPeer(const cVantrelMessage& request, bool delivered) {
  // The sender's client gets a delivered answer on its acknowledgement subtype.
  queueOwn(std::make_unique<VantrelHostEvent>(static_cast<long>(request.getMessageId()), request.getFromHost(),
                                              request.getFromClient(), request.getToHost(), request.getToClient(),
                                              AnswerQType(request.getType()), delivered ? kDelivered : kNotDelivered,
                                              gAnswerChannel(request.getType(), delivered), "", 1));
}

void CVantrelHostConnection::deliverAnswer(short type, short subtype, tFrameData data, unsigned length) {
  auto event = std::make_unique<VantrelClientEvent>(std::move(data), static_cast<long>(length), type, subtype);
  if (!event->isValid()) {
    VLOG_WARN("CVantrelHostConnection::doReading - malformed answer from host %s dropped",
              vantrel::log::Escaped(HostText()));
    return;
  }
  if (event->getType() != type) {
    // An answer that cannot be trusted is reported as not delivered.
    event = std::make_unique<VantrelClientEvent>(static_cast<long>(event->getMessageId()), event->getToHost(),
                                                 event->getToClient(), event->getFromHost(), event->getFromClient(),
                                                 event->getQtype(), type, kChannelMessages, event->getData(),
                                                 static_cast<long>(event->getDatalen()));
  }
  if (!pending_.Settle(event->getMessageId(), event->getToClient())) {
    // Never asked for on this link, or already answered (timed out): passing it
    // on would end some other wait with a result the peer had no say in.
    std::uint64_t total = 0;
    vantrel::stats::Add(stats_->counters.drops);
    if (unmatched_.Count(total))
      VLOG_WARN(
          "CVantrelHostConnection::doReading - answer %d to message %u for %s from host %s dropped: no request waits "
          "for it (%llu dropped so far)",
          event->getType(), event->getMessageId(), vantrel::log::Escaped(event->getToClient()),
          vantrel::log::Escaped(HostText()), static_cast<unsigned long long>(total));
    return;
  }
  VLOG_DEBUG("CVantrelHostConnection::doReading - answer %d to message %u for %s from host %s", event->getType(),
             event->getMessageId(), vantrel::log::Escaped(event->getToClient()), vantrel::log::Escaped(HostText()));
  if (context_->router != nullptr && context_->router->dispatchClientEvent(event.get())) event.release();
}

void CVantrelHostConnection::onFileRequest(tFrameData data, unsigned length) {
  auto request =
      std::make_unique<VantrelHostEvent>(std::move(data), static_cast<long>(length), kFileRequest, kVersionMarker);
  if (!request->isValid()) {
    VLOG_WARN("CVantrelHostConnection::doReading - malformed copy request from host %s dropped",
              vantrel::log::Escaped(HostText()));
    return;
  }
  files_.OnPeerRequest(std::move(request));
}

int CVantrelHostConnection::post(BaseEvent* base) {
  std::unique_ptr<BaseEvent> owned(base);
  auto* event = dynamic_cast<VantrelHostEvent*>(base);
  if (event == nullptr) return 0;
  owned.release();
  std::unique_ptr<VantrelHostEvent> message(event);
  if (message->getType() == kFileCopy) {
    files_.PostRequest(std::move(message));
    return 1;
  }
  const std::uint64_t bytes = IsBoundedMessage(message->getType()) ? message->getPackedBufLen() : 0;
  if (bytes > 0 && queuedBytes_.fetch_add(bytes, std::memory_order_acq_rel) + bytes > context_->maxLinkQueueBytes) {
    queuedBytes_.fetch_sub(bytes, std::memory_order_acq_rel);
    std::uint64_t total = 0;
    vantrel::stats::Add(stats_->counters.drops);
    if (refused_.Count(total))
      VLOG_WARN(
          "CVantrelHostConnection::post - queue of the link to %s is full (%llu bytes), message %u of type %d from %s "
          "refused (%llu refused so far)",
          HostText(), static_cast<unsigned long long>(context_->maxLinkQueueBytes), message->getMessageId(),
          message->getType(), message->getFromClient(), static_cast<unsigned long long>(total));
    if (IsWaitedRequest(message->getType()))
      answerBroken(message->getMessageId(), message->getType(), message->getToHost(), message->getToClient(),
                   message->getFromHost(), message->getFromClient(), nVantrelLink::kLinkFullText);
    return 1;
  }
  {
    RQPMutexGuard guard(lock_);
    if (!terminated_) {
      VLOG_DEBUG("CVantrelHostConnection::post - message %u of type %d for %s@%s queued", message->getMessageId(),
                 message->getType(), vantrel::log::Escaped(message->getToClient()),
                 vantrel::log::Escaped(message->getToHost()));
      enqueueLocked(std::move(message));
      return 1;
    }
  }
  queuedBytes_.fetch_sub(bytes, std::memory_order_acq_rel);
  VLOG_DEBUG("CVantrelHostConnection::post - link to %s is terminated, message %u of type %d for %s refused",
             vantrel::log::Escaped(HostText()), message->getMessageId(), message->getType(),
             vantrel::log::Escaped(message->getToClient()));
  if (IsWaitedRequest(message->getType())) {
    answerBroken(message->getMessageId(), message->getType(), message->getToHost(), message->getToClient(),
                 message->getFromHost(), message->getFromClient());
  }
  return 1;
}

void CVantrelHostConnection::queueOwn(std::unique_ptr<VantrelHostEvent> event) {
  RQPMutexGuard guard(lock_);
  if (terminated_) return;
  enqueueLocked(std::move(event));
}

void CVantrelHostConnection::enqueueLocked(std::unique_ptr<VantrelHostEvent> event) {
  // Counted before it is visible to the writer, so that a direct send never
  // sees zero while this event waits.
  unsent_.fetch_add(1, std::memory_order_acq_rel);
  outgoing_queue_.putEvent(event.release());
}

bool CVantrelHostConnection::sendBatch(std::vector<std::unique_ptr<VantrelHostEvent>>& batch) {
  StreamSocket::cOutgoingFrame frames[StreamSocket::kMaxBatch];
  std::size_t count = 0;
  bool recorded = true;
  for (auto& event : batch) {
    const short type = event->getType();
    // Recorded before it goes out, so that the answer always finds its request.
    // Once the ledger is closed the link is ending: nothing more is sent, and
    // every request of the batch that would have waited is answered at once.
    if (IsWaitedRequest(type) && (!recorded || !pending_.Record(*event, RQPSysTime()))) {
      recorded = false;
      answerBroken(event->getMessageId(), type, event->getToHost(), event->getToClient(), event->getFromHost(),
                   event->getFromClient());
      continue;
    }
    frames[count++] = {type, kVersionMarker, event->getPackedBuf(), static_cast<unsigned>(event->getPackedBufLen())};
  }
  if (!recorded) return false;
  bool sent = false;
  try {
    sent = socket_.SendTypedMessages(frames, count);
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doWriting - Exception: %s", e.what());
    restartProcess("sending to host");
  }
  if (sent)
    for (std::size_t i = 0; i < count; ++i) countWritten(frames[i].type, frames[i].length);
  return sent;
}

void CVantrelHostConnection::doWriting() {
  if (outgoing_) {
    if (!connectToPeer()) {
      connectFailed();
      return;  // Terminate answers whatever waits
    }
    connected();
    RQPMutexGuard guard(lock_);
    if (terminated_) return;
    reader_.Start([this] { runReader(); }, "VTHstRdr", "CVantrelHostConnection:ReaderThread",
                  context_->threadAttributes);
  }
  const long pingSeconds = context_->pingSeconds;
  std::vector<std::unique_ptr<VantrelHostEvent>> batch;
  batch.reserve(StreamSocket::kMaxBatch);
  for (;;) {
    if (givenWay_.load(std::memory_order_acquire) && retired()) {
      VLOG_INFO("CVantrelHostConnection::doWriting - link to %s gave way and has nothing left; closing",
                vantrel::log::Escaped(HostText()));
      closeAfterPeerHasRead();
      return;
    }
    RWCollectable* item = nullptr;
    // Once given way, the wait is short: the end comes with the last answer,
    // which arrives on the reader and queues nothing here.
    const long waitMs = givenWay_.load(std::memory_order_acquire) ? 20 : pingSeconds * 100;
    const htWaitReturnType result = outgoing_queue_.waitEvent(item, waitMs);
    if (result == htEvent) {
      if (item == nullptr) return;
      if (following_.load(std::memory_order_acquire)) awaitPredecessor();
      // Whatever else is already waiting goes out in the same write.
      int taken = 0;
      while (item != nullptr) {
        ++taken;
        std::unique_ptr<RWCollectable> owned(item);
        if (auto* event = dynamic_cast<VantrelHostEvent*>(item)) {
          owned.release();
          if (IsBoundedMessage(event->getType()))
            queuedBytes_.fetch_sub(event->getPackedBufLen(), std::memory_order_acq_rel);
          batch.emplace_back(event);
        }
        if (batch.size() == StreamSocket::kMaxBatch) break;
        item = outgoing_queue_.get();
      }
      const bool sent = batch.empty() || sendBatch(batch);
      batch.clear();
      unsent_.fetch_sub(taken, std::memory_order_acq_rel);
      if (!sent) {
        VLOG_ERROR("CVantrelHostConnection::doWriting - send to host %s failed", vantrel::log::Escaped(HostText()));
        fail("sending to the peer failed");
        return;
      }
      const double now = RQPSysTime();
      lastActivity_ = now;
      // A busy link never times out its wait: look after it between sends too.
      if (now >= nextKeepAlive_ && !keepAlive(now)) return;
    } else if (result == htTimeout) {
      VLOG_DEBUG("CVantrelHostConnection::doWriting, Checking for Ping to host %s", vantrel::log::Escaped(HostText()));
      if (!keepAlive(RQPSysTime())) return;
    } else if (result == htTerminated) {
      VLOG_DEBUG("CVantrelHostConnection::doWriting quit");
      return;
    } else {
      VLOG_ERROR("CVantrelHostConnection::doWriting - queue wait ended with %d", static_cast<int>(result));
      return;
    }
  }
}

long CVantrelHostConnection::silenceLimitSeconds() const {
  if (context_->linkSilenceSeconds > 0) return context_->linkSilenceSeconds;
  return std::max(3L, 3 * context_->pingSeconds);
}

bool CVantrelHostConnection::retired() const {
  return unsent_.load(std::memory_order_acquire) == 0 && !pending_.Waiting();
}

CVantrelHostConnection::cHandover CVantrelHostConnection::GiveWay() {
  cHandover handover;
  handover.ended = ended_;
  givenWay_.store(true, std::memory_order_release);
  // Taken at once, so that what the writer has taken, and sends here, is all
  // older than any of these. Answers to the peer's messages stay: the peer
  // waits for them on this link.
  std::vector<RWCollectable*> kept;
  for (RWCollectable* item : outgoing_queue_.takeAll()) {
    auto* event = dynamic_cast<VantrelHostEvent*>(item);
    if (event != nullptr && IsBoundedMessage(event->getType())) {
      queuedBytes_.fetch_sub(event->getPackedBufLen(), std::memory_order_acq_rel);
      unsent_.fetch_sub(1, std::memory_order_acq_rel);
      handover.queued.emplace_back(event);
    } else {
      kept.push_back(item);
    }
  }
  for (RWCollectable* item : kept) outgoing_queue_.putEvent(item);
  // Wakes a writer that waits on the emptied queue, so that it sees at once
  // that it has given way; it counts as unsent until the writer skips it.
  unsent_.fetch_add(1, std::memory_order_acq_rel);
  outgoing_queue_.putEvent(new BaseEvent());
  VLOG_INFO("CVantrelHostConnection::GiveWay - link to %s hands %zu messages over", vantrel::log::Escaped(HostText()),
            handover.queued.size());
  return handover;
}

void CVantrelHostConnection::FollowAfter(std::shared_ptr<RQPManualEvent> predecessor) {
  if (predecessor == nullptr) return;
  RQPMutexGuard guard(lock_);
  predecessor_ = std::move(predecessor);
  following_.store(true, std::memory_order_release);
}

void CVantrelHostConnection::awaitPredecessor() {
  std::shared_ptr<RQPManualEvent> predecessor;
  {
    RQPMutexGuard guard(lock_);
    predecessor.swap(predecessor_);
    following_.store(false, std::memory_order_release);
  }
  if (predecessor == nullptr) return;
  // Bounded: a predecessor whose peer never answers must not stop this link.
  const long limitMs = handoverLimitMs();
  if (predecessor->Wait(limitMs) == 0)
    VLOG_WARN("CVantrelHostConnection::doWriting - the link to %s it replaces has not ended within %ld ms; sending",
              vantrel::log::Escaped(HostText()), limitMs);
}

long CVantrelHostConnection::handoverLimitMs() const {
  return 1000L * std::min(10L, std::max(1L, context_->answerTimeoutSeconds));
}

void CVantrelHostConnection::closeAfterPeerHasRead() {
  // The peer's reader meets the end of the stream only after every message
  // before it, and then closes; ours then ends the link.
  socket_.CloseSending();
  if (ended_->Wait(handoverLimitMs()) == 0)
    VLOG_WARN(
        "CVantrelHostConnection::doWriting - host %s has not closed the link that gave way within %ld ms; closing",
        vantrel::log::Escaped(HostText()), handoverLimitMs());
}

bool CVantrelHostConnection::keepAlive(double now) {
  const long pingSeconds = context_->pingSeconds;
  nextKeepAlive_ = now + static_cast<double>(pingSeconds) / 10;
  const std::string host = HostText();
  for (const auto& request : pending_.Expire(now - static_cast<double>(context_->answerTimeoutSeconds))) {
    VLOG_WARN("CVantrelHostConnection - message %u from %s to %s@%s not answered by host within %ld s",
              request.messageId, request.fromClient, request.toClient, host, context_->answerTimeoutSeconds);
    answerBroken(request.messageId, request.type, request.toHost.c_str(), request.toClient.c_str(),
                 request.fromHost.c_str(), request.fromClient.c_str(), nVantrelLink::kNoAnswerText);
  }
  const double silent = now - lastReceived_.load();
  if (silent > static_cast<double>(silenceLimitSeconds()) && pending_.Waiting()) {
    VLOG_ERROR("CVantrelHostConnection - host %s silent for %.0f s while requests wait for answers; link broken", host,
               silent);
    fail("the peer sent nothing for " + std::to_string(static_cast<long>(silent)) + " s while requests waited; limit " +
         std::to_string(silenceLimitSeconds()) + " s");
    return false;
  }
  // Pinged whenever nothing was sent for a ping interval, even while the peer
  // talks: the peer reads silence from this side as a hung service.
  if (now - lastActivity_.load() > static_cast<double>(pingSeconds)) {
    VLOG_DEBUG("Sending Ping to host %s", host);
    try {
      if (!socket_.SendTypedMessageZ2(kPing, kVersionMarker, "", 1)) return false;
      countWritten(kPing, 1);
    } catch (const std::exception& e) {
      VLOG_ERROR("CVantrelHostConnection::doWriting - Exception: %s", e.what());
      restartProcess("pinging host");
      return false;
    }
    lastActivity_ = RQPSysTime();
  }
  return true;
}

void CVantrelHostConnection::answerBroken(std::uint32_t messageId, short type, const char* toHost, const char* toClient,
                                          const char* fromHost, const char* fromClient, const char* text) {
  // Only the answers of a broken link carry its reason; a full link or a late
  // peer say all there is in their text.
  const std::string detail = std::strcmp(text, nVantrelLink::kLinkBrokeText) == 0 ? failure() : std::string();
  auto answer = cPendingAnswers::BrokenAnswer(messageId, toHost, toClient, fromHost, fromClient, AnswerQType(type),
                                              text, gAnswerChannel(type, false), detail);
  const bool delivered = context_->router != nullptr && context_->router->dispatchClientEvent(answer.get());
  if (delivered) answer.release();  // the requester's connection has it now
  VLOG_DEBUG("CVantrelHostConnection - message %u of type %d from %s answered as broken link%s", messageId, type,
             vantrel::log::Escaped(fromClient), delivered ? "" : ", requester gone");
}

void CVantrelHostConnection::fail(const std::string& reason) {
  std::string host;
  {
    std::lock_guard<std::mutex> guard(hostMutex_);
    if (!failure_.empty()) return;
    failure_ = reason;
    host = host_;
  }
  VLOG_ERROR("CVantrelHostConnection - link to %s failed: %s", vantrel::log::Escaped(host), reason);
}

std::string CVantrelHostConnection::failure() const {
  std::lock_guard<std::mutex> guard(hostMutex_);
  return failure_;
}

void CVantrelHostConnection::breakLink() {
  while (RWCollectable* item = outgoing_queue_.get()) {
    std::unique_ptr<RWCollectable> owned(item);
    auto* event = dynamic_cast<VantrelHostEvent*>(item);
    if (event != nullptr && IsWaitedRequest(event->getType())) {
      answerBroken(event->getMessageId(), event->getType(), event->getToHost(), event->getToClient(),
                   event->getFromHost(), event->getFromClient());
    }
    unsent_.fetch_sub(1, std::memory_order_acq_rel);
  }
  // From now on the writer answers a request itself instead of recording it.
  for (const auto& request : pending_.Close()) {
    answerBroken(request.messageId, request.type, request.toHost.c_str(), request.toClient.c_str(),
                 request.fromHost.c_str(), request.fromClient.c_str());
  }
}

void CVantrelHostConnection::Terminate(bool wait) {
  bool first = false;
  {
    RQPMutexGuard guard(lock_);
    if (!terminated_) {
      first = true;
      VLOG_DEBUG("CVantrelHostConnection::Terminate(%s,%d)", vantrel::log::Escaped(HostText()), socket_.PeerPort());
      connectedEvent_.Set();
      stats_->SetState(vantrel::stats::tLinkState::eClosed);
      files_.Abort();
      socket_.CloseSocket();
      terminated_ = true;
      outgoing_queue_.TerminateZ72();
    }
  }
  if (first) {
    if (context_->router != nullptr) context_->router->removeHost(this);
    // Messages of the peer still on their way to local clients answer nobody now.
    answers_->Close();
    breakLink();
  }
  files_.Stop();
  if (first) ended_->Set();
  if (first && context_->owner != nullptr) context_->owner->Ended(this);
  if (wait) {
    reader_.Join();
    writer_.Join();
  }
}

void CVantrelHostConnection::restartProcess(const char* what) {
  VLOG_ERROR("CVantrelHostConnection - socket exception while %s with host %s", what,
             vantrel::log::Escaped(HostText()));
  if (context_->restartProcess) context_->restartProcess();
}

void CVantrelHostConnection::PostFileEvent(std::unique_ptr<VantrelHostEvent> event) {
  if (event == nullptr) return;
  int idle = 0;
  if (!IsConnected() || !unsent_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel)) {
    queueOwn(std::move(event));
    return;
  }
  {
    // Only a look: the send itself must not hold the termination lock, which
    // Terminate needs to shut the socket down under a blocked write.
    RQPMutexGuard guard(lock_);
    if (terminated_) {
      unsent_.fetch_sub(1, std::memory_order_acq_rel);
      return;
    }
  }
  bool sent = false;
  try {
    sent =
        socket_.SendTypedMessageZ2(event->getType(), kVersionMarker, event->getPackedBuf(), event->getPackedBufLen());
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::PostFileEvent - Exception: %s", e.what());
  }
  if (sent) countWritten(event->getType(), event->getPackedBufLen());
  event.reset();
  if (sent) lastActivity_ = RQPSysTime();
  unsent_.fetch_sub(1, std::memory_order_acq_rel);
  if (!sent) {
    // As when the writer fails: the reader's next wait fails and ends the link.
    VLOG_ERROR("CVantrelHostConnection::PostFileEvent - send to host %s failed", vantrel::log::Escaped(HostText()));
    socket_.CloseSocket();
  }
}
