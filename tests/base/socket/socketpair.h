#pragma once
// Test helpers: a listener on a free loopback port and a connected pair of
// stream sockets, with options whose time-outs suit tests.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "vantrel/base/socket/streamsocket.h"

namespace vantrel::test {

using nCommunication::nSocket::nImplementation_sho::cSocketOptions;

inline cSocketOptions TestOptions(int communicationMs = 2000) {
  cSocketOptions options;
  options.connectTimeout = nTime::cDiff::FromMilliseconds(2000);
  options.communicationTimeout = nTime::cDiff::FromMilliseconds(communicationMs);
  return options;
}

struct SocketPair {
  std::unique_ptr<StreamSocket> listener;
  std::unique_ptr<StreamSocket> client;    // the connecting side
  std::unique_ptr<StreamSocket> accepted;  // the accepting side

  // Plain pair on loopback; both ends use `options`.
  static SocketPair Plain(const cSocketOptions& options = TestOptions()) {
    SocketPair pair;
    pair.listener = std::make_unique<StreamSocket>(false, "listener");
    pair.listener->CreateListenerSocket(0, c_Socket::eLoopbackOnly);
    pair.client = std::make_unique<StreamSocket>(false, "client");
    EXPECT_TRUE(pair.client->ConnectLocal(pair.listener->LocalPort(), options));
    auto result = pair.listener->Accept(options);
    EXPECT_TRUE(result.handle.has_value());
    if (result.handle) pair.accepted = std::make_unique<StreamSocket>(std::move(*result.handle), result.tls, "accepted");
    return pair;
  }
};

}  // namespace vantrel::test
