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
}  // namespace

VantrelClientInstance::VantrelClientInstance(const std::string& name, iVantrelClientLink* connection,
                                             iVantrelRouter* router, std::shared_ptr<const cCopyPolicy> copies)
    : name_(name), connection_(connection), router_(router), copies_(std::move(copies)) {
  VLOG_INFO("VantrelClientInstance::VantrelClientInstance(%s)", name_);
  const int handler = signOn([this](BaseEvent* event) { return deliver(event); });
  if (router_ != nullptr) router_->registerClientEvent(name_.c_str(), this, handler);
}

VantrelClientInstance::~VantrelClientInstance() = default;

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
      VLOG_INFO("VantrelClientInstance::handleMessage(%s) - farewell", name_);
      iVantrelClientLink* connection = connection_.exchange(nullptr, std::memory_order_acq_rel);
      if (connection != nullptr) connection->Terminate(false);
      detach();
      return false;
    }
    case kLocalSend:
    case kLocalSendNoResponse:
    case kLocalSendNoWait:
      routeToClient(data, length, type, subtype, type);
      return true;
    case kLocalFileCopy:
      localFileCopy(data, length, type, subtype, false);
      return true;
    case kIgnored:
      return true;
    default:
      VLOG_WARN("VantrelClientInstance::handleMessage(%s) - unknown message type %d dropped", name_, type);
      return true;
  }
}

void VantrelClientInstance::routeToHost(const char* data, std::uint32_t length, short type, short subtype) {
  // A copy carries its client's rights to the link's file thread, which opens the source.
  auto event = type == kFileCopy
                   ? std::make_unique<cFileCopyRequest>(data, static_cast<long>(length), type, subtype, requester())
                   : std::make_unique<VantrelHostEvent>(data, static_cast<long>(length), type, subtype);
  if (!event->isValid()) {
    // Logged by the record itself; there is nobody to answer.
    VLOG_WARN("VantrelClientInstance::handleMessage(%s) - malformed record of type %d dropped", name_, type);
    return;
  }
  if (router_ != nullptr && router_->isLocalHost(event->getToHost())) {
    // Addressed to this very service: no link to itself.
    event.reset();
    if (type == kFileCopy)
      localFileCopy(data, length, type, subtype, true);
    else
      routeToClient(data, length, type, subtype, LocalForm(type));
    return;
  }
  const std::uint32_t messageId = event->getMessageId();
  VLOG_DEBUG("VantrelClientInstance::handleMessage(%s) - message %u of type %d for %s@%s", name_, messageId, type,
             event->getToClient(), event->getToHost());
  if (router_ != nullptr && router_->dispatchHostEvent(event.get())) {
    event.release();  // the link has it now
    return;
  }
  event.reset();
  if (type == kSendNoResponse) return;
  reply(messageId, type == kSendNoWait ? QTYPE_ASYNC : QTYPE_SYNC, kNotDelivered, kChannelMessages, kHostDispatchText);
}

void VantrelClientInstance::routeToClient(const char* data, std::uint32_t length, short type, short subtype,
                                          short kind) {
  // The record keeps the type its sender gave it; `kind` is the local kind.
  auto event = std::make_unique<VantrelClientEvent>(data, static_cast<long>(length), type, subtype);
  if (!event->isValid()) {
    VLOG_WARN("VantrelClientInstance::handleMessage(%s) - malformed record of type %d dropped", name_, type);
    return;
  }
  const std::uint32_t messageId = event->getMessageId();
  const bool delivered = router_ != nullptr && router_->dispatchClientEvent(event.get());
  if (delivered) event.release();  // the addressee's connection has it now
  VLOG_DEBUG("VantrelClientInstance::handleMessage(%s) - local message %u of type %d %s", name_, messageId, type,
             delivered ? "delivered" : "not delivered");
  if (kind == kLocalSendNoResponse) return;
  // A delivered answer travels on the acknowledgement subtype so that it ends the
  // sender's wait; a failure arrives with the ordinary messages. The text does not
  // tell success: the type does.
  reply(messageId, kind == kLocalSendNoWait ? QTYPE_ASYNC : QTYPE_SYNC, delivered ? kDelivered : kNotDelivered,
        delivered ? kChannelAnswers : kChannelMessages, kClientDispatchText);
}

cCopyRequester VantrelClientInstance::requester() const {
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  return cCopyRequester::LocalClient(name_, connection != nullptr ? connection->PeerUser() : std::nullopt, copies_);
}

void VantrelClientInstance::localFileCopy(const char* data, std::uint32_t length, short type, short subtype,
                                          bool echo) {
  const cVantrelMessage request(data, length, type, subtype);
  if (!request.isValid()) {
    VLOG_WARN("VantrelClientInstance::handleMessage(%s) - malformed copy request dropped", name_);
    return;
  }
  CAssociativeArray parameters(11);
  const bool readable = parameters.FromString(request.getData(), static_cast<long>(request.getDatalen()));
  if (!readable) {
    VLOG_WARN("VantrelClientInstance::localFileCopy(%s) - copy request without readable parameters", name_);
  }
  const std::string source = parameters.GetValueOfParameter(kCopyLocalFile);
  const std::string destination = parameters.GetValueOfParameter(kCopyRemoteFile);
  VantrelToolKit::CopyFileCompletionState state = VantrelToolKit::COPY_DONE;
  std::string failingPath;
  if (source.empty() || destination.empty()) {
    VLOG_ERROR("VantrelClientInstance::localFileCopy(%s) - copy request without source or destination", name_);
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
  if (router_ != nullptr) router_->removeClient(this);
  iVantrelClientLink* connection = connection_.load(std::memory_order_acquire);
  if (connection != nullptr) connection->Terminate(true);
}

void VantrelClientInstance::print(std::ostream& out) const { out << nameOf() << " Named: " << name_ << "\n"; }

std::ostream& operator<<(std::ostream& out, const VantrelClientInstance& instance) {
  instance.print(out);
  return out;
}
