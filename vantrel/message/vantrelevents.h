#pragma once
// VantrelClientEvent and VantrelHostEvent: a message record that is also an
// event of the event framework, so that the service can route it.
//
// A client event is keyed by its to-client name (it is delivered to a local
// client); a host event by its to-host name (it goes to another host's
// service). The same classes are the registration keys (built from a name and
// the client object that wants the traffic) and the routed messages. Two events
// are equal when they are of the same class and their key texts are equal byte
// for byte; nothing else of the records is compared. A client event never
// equals a host event.
//
// Ownership and threads: as for their bases. A routed event belongs to whoever
// holds it (creator, queue, taker); a registration key belongs to the registry
// it was registered with. An event is not changed once it is posted, so the
// threads it passes through only read it; the one exception is its receipt,
// which only the event's current holder settles.
#include <cstdint>
#include <memory>

#include "vantrel/base/events/events.h"
#include "vantrel/message/packmsg.h"

// Whoever answers the sender of a routed message once the message has been
// written to its addressee's connection, or has been dropped on the way. Shared
// by every message one connection routes, so that a message carries only a
// pointer; it outlives the connection that made it, and then answers nobody.
class iDeliveryReceipt {
 public:
  virtual ~iDeliveryReceipt() = default;
  // `message` was written (delivered) or dropped. Called once per message, on
  // the thread that wrote or dropped it, possibly under the router's lock: it
  // only queues, never blocks.
  virtual void Settle(const cVantrelMessage& message, bool delivered) = 0;
};

class VantrelClientEvent : public cVantrelMessage, public BaseEvent {
 public:
  static constexpr std::uint16_t kClassId = 0;

  // Copies share the record's bytes but never the receipt: a message is
  // answered once, by the holder of the original.
  VantrelClientEvent(const VantrelClientEvent& other) : cVantrelMessage(other), BaseEvent(other) {}
  // A record from its parts, with a default event part. A negative length is
  // logged and taken as no data.
  VantrelClientEvent(long messageId, const char* toHost, const char* toClient, const char* fromHost,
                     const char* fromClient, QType qtype, short type, short subtype, const char* data, long datalen);
  // A record rebuilt from a packed buffer (see cVantrelMessage), with a
  // default event part. A malformed buffer leaves the record invalid.
  VantrelClientEvent(const char* buffer, long length, short type, short subtype);
  // As above, taking over a buffer allocated with new char[] instead of copying it.
  VantrelClientEvent(std::unique_ptr<char[]> buffer, long length, short type, short subtype);
  // A registration key: to client `name`, every other text empty, id, QType,
  // type and subtype 0, data the empty text with length 1; the event part
  // names `client` and its handler id `value`.
  VantrelClientEvent(const char* name, ClientObj* client, int value);
  VantrelClientEvent& operator=(const VantrelClientEvent& other);
  // An event dropped before it was written settles its receipt as not delivered.
  ~VantrelClientEvent() override;

  // Asks for an answer to the sender once the message is written or dropped.
  void setReceipt(std::shared_ptr<iDeliveryReceipt> receipt) { receipt_ = std::move(receipt); }
  bool hasReceipt() const { return receipt_ != nullptr; }
  // Answers the sender now (at most once); later calls and the destructor do nothing.
  void settle(bool delivered);
  // Forgets the receipt without answering: the caller answers itself.
  void dropReceipt() { receipt_.reset(); }

  std::uint16_t isA() const override;
  unsigned hash() const override;
  bool isEqual(const RWCollectable* other) const override;
  const char* nameOf() const override;

 private:
  std::shared_ptr<iDeliveryReceipt> receipt_;
};

class VantrelHostEvent : public cVantrelMessage, public BaseEvent {
 public:
  static constexpr std::uint16_t kClassId = 1;

  VantrelHostEvent(const VantrelHostEvent& other) = default;
  VantrelHostEvent(long messageId, const char* toHost, const char* toClient, const char* fromHost,
                   const char* fromClient, QType qtype, short type, short subtype, const char* data, long datalen);
  // A record whose data is left for the caller to write (see cVantrelMessage::tDataSpace).
  VantrelHostEvent(long messageId, const char* toHost, const char* toClient, const char* fromHost,
                   const char* fromClient, QType qtype, short type, short subtype, tDataSpace space);
  VantrelHostEvent(const char* buffer, long length, short type, short subtype);
  VantrelHostEvent(std::unique_ptr<char[]> buffer, long length, short type, short subtype);
  // A registration key: as for VantrelClientEvent, with `name` as the to host.
  VantrelHostEvent(const char* name, ClientObj* client, int value);
  VantrelHostEvent& operator=(const VantrelHostEvent& other) = default;
  ~VantrelHostEvent() override;

  std::uint16_t isA() const override;
  unsigned hash() const override;
  bool isEqual(const RWCollectable* other) const override;
  const char* nameOf() const override;
};

// The exact-case hash of a key text used by both event classes (FNV-1a).
unsigned gVantrelKeyHash(const char* key);

// The subtype on which the answer to a request of `requestType` reaches its
// sender. An acknowledged send waits on the answers channel for either outcome,
// so a failure ends its wait at once instead of after its time-out; a no-wait
// send hears "delivered" there and a failure among its messages, with its id;
// every other failure (a copy's above all, whose result comes there too) goes
// with the messages.
short gAnswerChannel(short requestType, bool delivered);
