// Buffered reads and batched sends: frames that share a segment, frames split
// over several segments, payloads larger than the read buffer, and closes or
// time-outs in the middle of a buffered frame.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "tests/base/socket/socketpair.h"
#include "vantrel/base/socket/frame.h"

using namespace nCommunication::nSocket::nImplementation_sho;
using namespace std::chrono_literals;
using vantrel::test::SocketPair;
using vantrel::test::TestOptions;

namespace {

// The bytes of one frame as a sender puts them on the wire.
std::string Wire(short type, const std::string& payload) {
  cFrameHeader h;
  h.words = {kFrameMarker, static_cast<std::uint32_t>(payload.size())};
  h.type = type;
  h.subtype = 1;
  h.sendTimeMicroseconds = nTime::cPoint::Now().EpochMicroseconds();
  unsigned char raw[kFrameHeaderSize];
  gEncodeFrameHeader(h, raw);
  return std::string(reinterpret_cast<char*>(raw), kFrameHeaderSize) + payload;
}

// A listener, a bare TCP peer writing chosen bytes, and the StreamSocket that
// reads them.
struct RawFeed {
  StreamSocket listener{false, "listener"};
  int fd = -1;
  std::unique_ptr<StreamSocket> reader;
  explicit RawFeed(const cSocketOptions& options) {
    listener.CreateListenerSocket(0, c_Socket::eLoopbackOnly);
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(listener.LocalPort());
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    auto r = listener.Accept(options);
    EXPECT_TRUE(r.handle.has_value());
    reader = std::make_unique<StreamSocket>(std::move(*r.handle), r.tls, "reader");
  }
  ~RawFeed() { ::close(fd); }
  void Send(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      ASSERT_GT(n, 0);
      done += static_cast<std::size_t>(n);
    }
  }
};

struct Frame {
  bool ok = false;
  short type = 0;
  std::string payload;
};

Frame Read(StreamSocket& socket) {
  Frame f;
  short subtype = 0;
  char* data = nullptr;
  unsigned length = 0;
  f.ok = socket.WaitTypedMessageZ1(f.type, subtype, data, length, nullptr);
  if (f.ok) {
    EXPECT_EQ(data[length], '\0');
    f.payload.assign(data, length);
  }
  StreamSocket::FreeMessage(data);
  return f;
}

std::string Payload(std::size_t size, int seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>('a' + (i * 7 + seed) % 26);
  return s;
}

}  // namespace

TEST(StreamBufferTest, FramesSharingSegmentsComeOutWholeAndInOrder) {
  RawFeed feed(TestOptions());
  // Small frames around payloads larger than the read buffer (read partly from
  // the buffer, partly straight into their own), all written at once.
  std::vector<std::string> payloads;
  std::string bytes;
  for (int i = 0; i < 40; ++i) {
    payloads.push_back(Payload(i % 10 == 5 ? 100'000 + i : static_cast<std::size_t>(i), i));
    bytes += Wire(static_cast<short>(i), payloads.back());
  }
  auto writer = std::async(std::launch::async, [&] { feed.Send(bytes); });
  for (int i = 0; i < 40; ++i) {
    const Frame f = Read(*feed.reader);
    ASSERT_TRUE(f.ok) << i;
    EXPECT_EQ(f.type, i);
    EXPECT_EQ(f.payload, payloads[i]) << i;
  }
  writer.get();
}

TEST(StreamBufferTest, FramesSplitAcrossSegmentsWaitForTheirRest) {
  RawFeed feed(TestOptions());
  const std::string first = Wire(1, "first"), second = Wire(2, "second"), third = Wire(3, Payload(3000, 3));
  feed.Send(first.substr(0, 7));  // part of a header
  auto read = std::async(std::launch::async, [&] { return Read(*feed.reader); });
  EXPECT_EQ(read.wait_for(50ms), std::future_status::timeout);
  // The rest of the first frame, the whole second and the start of the third.
  feed.Send(first.substr(7) + second + third.substr(0, 25));
  ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
  Frame f = read.get();
  EXPECT_TRUE(f.ok);
  EXPECT_EQ(f.payload, "first");
  f = Read(*feed.reader);
  EXPECT_EQ(f.type, 2);
  EXPECT_EQ(f.payload, "second");
  read = std::async(std::launch::async, [&] { return Read(*feed.reader); });
  EXPECT_EQ(read.wait_for(50ms), std::future_status::timeout);
  feed.Send(third.substr(25));
  ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
  f = read.get();
  EXPECT_EQ(f.type, 3);
  EXPECT_EQ(f.payload, Payload(3000, 3));
}

TEST(StreamBufferTest, IncompleteBufferedFrameEndsOnCloseOrTimeOut) {
  {
    // No communication limit: only the close can end this read.
    RawFeed feed(TestOptions(0));
    const std::string frame = Wire(7, Payload(500, 1));
    feed.Send(Wire(6, "whole") + frame.substr(0, 100));
    EXPECT_EQ(Read(*feed.reader).payload, "whole");
    auto read = std::async(std::launch::async, [&] { return Read(*feed.reader).ok; });
    EXPECT_EQ(read.wait_for(100ms), std::future_status::timeout);
    feed.reader->CloseSocket();
    ASSERT_EQ(read.wait_for(2s), std::future_status::ready);
    EXPECT_FALSE(read.get());
  }
  {
    RawFeed feed(TestOptions(300));
    feed.Send(Wire(6, "whole") + Wire(7, "cut short").substr(0, 24));
    EXPECT_EQ(Read(*feed.reader).payload, "whole");
    const auto start = std::chrono::steady_clock::now();
    auto read = std::async(std::launch::async, [&] { return Read(*feed.reader).ok; });
    ASSERT_EQ(read.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(read.get());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 250ms);
  }
}

TEST(StreamBufferTest, BatchedSendsArriveAsSeparateFramesAndRefuseBadFrames) {
  cSocketOptions options = TestOptions();
  options.maxMessageSize = 200'000;
  auto pair = SocketPair::Plain(options);
  ASSERT_TRUE(pair.accepted);
  std::vector<std::string> payloads;
  StreamSocket::cOutgoingFrame frames[StreamSocket::kMaxBatch];
  for (std::size_t i = 0; i < StreamSocket::kMaxBatch; ++i)
    payloads.push_back(Payload(i == 10 ? 150'000 : i * 3, static_cast<int>(i)));
  for (std::size_t i = 0; i < StreamSocket::kMaxBatch; ++i)
    frames[i] = {static_cast<short>(100 + i), 2, payloads[i].data(), static_cast<unsigned>(payloads[i].size())};
  auto send = std::async(std::launch::async,
                         [&] { return pair.client->SendTypedMessages(frames, StreamSocket::kMaxBatch); });
  for (std::size_t i = 0; i < StreamSocket::kMaxBatch; ++i) {
    const Frame f = Read(*pair.accepted);
    ASSERT_TRUE(f.ok) << i;
    EXPECT_EQ(f.type, static_cast<short>(100 + i));
    EXPECT_EQ(f.payload, payloads[i]) << i;
  }
  EXPECT_TRUE(send.get());

  // A frame above the maximum fails the batch before anything is written.
  std::string big(200'001, 'x');
  StreamSocket::cOutgoingFrame bad[2] = {{1, 0, "ok", 2}, {2, 0, big.data(), static_cast<unsigned>(big.size())}};
  EXPECT_FALSE(pair.client->SendTypedMessages(bad, 2));
  EXPECT_TRUE(pair.client->SendTypedMessageZ2(3, 0, "after", 5));
  const Frame f = Read(*pair.accepted);
  EXPECT_EQ(f.type, 3);
  EXPECT_EQ(f.payload, "after");
}
