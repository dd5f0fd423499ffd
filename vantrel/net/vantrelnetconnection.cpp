#include "vantrel/net/vantrelnetconnection.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>
#include <utility>

#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/address.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/service/vantrelclass.h"
#include "vantrel/service/vantrelclientinstance.h"
#include "vantrel/service/vantreleventserver.h"
#include "vantrel/supervision/restart.h"
#include "vantrel/support/associativearray.h"
#include "vantrel/net/VantrelToolKit.h"

using namespace nVantrelLink;
using nCommunication::nSocket::nImplementation_sho::cTlsSettings;
using nCommunication::nSocket::nImplementation_sho::gLatencyConfiguration;
using nCommunication::nSocket::nImplementation_sho::gSplitHostPort;
using nCommunication::nSocket::nImplementation_sho::tLatencyPath;

namespace {
constexpr short kSend = 2;
constexpr short kSendNoResponse = 3;
constexpr short kSendNoWait = 4;
constexpr short kFileCopy = 5;
constexpr short kDelivered = 102;
constexpr short kNotDelivered = 103;
constexpr long kDefaultPingSeconds = 120;

bool IsWaitedRequest(short type) { return type == kSend || type == kSendNoWait; }
QType AnswerQType(short requestType) { return requestType == kSendNoWait ? QTYPE_ASYNC : QTYPE_SYNC; }
}  // namespace

// ============================== client connection ==============================

CVantrelClientConnection::CVantrelClientConnection(cSocketHandle&& accepted, CVantrelClass* service)
    : socket_(std::move(accepted), nullptr, "client"), service_(service), port_(socket_.PeerPort()) {}

CVantrelClientConnection::~CVantrelClientConnection() {
  Terminate(true);
  delete instance_;
}

void CVantrelClientConnection::Start() {
  RQPMutexGuard guard(lock_);
  if (terminated_) return;
  reader_.Start([this] { StartReader(); }, "VTClntRdr", "CVantrelClientConnection:ReaderThread",
                gCommunicationThreadAttributes());
}

std::string CVantrelClientConnection::clientName() {
  RQPMutexGuard guard(lock_);
  return clientName_;
}

void CVantrelClientConnection::StartReader() {
  vantrel::platform::cThread::RaiseCurrentPriority();
  try {
    doReading();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClientConnection::doReading - Error reading from socket %s", e.what());
    gRestartVantrelProcess();
  } catch (...) {
    VLOG_ERROR("CVantrelClientConnection::doReading - Error reading from socket ... ");
    gRestartVantrelProcess();
  }
  Terminate(false);
  VLOG_INFO("CVantrelClientConnection::StartReader - Done (%s,%d)", clientName(), port_);
}

void CVantrelClientConnection::StartWriter() {
  doWriting();
  Terminate(false);
  VLOG_INFO("CVantrelClientConnection::StartWriter - Done (%s,%d)", clientName(), port_);
}

bool CVantrelClientConnection::greet(char* data, unsigned length, short type) {
  if (length < kGreetingSize || data == nullptr) {
    VLOG_ERROR("CVantrelClientConnection::doReading - greeting of %u bytes is too short, connection closed", length);
    return false;
  }
  const std::string name(data + kGreetingNameOffset, strnlen(data + kGreetingNameOffset, kGreetingFieldSize));
  // The host field is filled the way a bounded string copy does it: padded with
  // zeros, and without a terminator when the text fills the field.
  const std::string& host = service_->GetHostName();
  std::strncpy(data + kGreetingHostOffset, host.c_str(), kGreetingFieldSize);
  const std::uint16_t port = service_->GetNetPortZ5181();
  std::memcpy(data, &port, sizeof port);

  // Registered before the reply goes out, so the client is reachable as soon as
  // it knows it is connected.
  auto* instance = new VantrelClientInstance(name, this, service_->EventServer());
  {
    RQPMutexGuard guard(lock_);
    if (!terminated_) {
      instance_ = instance;
      clientName_ = name;
      instance = nullptr;
    }
  }
  if (instance != nullptr) {
    // Terminated meanwhile: Terminate could not see the instance.
    service_->EventServer()->removeClient(instance);
    delete instance;
    return false;
  }
  socket_.SendTypedMessageZ2(type, 1, data, length);
  RQPMutexGuard guard(lock_);
  if (terminated_) return false;
  registered_ = true;
  writer_.Start([this] { StartWriter(); }, "VTClnWrtr", "CVantrelClientConnection:WriterThread",
                gCommunicationThreadAttributes());
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
      VLOG_ERROR("exiting vantrel with error. Message was not read  Should restart automatically");
      gRestartVantrelProcess();
    }
    const bool greeted = greet(data, length, type);
    StreamSocket::FreeMessage(data);
    if (!greeted) return;
  }
  VantrelClientInstance* instance = instance_;  // set once by this thread in greet
  for (;;) {
    data = nullptr;
    if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, gLatencyConfiguration(tLatencyPath::local))) {
      VLOG_INFO("CVantrelClientConnection::doReading - terminate");
      return;
    }
    const bool more = instance->handleMessage(data, length, type, subtype);
    StreamSocket::FreeMessage(data);
    if (!more) return;
  }
}

std::unique_ptr<VantrelClientEvent> CVantrelClientConnection::sendable(RWCollectable* item) {
  std::unique_ptr<RWCollectable> owned(item);
  auto* event = dynamic_cast<VantrelClientEvent*>(item);
  if (event == nullptr) {
    VLOG_ERROR("CVantrelClientConnection::doWriting - unexpected %s on the queue dropped", item->nameOf());
    return nullptr;
  }
  const short subtype = event->getSubtype();
  if (subtype < 0 || subtype > 2) {
    // The client uses the subtype as a queue index.
    VLOG_ERROR("CVantrelClientConnection::doWriting - message of type %d with subtype %d dropped", event->getType(),
               subtype);
    return nullptr;
  }
  owned.release();
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
      while (item != nullptr) {
        ++taken;
        if (auto event = sendable(item)) batch.push_back(std::move(event));
        if (batch.size() == StreamSocket::kMaxBatch) break;
        item = eventQueue().get();
      }
      for (std::size_t i = 0; i < batch.size(); ++i) {
        const VantrelClientEvent& event = *batch[i];
        frames[i] = {event.getType(), event.getSubtype(), event.getPackedBuf(),
                     static_cast<unsigned>(event.getPackedBufLen())};
      }
      const bool sent = socket_.SendTypedMessages(frames, batch.size());
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
  unsent_.fetch_add(1, std::memory_order_acq_rel);
  if (eventQueue().putEvent(event)) return true;
  unsent_.fetch_sub(1, std::memory_order_acq_rel);
  return false;
}

void CVantrelClientConnection::SendAnswer(RWCollectable* answer) {
  if (answer == nullptr) return;
  int idle = 0;
  if (!unsent_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel)) {
    Post(answer);
    return;
  }
  bool sent = true;
  try {
    if (auto event = sendable(answer))
      sent = socket_.SendTypedMessageZ2(event->getType(), event->getSubtype(), event->getPackedBuf(),
                                        static_cast<unsigned>(event->getPackedBufLen()));
  } catch (const std::exception& e) {
    // A failed write ends this connection only, whichever thread wrote.
    VLOG_ERROR("CVantrelClientConnection::doWriting - Error writing to socket: %s", e.what());
    sent = false;
  }
  unsent_.fetch_sub(1, std::memory_order_acq_rel);
  // As when the writer fails: the connection ends (the reader's next wait fails).
  if (!sent) socket_.CloseSocket();
}

void CVantrelClientConnection::Terminate(bool wait) {
  bool first = false;
  VantrelClientInstance* instance = nullptr;
  {
    RQPMutexGuard guard(lock_);
    if (!terminated_) {
      first = true;
      VLOG_INFO("CVantrelClientConnection::Terminate (%s,%d)", clientName_, port_);
      socket_.CloseSocket();
      terminated_ = true;
      eventQueue().TerminateZ72();
      instance = instance_;
    }
  }
  if (first && service_ != nullptr) {
    if (instance != nullptr) service_->EventServer()->removeClient(instance);
    service_->ConnectionEnded(this);
  }
  if (wait) {
    reader_.Join();
    writer_.Join();
  }
}

// =============================== host connection ===============================

CVantrelHostConnection::CVantrelHostConnection(const std::string& hostText, CVantrelClass* service,
                                               const cTlsChoice& tls)
    : outgoing_(true),
      host_(hostText),
      socket_(tls.useOpenSsl, "link " + hostText),
      service_(service),
      tls_(tls),
      lastActivity_(RQPSysTime()) {
  if (tls_.useOpenSsl) {
    socket_.SetTlsSettings(
        cTlsSettings{tls_.certificatesPath, tls_.verifyServerCertificate, tls_.verifyClientCertificate});
  }
  postHandler_ = signOn([this](BaseEvent* event) { return post(event); });
  service_->EventServer()->registerHostEvent(hostText.c_str(), this, postHandler_);
}

CVantrelHostConnection::CVantrelHostConnection(cSocketHandle&& accepted, cTlsConnectionState tlsState,
                                               CVantrelClass* service, const cTlsChoice& tls)
    : outgoing_(false),
      socket_(std::move(accepted), tlsState, "link"),
      service_(service),
      tls_(tls),
      lastActivity_(RQPSysTime()) {
  if (tlsState) {
    socket_.SetTlsSettings(
        cTlsSettings{tls_.certificatesPath, tls_.verifyServerCertificate, tls_.verifyClientCertificate});
  }
  postHandler_ = signOn([this](BaseEvent* event) { return post(event); });
}

CVantrelHostConnection::~CVantrelHostConnection() { Terminate(true); }

std::string CVantrelHostConnection::HostText() const {
  std::lock_guard<std::mutex> guard(hostMutex_);
  return host_;
}

long CVantrelHostConnection::PingTimeoutSeconds() {
  RQEnvContainerClass env;
  const char* text = env.RQEGetEnv("VANTREL_INTERNAL_PING_TIMEOUT_SECONDS");
  if (text == nullptr || *text == '\0') return kDefaultPingSeconds;
  char* end = nullptr;
  errno = 0;
  const long seconds = std::strtol(text, &end, 10);
  if (end == text || errno != 0) {
    VLOG_WARN("CVantrelHostConnection - VANTREL_INTERNAL_PING_TIMEOUT_SECONDS '%s' is not a number, %ld used", text,
              kDefaultPingSeconds);
    return kDefaultPingSeconds;
  }
  // A shorter span would make the writer check faster than it can measure.
  return seconds < 1 ? 1 : seconds;
}

void CVantrelHostConnection::Start() {
  RQPMutexGuard guard(lock_);
  if (terminated_) return;
  if (outgoing_) {
    writer_.Start([this] { StartWriter(); }, "VTHstWrtr", "CVantrelHostConnection:WriterThread",
                  gCommunicationThreadAttributes());
  } else {
    reader_.Start([this] { StartReader(); }, "VTHstRdr", "CVantrelHostConnection:ReaderThread",
                  gCommunicationThreadAttributes());
  }
}

void CVantrelHostConnection::StartReader() {
  try {
    doReading();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doReading - Exception: %s", e.what());
  }
  VLOG_INFO("CVantrelHostConnection::StartReader - before terminate");
  Terminate(false);
  VLOG_INFO("CVantrelHostConnection::StartReader - Done");
}

void CVantrelHostConnection::StartWriter() {
  doWriting();
  Terminate(false);
  VLOG_INFO("CVantrelHostConnection::StartWriter - Done(%s,%d)", HostText(), socket_.PeerPort());
}

bool CVantrelHostConnection::connectToPeer() {
  const std::string text = HostText();
  const auto split = gSplitHostPort(text, gVantrelAddressPortDelimiter());
  unsigned short port = service_->GetNetPortZ5181();
  if (!split.hasDelimiter) {
    VLOG_INFO("CVantrelHostConnection::connect - port not set");
  } else if (!split.port.has_value()) {
    VLOG_ERROR("CVantrelHostConnection::connect - host text '%s' carries no valid port", text);
    return false;
  } else {
    port = *split.port;
  }
  VLOG_INFO("Connecting to %s:%d.", split.host, port);
  try {
    if (!socket_.Connect(split.host, port, gSocketOptionsNet())) return false;
  } catch (const std::exception& e) {
    // Unusable TLS files: nothing can be sent on this link.
    VLOG_ERROR("CVantrelHostConnection::connect - %s", e.what());
    return false;
  }
  const std::string me = service_->GetAddressHostText();
  if (!socket_.SendTypedMessageZ2(kHostName, kVersionMarker, me.c_str(), static_cast<unsigned>(me.size() + 1))) {
    VLOG_ERROR("Error sending host-name message to host %s.", text);
    return false;
  }
  VLOG_INFO("Connection to %s:%d Succeeded.", split.host, port);
  lastActivity_ = RQPSysTime();
  return true;
}

bool CVantrelHostConnection::receiveHandshake() {
  if (!socket_.CompleteAcceptHandshake(gSocketOptionsNet())) {
    VLOG_ERROR("CVantrelHostConnection::doReading - TLS handshake with %s failed", socket_.PeerAddress());
    connectedEvent_.Set();
    return false;
  }
  short type = 0;
  short subtype = 0;
  char* data = nullptr;
  unsigned length = 0;
  if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, gLatencyConfiguration(tLatencyPath::net))) {
    VLOG_ERROR("CVantrelHostConnection::doReading - Error receiving connection from host %s, No Data .",
               socket_.PeerAddress());
    connectedEvent_.Set();
    return false;
  }
  const std::string peer(data, length > 0 ? strnlen(data, length - 1) : 0);
  StreamSocket::FreeMessage(data);
  if (subtype != kVersionMarker) {
    VLOG_ERROR(
        "CVantrelHostConnection::doReading - Error receiving connection from host %s, Vantrel version there is "
        "Obsolete.",
        peer);
    connectedEvent_.Set();
    return false;
  }
  if (type != kHostName || peer.empty()) {
    VLOG_ERROR("CVantrelHostConnection::doReading - first message from %s is not a host-name message (type %d)",
               socket_.PeerAddress(), type);
    connectedEvent_.Set();
    return false;
  }
  {
    std::lock_guard<std::mutex> guard(hostMutex_);
    host_ = peer;
  }
  service_->EventServer()->registerHostEvent(peer.c_str(), this, postHandler_);
  VLOG_INFO("CVantrelHostConnection::doReading - Received a connection from host: %s", peer);
  connected_ = true;
  connectedEvent_.Set();
  bool terminated = false;
  {
    RQPMutexGuard guard(lock_);
    terminated = terminated_;
    if (!terminated) {
      writer_.Start([this] { StartWriter(); }, "VTHstWrtr", "CVantrelHostConnection:WriterThread",
                    gCommunicationThreadAttributes());
    }
  }
  if (terminated) {
    // Terminate ran before the registration and could not undo it.
    service_->EventServer()->removeHost(this);
    return false;
  }
  return true;
}

void CVantrelHostConnection::doReading() {
  if (!outgoing_ && !receiveHandshake()) return;
  for (;;) {
    short type = 0;
    short subtype = 0;
    char* data = nullptr;
    unsigned length = 0;
    if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, gLatencyConfiguration(tLatencyPath::net))) return;
    // The records made from the frame take its buffer over rather than copy it.
    tFrameData frame(data);
    if (subtype != kVersionMarker) {
      VLOG_ERROR("CVantrelHostConnection::doReading - Socket error while reading from host %s", HostText());
      if (type == kDelivered || type == kNotDelivered) deliverAnswer(kNotDelivered, subtype, std::move(frame), length);
      return;
    }
    lastActivity_ = RQPSysTime();
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
      onFileTraffic(std::move(data), length);
      break;
    case kDelivered:
    case kNotDelivered:
      deliverAnswer(type, kVersionMarker, std::move(data), length);
      break;
    case kPing:
      break;
    default:
      VLOG_WARN("CVantrelHostConnection::doReading - unknown message type %d from host %s dropped", type, HostText());
      break;
  }
}

void CVantrelHostConnection::deliverForward(short type, tFrameData data, unsigned length) {
  auto* event = new VantrelClientEvent(std::move(data), static_cast<long>(length), type, kVersionMarker);
  if (!event->isValid()) {
    VLOG_WARN("CVantrelHostConnection::doReading - malformed record of type %d from host %s dropped", type,
              HostText());
    delete event;
    return;
  }
  // Shares the event's bytes; stays valid after the event has been handed on.
  const cVantrelMessage request(*event);
  const bool delivered = service_->EventServer()->dispatchClientEvent(event);
  if (!delivered) delete event;
  VLOG_DEBUG("CVantrelHostConnection::doReading - message %u of type %d from %s@%s for %s %s",
             request.getMessageId(), type, request.getFromClient(), request.getFromHost(), request.getToClient(),
             delivered ? "delivered" : "not delivered");
  if (!IsWaitedRequest(type)) return;
  // The sender's client gets a delivered answer on its acknowledgement subtype.
  queueOwn(new VantrelHostEvent(static_cast<long>(request.getMessageId()), request.getFromHost(),
                                request.getFromClient(), request.getToHost(), request.getToClient(),
                                AnswerQType(type), delivered ? kDelivered : kNotDelivered, delivered ? 1 : 0, "",
                                1));
}

void CVantrelHostConnection::deliverAnswer(short type, short subtype, tFrameData data, unsigned length) {
  auto* event = new VantrelClientEvent(std::move(data), static_cast<long>(length), type, subtype);
  if (!event->isValid()) {
    VLOG_WARN("CVantrelHostConnection::doReading - malformed answer from host %s dropped", HostText());
    delete event;
    return;
  }
  if (event->getType() != type) {
    // An answer that cannot be trusted is reported as not delivered.
    auto* failed = new VantrelClientEvent(static_cast<long>(event->getMessageId()), event->getToHost(),
                                          event->getToClient(), event->getFromHost(), event->getFromClient(),
                                          event->getQtype(), type, 0, event->getData(),
                                          static_cast<long>(event->getDatalen()));
    delete event;
    event = failed;
  }
  {
    std::lock_guard<std::mutex> guard(pendingMutex_);
    for (auto it = pending_.begin(); it != pending_.end(); ++it) {
      if (it->messageId == event->getMessageId() && it->fromClient == event->getToClient()) {
        pending_.erase(it);
        break;
      }
    }
  }
  VLOG_DEBUG("CVantrelHostConnection::doReading - answer %d to message %u for %s from host %s", event->getType(),
             event->getMessageId(), event->getToClient(), HostText());
  if (!service_->EventServer()->dispatchClientEvent(event)) delete event;
}

int CVantrelHostConnection::post(BaseEvent* base) {
  auto* event = dynamic_cast<VantrelHostEvent*>(base);
  if (event == nullptr) {
    delete base;
    return 0;
  }
  if (event->getType() == kFileCopy) {
    postFileRequest(event);
    return 1;
  }
  bool refused = false;
  {
    RQPMutexGuard guard(lock_);
    if (terminated_) {
      refused = true;
    } else {
      VLOG_DEBUG("CVantrelHostConnection::post - message %u of type %d for %s@%s queued", event->getMessageId(),
                 event->getType(), event->getToClient(), event->getToHost());
      enqueueLocked(event);
    }
  }
  if (refused) {
    VLOG_DEBUG("CVantrelHostConnection::post - link to %s is terminated, message %u of type %d for %s refused",
               HostText(), event->getMessageId(), event->getType(), event->getToClient());
    if (IsWaitedRequest(event->getType())) {
      answerBroken(event->getMessageId(), event->getType(), event->getToHost(), event->getToClient(),
                   event->getFromHost(), event->getFromClient());
    }
    delete event;
  }
  return 1;
}

void CVantrelHostConnection::queueOwn(VantrelHostEvent* event) {
  RQPMutexGuard guard(lock_);
  if (terminated_) {
    delete event;
    return;
  }
  enqueueLocked(event);
}

void CVantrelHostConnection::enqueueLocked(VantrelHostEvent* event) {
  // Counted before it is visible to the writer, so that a direct send never
  // sees zero while this event waits.
  unsent_.fetch_add(1, std::memory_order_acq_rel);
  outgoing_queue_.putEvent(event);
}

bool CVantrelHostConnection::sendEvent(VantrelHostEvent* event) {
  const short type = event->getType();
  if (IsWaitedRequest(type)) {
    bool broken = false;
    {
      std::lock_guard<std::mutex> guard(pendingMutex_);
      broken = connected_ == false;
      if (!broken) {
        pending_.push_back(cPending{event->getMessageId(), type, event->getToHost(), event->getToClient(),
                                   event->getFromHost(), event->getFromClient()});
      }
    }
    if (broken) {
      answerBroken(event->getMessageId(), type, event->getToHost(), event->getToClient(), event->getFromHost(),
                   event->getFromClient());
      delete event;
      return false;
    }
  }
  VLOG_DEBUG("CVantrelHostConnection::doWriting - sending message %u of type %d to host %s", event->getMessageId(),
             type, HostText());
  bool sent = false;
  try {
    sent = socket_.SendTypedMessageZ2(type, kVersionMarker, event->getPackedBuf(), event->getPackedBufLen());
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doWriting - Exception: %s", e.what());
    restartProcess("sending to host");
  }
  delete event;
  return sent;
}

void CVantrelHostConnection::doWriting() {
  if (outgoing_) {
    if (!connectToPeer()) {
      connectedEvent_.Set();
      return;  // Terminate answers whatever waits
    }
    connected_ = true;
    connectedEvent_.Set();
    RQPMutexGuard guard(lock_);
    if (terminated_) return;
    reader_.Start([this] { StartReader(); }, "VTHstRdr", "CVantrelHostConnection:ReaderThread",
                  gCommunicationThreadAttributes());
  }
  const long pingSeconds = PingTimeoutSeconds();
  for (;;) {
    RWCollectable* item = nullptr;
    const htWaitReturnType result = outgoing_queue_.waitEvent(item, pingSeconds * 100);
    if (result == htEvent) {
      if (item == nullptr) return;
      auto* event = dynamic_cast<VantrelHostEvent*>(item);
      if (event == nullptr) {
        delete item;
        unsent_.fetch_sub(1, std::memory_order_acq_rel);
        continue;
      }
      const bool sent = sendEvent(event);
      unsent_.fetch_sub(1, std::memory_order_acq_rel);
      if (!sent) {
        VLOG_ERROR("CVantrelHostConnection::doWriting - send to host %s failed", HostText());
        return;
      }
      lastActivity_ = RQPSysTime();
    } else if (result == htTimeout) {
      const std::string host = HostText();
      VLOG_DEBUG("CVantrelHostConnection::doWriting, Checking for Ping to host %s", host);
      if (RQPSysTime() - lastActivity_.load() > static_cast<double>(pingSeconds)) {
        VLOG_INFO("Sending Ping to host %s", host);
        try {
          socket_.SendTypedMessageZ2(kPing, kVersionMarker, "", 1);
        } catch (const std::exception& e) {
          VLOG_ERROR("CVantrelHostConnection::doWriting - Exception: %s", e.what());
          restartProcess("pinging host");
        }
        lastActivity_ = RQPSysTime();
      }
    } else if (result == htTerminated) {
      VLOG_INFO("CVantrelHostConnection::doWriting quit");
      return;
    } else {
      VLOG_ERROR("CVantrelHostConnection::doWriting - queue wait ended with %d", static_cast<int>(result));
      return;
    }
  }
}

void CVantrelHostConnection::answerBroken(std::uint32_t messageId, short type, const char* toHost,
                                          const char* toClient, const char* fromHost, const char* fromClient) {
  auto* answer = new VantrelClientEvent(static_cast<long>(messageId), fromHost, fromClient, toHost, toClient,
                                        AnswerQType(type), kNotDelivered, 0, kLinkBrokeText,
                                        static_cast<long>(std::strlen(kLinkBrokeText) + 1));
  const bool delivered = service_->EventServer()->dispatchClientEvent(answer);
  VLOG_DEBUG("CVantrelHostConnection - message %u of type %d from %s answered as broken link%s", messageId, type,
             fromClient, delivered ? "" : ", requester gone");
  if (!delivered) delete answer;
}

void CVantrelHostConnection::breakLink() {
  while (RWCollectable* item = outgoing_queue_.get()) {
    auto* event = dynamic_cast<VantrelHostEvent*>(item);
    if (event != nullptr && IsWaitedRequest(event->getType())) {
      answerBroken(event->getMessageId(), event->getType(), event->getToHost(), event->getToClient(),
                   event->getFromHost(), event->getFromClient());
    }
    delete item;
    unsent_.fetch_sub(1, std::memory_order_acq_rel);
  }
  std::list<cPending> pending;
  {
    std::lock_guard<std::mutex> guard(pendingMutex_);
    // From now on the writer answers a request itself instead of recording it.
    connected_ = false;
    pending.swap(pending_);
  }
  for (const auto& request : pending) {
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
      VLOG_INFO("CVantrelHostConnection::Terminate(%s,%d)", HostText(), socket_.PeerPort());
      connectedEvent_.Set();
      fileHandler_.Stop();
      socket_.CloseSocket();
      terminated_ = true;
      outgoing_queue_.TerminateZ72();
    }
  }
  if (first && service_ != nullptr) {
    service_->EventServer()->removeHost(this);
    breakLink();
  }
  stopFileThreads();
  if (first && service_ != nullptr) {
    service_->ConnectionEnded(this);
  }
  if (wait) {
    reader_.Join();
    writer_.Join();
  }
}

void CVantrelHostConnection::restartProcess(const char* what) {
  VLOG_ERROR("CVantrelHostConnection - socket exception while %s with host %s", what, HostText());
  gRestartVantrelProcess();
}

// ------------------------------ file transfer ------------------------------

void CVantrelHostConnection::PostFileEvent(VantrelHostEvent* event) {
  if (event == nullptr) return;
  int idle = 0;
  if (!connected_ || !unsent_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel)) {
    queueOwn(event);
    return;
  }
  {
    // Only a look: the send itself must not hold the termination lock, which
    // Terminate needs to shut the socket down under a blocked write.
    RQPMutexGuard guard(lock_);
    if (terminated_) {
      unsent_.fetch_sub(1, std::memory_order_acq_rel);
      delete event;
      return;
    }
  }
  bool sent = false;
  try {
    sent = socket_.SendTypedMessageZ2(event->getType(), kVersionMarker, event->getPackedBuf(),
                                      event->getPackedBufLen());
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::PostFileEvent - Exception: %s", e.what());
  }
  delete event;
  if (sent) lastActivity_ = RQPSysTime();
  unsent_.fetch_sub(1, std::memory_order_acq_rel);
  if (!sent) {
    // As when the writer fails: the reader's next wait fails and ends the link.
    VLOG_ERROR("CVantrelHostConnection::PostFileEvent - send to host %s failed", HostText());
    socket_.CloseSocket();
  }
}

void CVantrelHostConnection::answerFileRequestBroken(VantrelHostEvent* request) {
  auto* answer = new VantrelClientEvent(static_cast<long>(request->getMessageId()), request->getFromHost(),
                                        request->getFromClient(), request->getToHost(), request->getToClient(),
                                        QTYPE_ASYNC, kNotDelivered, 0, kLinkBrokeText,
                                        static_cast<long>(std::strlen(kLinkBrokeText) + 1));
  delete request;
  if (service_ == nullptr || !service_->EventServer()->dispatchClientEvent(answer)) delete answer;
}

void CVantrelHostConnection::postFileRequest(VantrelHostEvent* event) {
  bool closed = false;
  {
    RQPMutexGuard guard(fileQueueLock_);
    closed = fileWriterClosed_;
    if (!closed) {
      if (!fileWriterRunning_) {
        // The previous writer has cleared its mark and takes nothing more: it
        // only has to end, so joining it here is short.
        fileWriter_.Reset();
        fileWriterRunning_ = true;
        outgoingFileQueue_.putEvent(event);
        fileWriter_.Start([this] { StartFileWriter(); }, "VTHstFlWr", "CVantrelHostConnection:FileWriterThread",
                          gCommunicationThreadAttributes());
      } else {
        outgoingFileQueue_.putEvent(event);
      }
    }
  }
  if (closed) answerFileRequestBroken(event);
}

void CVantrelHostConnection::StartFileWriter() {
  try {
    doFileWriting();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doFileWriting - Exception: %s", e.what());
  }
  VLOG_INFO("CVantrelHostConnection::StartFileWriter - Done, closing thread.\n");
}

void CVantrelHostConnection::StartFileReader() {
  try {
    doFileReading();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelHostConnection::doFileReading - Exception: %s", e.what());
  }
  VLOG_INFO("CVantrelHostConnection::StartFileReader - Done, closing thread.\n");
}

void CVantrelHostConnection::doFileWriting() {
  if (!connected_) {
    VLOG_INFO("CVantrelHostConnection::doFileWriting - waiting for connection to end");
    connectedEvent_.Wait();
    if (!connected_) {
      // Terminate answers what is queued.
      RQPMutexGuard guard(fileQueueLock_);
      fileWriterRunning_ = false;
      return;
    }
  }
  for (;;) {
    for (;;) {
      {
        RQPMutexGuard guard(fileQueueLock_);
        if (!fileWriterRunning_) return;
      }
      RWCollectable* item = outgoingFileQueue_.get();
      if (item == nullptr) break;
      sendOneFile(static_cast<VantrelHostEvent*>(item));
    }
    // A request queued while the last one was copied keeps the writer going.
    RQPMutexGuard guard(fileQueueLock_);
    if (outgoingFileQueue_.isEmpty()) {
      fileWriterRunning_ = false;
      return;
    }
  }
}

void CVantrelHostConnection::sendOneFile(VantrelHostEvent* request) {
  CAssociativeArray parameters;
  std::unique_ptr<cFileTransferResult> result;
  const bool readable = parameters.FromString(request->getData(), static_cast<long>(request->getDatalen()));
  const std::string localFile = parameters.GetValueOfParameter("$LOCALFILE");
  const std::string remoteFile = parameters.GetValueOfParameter("$REMOTEFILE");
  if (!readable || localFile.empty() || remoteFile.empty()) {
    VLOG_ERROR("CVantrelHostConnection::doFileWriting - copy request of %s without source or destination",
               request->getFromClient());
    result = std::make_unique<cFileTransferResult>();
    result->state = VantrelToolKit::COPY_OPEN_FAILED;
    result->fileName = localFile;
  } else {
    result = fileHandler_.SendFile(localFile, remoteFile, *request);
  }
  parameters.AddCouple("$FILECOPYCOMPLETIONSTATE", static_cast<long>(result->state));
  parameters.AddCouple("$FILENAME", result->fileName);
  std::string text;
  long length = 0;
  parameters.ToString(text, length, false, false);
  VantrelClientEvent* answer = VantrelToolKit::CreateReturnClientEvent(
      *request, text.data(), static_cast<unsigned>(length), kDelivered, QTYPE_ASYNC);
  if (!service_->EventServer()->dispatchClientEvent(answer)) {
    VLOG_WARN("CVantrelHostConnection::doFileWriting - requester %s is gone, copy result dropped",
              request->getFromClient());
    delete answer;
  }
  delete request;
}

void CVantrelHostConnection::onFileRequest(tFrameData data, unsigned length) {
  auto* request = new VantrelHostEvent(std::move(data), static_cast<long>(length), kFileRequest, kVersionMarker);
  if (!request->isValid()) {
    VLOG_WARN("CVantrelHostConnection::doReading - malformed copy request from host %s dropped", HostText());
    delete request;
    return;
  }
  std::lock_guard<std::mutex> guard(fileReaderLock_);
  if (fileReaderClosed_) {
    delete request;
    return;
  }
  if (fileReader_.Started() && !fileReader_.Finished()) {
    VLOG_INFO("CVantrelHostConnection::doReading - new copy request from host %s, restarting the file reader",
              HostText());
    fileReaderRunning_ = false;
    fileHandler_.AbortReceive();
  }
  fileReader_.Reset();
  fileHandler_.ArmReceive();
  incomingFileQueue_.putEvent(request);
  fileReaderRunning_ = true;
  fileReader_.Start([this] { StartFileReader(); }, "VTHstFlRd", "CVantrelHostConnection:FileReaderThread",
                    gCommunicationThreadAttributes());
}

void CVantrelHostConnection::doFileReading() {
  if (!connected_) {
    VLOG_INFO("CVantrelHostConnection::doFileReading - waiting for connection to end");
    connectedEvent_.Wait();
    if (!connected_) {
      fileReaderRunning_ = false;
      return;
    }
  }
  while (fileReaderRunning_) {
    RWCollectable* item = incomingFileQueue_.get();
    if (item == nullptr) break;
    auto* request = static_cast<VantrelHostEvent*>(item);
    const char* path = request->getData();
    const std::string destination(path, strnlen(path, request->getDatalen()));
    fileHandler_.ReceiveFile(destination, *request);
    delete request;
  }
  fileReaderRunning_ = false;
}

void CVantrelHostConnection::onFileTraffic(tFrameData data, unsigned length) {
  fileHandler_.HandleFileEvent(
      std::make_unique<VantrelHostEvent>(std::move(data), static_cast<long>(length), kFileTraffic, kVersionMarker));
}

void CVantrelHostConnection::stopFileThreads() {
  std::list<VantrelHostEvent*> waiting;
  {
    RQPMutexGuard guard(fileQueueLock_);
    fileWriterClosed_ = true;
    fileWriterRunning_ = false;
    while (RWCollectable* item = outgoingFileQueue_.get()) waiting.push_back(static_cast<VantrelHostEvent*>(item));
    outgoingFileQueue_.TerminateZ72();
  }
  for (VantrelHostEvent* request : waiting) answerFileRequestBroken(request);
  {
    std::lock_guard<std::mutex> guard(fileReaderLock_);
    fileReaderClosed_ = true;
    fileReaderRunning_ = false;
    incomingFileQueue_.clear();
    incomingFileQueue_.TerminateZ72();
    // The reader needs none of these locks to end its receive.
    if (!fileReader_.IsCurrentThread()) fileReader_.Join();
  }
  // Not under the file queue lock: the writer takes it on its way out.
  if (!fileWriter_.IsCurrentThread()) fileWriter_.Join();
}
