#include "vantrel/client/vantrelclientobjimp.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/env/integer.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/address.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/message/clientname.h"

namespace wire = vantrel::wire;

namespace {

// How much of a payload goes into a log line.
constexpr unsigned kLoggedDataBytes = 200;

// At most the first 200 bytes of a payload, up to its first zero, for logs.
std::string LoggedData(const char* data, std::size_t length) {
  if (data == nullptr) return std::string();
  const std::size_t limit = std::min<std::size_t>(length, kLoggedDataBytes);
  return std::string(data, strnlen(data, limit));
}

std::string FrameText(const cTypedMessageObject* frame) {
  if (frame == nullptr || frame->getData() == nullptr) return "null";
  return LoggedData(frame->getData(), static_cast<std::size_t>(frame->getLength()));
}

}  // namespace

// ---------------------------------------------------------------------------
// CVantrelClientQueue

cTypedMessageObject* CVantrelClientQueue::AsFrame(RWCollectable* event) {
  if (event == nullptr) return nullptr;
  auto* frame = dynamic_cast<cTypedMessageObject*>(event);
  if (frame == nullptr) {
    VLOG_ERROR("CVantrelClientQueue::waitMessage - unexpected %s on queue dropped", event->nameOf());
    delete event;
  }
  return frame;
}

void CVantrelClientQueue::putMessage(cTypedMessageObject* message) {
  VLOG_DEBUG("CVantrelClientQueue:putMessage %s", FrameText(message));
  if (!putEvent(message)) {
    VLOG_DEBUG("CVantrelClientQueue::putMessage - queue %d turned off, message dropped", index_);
    return;
  }
  if (capacity_ == 0) return;
  // Only the reader puts, so the queue cannot grow between these two steps by
  // more than what the reader itself adds.
  while (size() > capacity_) {
    RWCollectable* oldest = get();
    if (oldest == nullptr) break;
    VLOG_WARN("CVantrelClientQueue::putMessage - queue %d holds more than %d entries, oldest dropped", index_,
              static_cast<int>(capacity_));
    delete oldest;
  }
}

cTypedMessageObject* CVantrelClientQueue::waitMessage(long milliseconds, bool* timedOut) {
  RWCollectable* event = nullptr;
  switch (waitEvent(event, milliseconds)) {
    case htEvent:
      return AsFrame(event);
    case htTimeout:
      VLOG_INFO("CVantrelClientQueue::waitMessage - WaitMessage Timeout\t");
      if (timedOut != nullptr) *timedOut = true;
      return nullptr;
    default:
      return nullptr;
  }
}

cTypedMessageObject* CVantrelClientQueue::fetchMessage() {
  if (isEmpty()) return nullptr;
  RWCollectable* event = nullptr;
  // A zero limit tests once: another taker may have emptied the queue meanwhile.
  if (waitEvent(event, 0) != htEvent) return nullptr;
  return AsFrame(event);
}

// ---------------------------------------------------------------------------
// cVantrelClientObjectImp

cVantrelClientObjectImp::cVantrelClientObjectImp(const char* clientName, cVantrelClientObject* owner)
    : owner_(owner), clientName_(clientName ? clientName : "") {
  for (int i = 0; i < wire::kChannelCount; ++i)
    queues_[i] = std::make_unique<CVantrelClientQueue>(i, i == wire::kChannelAnswers ? kAckQueueCapacity : 0);
  communicator_ = std::make_unique<CVantrelClientCommunicatorZ1>(this);

  RQEnvContainerClass env;
  if (const char* value = env.RQEGetEnv("VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT")) {
    std::string error;
    if (const auto ms = vantrel::env::ParseInteger(value, 0, INT32_MAX, &error))
      ackWaitTimeout_ = static_cast<long>(*ms);
    else
      VLOG_WARN("cVantrelClientObjectImp - VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT %s; %ld ms used", error,
                ackWaitTimeout_);
  }
}

void cVantrelClientObjectImp::Dispose(cVantrelClientObjectImp* imp) {
  if (imp == nullptr) return;
  if (!imp->communicator_->OnReaderThread()) {
    delete imp;
    return;
  }
  // The reader is inside the hook and will return through this object: end the
  // session now (the reader cannot wait for itself) and let the reader delete
  // the object when it has nothing left to do. The owner may be gone by then.
  imp->owner_ = nullptr;
  imp->disposeOnReaderExit_ = true;
  imp->NETTerminate();
}

void cVantrelClientObjectImp::OnReaderExit() {
  if (disposeOnReaderExit_) delete this;
}

cVantrelClientObjectImp::~cVantrelClientObjectImp() {
  NETTerminate();
  // NETTerminate has joined the reader, so nothing touches the queues any more.
  for (auto& queue : queues_) queue.reset();
  communicator_.reset();
  DiscardCurrent();
}

std::string cVantrelClientObjectImp::ClientName() const { return clientName_; }

std::string cVantrelClientObjectImp::GreetingHostName() const {
  return std::string(greeting_ + wire::kGreetingHostOffset,
                     strnlen(greeting_ + wire::kGreetingHostOffset, wire::kGreetingFieldSize));
}

unsigned short cVantrelClientObjectImp::GreetingNetPort() const {
  // The service writes the port in its (and so our) host byte order.
  unsigned short port = 0;
  std::memcpy(&port, greeting_ + wire::kGreetingPortOffset, sizeof(port));
  return port;
}

bool cVantrelClientObjectImp::IsLocalHost(const std::string& host) const { return host == localHostName_; }

bool cVantrelClientObjectImp::NotValid() {
  if (IsValid()) return false;
  SetStatus(wire::kStatusNotInitialised);
  return true;
}

void cVantrelClientObjectImp::DiscardCurrent() {
  NVSDeleteMsg(currentMessage_);
  currentMessage_ = nullptr;
}

bool cVantrelClientObjectImp::RefuseInit(std::string why) {
  VLOG_ERROR("cVantrelClientObjectImp::NETInit - %s", why);
  lastErrorMessage_ = std::move(why);
  SetStatus(wire::kStatusNotInitialised);
  return false;
}

bool cVantrelClientObjectImp::NETInit(const char* clientName, unsigned short port) {
  lastErrorMessage_.clear();
  if (port == 0) {
    VLOG_INFO("port null");
    std::string error;
    const auto fromEnv = vantrel::env::ClientPortFromEnvironment(kDefaultClientPort, &error);
    if (!fromEnv) return RefuseInit(error);
    port = *fromEnv;
  }
  clientPort_ = port;

  for (auto& queue : queues_) queue->InitZ72();
  SetStatus(wire::kStatusOk);
  const std::string_view name = clientName ? clientName : "";
  if (const std::string problem = vantrel::ClientNameProblem(name); !problem.empty())
    return RefuseInit(fmt::sprintf("client name \"%s\" refused: %s", vantrel::log::Escaped(name), problem));
  greetingFrame_ = vantrel::MakeGreeting(name);

  if (!communicator_->Start()) return false;

  cTypedMessageObject* reply = queues_[wire::kChannelAnswers]->waitMessage(-1);
  if (reply == nullptr) {
    VLOG_WARN("cVantrelClientObjectImp::NETInit - no greeting reply from the service (%s)", clientName_);
    return false;
  }
  if (reply->getLength() < static_cast<std::int32_t>(wire::kGreetingSize) || reply->getData() == nullptr) {
    VLOG_ERROR("cVantrelClientObjectImp::NETInit - greeting reply of %d bytes refused (%s)", reply->getLength(),
               clientName_);
    delete reply;
    communicator_->Terminate(true);
    return false;
  }
  std::memcpy(greeting_, reply->getData(), wire::kGreetingSize);
  registeredName_ = vantrel::GreetingClientName(reply->getData(), static_cast<std::size_t>(reply->getLength()));
  const bool accepted = reply->getType() != 0;
  delete reply;
  localHostName_ = GreetingHostName();
  // Built here, before the object becomes valid, so that the sending threads
  // only ever read it; later changes of the greeting block do not change who we are.
  fromHost_ = localHostName_ + gVantrelAddressPortDelimiter() + std::to_string(GreetingNetPort());
  whoAmI_ = CVantrelAddress(GreetingClientName(), fromHost_).Address();
  valid_.store(accepted, std::memory_order_release);
  if (!accepted) {
    VLOG_WARN("cVantrelClientObjectImp::NETInit - the service refused the greeting (%s)", clientName_);
    communicator_->Terminate(true);
  }
  return accepted;
}

bool cVantrelClientObjectImp::sendMessageToVantrel(const cVantrelMessage& record) {
  if (communicator_->sendMessage(record.getPackedBuf(), record.getPackedBufLen(), record.getType(),
                                 record.getSubtype()))
    return true;
  VLOG_WARN("cVantrelClientObjectImp::sendMessageToVantrel failed");
  return false;
}

bool cVantrelClientObjectImp::NETSendMessage(const char* data, unsigned length, const char* address) {
  if (NotValid()) return false;
  SetStatus(wire::kStatusOk);
  VLOG_DEBUG("cVantrelClientObjectImp::NETSendMessage(data=%s)", LoggedData(data, length));
  const CVantrelAddress parsed(address ? address : "");
  if (parsed.ClientName().empty() || parsed.HostName().empty()) return false;
  return sendMessage(data, length, parsed.ClientName(), parsed.HostName(), QTYPE_CLIENT, ackWaitTimeout_);
}

bool cVantrelClientObjectImp::sendMessage(const char* data, unsigned length, const std::string& toClient,
                                          const std::string& toHost, QType qtype, long timeout) {
  const short type = IsLocalHost(toHost) ? wire::kLocalSend : wire::kSend;
  const std::string& fromHost = fromHost_;
  const std::string& fromClient = GreetingClientName();
  const cVantrelMessage record(0, toHost.c_str(), toClient.c_str(), fromHost.c_str(), fromClient.c_str(), qtype, type,
                               0, data, length);

  lastRefusal_.clear();
  // Whatever waits on queue 1 now answers an earlier send.
  while (RWCollectable* stale = queues_[wire::kChannelAnswers]->get()) delete stale;

  if (!sendMessageToVantrel(record)) {
    SetStatus(wire::kStatusSendFailed);
    VLOG_WARN("cVantrelClientObjectImp::sendMessage(%s) - send error %d", WhoAmIText(), wire::kStatusSendFailed);
    return false;
  }

  cTypedMessageObject* ack = queues_[wire::kChannelAnswers]->waitMessage(timeout);
  if (ack == nullptr) {
    VLOG_WARN("cVantrelClientObjectImp::sendMessage()\t%s\t%s\t%s\t'%s'", WhoAmIText(), toClient, toHost,
              LoggedData(data, length));
    return false;
  }
  std::unique_ptr<cVantrelMessage> answer(NVSTmo2Ttm(ack));
  delete ack;
  if (answer && answer->isValid() && answer->getType() == wire::kDelivered) return true;
  if (answer && answer->isValid() && answer->getData() != nullptr) {
    // The answer's text is the service's reason; it is all a user has to go on.
    // A service may add why after the text's zero (a broken link's cause).
    const std::string_view answered(answer->getData(), answer->getDatalen());
    const std::string_view text(answered.data(), strnlen(answered.data(), answered.size()));
    lastRefusal_.assign(text);
    if (text.size() + 1 < answered.size()) {
      const std::string_view detail = answered.substr(text.size() + 1);
      if (const std::size_t detailLength = strnlen(detail.data(), detail.size()); detailLength > 0)
        lastRefusal_.append(" (").append(detail.substr(0, detailLength)).append(")");
    }
  }
  SetStatus(wire::kStatusAckError);
  VLOG_WARN("cVantrelClientObjectImp::sendMessage(%s) - ack on send error %d: %s@%s not delivered: %s", WhoAmIText(),
            wire::kStatusAckError, vantrel::log::Escaped(toClient), vantrel::log::Escaped(toHost),
            vantrel::log::Escaped(lastRefusal_));
  return false;
}

bool cVantrelClientObjectImp::NETSendMessageNoresponseZ1(const char* data, unsigned length, const char* address) {
  if (NotValid()) return false;
  if (length == 0 || data == nullptr || data[0] == 0)
    VLOG_DEBUG("cVantrelClientObjectImp::NETSendMessageNoresponseZ1 empty data");
  else
    VLOG_DEBUG("cVantrelClientObjectImp::NETSendMessageNoresponseZ1(data=%s)", LoggedData(data, length));
  SetStatus(wire::kStatusOk);
  const CVantrelAddress parsed(address ? address : "");
  if (parsed.ClientName().empty() || parsed.HostName().empty()) return false;
  const short type = IsLocalHost(parsed.HostName()) ? wire::kLocalSendNoResponse : wire::kSendNoResponse;
  const std::string& fromHost = fromHost_;
  const std::string& fromClient = GreetingClientName();
  const cVantrelMessage record(0, parsed.HostName().c_str(), parsed.ClientName().c_str(), fromHost.c_str(),
                               fromClient.c_str(), QTYPE_CLIENT, type, 0, data, length);
  if (sendMessageToVantrel(record)) return true;
  SetStatus(wire::kStatusSendFailed);
  return false;
}

bool cVantrelClientObjectImp::NETSendMessageNowait(std::int32_t messageId, const char* data, unsigned length,
                                                   const char* address) {
  if (NotValid()) return false;
  VLOG_DEBUG("cVantrelClientObjectImp::NETSendMessageNowait(id=%d, data=%s)", messageId, LoggedData(data, length));
  SetStatus(wire::kStatusOk);
  const CVantrelAddress parsed(address ? address : "");
  if (parsed.ClientName().empty() || parsed.HostName().empty()) return false;
  const short type = IsLocalHost(parsed.HostName()) ? wire::kLocalSendNoWait : wire::kSendNoWait;
  const std::string& fromHost = fromHost_;
  const std::string& fromClient = GreetingClientName();
  const cVantrelMessage record(static_cast<std::uint32_t>(messageId), parsed.HostName().c_str(),
                               parsed.ClientName().c_str(), fromHost.c_str(), fromClient.c_str(), QTYPE_CLIENT, type, 0,
                               data, length);
  if (sendMessageToVantrel(record)) return true;
  SetStatus(wire::kStatusSendFailed);
  VLOG_WARN("cVantrelClientObjectImp::sendMessageNowait(%s) - send failed, error=%d", WhoAmIText(),
            wire::kStatusSendFailed);
  return false;
}

bool cVantrelClientObjectImp::NETSendMultiMessageZ1(const char* data, unsigned length, const char* addressList) {
  // Sending to several destinations at once is not offered; the call is kept
  // for applications that still make it.
  VLOG_DEBUG("cVantrelClientObjectImp::NETSendMultiMessageZ1(%s) - not supported, nothing sent",
             addressList ? addressList : "");
  return true;
}

bool cVantrelClientObjectImp::NETCopyFile(std::int32_t messageId, const char* data, unsigned length, const char* host) {
  if (NotValid()) return false;
  SetStatus(wire::kStatusOk);
  VLOG_DEBUG("cVantrelClientObjectImp::NETCopyFile(data=%s)", LoggedData(data, length));
  const CVantrelAddress parsed("NoClient", host ? host : "");
  if (parsed.HostName().empty()) return false;
  const std::string& fromHost = fromHost_;
  const std::string& fromClient = GreetingClientName();
  const cVantrelMessage record(static_cast<std::uint32_t>(messageId), parsed.HostName().c_str(), "NoClient",
                               fromHost.c_str(), fromClient.c_str(), QTYPE_CLIENT, wire::kFileCopy, 0, data, length);
  if (sendMessageToVantrel(record)) return true;
  SetStatus(wire::kStatusSendFailed);
  return false;
}

const cVantrelMessage* cVantrelClientObjectImp::waitMessage(int queue, long milliseconds, bool* timedOut) {
  DiscardCurrent();
  SetStatus(wire::kStatusOk);
  cTypedMessageObject* frame = queues_[queue]->waitMessage(milliseconds, timedOut);
  if (frame == nullptr) {
    if (timedOut != nullptr && *timedOut) return nullptr;
    // Released or turned off: the session is over for this object.
    valid_.store(false, std::memory_order_release);
    SetStatus(wire::kStatusNotInitialised);
    return nullptr;
  }
  currentMessage_ = NVSTmo2Ttm(frame);
  delete frame;
  return currentMessage_;
}

const cVantrelMessage* cVantrelClientObjectImp::NETWaitMessage() {
  if (NotValid()) return nullptr;
  return waitMessage(wire::kChannelMessages, -1, nullptr);
}

const cVantrelMessage* cVantrelClientObjectImp::NETWaitMessageFor(long milliseconds, bool& timedOut) {
  timedOut = false;
  if (NotValid()) return nullptr;
  return waitMessage(wire::kChannelMessages, milliseconds, &timedOut);
}

const char* cVantrelClientObjectImp::NETWaitMessageX2() {
  const cVantrelMessage* record = NETWaitMessage();
  return record ? record->getData() : nullptr;
}

const char* cVantrelClientObjectImp::NETFetchMessage() {
  const cVantrelMessage* record = NETFetchRecord();
  return record ? record->getData() : nullptr;
}

const cVantrelMessage* cVantrelClientObjectImp::NETFetchRecord() {
  if (NotValid()) return nullptr;
  DiscardCurrent();
  SetStatus(wire::kStatusOk);
  cTypedMessageObject* frame = queues_[wire::kChannelMessages]->fetchMessage();
  if (frame == nullptr) return nullptr;
  currentMessage_ = NVSTmo2Ttm(frame);
  delete frame;
  return currentMessage_;
}

const char* cVantrelClientObjectImp::NETWhoAmI() {
  if (NotValid()) return "";
  SetStatus(wire::kStatusOk);
  return WhoAmIText().c_str();
}

const std::string& cVantrelClientObjectImp::WhoAmIText() const { return whoAmI_; }

const char* cVantrelClientObjectImp::NETLocalHostName() {
  if (NotValid()) return "";
  SetStatus(wire::kStatusOk);
  return localHostName_.c_str();
}

bool cVantrelClientObjectImp::NETTurnOff() {
  for (auto& queue : queues_) queue->TerminateZ72();
  return true;
}

bool cVantrelClientObjectImp::NETTurnOn() {
  for (auto& queue : queues_) queue->InitZ72();
  return true;
}

void cVantrelClientObjectImp::NETTerminate() {
  try {
    if (valid_.exchange(false, std::memory_order_acq_rel)) {
      static const char kEmptyText[] = "";
      communicator_->sendMessage(kEmptyText, 1, wire::kFarewell, 0);
      for (auto& queue : queues_) queue->releaseZ72();
    }
    // Also for an object that is no longer valid: a wait may have invalidated
    // it while the connection and its reader still run.
    communicator_->Terminate(true);
  } catch (const std::exception& e) {
    VLOG_ERROR("Exception in NETTerminate: %s", e.what());
  } catch (...) {
    VLOG_ERROR("Unknown exception in NETTerminate.");
  }
}

void cVantrelClientObjectImp::OnNewFrame(cTypedMessageObject* frame, short subtype) {
  if (subtype < 0 || subtype >= wire::kChannelCount) {
    VLOG_WARN("cVantrelClientObjectImp::OnNewFrame - frame of type %d with subtype %d dropped (%s)", frame->getType(),
              subtype, clientName_);
    delete frame;
    return;
  }
  bool accept = true;
  if (subtype != wire::kChannelAnswers && owner_ != nullptr && !disposeOnReaderExit_) {
    try {
      accept = owner_->NewMessageEvent(frame, subtype);
    } catch (const std::exception& e) {
      VLOG_ERROR("cVantrelClientObjectImp::OnNewFrame - Exception: %s", e.what());
      accept = true;
    } catch (...) {
      VLOG_ERROR("cVantrelClientObjectImp::OnNewFrame - catch(...)");
      accept = true;
    }
  }
  // A refused frame now belongs to the hook. A hook that ended this object has
  // ended the session too: nobody will take the frame.
  if (!accept) return;
  if (disposeOnReaderExit_)
    delete frame;
  else
    queues_[subtype]->putMessage(frame);
}

void cVantrelClientObjectImp::OnReaderEnded() {
  for (auto& queue : queues_) queue->releaseZ72();
}

// ---------------------------------------------------------------------------
// CClientsCollection

CClientsCollection& CClientsCollection::Instance() {
  // Built when the library is loaded, destroyed when it is unloaded.
  static CClientsCollection collection;
  return collection;
}

CClientsCollection::~CClientsCollection() { Clear(); }

void CClientsCollection::Insert(RWCollectable* entry) {
  if (entry == nullptr) return;
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.insert(entry);
}

void CClientsCollection::Clear() {
  std::unordered_set<RWCollectable*> taken;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    taken.swap(entries_);
  }
  for (RWCollectable* entry : taken) delete entry;
}

std::size_t CClientsCollection::Size() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return entries_.size();
}
