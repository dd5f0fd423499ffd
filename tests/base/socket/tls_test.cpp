#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>

#include "tests/base/socket/socketpair.h"
#include "tests/support/testutil.h"
#include "tests/support/tlscerts.h"
#include "vantrel/message/wire.h"

using namespace nCommunication::nSocket::nImplementation_sho;
using namespace std::chrono_literals;
using namespace vantrel::test;
using namespace vantrel::wire;

namespace {

// A TLS listener on loopback whose accepted connections run their handshake on
// a thread of their own, as the service's connections do.
class TlsFixture : public ::testing::Test {
 protected:
  void StartListener(const std::string& folder, bool verifyClient, int communicationMs = 2000) {
    options_ = TestOptions(communicationMs);
    listener_ = std::make_unique<StreamSocket>(true, "tls-listener");
    listener_->SetTlsSettings({folder, false, verifyClient});
    listener_->CreateListenerSocket(0, c_Socket::eLoopbackOnly);
  }

  // Accepts one connection and starts its handshake; the future tells the result.
  std::future<bool> AcceptOne(std::unique_ptr<StreamSocket>& accepted) {
    auto result = listener_->Accept(options_);
    EXPECT_TRUE(result.handle.has_value());
    EXPECT_NE(result.tls, nullptr);
    auto valid = gValidate(std::move(result.handle));
    EXPECT_EQ(valid.status, tSocketStatus::eGood);
    accepted = std::make_unique<StreamSocket>(std::move(valid.handle), result.tls, "accepted");
    StreamSocket* socket = accepted.get();
    const auto options = options_;
    return std::async(std::launch::async, [socket, options] { return socket->CompleteAcceptHandshake(options); });
  }

  // Connects a client with the given folder and verification; runs the server
  // handshake alongside. Returns {client connected, server handshake done}.
  std::pair<bool, bool> Dial(const std::string& folder, const std::string& host, bool verifyServer) {
    client_ = std::make_unique<StreamSocket>(true, "tls-client");
    client_->SetTlsSettings({folder, verifyServer, false});
    auto connected =
        std::async(std::launch::async, [&] { return client_->Connect(host, listener_->LocalPort(), options_); });
    auto handshake = AcceptOne(accepted_);
    const bool clientOk = connected.get();
    if (!clientOk) accepted_->CloseSocket();
    const bool serverOk = handshake.get();
    return {clientOk, serverOk};
  }

  TestAuthority authority_{"Vantrel Test CA"};
  TestAuthority stranger_{"Untrusted CA"};
  TempDir dir_;
  cSocketOptions options_;
  std::unique_ptr<StreamSocket> listener_, client_, accepted_;
};

}  // namespace

TEST_F(TlsFixture, EachSideRejectsAPeerItCannotTrustOnlyWhenItVerifiesAndSessionsCarryFrames) {
  authority_.WriteHostFolder(dir_.file("named"), {"localhost"}, {"127.0.0.1"});
  authority_.WriteHostFolder(dir_.file("server"), {"elsewhere.test"}, {"127.0.0.1"});
  stranger_.WriteHostFolder(dir_.file("stranger-server"), {"localhost"}, {"127.0.0.1"});
  authority_.WriteHostFolder(dir_.file("client"), {"client.test"}, {});
  stranger_.WriteHostFolder(dir_.file("stranger-client"), {"client.test"}, {});
  std::filesystem::create_directories(dir_.file("bare"));  // no certificate of its own
  const struct {
    const char* name;
    const char* server;
    bool verifyClient;
    const char* client;
    const char* host;
    bool verifyServer;
    bool accepted;  // the verdict of the verifying side (the server's when it verifies its client)
  } rows[] = {
      {"untrusted authority", "stranger-server", false, "client", "127.0.0.1", true, false},
      {"untrusted authority, not verified", "stranger-server", false, "client", "127.0.0.1", false, true},
      {"server named by its address", "server", false, "client", "127.0.0.1", true, true},
      {"server name not in its certificate", "server", false, "client", "localhost", true, false},
      {"client without a certificate", "server", true, "bare", "127.0.0.1", false, false},
      {"client from an untrusted authority", "server", true, "stranger-client", "127.0.0.1", false, false},
      {"trusted client", "server", true, "client", "127.0.0.1", false, true},
      {"both verified, server named by its name", "named", true, "client", "localhost", true, true},
  };
  LogCapture log;
  for (const auto& row : rows) {
    StartListener(dir_.file(row.server), row.verifyClient);
    const auto [clientOk, serverOk] = Dial(dir_.file(row.client), row.host, row.verifyServer);
    EXPECT_EQ(row.verifyClient ? serverOk : clientOk, row.accepted) << row.name;
    if (clientOk && serverOk) {
      ASSERT_TRUE(client_->SendTypedMessageZ2(kHostName, kVersionMarker, "lg01~9011", 10)) << row.name;
      EXPECT_EQ(ReadFrame(*accepted_).data, std::string("lg01~9011", 10)) << row.name;
      ASSERT_TRUE(accepted_->SendTypedMessageZ2(kPing, kVersionMarker, "", 1)) << row.name;
      EXPECT_EQ(ReadFrame(*client_).type, kPing) << row.name;
    }
  }
  EXPECT_TRUE(log.contains("handshake failed"));
  EXPECT_TRUE(log.contains("hostname mismatch"));
}

TEST_F(TlsFixture, PlainOrSilentPeerFailsItsHandshakeWithoutBlockingOthers) {
  authority_.WriteHostFolder(dir_.file("server"), {"localhost"}, {"127.0.0.1"});
  StartListener(dir_.file("server"), false, /*communicationMs=*/400);
  LogCapture log;

  // A silent plain-text peer: its handshake runs on its own thread, so the
  // listener accepts and completes a real TLS client meanwhile.
  RawPeer silent(listener_->LocalPort());
  std::unique_ptr<StreamSocket> silentAccepted;
  const auto start = std::chrono::steady_clock::now();
  auto silentHandshake = AcceptOne(silentAccepted);

  const auto [clientOk, serverOk] = Dial(dir_.file("server"), "127.0.0.1", false);
  EXPECT_TRUE(clientOk);
  EXPECT_TRUE(serverOk);
  EXPECT_EQ(silentHandshake.wait_for(0s), std::future_status::timeout);

  ASSERT_EQ(silentHandshake.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(silentHandshake.get());
  EXPECT_GE(std::chrono::steady_clock::now() - start, 350ms);
  EXPECT_TRUE(log.contains("timed out"));

  // A peer that speaks the plain framing fails at once with OpenSSL's reason.
  StreamSocket plain(false, "plain");
  ASSERT_TRUE(plain.ConnectLocal(listener_->LocalPort(), options_));
  std::unique_ptr<StreamSocket> plainAccepted;
  auto plainHandshake = AcceptOne(plainAccepted);
  ASSERT_TRUE(plain.SendTypedMessageZ2(kGreeting, 0, "greeting", 9));
  ASSERT_EQ(plainHandshake.wait_for(2s), std::future_status::ready);
  EXPECT_FALSE(plainHandshake.get());
  EXPECT_TRUE(log.contains("handshake failed"));
}
