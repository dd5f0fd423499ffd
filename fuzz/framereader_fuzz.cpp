// A byte stream from a peer, cut into frames. The first byte sets how many
// bytes each read of the socket yields (0: as many as asked for); the rest is
// the stream. Every frame handed out is the stream's own bytes in order, no
// header above the maximum is accepted, and only a read between frames may be
// treated as idle.
#include <set>
#include <string>
#include <string_view>

#include "fuzz/fuzzsupport.h"

using namespace nCommunication::nSocket::nImplementation_sho;

namespace {
// Small enough that the fuzzer reaches lengths just above it.
constexpr std::uint32_t kMaxMessageSize = 40 * 1024;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view stream(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  vantrel::fuzz::cMemorySource source(stream, {bytes[0]});
  cFrameReader reader(source);

  std::string frames;  // what came out, framed again
  std::set<std::size_t> boundaries{0};
  for (;;) {
    cFrameHeader header;
    const cFrameReader::tHeader result = reader.ReadHeader(kMaxMessageSize, header);
    if (result == cFrameReader::tHeader::eBadMarker) FUZZ_CHECK(header.words.marker != kFrameMarker);
    if (result == cFrameReader::tHeader::eTooLong) FUZZ_CHECK(header.words.length > kMaxMessageSize);
    if (result != cFrameReader::tHeader::eOk) break;
    FUZZ_CHECK(header.words.marker == kFrameMarker && header.words.length <= kMaxMessageSize);
    const std::uint32_t length = header.words.length;
    const auto payload = reader.ReadPayload(length);
    if (!payload) {
      FUZZ_CHECK(frames.size() + kFrameHeaderSize + length > stream.size());  // only a stream that ends early
      break;
    }
    FUZZ_CHECK(payload[length] == '\0');
    unsigned char raw[kFrameHeaderSize];
    gEncodeFrameHeader(header, raw);
    frames.append(reinterpret_cast<const char*>(raw), sizeof raw).append(payload.get(), length);
    boundaries.insert(frames.size());
  }
  FUZZ_CHECK(stream.substr(0, frames.size()) == frames);
  for (const auto& read : source.reads) FUZZ_CHECK(read.inFrame == (boundaries.count(read.at) == 0));
  return 0;
}
