#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "tests/base/socket/socketpair.h"
#include "tests/support/testutil.h"
#include "vantrel/base/socket/frame.h"
#include "vantrel/base/socket/hostlookup.h"

using namespace nCommunication::nSocket::nImplementation_sho;
using namespace std::chrono_literals;
using vantrel::test::LogCapture;
using vantrel::test::SocketPair;
using vantrel::test::TestOptions;
using vantrel::test::WaitUntil;
using SteadyClock = std::chrono::steady_clock;

namespace {

// A bare TCP peer that writes whatever bytes a test wants.
struct RawPeer {
  int fd = -1;
  explicit RawPeer(unsigned short port) {
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  ~RawPeer() { ::close(fd); }
  void Send(const void* data, std::size_t size) {
    ASSERT_EQ(::send(fd, data, size, MSG_NOSIGNAL), static_cast<ssize_t>(size));
  }
  void SendHeader(std::uint32_t marker, std::uint32_t length, std::int64_t sendTimeUs, std::size_t bytes = kFrameHeaderSize) {
    cFrameHeader h;
    h.words = {marker, length};
    h.type = 2;
    h.sendTimeMicroseconds = sendTimeUs;
    unsigned char raw[kFrameHeaderSize];
    gEncodeFrameHeader(h, raw);
    Send(raw, bytes);
  }
};

// Listener plus the StreamSocket made from the raw peer's accepted connection.
struct RawPair {
  StreamSocket listener{false, "listener"};
  std::unique_ptr<RawPeer> peer;
  std::unique_ptr<StreamSocket> accepted;
  explicit RawPair(const cSocketOptions& options) {
    listener.CreateListenerSocket(0, c_Socket::eLoopbackOnly);
    peer = std::make_unique<RawPeer>(listener.LocalPort());
    auto r = listener.Accept(options);
    EXPECT_TRUE(r.handle.has_value());
    accepted = std::make_unique<StreamSocket>(std::move(*r.handle), r.tls, "accepted");
  }
};

struct Frame {
  bool ok = false;
  short type = 0, subtype = 0;
  std::string payload;
};

Frame Read(StreamSocket& socket, iLatencyConfiguration* latency = nullptr) {
  Frame f;
  char* data = nullptr;
  unsigned length = 0;
  f.ok = socket.WaitTypedMessageZ1(f.type, f.subtype, data, length, latency);
  if (f.ok) {
    EXPECT_EQ(data[length], '\0');
    f.payload.assign(data, length);
  }
  StreamSocket::FreeMessage(data);
  return f;
}

std::int64_t NowUs() { return nTime::cPoint::Now().EpochMicroseconds(); }

}  // namespace

TEST(StreamSocketTest, FramesRoundTripBothWays) {
  auto pair = SocketPair::Plain();
  ASSERT_TRUE(pair.accepted);
  EXPECT_TRUE(pair.client->SendTypedMessageZ2(1029, 0, "hello", 6));
  EXPECT_TRUE(pair.client->SendTypedMessageZ2(-3, 32516, nullptr, 0));
  Frame f = Read(*pair.accepted);
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(f.type, 1029);
  EXPECT_EQ(f.payload, std::string("hello", 6));
  f = Read(*pair.accepted);
  EXPECT_EQ(f.type, -3);
  EXPECT_EQ(f.subtype, 32516);
  EXPECT_EQ(f.payload, "");
  EXPECT_TRUE(pair.accepted->SendTypedMessageZ2(102, 1, "x", 1));
  EXPECT_EQ(Read(*pair.client).payload, "x");
  EXPECT_EQ(pair.client->PeerPort(), pair.listener->LocalPort());
  EXPECT_EQ(pair.accepted->PeerPort(), pair.client->LocalPort());
  EXPECT_EQ(pair.client->PeerAddress(), "127.0.0.1");

  // A close by the peer ends the read with false; sends after a local close fail.
  pair.client->CloseSocket();
  EXPECT_FALSE(Read(*pair.accepted).ok);
  EXPECT_FALSE(pair.client->SendTypedMessageZ2(1, 0, "y", 1));
}

TEST(StreamSocketTest, CloseFromAnotherThreadEndsBlockedReadAndAccept) {
  auto pair = SocketPair::Plain();
  ASSERT_TRUE(pair.accepted);
  auto read = std::async(std::launch::async, [&] { return Read(*pair.accepted).ok; });
  auto accept = std::async(std::launch::async, [&] { return pair.listener->Accept(TestOptions()); });
  EXPECT_EQ(read.wait_for(100ms), std::future_status::timeout);  // really blocked
  pair.accepted->CloseSocket();
  pair.listener->CloseSocket();
  ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
  EXPECT_FALSE(read.get());
  ASSERT_EQ(accept.wait_for(2s), std::future_status::ready);
  auto result = accept.get();
  EXPECT_FALSE(result.handle.has_value());
  EXPECT_EQ(result.status, tSocketStatus::eClosed);
  EXPECT_FALSE(gValidate(std::move(result.handle)).handle.fIsValid());
  // The descriptor stays open until destruction.
  EXPECT_GE(pair.accepted->Handle(), 0);
}

TEST(StreamSocketTest, ConcurrentSendersNeverInterleaveFrames) {
  auto pair = SocketPair::Plain();
  ASSERT_TRUE(pair.accepted);
  constexpr int kThreads = 4, kFrames = 300;
  std::vector<std::thread> senders;
  std::atomic<int> failures{0};
  // On a failed assertion the socket closes first, so the senders end before the pair goes.
  struct Joiner {
    std::vector<std::thread>& threads;
    StreamSocket& socket;
    ~Joiner() {
      socket.CloseSocket();
      for (auto& t : threads)
        if (t.joinable()) t.join();
    }
  } joiner{senders, *pair.client};
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([&, t] {
      for (int i = 0; i < kFrames; ++i) {
        // Sizes up to 96 KiB force partial writes; every byte names its frame.
        const std::size_t size = 8 + static_cast<std::size_t>((i * 7919 + t * 104729) % 98304);
        std::string payload(size, static_cast<char>('a' + t));
        std::memcpy(payload.data(), &i, sizeof i);
        if (!pair.client->SendTypedMessageZ2(static_cast<short>(t), static_cast<short>(i), payload.data(),
                                             static_cast<unsigned>(payload.size())))
          ++failures;
      }
    });
  std::vector<int> next(kThreads, 0);
  for (int n = 0; n < kThreads * kFrames; ++n) {
    const Frame f = Read(*pair.accepted);
    ASSERT_TRUE(f.ok) << "frame " << n;
    ASSERT_GE(f.type, 0);
    ASSERT_LT(f.type, kThreads);
    int index = -1;
    std::memcpy(&index, f.payload.data(), sizeof index);
    ASSERT_EQ(index, f.subtype);
    ASSERT_EQ(index, next[f.type]++) << "frames of one sender arrive in order";
    ASSERT_EQ(f.payload.find_first_not_of(static_cast<char>('a' + f.type), sizeof index), std::string::npos)
        << "frame body mixed with another frame";
  }
  for (auto& s : senders) s.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST(StreamSocketTest, BadMarkerOrOversizeLengthFailsTheReadAtOnce) {
  // No communication limit: a reader that believed the length would wait for
  // ever for the payload instead of failing.
  cSocketOptions options = TestOptions(0);
  options.maxMessageSize = 1024;
  LogCapture log;
  {
    RawPair raw(options);
    raw.peer->SendHeader(0x47455420u /* "GET " */, 4, NowUs());
    auto read = std::async(std::launch::async, [&] { return Read(*raw.accepted).ok; });
    ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
    EXPECT_FALSE(read.get());
    EXPECT_TRUE(log.contains("bad frame marker"));
  }
  {
    RawPair raw(options);
    raw.peer->SendHeader(kFrameMarker, 0xFFFFFFF0u, NowUs());
    auto read = std::async(std::launch::async, [&] { return Read(*raw.accepted).ok; });
    ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
    EXPECT_FALSE(read.get());
    EXPECT_TRUE(log.contains("exceeds the maximum of 1024"));
    // The stream cannot be trusted any more: later reads fail too.
    EXPECT_FALSE(Read(*raw.accepted).ok);
  }
  // The limit holds for senders as well.
  auto pair = SocketPair::Plain(options);
  std::string big(1025, 'x');
  EXPECT_FALSE(pair.client->SendTypedMessageZ2(1, 0, big.data(), 1025));
  EXPECT_TRUE(pair.client->SendTypedMessageZ2(1, 0, big.data(), 1024));
}

TEST(StreamSocketTest, HalfSentFrameTimesOutButAnIdleConnectionDoesNot) {
  const cSocketOptions options = TestOptions(300);
  {
    RawPair raw(options);
    raw.peer->SendHeader(kFrameMarker, 4, NowUs(), 10);  // half a header
    const auto start = SteadyClock::now();
    auto read = std::async(std::launch::async, [&] { return Read(*raw.accepted).ok; });
    ASSERT_EQ(read.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(read.get());
    EXPECT_GE(SteadyClock::now() - start, 250ms);
  }
  {
    RawPair raw(options);
    raw.peer->SendHeader(kFrameMarker, 4, NowUs());  // header, payload missing
    auto read = std::async(std::launch::async, [&] { return Read(*raw.accepted).ok; });
    ASSERT_EQ(read.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(read.get());
  }
  {
    RawPair raw(options);
    auto read = std::async(std::launch::async, [&] { return Read(*raw.accepted); });
    // Three time-outs of silence between frames do not end the connection.
    EXPECT_EQ(read.wait_for(900ms), std::future_status::timeout);
    raw.peer->SendHeader(kFrameMarker, 2, NowUs());
    raw.peer->Send("ok", 2);
    ASSERT_EQ(read.wait_for(5s), std::future_status::ready);
    const Frame f = read.get();
    EXPECT_TRUE(f.ok);
    EXPECT_EQ(f.payload, "ok");
  }
}

TEST(StreamSocketTest, SimulatedLatencyDelaysFramesInTurn) {
  cSocketOptions options = TestOptions();
  options.simulatedLatency = {nTime::cDiff::FromMilliseconds(150), nTime::cDiff::FromMilliseconds(0)};
  auto pair = SocketPair::Plain(options);
  ASSERT_TRUE(pair.accepted);
  std::vector<SteadyClock::duration> took;
  for (int i = 0; i < 4; ++i) {
    const auto start = SteadyClock::now();
    ASSERT_TRUE(pair.client->SendTypedMessageZ2(1, 0, "z", 1));
    took.push_back(SteadyClock::now() - start);
  }
  EXPECT_GE(took[0], 150ms);
  EXPECT_GE(took[2], 150ms);  // the list cycles
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(Read(*pair.accepted).ok);
  // A close cuts a pending delay short.
  options.simulatedLatency = {nTime::cDiff::FromSeconds(30)};
  auto slow = SocketPair::Plain(options);
  auto send = std::async(std::launch::async, [&] { return slow.client->SendTypedMessageZ2(1, 0, "z", 1); });
  EXPECT_EQ(send.wait_for(100ms), std::future_status::timeout);  // inside the delay
  slow.client->CloseSocket();
  ASSERT_EQ(send.wait_for(2s), std::future_status::ready);
  EXPECT_FALSE(send.get());
}

namespace {
class RecordingLatency : public iLatencyConfiguration {
 public:
  RecordingLatency()
      : iLatencyConfiguration(nTime::cDiff::FromMilliseconds(1000), nTime::cDiff::FromMilliseconds(500),
                              nTime::cDiff::FromMilliseconds(500)) {}
  std::vector<nTime::cDiff> seen;

 protected:
  void OnLatencyAboveThreshold(nTime::cDiff latency) override { seen.push_back(latency); }
};
}  // namespace

TEST(StreamSocketTest, LatencyOfASenderWhoseClockRunsAheadReachesTheHandler) {
  RecordingLatency latency;
  RawPair raw(TestOptions());
  raw.peer->SendHeader(kFrameMarker, 1, NowUs());
  raw.peer->Send("a", 1);
  raw.peer->SendHeader(kFrameMarker, 1, NowUs() + 5'000'000);  // five seconds ahead
  raw.peer->Send("b", 1);
  EXPECT_EQ(Read(*raw.accepted, &latency).payload, "a");
  EXPECT_TRUE(latency.seen.empty());
  EXPECT_EQ(Read(*raw.accepted, &latency).payload, "b");
  ASSERT_EQ(latency.seen.size(), 1u);
  EXPECT_LT(latency.seen[0], nTime::cDiff::FromMilliseconds(-4000));
}

TEST(LatencyConfigurationTest, WarningsAreLimitedPerCycle) {
  RecordingLatency latency;
  cLatencyLogLimiter limiter(nTime::cDiff::FromSeconds(3600));
  LogCapture log;
  for (int i = 0; i < 5; ++i) latency.Measure(nTime::cDiff::FromMilliseconds(700), "peer", &limiter);
  EXPECT_EQ(log.count("latency 700 ms from peer"), 1u);
  EXPECT_TRUE(latency.seen.empty());  // logged, below the threshold
  EXPECT_TRUE(latency.Measure(nTime::cDiff::FromMilliseconds(-1500), "peer", nullptr));
  EXPECT_EQ(log.count("latency -1500 ms"), 1u);
  cLatencyLogLimiter everyTime(nTime::cDiff{});
  std::uint64_t suppressed = 1;
  EXPECT_TRUE(everyTime.Allow(nTime::cPoint::Now(), suppressed));
  EXPECT_TRUE(everyTime.Allow(nTime::cPoint::Now(), suppressed));
  EXPECT_EQ(suppressed, 0u);
}

TEST(StreamSocketTest, ListenerPortsAndConnectFailures) {
  StreamSocket first(false, "first");
  first.CreateListenerSocket(0, c_Socket::eAllAddresses);
  ASSERT_NE(first.LocalPort(), 0);
  StreamSocket second(false, "second");
  EXPECT_THROW(second.CreateListenerSocket(first.LocalPort(), c_Socket::eLoopbackOnly), cAlreadyInUse);

  // Nobody listening: one attempt without reactivation, retries for as long as
  // the reactivation time-out says otherwise.
  const unsigned short closedPort = vantrel::test::FreePort();
  StreamSocket once(false, "once");
  EXPECT_FALSE(once.ConnectLocal(closedPort, TestOptions()));
  cSocketOptions retrying = TestOptions();
  retrying.closedReactivationTimeout = nTime::cDiff::FromMilliseconds(400);
  StreamSocket patient(false, "patient");
  const auto start = SteadyClock::now();
  EXPECT_FALSE(patient.ConnectLocal(closedPort, retrying));
  EXPECT_GE(SteadyClock::now() - start, 350ms);
  StreamSocket unresolvable(false, "unresolvable");
  EXPECT_FALSE(unresolvable.Connect("no-such-host.invalid", 9011, TestOptions()));
}

TEST(HostLookupTest, PingResolveAndLocalName) {
  StreamSocket listener(false, "listener");
  listener.CreateListenerSocket(0, c_Socket::eLoopbackOnly);
  EXPECT_TRUE(gPing("127.0.0.1", listener.LocalPort(), nTime::cDiff::FromSeconds(1)).has_value());
  EXPECT_FALSE(gPing("127.0.0.1", vantrel::test::FreePort(), nTime::cDiff::FromSeconds(1)).has_value());
  EXPECT_EQ(gGetHostByName("127.0.0.1").value_or(""), "127.0.0.1");
  EXPECT_EQ(gGetHostByName("localhost").value_or(""), "127.0.0.1");
  EXPECT_FALSE(gGetHostByName("no-such-host.invalid").has_value());
  EXPECT_FALSE(gGetLocalHostName("host").empty());
}
