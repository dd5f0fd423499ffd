#include "vantrel/message/vantrelevents.h"

#include <cstring>
#include <limits>

#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"

namespace {

// Record lengths arrive as `long`; the record holds unsigned 32-bit lengths.
std::uint32_t CheckedLength(long length, const char* where) {
  if (length < 0) {
    VLOG_ERROR("%s - negative length %ld taken as 0", where, length);
    return 0;
  }
  if (static_cast<unsigned long>(length) > std::numeric_limits<std::uint32_t>::max()) {
    VLOG_ERROR("%s - length %ld too large, taken as 0", where, length);
    return 0;
  }
  return static_cast<std::uint32_t>(length);
}

template <class Event>
bool SameKey(const Event& self, const RWCollectable* other, const char* (cVantrelMessage::*key)() const) {
  if (other == nullptr || static_cast<std::uint16_t>(other->isA()) != Event::kClassId) return false;
  const auto* o = dynamic_cast<const Event*>(other);
  return o != nullptr && std::strcmp((self.*key)(), (o->*key)()) == 0;
}

}  // namespace

unsigned gVantrelKeyHash(const char* key) {
  unsigned h = 2166136261u;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(key); p && *p; ++p) h = (h ^ *p) * 16777619u;
  return h;
}

short gAnswerChannel(short requestType, bool delivered) {
  using namespace vantrel::wire;
  if (delivered || requestType == kSend || requestType == kLocalSend) return kChannelAnswers;
  return kChannelMessages;
}

// ---- VantrelClientEvent --------------------------------------------------------------

VantrelClientEvent::VantrelClientEvent(long messageId, const char* toHost, const char* toClient, const char* fromHost,
                                       const char* fromClient, QType qtype, short type, short subtype, const char* data,
                                       long datalen)
    : cVantrelMessage(static_cast<std::uint32_t>(messageId), toHost, toClient, fromHost, fromClient, qtype, type,
                      subtype, data, CheckedLength(datalen, "VantrelClientEvent::VantrelClientEvent")) {}

VantrelClientEvent::VantrelClientEvent(const char* buffer, long length, short type, short subtype)
    : cVantrelMessage(buffer, CheckedLength(length, "VantrelClientEvent::VantrelClientEvent"), type, subtype) {}

VantrelClientEvent::VantrelClientEvent(std::unique_ptr<char[]> buffer, long length, short type, short subtype)
    : cVantrelMessage(std::move(buffer), CheckedLength(length, "VantrelClientEvent::VantrelClientEvent"), type,
                      subtype) {}

VantrelClientEvent::VantrelClientEvent(const char* name, ClientObj* client, int value)
    : cVantrelMessage(0, "", name, "", "", QTYPE_CLIENT, 0, 0, "", 1), BaseEvent(client, value) {}

VantrelClientEvent& VantrelClientEvent::operator=(const VantrelClientEvent& other) {
  if (this == &other) return *this;
  settle(false);  // the message this event held is gone
  cVantrelMessage::operator=(other);
  BaseEvent::operator=(other);
  return *this;
}

VantrelClientEvent::~VantrelClientEvent() { settle(false); }

void VantrelClientEvent::settle(bool delivered) {
  if (!receipt_) return;
  const std::shared_ptr<iDeliveryReceipt> receipt = std::move(receipt_);
  receipt_.reset();
  receipt->Settle(*this, delivered);
}

std::uint16_t VantrelClientEvent::isA() const { return kClassId; }

unsigned VantrelClientEvent::hash() const { return gVantrelKeyHash(getToClient()); }

bool VantrelClientEvent::isEqual(const RWCollectable* other) const {
  return SameKey(*this, other, &cVantrelMessage::getToClient);
}

const char* VantrelClientEvent::nameOf() const { return "VantrelClientEvent"; }

// ---- VantrelHostEvent ----------------------------------------------------------------

VantrelHostEvent::VantrelHostEvent(long messageId, const char* toHost, const char* toClient, const char* fromHost,
                                   const char* fromClient, QType qtype, short type, short subtype, const char* data,
                                   long datalen)
    : cVantrelMessage(static_cast<std::uint32_t>(messageId), toHost, toClient, fromHost, fromClient, qtype, type,
                      subtype, data, CheckedLength(datalen, "VantrelHostEvent::VantrelHostEvent")) {}

VantrelHostEvent::VantrelHostEvent(long messageId, const char* toHost, const char* toClient, const char* fromHost,
                                   const char* fromClient, QType qtype, short type, short subtype, tDataSpace space)
    : cVantrelMessage(static_cast<std::uint32_t>(messageId), toHost, toClient, fromHost, fromClient, qtype, type,
                      subtype, space) {}

VantrelHostEvent::VantrelHostEvent(const char* buffer, long length, short type, short subtype)
    : cVantrelMessage(buffer, CheckedLength(length, "VantrelHostEvent::VantrelHostEvent"), type, subtype) {}

VantrelHostEvent::VantrelHostEvent(std::unique_ptr<char[]> buffer, long length, short type, short subtype)
    : cVantrelMessage(std::move(buffer), CheckedLength(length, "VantrelHostEvent::VantrelHostEvent"), type, subtype) {}

VantrelHostEvent::VantrelHostEvent(const char* name, ClientObj* client, int value)
    : cVantrelMessage(0, name, "", "", "", QTYPE_CLIENT, 0, 0, "", 1), BaseEvent(client, value) {}

VantrelHostEvent::~VantrelHostEvent() = default;

std::uint16_t VantrelHostEvent::isA() const { return kClassId; }

unsigned VantrelHostEvent::hash() const { return gVantrelKeyHash(getToHost()); }

bool VantrelHostEvent::isEqual(const RWCollectable* other) const {
  return SameKey(*this, other, &cVantrelMessage::getToHost);
}

const char* VantrelHostEvent::nameOf() const { return "VantrelHostEvent"; }
