#pragma once
// Test helpers: a listener on a free loopback port and a connected pair of
// stream sockets, a bare TCP peer that writes whatever bytes a test wants, and
// options whose time-outs suit tests.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "vantrel/base/socket/frame.h"
#include "tests/support/frame.h"
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

// A bare TCP connection to a loopback port.
struct RawPeer {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  explicit RawPeer(unsigned short port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  ~RawPeer() { ::close(fd); }
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;
  void Send(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      ASSERT_GT(n, 0);
      done += static_cast<std::size_t>(n);
    }
  }
};

struct SocketPair {
  std::unique_ptr<StreamSocket> listener;
  std::unique_ptr<StreamSocket> client;    // the connecting side
  std::unique_ptr<StreamSocket> accepted;  // the accepting side
  std::unique_ptr<RawPeer> peer;           // the connecting side of Raw()

  // Plain pair on loopback; both ends use `options`.
  static SocketPair Plain(const cSocketOptions& options = TestOptions()) {
    SocketPair pair;
    pair.Listen();
    pair.client = std::make_unique<StreamSocket>(false, "client");
    EXPECT_TRUE(pair.client->ConnectLocal(pair.listener->LocalPort(), options));
    pair.Accept(options);
    return pair;
  }

  // A bare peer that writes chosen bytes, and the socket that reads them.
  static SocketPair Raw(const cSocketOptions& options = TestOptions()) {
    SocketPair pair;
    pair.Listen();
    pair.peer = std::make_unique<RawPeer>(pair.listener->LocalPort());
    pair.Accept(options);
    return pair;
  }

 private:
  void Listen() {
    listener = std::make_unique<StreamSocket>(false, "listener");
    listener->CreateListenerSocket(0, c_Socket::eLoopbackOnly);
  }
  void Accept(const cSocketOptions& options) {
    auto result = listener->Accept(options);
    EXPECT_TRUE(result.handle.has_value());
    if (result.handle) accepted = std::make_unique<StreamSocket>(std::move(*result.handle), result.tls, "accepted");
  }
};

}  // namespace vantrel::test
