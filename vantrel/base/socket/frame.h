#pragma once
// Framing of typed messages on a stream socket.
//
// Every typed message is one frame: a fixed 20-byte header in network byte
// order followed by the payload.
//
//   offset size  field
//   0      4     format marker (kFrameMarker)          } c_MessageHeader
//   4      4     payload length in bytes (unsigned)    }
//   8      2     type (signed)
//   10     2     subtype (signed)
//   12     8     sender's wall-clock send time, microseconds since the Unix epoch
//   20     n     payload
//
// A receiver that meets another marker, or a length above the socket options'
// maximum message size, fails the read as for a closed connection and never
// allocates from the announced length.
#include <cstddef>
#include <cstdint>

// The first two words of every frame header: the format marker and the payload
// length, in host byte order once decoded. A plain value: copying copies both
// words and nothing else.
struct c_MessageHeader {
  std::uint32_t marker = 0;
  std::uint32_t length = 0;
};

namespace nCommunication::nSocket::nImplementation_sho {

// "VTM1": identifies the framing and its revision; a peer speaking anything
// else (a plain-text client, TLS against a plain socket) is caught by it.
inline constexpr std::uint32_t kFrameMarker = 0x56544D31u;
inline constexpr std::size_t kFrameHeaderSize = 20;

// A decoded frame header.
struct cFrameHeader {
  c_MessageHeader words;
  std::int16_t type = 0;
  std::int16_t subtype = 0;
  std::int64_t sendTimeMicroseconds = 0;
};

// Writes `header` into `out` (kFrameHeaderSize bytes) in network byte order.
void gEncodeFrameHeader(const cFrameHeader& header, unsigned char* out);
// Reads a header from `in` (kFrameHeaderSize bytes). Never fails: checking the
// marker and length is the caller's business (see gCheckFrameHeader).
cFrameHeader gDecodeFrameHeader(const unsigned char* in);

enum class tFrameCheck { eOk, eBadMarker, eTooLong };
tFrameCheck gCheckFrameHeader(const cFrameHeader& header, std::uint32_t maxMessageSize);

// One frame of a batch to send; the data stays the caller's.
struct cOutgoingFrame {
  short type = 0;
  short subtype = 0;
  const char* data = nullptr;
  unsigned length = 0;
};
// The most frames one batch may hold.
inline constexpr std::size_t kMaxFramesPerBatch = 64;

}  // namespace nCommunication::nSocket::nImplementation_sho
