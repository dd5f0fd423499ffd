#pragma once
// Cutting frames (frame.h) out of a byte stream, independent of where the
// bytes come from.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "vantrel/base/socket/frame.h"

namespace nCommunication::nSocket::nImplementation_sho {

// How long the rest of a frame may take once part of it has arrived: set by the
// byte source the first time it has to wait within the frame. The frame reader
// starts a fresh one for every frame.
struct cFrameDeadline {
  static constexpr std::int64_t kNotSet = -2;
  std::int64_t us = kNotSet;  // steady-clock microseconds; -1: no limit
};

// Where a frame reader's bytes come from.
class iByteSource {
 public:
  virtual ~iByteSource() = default;
  // Reads at least one and at most `size` bytes into `buffer`. While `inFrame`
  // is false the connection is idle between frames and may stay so for as long
  // as it likes; once part of a frame has arrived the wait is bounded by
  // `deadline`. Returns 0 when the stream ended, failed, timed out or was
  // closed (the source logs what is worth logging).
  virtual std::size_t Read(char* buffer, std::size_t size, bool inFrame, cFrameDeadline& deadline) = 0;
};

// Reads frames: as much as the source offers goes into a read buffer, so a
// burst of small frames costs one read, while large payloads are read straight
// into their own buffer. Checks each header before trusting its length.
// Ownership: owned by one stream socket (or a test); owns its read buffer and
// borrows the source. Threads: the socket's single reader only.
class cFrameReader {
 public:
  explicit cFrameReader(iByteSource& source) : source_(source) {}

  enum class tHeader { eOk, eFailed, eBadMarker, eTooLong };
  // Reads the next frame header. eFailed: the source ended or failed.
  // eBadMarker / eTooLong: `header` holds what arrived; the stream cannot be
  // resynchronised and must be given up.
  tHeader ReadHeader(std::uint32_t maxMessageSize, cFrameHeader& header);
  // Reads the payload of the header just read into a buffer of length + 1
  // bytes whose last byte is 0. Null when the source failed first.
  std::unique_ptr<char[]> ReadPayload(std::uint32_t length);

 private:
  // Makes at least `need` (<= kBufferSize) bytes available in the buffer.
  bool Fill(std::size_t need, bool inFrame);
  // Reads exactly `size` bytes straight into `buffer`.
  bool ReadDirect(char* buffer, std::size_t size);

  // Every connection has one, for its whole life, on both ends: a thousand
  // links or clients hold a thousand. 16 KiB still takes a few hundred small
  // frames per read.
  static constexpr std::size_t kBufferSize = 16 * 1024;
  // Payloads from this size on go straight into their own buffer; after such a
  // frame the next header is read alone, so a stream of large frames is not
  // copied twice.
  static constexpr std::size_t kDirectPayloadSize = 8 * 1024;

  iByteSource& source_;
  std::unique_ptr<char[]> buffer_;  // made at the first read
  std::size_t start_ = 0;           // bytes [start_, end_) are read and not yet handed out
  std::size_t end_ = 0;
  bool largePayloads_ = false;
  cFrameDeadline deadline_;  // of the frame being read
};

}  // namespace nCommunication::nSocket::nImplementation_sho
