#include "vantrel/message/typedmsg.h"

#include <cstring>

#include "vantrel/base/log/log.h"

cTypedMessageObject::cTypedMessageObject(const char* data, std::int32_t length, short type, short subtype)
    : type_(type), subtype_(subtype) {
  if (length < 0) {
    VLOG_ERROR("cTypedMessageObject::cTypedMessageObject - negative length %d (type %d), no payload kept", length,
               type);
    return;
  }
  if (length == 0) return;
  if (data == nullptr) {
    VLOG_ERROR("cTypedMessageObject::cTypedMessageObject - null data with length %d (type %d), no payload kept", length,
               type);
    return;
  }
  data_ = new char[static_cast<std::size_t>(length)];
  std::memcpy(data_, data, static_cast<std::size_t>(length));
  length_ = length;
}

cTypedMessageObject::cTypedMessageObject(AdoptBuffer, char* buffer, std::int32_t length, short type, short subtype)
    : type_(type), subtype_(subtype) {
  if (length < 0 || (buffer == nullptr && length > 0)) {
    VLOG_ERROR(
        "cTypedMessageObject::cTypedMessageObject - adopted buffer %s with length %d (type %d), no payload "
        "kept",
        buffer ? "set" : "null", length, type);
    delete[] buffer;
    return;
  }
  if (length == 0) {
    // An empty frame holds no payload, whatever buffer came with it.
    delete[] buffer;
    return;
  }
  data_ = buffer;
  length_ = length;
}

cTypedMessageObject::~cTypedMessageObject() { delete[] data_; }

std::uint16_t cTypedMessageObject::isA() const { return kClassId; }

unsigned cTypedMessageObject::hash() const {
  // FNV-1a over type, subtype and payload.
  unsigned h = 2166136261u;
  auto mix = [&h](unsigned char byte) { h = (h ^ byte) * 16777619u; };
  mix(static_cast<unsigned char>(type_));
  mix(static_cast<unsigned char>(static_cast<unsigned short>(type_) >> 8));
  mix(static_cast<unsigned char>(subtype_));
  mix(static_cast<unsigned char>(static_cast<unsigned short>(subtype_) >> 8));
  for (std::int32_t i = 0; i < length_; ++i) mix(static_cast<unsigned char>(data_[i]));
  return h;
}

bool cTypedMessageObject::isEqual(const RWCollectable* other) const {
  if (other == this) return true;
  if (other == nullptr || other->isA() != kClassId) return false;
  const auto* o = dynamic_cast<const cTypedMessageObject*>(other);
  if (o == nullptr) return false;
  return o->type_ == type_ && o->subtype_ == subtype_ && o->length_ == length_ &&
         (length_ == 0 || std::memcmp(o->data_, data_, static_cast<std::size_t>(length_)) == 0);
}

const char* cTypedMessageObject::nameOf() const { return "cTypedMessageObject"; }

cVantrelMessage* NVSTmo2Ttm(const cTypedMessageObject* frame) {
  if (frame == nullptr) {
    VLOG_ERROR("NVSTmo2Ttm - no frame");
    return nullptr;
  }
  return new cVantrelMessage(frame->getData(), static_cast<std::uint32_t>(frame->getLength()), frame->getType(),
                             frame->getSubtype());
}

void NVSDeleteMsg(cVantrelMessage* message) { delete message; }
