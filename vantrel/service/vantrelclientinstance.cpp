#include "vantrel/service/vantrelclientinstance.h"

#include <cstring>
#include <memory>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/VantrelToolKit.h"
#include "vantrel/support/associativearray.h"

using namespace vantrel::wire;

namespace {
constexpr const char* kClientDispatchText = "Error dispatching client event";
constexpr const char* kHostDispatchText = "Error dispatching host event";
constexpr const char* kNotWrittenText = "Message could not be written to the client";

bool IsAnswer(short type) { return type == kDelivered || type == kNotDelivered; }
// The kinds whose sender waits for an answer.
bool Waits(short type) {
  return type == kSend || type == kSendNoWait || type == kFileCopy || type == kLocalSend || type == kLocalSendNoWait;
}
QType AnswerQType(short type) { return type == kSendNoWait || type == kLocalSendNoWait ? QTYPE_ASYNC : QTYPE_SYNC; }
}  // namespace

VantrelClientInstance::VantrelClientInstance(const std::string& name, iVantrelClientLink* connection,
                                             iVantrelRouter* router, const std::string& hostName,
                                             std::shared_ptr<const cCopyPolicy> copies)
    : name_(name),
      hostName_(hostName),
      connection_(connection),
      router_(router),
      copies_(std::move(copies)),
      answers_(std::make_shared<cAnswerPath>(
          [this](const cVantrelMessage& message, bool delivered) { answerDelivery(message, delivered); })) {
  VLOG_INFO("VantrelClientInstance::VantrelClientInstance(%s)", vantrel::log::Escaped(name_));
  const int handler = signOn([this](BaseEvent* event) { return deliver(event); });
  if (router_ != nullptr) router_->registerClientEvent(name_.c_str(), this, handler);
}

VantrelClientInstance::~VantrelClientInstance() { answers_->Close(); }

int VantrelClientInstance::deliver(BaseEvent* event) {
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  if (connection == nullptr) {
    delete event;
    return 0;
  }
  // A terminated queue deletes what it refuses.
  return connection->Post(event) ? 1 : 0;
}

void VantrelClientInstance::reply(std::uint32_t messageId, QType qtype, short type, short subtype, const char* text) {
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  if (connection == nullptr) return;
  connection->SendAnswer(std::make_unique<VantrelClientEvent>(static_cast<long>(messageId), "", "", "", "", qtype, type,
                                                              subtype, text, static_cast<long>(std::strlen(text) + 1)));
}

bool VantrelClientInstance::handleMessage(const char* data, std::uint32_t length, short type, short subtype) {
  switch (type) {
    case kSend:
    case kSendNoResponse:
    case kSendNoWait:
    case kFileCopy:
      routeToHost(data, length, type, subtype);
      return true;
    case kFarewell: {
      VLOG_DEBUG("VantrelClientInstance::handleMessage(%s) - farewell", vantrel::log::Escaped(name_));
      iVantrelClientLink* connection = connection_.exchange(nullptr, std::memory_order_acq_rel);
      if (connection != nullptr) connection->Terminate(false);
      detach();
      return false;
    }
    case kLocalSend:
    case kLocalSendNoResponse:
    case kLocalSendNoWait:
      if (auto event = admit<VantrelClientEvent>(data, length, type, subtype, kClientDispatchText))
        routeToClient(std::move(event), type);
      return true;
    case kLocalFileCopy:
      localFileCopy(data, length, type, subtype, false);
      return true;
    case kIgnored:
      return true;
    case kDelivered:
    case kNotDelivered:
      VLOG_WARN("VantrelClientInstance::handleMessage(%s) - answer of type %d refused: only services answer",
                vantrel::log::Escaped(name_), type);
      return true;
    default:
      VLOG_WARN("VantrelClientInstance::handleMessage(%s) - unknown message type %d dropped",
                vantrel::log::Escaped(name_), type);
      return true;
  }
}

bool VantrelClientInstance::handleFrame(std::unique_ptr<char[]> data, std::uint32_t length, short type, short subtype) {
  switch (type) {
    case kSend:
    case kSendNoResponse:
    case kSendNoWait:
      routeToHost(std::move(data), length, type, subtype);
      return true;
    case kLocalSend:
    case kLocalSendNoResponse:
    case kLocalSendNoWait:
      if (auto event = admit<VantrelClientEvent>(std::move(data), length, type, subtype, kClientDispatchText))
        routeToClient(std::move(event), type);
      return true;
    default:
      return handleMessage(data.get(), length, type, subtype);
  }
}

template <class Event, class Data>
std::unique_ptr<Event> VantrelClientInstance::admit(Data data, std::uint32_t length, short type, short subtype,
                                                    const char* refusal) {
  auto event = std::make_unique<Event>(std::move(data), static_cast<long>(length), type, subtype);
  if (!event->isValid()) {
    // Logged by the record itself; there is nobody to answer.
    VLOG_WARN("VantrelClientInstance::handleMessage(%s) - malformed record of type %d dropped",
              vantrel::log::Escaped(name_), type);
    return nullptr;
  }
  const short recordType = event->getType();
  if (recordType != type || IsAnswer(recordType)) {
    // The frame's type decided how the record is routed; a record of another
    // kind inside it (an answer, above all) would reach its addressee as that kind.
    VLOG_WARN("VantrelClientInstance::handleMessage(%s) - frame of type %d carrying a record of type %d refused",
              vantrel::log::Escaped(name_), type, recordType);
    if (Waits(type))
      reply(event->getMessageId(), AnswerQType(type), kNotDelivered, gAnswerChannel(type, false), refusal);
    return nullptr;
  }
  // What the client library writes itself: nothing to rebuild.
  if (event->getSubtype() == kChannelMessages && name_ == event->getFromClient() && hostName_ == event->getFromHost())
    return event;
  VLOG_DEBUG("VantrelClientInstance::handleMessage(%s) - sender %s@%s (subtype %d) replaced by the registration",
             vantrel::log::Escaped(name_), vantrel::log::Escaped(event->getFromClient()),
             vantrel::log::Escaped(event->getFromHost()), event->getSubtype());
  // Routed messages reach their addressee on the message channel, never on
  // the channel where a sender waits for its answer.
  return std::make_unique<Event>(static_cast<long>(event->getMessageId()), event->getToHost(), event->getToClient(),
                                 hostName_.c_str(), name_.c_str(), event->getQtype(), recordType, kChannelMessages,
                                 event->getData(), static_cast<long>(event->getDatalen()));
}

template <class Data>
void VantrelClientInstance::routeToHost(Data data, std::uint32_t length, short type, short subtype) {
  auto event = admit<VantrelHostEvent>(std::move(data), length, type, subtype, kHostDispatchText);
  if (event == nullptr) return;
  if (router_ != nullptr && router_->isLocalHost(event->getToHost())) {
    // Addressed to this very service: no link to itself.
    if (type == kFileCopy)
      localFileCopy(event->getPackedBuf(), event->getPackedBufLen(), type, subtype, true);
    else
      routeToClient(std::make_unique<VantrelClientEvent>(event->getPackedBuf(),
                                                         static_cast<long>(event->getPackedBufLen()), type, subtype),
                    LocalForm(type));
    return;
  }
  // A copy carries its client's rights to the link's file thread, which opens the source.
  if (type == kFileCopy)
    event = std::make_unique<cFileCopyRequest>(event->getPackedBuf(), static_cast<long>(event->getPackedBufLen()), type,
                                               subtype, requester());
  const std::uint32_t messageId = event->getMessageId();
  VLOG_DEBUG("VantrelClientInstance::handleMessage(%s) - message %u of type %d for %s@%s", vantrel::log::Escaped(name_),
             messageId, type, vantrel::log::Escaped(event->getToClient()), vantrel::log::Escaped(event->getToHost()));
  if (router_ != nullptr && router_->dispatchHostEvent(event.get())) {
    event.release();  // the link has it now
    return;
  }
  event.reset();
  if (type == kSendNoResponse) return;
  reply(messageId, AnswerQType(type), kNotDelivered, gAnswerChannel(type, false), kHostDispatchText);
}

void VantrelClientInstance::routeToClient(std::unique_ptr<VantrelClientEvent> event, short kind) {
  // The record keeps the type its sender gave it; `kind` is the local kind.
  const std::uint32_t messageId = event->getMessageId();
  const bool waits = Waits(kind);
  // The addressee's writer answers once the message has been written to it, or
  // whoever drops it on the way (a full queue, a client that left).
  if (waits) event->setReceipt(answers_);
  const bool routed = router_ != nullptr && router_->dispatchClientEvent(event.get());
  if (routed) {
    event.release();  // the addressee's connection has it now
  } else {
    event->dropReceipt();
  }
  VLOG_DEBUG("VantrelClientInstance::handleMessage(%s) - local message %u of type %d %s", vantrel::log::Escaped(name_),
             messageId, kind, routed ? "queued" : "not delivered");
  if (routed || !waits) return;
  // The text does not tell success: the type does.
  reply(messageId, AnswerQType(kind), kNotDelivered, gAnswerChannel(kind, false), kClientDispatchText);
}

void VantrelClientInstance::answerDelivery(const cVantrelMessage& message, bool delivered) {
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  if (connection == nullptr) return;
  // A delivered answer travels on the acknowledgement subtype so that it ends the
  // sender's wait; a failure arrives with the ordinary messages. This runs on the
  // addressee's writer (or wherever the message was dropped): the connection
  // sends it at once only when that cannot wait on this client's socket.
  const char* text = delivered ? kClientDispatchText : kNotWrittenText;
  connection->SendAnswer(std::make_unique<VantrelClientEvent>(
      static_cast<long>(message.getMessageId()), "", "", "", "", AnswerQType(message.getType()),
      delivered ? kDelivered : kNotDelivered, gAnswerChannel(message.getType(), delivered), text,
      static_cast<long>(std::strlen(text) + 1)));
}

cCopyRequester VantrelClientInstance::requester() const {
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  return cCopyRequester::LocalClient(name_, connection != nullptr ? connection->PeerUser() : std::nullopt, copies_);
}

void VantrelClientInstance::localFileCopy(const char* data, std::uint32_t length, short type, short subtype,
                                          bool echo) {
  const cVantrelMessage request(data, length, type, subtype);
  if (!request.isValid()) {
    VLOG_WARN("VantrelClientInstance::handleMessage(%s) - malformed copy request dropped",
              vantrel::log::Escaped(name_));
    return;
  }
  CAssociativeArray parameters(11);
  const bool readable = parameters.FromString(request.getData(), static_cast<long>(request.getDatalen()));
  if (!readable) {
    VLOG_WARN("VantrelClientInstance::localFileCopy(%s) - copy request without readable parameters",
              vantrel::log::Escaped(name_));
  }
  const std::string source = parameters.GetValueOfParameter(kCopyLocalFile);
  const std::string destination = parameters.GetValueOfParameter(kCopyRemoteFile);
  VantrelToolKit::CopyFileCompletionState state = VantrelToolKit::COPY_DONE;
  std::string failingPath;
  if (source.empty() || destination.empty()) {
    VLOG_ERROR("VantrelClientInstance::localFileCopy(%s) - copy request without source or destination",
               vantrel::log::Escaped(name_));
    state = VantrelToolKit::COPY_OPEN_FAILED;
    failingPath = source;
  } else {
    // The completion state tells the client the outcome; the bool adds nothing.
    (void)VantrelToolKit::CopyFileA(source, destination, state, failingPath, requester());
  }
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  if (connection == nullptr) return;
  const std::string echoed = echo && readable ? std::string(request.getData(), request.getDatalen()) : std::string();
  const std::uint32_t maxSize = copies_ != nullptr ? copies_->maxMessageSize : nVantrelIni::kDefaultMaxMessageSize;
  connection->SendAnswer(std::unique_ptr<VantrelClientEvent>(
      VantrelToolKit::CreateCopyResultEvent(request, echoed, state, failingPath, maxSize)));
}

void VantrelClientInstance::detach() {
  if (detached_.exchange(true)) return;
  answers_->Close();
  if (router_ != nullptr) router_->removeClient(this);
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  if (connection != nullptr) connection->Terminate(true);
}

void VantrelClientInstance::print(std::ostream& out) const { out << nameOf() << " Named: " << name_ << "\n"; }

std::ostream& operator<<(std::ostream& out, const VantrelClientInstance& instance) {
  instance.print(out);
  return out;
}
