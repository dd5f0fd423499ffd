#pragma once
// cTypedMessageObject: one frame as a socket reader received it, the bare
// (type, subtype, payload) triple before it is turned into a message record.
//
// Ownership: the object owns its payload and releases it when destroyed. The
// object itself belongs to whoever created it or took it from a queue. It is
// handed from the reader thread to other threads through event queues and is
// not changed after construction, so any thread may read it.
#include <cstdint>

#include "vantrel/base/export.h"
#include "vantrel/base/platform/collectable.h"
#include "vantrel/message/packmsg.h"

// One received frame: its type, subtype and payload, before it becomes a record.
// No operation blocks; the constructors throw std::bad_alloc only.
class VANTREL_API cTypedMessageObject : public RWCollectable {
 public:
  // Class id reported by isA().
  static constexpr std::uint16_t kClassId = 0x0100;

  // Selects the constructor that takes over an existing buffer.
  struct AdoptBuffer {};

  // Copies `length` bytes of `data`. A length of 0 or below keeps no payload
  // and allocates nothing (a negative length is logged and stored as 0); a
  // positive length with null data is logged and also keeps no payload.
  cTypedMessageObject(const char* data, std::int32_t length, short type, short subtype);
  // Takes over `buffer` without copying: the socket reader's way to hand on a
  // frame it has just read. The buffer must have been allocated with
  // `new char[n]` for some n >= length (or be null with length 0); the object
  // releases it with `delete[]` (at once when the length is 0, so that an empty
  // frame, like the copying constructor's, holds a null payload). A null buffer
  // with a positive length, or a negative length, is logged and stored as no
  // payload.
  cTypedMessageObject(AdoptBuffer, char* buffer, std::int32_t length, short type, short subtype);
  // Releases the payload.
  ~cTypedMessageObject() override;
  cTypedMessageObject(const cTypedMessageObject&) = delete;
  cTypedMessageObject& operator=(const cTypedMessageObject&) = delete;

  // The frame's type (a record type or frame type of vantrel/message/wire.h)
  // and subtype (on a client connection, the channel it arrived on).
  short getType() const { return type_; }
  short getSubtype() const { return subtype_; }
  // The payload, owned by this object and valid until it is destroyed; null
  // when there is none. Not zero-terminated: read getLength() bytes.
  const char* getData() const { return data_; }
  std::int32_t getLength() const { return length_; }

  // kClassId.
  std::uint16_t isA() const override;
  // A hash of type, subtype and payload bytes, consistent with isEqual.
  unsigned hash() const override;
  // Equal when the other object is a typed message with the same type, subtype
  // and payload bytes; false for null.
  bool isEqual(const RWCollectable* other) const override;
  // The class name for log lines (a static text).
  const char* nameOf() const override;

 private:
  short type_;
  short subtype_;
  char* data_ = nullptr;
  std::int32_t length_ = 0;
};

// A new record rebuilt from a received frame (the frame's payload is a packed
// record); `frame` is only read and stays the caller's. The caller owns the
// result and releases it with NVSDeleteMsg. Null only for a null frame; a frame
// that holds no well-formed record gives an invalid record (see
// cVantrelMessage::isValid), which has been logged. Any thread; never blocks.
VANTREL_API cVantrelMessage* NVSTmo2Ttm(const cTypedMessageObject* frame);
// Destroys a record made by NVSTmo2Ttm; null is allowed. Never throws.
VANTREL_API void NVSDeleteMsg(cVantrelMessage* message);
