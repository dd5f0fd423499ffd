#pragma once
// Test helpers: a listener on a free loopback port and a connected pair of
// stream sockets, a bare TCP peer that writes whatever bytes a test wants, and
// options whose time-outs suit tests.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/frame.h"
#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/frame.h"
#include "vantrel/base/socket/streamsocket.h"

namespace vantrel::test {

namespace sockets = nCommunication::nSocket::nImplementation_sho;
using sockets::cSocketOptions;

inline cSocketOptions TestOptions(int communicationMs = 2000) {
  cSocketOptions options;
  options.connectTimeout = nTime::cDiff::FromMilliseconds(2000);
  options.communicationTimeout = nTime::cDiff::FromMilliseconds(communicationMs);
  return options;
}

// `size` letters that differ with `seed`.
inline std::string Payload(std::size_t size, int seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
  return s;
}

inline std::int64_t NowUs() { return nTime::cPoint::Now().EpochMicroseconds(); }

// The header bytes of one frame as a sender puts them on the wire; marker and
// length are free so that tests can send headers no sender would.
inline std::string WireHeader(std::uint32_t marker, std::uint32_t length, short type = 2,
                              std::int64_t sendTimeUs = NowUs()) {
  sockets::cFrameHeader h;
  h.words = {marker, length};
  h.type = type;
  h.subtype = 1;
  h.sendTimeMicroseconds = sendTimeUs;
  unsigned char raw[sockets::kFrameHeaderSize];
  sockets::gEncodeFrameHeader(h, raw);
  return std::string(reinterpret_cast<char*>(raw), sizeof raw);
}

inline std::string Wire(short type, const std::string& payload, std::int64_t sendTimeUs = NowUs()) {
  return WireHeader(sockets::kFrameMarker, static_cast<std::uint32_t>(payload.size()), type, sendTimeUs) + payload;
}

// A bare TCP connection to a loopback port (the platform socket, unframed).
struct RawPeer {
  platform::cUniqueSocket socket;
  explicit RawPeer(unsigned short port) {
    platform::cSocketResult result;
    socket.Reset(platform::gOpenStreamSocket(platform::tAddressFamily::eIPv4, result));
    platform::gSetNonBlocking(socket.Get(), false);  // connects at once
    const auto loopback = platform::gLookUp("127.0.0.1", port, platform::tLookup::eIPv4Only);
    EXPECT_TRUE(platform::gStartConnect(socket.Get(), loopback.addresses.at(0)).Ok());
  }
  void Send(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
      platform::cSendBuffer rest{bytes.data() + done, bytes.size() - done};
      platform::cSocketResult result;
      done += platform::gSendGathered(socket.Get(), &rest, 1, result);
      if (result.fault == platform::tSocketFault::eWouldBlock)
        platform::gPoll(socket.Get(), platform::tReadiness::eWritable, nullptr, -1);
      else
        ASSERT_TRUE(result.Ok()) << result.Text();
    }
  }
};

struct SocketPair {
  std::unique_ptr<StreamSocket> listener = std::make_unique<StreamSocket>(false, "listener");
  std::unique_ptr<StreamSocket> client;    // the connecting side
  std::unique_ptr<StreamSocket> accepted;  // the accepting side
  std::unique_ptr<RawPeer> peer;           // the connecting side of Raw()

  // Plain pair on loopback; both ends use `options`.
  static SocketPair Plain(const cSocketOptions& options = TestOptions()) {
    SocketPair pair;
    pair.client = std::make_unique<StreamSocket>(false, "client");
    EXPECT_TRUE(pair.client->ConnectLocal(pair.listener->LocalPort(), options));
    pair.Accept(options);
    return pair;
  }

  // A bare peer that writes chosen bytes, and the socket that reads them.
  static SocketPair Raw(const cSocketOptions& options = TestOptions()) {
    SocketPair pair;
    pair.peer = std::make_unique<RawPeer>(pair.listener->LocalPort());
    pair.Accept(options);
    return pair;
  }

 private:
  SocketPair() { listener->CreateListenerSocket(0, c_Socket::eLoopbackOnly); }
  void Accept(const cSocketOptions& options) {
    auto result = listener->Accept(options);
    EXPECT_TRUE(result.handle.has_value());
    if (result.handle) accepted = std::make_unique<StreamSocket>(std::move(*result.handle), result.tls, "accepted");
  }
};

}  // namespace vantrel::test
