// What an incoming host link reads first: a byte stream cut into frames (whole
// reads), the first of which must name the peer. Whatever it holds, the host
// text taken from it is its bytes up to the first zero, and a host-name frame
// made from that text the way a connecting service makes it is read back as
// the same peer. The frames that follow become the records the link hands on,
// valid exactly when their packed buffer is.
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzzsupport.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/vantrelnetconnection.h"

using namespace nCommunication::nSocket::nImplementation_sho;
using namespace vantrel::wire;

namespace {
constexpr std::uint32_t kMaxMessageSize = 64 * 1024;

// True when the frame opens the link.
bool CheckHandshake(short type, short subtype, const char* data, unsigned length) {
  std::string peer;
  const tLinkHandshake result = gReadLinkHandshake(type, subtype, data, length, peer);
  const std::string_view text(data, length);
  FUZZ_CHECK(peer.size() < length || (length == 0 && peer.empty()));
  FUZZ_CHECK(text.substr(0, peer.size()) == peer && peer.find('\0') == std::string::npos);
  FUZZ_CHECK((result == tLinkHandshake::eObsolete) == (subtype != kVersionMarker));
  FUZZ_CHECK((result == tLinkHandshake::eOk) == (subtype == kVersionMarker && type == kHostName && !peer.empty()));
  if (result != tLinkHandshake::eOk) return false;
  std::string again;
  FUZZ_CHECK(gReadLinkHandshake(kHostName, kVersionMarker, peer.c_str(), static_cast<unsigned>(peer.size() + 1),
                                again) == tLinkHandshake::eOk &&
             again == peer);
  return true;
}

// The record the link makes of a later frame, for the types it passes on.
void CheckRecord(short type, std::unique_ptr<char[]> payload, std::uint32_t length) {
  std::unique_ptr<cVantrelMessage> unpacked;
  const bool valid = cVantrelMessage::Unpack(payload.get(), length, type, kVersionMarker, unpacked, nullptr);
  switch (type) {
    case kSend:
    case kSendNoResponse:
    case kSendNoWait:
    case kDelivered:
    case kNotDelivered:
      FUZZ_CHECK(VantrelClientEvent(std::move(payload), static_cast<long>(length), type, kVersionMarker).isValid() ==
                 valid);
      break;
    case kFileRequest:
    case kFileTraffic:
      FUZZ_CHECK(VantrelHostEvent(std::move(payload), static_cast<long>(length), type, kVersionMarker).isValid() ==
                 valid);
      break;
    default:
      break;  // pings and unknown types are dropped unread
  }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  vantrel::fuzz::QuietLog();
  vantrel::fuzz::cMemorySource source(std::string_view(reinterpret_cast<const char*>(bytes), size), {0});
  cFrameReader reader(source);
  for (bool first = true;; first = false) {
    cFrameHeader header;
    if (reader.ReadHeader(kMaxMessageSize, header) != cFrameReader::tHeader::eOk) return 0;
    const std::uint32_t length = header.words.length;
    auto payload = reader.ReadPayload(length);
    if (!payload) return 0;
    if (first) {
      if (!CheckHandshake(header.type, header.subtype, payload.get(), length)) return 0;
    } else {
      // The link gives up on a frame of another version.
      if (header.subtype != kVersionMarker) return 0;
      CheckRecord(header.type, std::move(payload), length);
    }
  }
}
