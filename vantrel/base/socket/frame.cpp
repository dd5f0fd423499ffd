#include "vantrel/base/socket/frame.h"

namespace nCommunication::nSocket::nImplementation_sho {
namespace {

void PutBE(unsigned char* out, std::uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) {
    out[i] = static_cast<unsigned char>(value & 0xFFu);
    value >>= 8;
  }
}

std::uint64_t GetBE(const unsigned char* in, int bytes) {
  std::uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value = (value << 8) | in[i];
  return value;
}

}  // namespace

void gEncodeFrameHeader(const cFrameHeader& header, unsigned char* out) {
  PutBE(out + 0, header.words.marker, 4);
  PutBE(out + 4, header.words.length, 4);
  PutBE(out + 8, static_cast<std::uint16_t>(header.type), 2);
  PutBE(out + 10, static_cast<std::uint16_t>(header.subtype), 2);
  PutBE(out + 12, static_cast<std::uint64_t>(header.sendTimeMicroseconds), 8);
}

cFrameHeader gDecodeFrameHeader(const unsigned char* in) {
  cFrameHeader header;
  header.words.marker = static_cast<std::uint32_t>(GetBE(in + 0, 4));
  header.words.length = static_cast<std::uint32_t>(GetBE(in + 4, 4));
  header.type = static_cast<std::int16_t>(static_cast<std::uint16_t>(GetBE(in + 8, 2)));
  header.subtype = static_cast<std::int16_t>(static_cast<std::uint16_t>(GetBE(in + 10, 2)));
  header.sendTimeMicroseconds = static_cast<std::int64_t>(GetBE(in + 12, 8));
  return header;
}

tFrameCheck gCheckFrameHeader(const cFrameHeader& header, std::uint32_t maxMessageSize) {
  if (header.words.marker != kFrameMarker) return tFrameCheck::eBadMarker;
  if (header.words.length > maxMessageSize) return tFrameCheck::eTooLong;
  return tFrameCheck::eOk;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
