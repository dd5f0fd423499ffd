// Stream sockets: frames both ways, batched sends, limits, time-outs, closes
// from other threads and latency measurement.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "tests/base/socket/socketpair.h"
#include "tests/support/testutil.h"
#include "vantrel/base/socket/hostlookup.h"
#include "vantrel/message/wire.h"

using namespace nCommunication::nSocket::nImplementation_sho;
using namespace std::chrono_literals;
using namespace vantrel::test;
using SteadyClock = std::chrono::steady_clock;

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

TEST(StreamSocketTest, SingleAndBatchedFramesRoundTripAndOversizeSendsAreRefused) {
  cSocketOptions options = TestOptions();
  options.maxMessageSize = 200'000;
  auto pair = SocketPair::Plain(options);
  ASSERT_TRUE(pair.accepted);
  EXPECT_TRUE(pair.client->SendTypedMessageZ2(-3, vantrel::wire::kVersionMarker, nullptr, 0));
  cFrame f = ReadFrame(*pair.accepted);
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(f.type, -3);
  EXPECT_EQ(f.subtype, vantrel::wire::kVersionMarker);
  EXPECT_EQ(f.data, "");
  EXPECT_TRUE(pair.accepted->SendTypedMessageZ2(vantrel::wire::kDelivered, vantrel::wire::kChannelAnswers, "x", 1));
  EXPECT_EQ(ReadFrame(*pair.client).data, "x");
  EXPECT_EQ(pair.client->PeerPort(), pair.listener->LocalPort());
  EXPECT_EQ(pair.accepted->PeerPort(), pair.client->LocalPort());
  EXPECT_EQ(pair.client->PeerAddress(), "127.0.0.1");

  // One batch, with a payload larger than the read buffer among small ones.
  std::vector<std::string> payloads;
  StreamSocket::cOutgoingFrame frames[StreamSocket::kMaxBatch];
  for (std::size_t i = 0; i < StreamSocket::kMaxBatch; ++i)
    payloads.push_back(Payload(i == 10 ? 150'000 : i * 3, static_cast<int>(i)));
  for (std::size_t i = 0; i < StreamSocket::kMaxBatch; ++i)  // after the vector has stopped growing
    frames[i] = {static_cast<short>(100 + i), 2, payloads[i].data(), static_cast<unsigned>(payloads[i].size())};
  auto send =
      std::async(std::launch::async, [&] { return pair.client->SendTypedMessages(frames, StreamSocket::kMaxBatch); });
  for (std::size_t i = 0; i < StreamSocket::kMaxBatch; ++i) {
    f = ReadFrame(*pair.accepted);
    ASSERT_TRUE(f.ok) << i;
    EXPECT_EQ(f.type, static_cast<short>(100 + i));
    EXPECT_EQ(f.data, payloads[i]) << i;
  }
  EXPECT_TRUE(send.get());

  // A frame above the maximum fails alone and fails a batch before anything of
  // it is written.
  std::string big(200'001, 'x');
  EXPECT_FALSE(pair.client->SendTypedMessageZ2(1, 0, big.data(), 200'001));
  StreamSocket::cOutgoingFrame bad[2] = {{1, 0, "ok", 2}, {2, 0, big.data(), static_cast<unsigned>(big.size())}};
  EXPECT_FALSE(pair.client->SendTypedMessages(bad, 2));
  EXPECT_TRUE(pair.client->SendTypedMessageZ2(3, 0, big.data(), 200'000));
  f = ReadFrame(*pair.accepted);
  EXPECT_EQ(f.type, 3);
  EXPECT_EQ(f.data.size(), 200'000u);

  // A close by the peer ends the read with false; sends after a local close fail.
  pair.client->CloseSocket();
  EXPECT_FALSE(ReadFrame(*pair.accepted).ok);
  EXPECT_FALSE(pair.client->SendTypedMessageZ2(1, 0, "y", 1));
}

TEST(StreamSocketTest, CloseFromAnotherThreadEndsBlockedReadAndAccept) {
  auto pair = SocketPair::Plain();
  ASSERT_TRUE(pair.accepted);
  auto read = std::async(std::launch::async, [&] { return ReadFrame(*pair.accepted).ok; });
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
  // The descriptor stays open until destruction.
  EXPECT_GE(pair.accepted->Handle(), 0);

  // Half a frame already buffered waits differently from a read between
  // frames; without a communication limit only the close can end it.
  auto raw = SocketPair::Raw(TestOptions(0));
  raw.peer->Send(Wire(6, "whole") + Wire(7, Payload(500, 1)).substr(0, 100));
  EXPECT_EQ(ReadFrame(*raw.accepted).data, "whole");
  read = std::async(std::launch::async, [&] { return ReadFrame(*raw.accepted).ok; });
  EXPECT_EQ(read.wait_for(100ms), std::future_status::timeout);
  raw.accepted->CloseSocket();
  ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
  EXPECT_FALSE(read.get());
}

TEST(StreamSocketTest, ConcurrentSendersNeverInterleaveFrames) {
  auto pair = SocketPair::Plain();
  ASSERT_TRUE(pair.accepted);
  pair.client->EnableWriteBehind({});
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
        // The others post mostly small frames, which ride along with another
        // sender's write or the flusher's, and now and then one too large to be copied.
        const std::size_t size = t % 2 == 0 ? 8 + static_cast<std::size_t>((i * 7919 + t * 104729) % 98304)
                                            : 8 + static_cast<std::size_t>(i % 50 == 0 ? 9000 : (i * 31) % 1500);
        std::string payload(size, static_cast<char>('a' + t));
        std::memcpy(payload.data(), &i, sizeof i);
        const auto send = t % 2 == 0 ? &StreamSocket::SendTypedMessageZ2
                          : t == 1   ? &StreamSocket::PostTypedMessage
                                     : &StreamSocket::PostBehindTypedMessage;
        if (!((*pair.client).*send)(static_cast<short>(t), static_cast<short>(i), payload.data(),
                                    static_cast<unsigned>(payload.size())))
          ++failures;
      }
    });
  std::vector<int> next(kThreads, 0);
  for (int n = 0; n < kThreads * kFrames; ++n) {
    const cFrame f = ReadFrame(*pair.accepted);
    ASSERT_TRUE(f.ok) << "frame " << n;
    ASSERT_GE(f.type, 0);
    ASSERT_LT(f.type, kThreads);
    int index = -1;
    std::memcpy(&index, f.data.data(), sizeof index);
    ASSERT_EQ(index, f.subtype);
    ASSERT_EQ(index, next[f.type]++) << "frames of one sender arrive in order";
    ASSERT_EQ(f.data.find_first_not_of(static_cast<char>('a' + f.type), sizeof index), std::string::npos)
        << "frame body mixed with another frame";
  }
  for (auto& s : senders) s.join();
  EXPECT_EQ(failures.load(), 0);
}

// A lone sender's frames go behind to the flusher; once drained, a close
// straight after loses none of them.
TEST(StreamSocketTest, FramesHandedToTheFlusherAreAllWrittenBeforeADrainedClose) {
  auto pair = SocketPair::Plain();
  ASSERT_TRUE(pair.accepted);
  pair.client->EnableWriteBehind({});
  constexpr int kFrames = 5000;
  for (int i = 0; i < kFrames; ++i) ASSERT_TRUE(pair.client->PostBehindTypedMessage(1, static_cast<short>(i), "x", 2));
  ASSERT_TRUE(pair.client->DrainWrites(10s));
  pair.client->CloseSocket();
  for (int i = 0; i < kFrames; ++i) {
    const cFrame f = ReadFrame(*pair.accepted);
    ASSERT_TRUE(f.ok) << "frame " << i;
    ASSERT_EQ(f.subtype, static_cast<short>(i));
  }
  EXPECT_FALSE(ReadFrame(*pair.accepted).ok);
}

TEST(StreamSocketTest, BrokenFramesFailTheReadButAnIdleConnectionDoesNot) {
  // A bad header fails at once and closes the connection, even without a
  // communication limit: the stream cannot be resynchronised.
  LogCapture log;
  auto bad = SocketPair::Raw(TestOptions(0));
  bad.peer->Send(WireHeader(0x47455420u /* "GET " */, 4));
  EXPECT_FALSE(ReadFrame(*bad.accepted).ok);
  EXPECT_TRUE(log.contains("bad frame marker 0x47455420"));
  EXPECT_TRUE(bad.accepted->IsClosed());

  // Where a frame was cut decides nothing (the frame reader's tests show
  // that): the rest must follow within the communication time-out.
  auto cut = SocketPair::Raw(TestOptions(300));
  cut.peer->Send(Wire(7, Payload(100'000, 2)).substr(0, 30'000));
  const auto start = SteadyClock::now();
  EXPECT_FALSE(ReadFrame(*cut.accepted).ok);
  EXPECT_GE(SteadyClock::now() - start, 250ms);

  // Three time-outs of silence between frames do not end the connection.
  auto idle = SocketPair::Raw(TestOptions(300));
  auto read = std::async(std::launch::async, [&] { return ReadFrame(*idle.accepted).data; });
  EXPECT_EQ(read.wait_for(900ms), std::future_status::timeout);
  idle.peer->Send(Wire(2, "ok"));
  ASSERT_EQ(read.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(read.get(), "ok");
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
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(ReadFrame(*pair.accepted).ok);
  // A close cuts a pending delay short.
  options.simulatedLatency = {nTime::cDiff::FromSeconds(30)};
  auto slow = SocketPair::Plain(options);
  auto send = std::async(std::launch::async, [&] { return slow.client->SendTypedMessageZ2(1, 0, "z", 1); });
  EXPECT_EQ(send.wait_for(100ms), std::future_status::timeout);  // inside the delay
  slow.client->CloseSocket();
  ASSERT_EQ(send.wait_for(2s), std::future_status::ready);
  EXPECT_FALSE(send.get());
}

TEST(StreamSocketTest, LatencyReachesTheHandlerAndItsWarningsAreLimitedPerCycle) {
  RecordingLatency latency;
  LogCapture log;
  auto raw = SocketPair::Raw();
  std::string bytes = Wire(2, "on time");
  for (int i = 0; i < 5; ++i) bytes += Wire(2, "late", NowUs() - 700'000);
  raw.peer->Send(bytes + Wire(2, "ahead", NowUs() + 5'000'000));  // a sender whose clock runs ahead
  EXPECT_EQ(ReadFrame(*raw.accepted, &latency).data, "on time");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(ReadFrame(*raw.accepted, &latency).data, "late");
  EXPECT_TRUE(latency.seen.empty());  // worth a warning, below the threshold
  EXPECT_EQ(ReadFrame(*raw.accepted, &latency).data, "ahead");
  ASSERT_EQ(latency.seen.size(), 1u);
  EXPECT_LT(latency.seen[0], nTime::cDiff::FromMilliseconds(-4000));
  // One warning line per cycle of the socket.
  EXPECT_EQ(log.count("ms from accepted"), 1u);

  // A zero cycle lets every warning through and reports none held back.
  cLatencyLogLimiter everyTime(nTime::cDiff{});
  std::uint64_t suppressed = 1;
  EXPECT_TRUE(everyTime.Allow(nTime::cPoint::Now(), suppressed));
  EXPECT_TRUE(everyTime.Allow(nTime::cPoint::Now(), suppressed));
  EXPECT_EQ(suppressed, 0u);
}

TEST(StreamSocketTest, ListenerPortsConnectFailuresAndHostLookup) {
  StreamSocket first(false, "first");
  first.CreateListenerSocket(0, c_Socket::eAllAddresses);
  ASSERT_NE(first.LocalPort(), 0);
  StreamSocket second(false, "second");
  EXPECT_THROW(second.CreateListenerSocket(first.LocalPort(), c_Socket::eLoopbackOnly), cAlreadyInUse);

  // Nobody listening: one attempt without reactivation, retries for as long as
  // the reactivation time-out says otherwise.
  const unsigned short closedPort = FreePort();
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

  EXPECT_TRUE(gPing("127.0.0.1", first.LocalPort(), nTime::cDiff::FromSeconds(1)).has_value());
  EXPECT_FALSE(gPing("127.0.0.1", closedPort, nTime::cDiff::FromSeconds(1)).has_value());
  EXPECT_EQ(gGetHostByName("127.0.0.1").value_or(""), "127.0.0.1");
  EXPECT_EQ(gGetHostByName("localhost").value_or(""), "127.0.0.1");
  EXPECT_FALSE(gGetHostByName("no-such-host.invalid").has_value());
  EXPECT_FALSE(gGetLocalHostName("host").empty());
}
