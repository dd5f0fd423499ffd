// The transfer handler against a scripted peer: the test plays the other side
// by reading what the handler posts and feeding answers to HandleFileEvent.
#include "vantrel/net/FileTransferHandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/testutil.h"

namespace {

using vantrel::test::LogCapture;
using vantrel::test::Pattern;
using vantrel::test::TempDir;
using vantrel::test::WaitUntil;
using namespace std::chrono_literals;
using namespace vantrel::wire;

std::string Posted(short type, const std::string& data) { return std::to_string(type) + ":" + data; }

// Collects what the handler posts; tracks how many chunks await a "D".
class ScriptedLink : public iFileTransferLink {
 public:
  void PostFileEvent(std::unique_ptr<VantrelHostEvent> event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string data(event->getData(), event->getDatalen());
    if (event->getType() == kFileTraffic && !data.empty() &&
        (data.back() == kFileChunk || data.back() == kFileLastChunk)) {
      maxUnacknowledged = std::max(maxUnacknowledged.load(), ++chunks - acks);
    }
    posted_.push_back(std::to_string(event->getType()) + ":" + data);
    cond_.notify_all();
  }
  std::size_t count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return posted_.size();
  }
  // The index-th posted message as "type:data", waiting for it to appear.
  std::string at(std::size_t index) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cond_.wait_for(lock, 10s, [&] { return posted_.size() > index; })) return "<none>";
    return posted_[index];
  }
  std::atomic<int> chunks{0};
  std::atomic<int> acks{0};  // acknowledgements fed to the handler
  std::atomic<int> maxUnacknowledged{0};

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<std::string> posted_;
};

cVantrelMessage Request(const std::string& destination = "/dst") {
  return cVantrelMessage(7, "peer~1", "NoClient", "me~2", "requester", QTYPE_CLIENT, kFileCopy, 0, destination.c_str(),
                         static_cast<std::uint32_t>(destination.size() + 1));
}

// Delivers a file-traffic message with `text` as its data, as the link's reader does.
void Feed(CFileTransferHandler& handler, const std::string& text) {
  const VantrelHostEvent message(1, "me~2", "requester", "peer~1", "NoClient", QTYPE_SYNC, kFileTraffic, 0, text.data(),
                                 static_cast<long>(text.size()));
  handler.HandleFileEvent(message.getPackedBuf(), message.getPackedBufLen(), kFileTraffic, kVersionMarker);
}

void Ack(CFileTransferHandler& handler, ScriptedLink& link) {
  ++link.acks;
  Feed(handler, {kFileChunkWritten});
}

// The handler lives in the fixture, which is on the heap: the thread sanitizer
// cannot see a mutex on the stack die, so a handler at the address an earlier
// test's log capture used would count as that mutex and show a lock-order
// cycle that does not exist.
class FileTransferHandlerTest : public ::testing::Test {
 protected:
  TempDir dir;
  ScriptedLink link;
  CFileTransferHandler handler{&link};
};

TEST(CopyInFlight, WindowGrowsOnlyWhileRoundTripsShowNoQueue) {
  // Round trips of the acknowledged chunks in order; the window after them,
  // from five, with a limit of eight and 1 ms of noise.
  const struct {
    const char* what;
    std::vector<cCopyInFlight::tDuration> roundTrips;
    int window;
  } cases[] = {
      {"a steady long link grows by one per chunk up to the limit", {100ms, 100ms, 100ms, 100ms}, 8},
      {"noise below 1 ms on a short link still grows", {50us, 900us, 1ms}, 8},
      {"a queue on a short link stops the growth", {50us, 3ms, 3ms}, 6},
      {"a queue on a long link stops it; a drained one resumes it", {100ms, 150ms, 250ms, 300ms, 110ms}, 8},
      {"the shortest round trip is kept, not the last", {100ms, 90ms, 190ms, 185ms}, 7},
      {"a round trip the sender could not time shows nothing", {cCopyInFlight::tDuration::max()}, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    cCopyInFlight flight;
    flight.Begin(8, 1ms);
    flight.Open();
    flight.inFlight = static_cast<int>(c.roundTrips.size());
    for (const auto roundTrip : c.roundTrips) EXPECT_TRUE(flight.Acknowledge(true, roundTrip));
    EXPECT_EQ(flight.window, c.window);
  }
}

TEST(FileTransferHandlerSend, WindowStartsAtFiveAndGrowsByOneChunkPerAcknowledgement) {
  // Limits of five chunks (older peers' fixed window) and of eight. Round
  // trips here are whatever the scheduler makes them, so any counts as
  // showing no queue; the rule for that has its own test above.
  TempDir dir;
  const std::string content = Pattern(kFileChunkSize * 12 + 10);
  const std::string source = dir.write("src", content);
  for (const int limit : {5, 8}) {
    SCOPED_TRACE(limit);
    LogCapture log;
    ScriptedLink link;
    CFileTransferHandler handler(&link, {std::uint64_t{kFileChunkSize} * limit + 1, 60s, std::chrono::hours(1)});
    auto sent = std::async(std::launch::async, [&] { return handler.SendFile(source, "/remote", Request()); });
    // The request, which announces the size, goes alone until it is accepted.
    EXPECT_EQ(link.at(0), Posted(kFileRequest, cAnnouncedCopy::Build("/remote", content.size())));
    Feed(handler, {kFileAccepted});
    // Each acknowledgement lets two chunks go until the limit.
    for (int acked = 0; acked <= 8; ++acked) {
      if (acked > 0) Ack(handler, link);
      const int expected = std::min(13, acked + std::min(limit, 5 + acked));
      ASSERT_TRUE(
          WaitUntil([&] { return link.chunks == expected && handler.InFlight().inFlight == expected - acked; }));
    }
    for (int i = 8; i < 13; ++i) Ack(handler, link);
    // Acknowledgements of nothing are one protocol error and open no room.
    for (int i = 0; i < 3; ++i) Feed(handler, {kFileChunkWritten});
    EXPECT_EQ(handler.InFlight().inFlight, 0);
    EXPECT_EQ(log.count("protocol error: the peer acknowledges more than was sent"), 1u);
    Feed(handler, "0F");
    auto result = sent.get();
    EXPECT_EQ(result->state, kCopyDone);
    EXPECT_EQ(link.maxUnacknowledged.load(), limit);
  }
}

TEST(FileTransferHandlerSend, FinalReportKeepsItsDigitCountAndARefusalIsNoCopy) {
  // Only the digits before the last one are read. A report before any "A" is a
  // refusal: read as 0 (a receiver that sends one digit) it means "could not
  // open". A report that is no number counts as a broken transfer; a peer that
  // stops answering ("") fails the copy and is told to abort.
  TempDir dir;
  const std::string source = dir.write("src", "abc");
  for (const auto& [accept, report, state] : {std::tuple{false, "1F", kCopyOpenFailed},
                                              {false, "12F", 1},
                                              {false, "F", 1},
                                              {false, "70F", kCopyDenied},
                                              {false, "?1F", kCopyStopped},
                                              {false, "", kCopyStopped},
                                              {true, "40F", kCopyWriteFailed},
                                              {true, "", kCopyStopped},
                                              {true, "4F", kCopyDone}}) {
    SCOPED_TRACE(report);
    ScriptedLink link;
    CFileTransferHandler handler(&link, {kFileChunkSize, 300ms});
    auto sent = std::async(std::launch::async, [&] { return handler.SendFile(source, "/remote", Request()); });
    link.at(0);
    if (accept) {
      Feed(handler, {kFileAccepted});
      EXPECT_EQ(link.at(1), Posted(kFileTraffic, std::string("abc") + kFileLastChunk));
      Ack(handler, link);
    }
    if (*report != '\0') Feed(handler, report);
    auto result = sent.get();
    EXPECT_EQ(result->state, state);
    EXPECT_EQ(result->fileName, state == kCopyDone ? source : "/remote");
    EXPECT_TRUE(*report != '\0' || link.at(link.count() - 1) == Posted(kFileTraffic, {kFileAbort}));
  }
}

TEST_F(FileTransferHandlerTest, StopWakesTheSenderAndEndsLaterTransfers) {
  // (A receive that a link break stops is covered with real services.)
  const std::string source = dir.write("src", Pattern(kFileChunkSize * 10));
  auto sent = std::async(std::launch::async, [&] { return handler.SendFile(source, "/remote", Request()); });
  link.at(0);
  Feed(handler, {kFileAccepted});
  ASSERT_TRUE(WaitUntil([&] { return link.chunks == 5 && handler.InFlight().inFlight == 5; }));
  handler.Stop();
  ASSERT_EQ(sent.wait_for(10s), std::future_status::ready);
  auto result = sent.get();
  EXPECT_EQ(result->state, kCopyStopped);
  EXPECT_EQ(result->fileName, "/remote");

  // The link is gone: nothing more is tried.
  const std::size_t posted = link.count();
  EXPECT_EQ(handler.SendFile(source, "/again", Request())->state, kCopyStopped);
  EXPECT_EQ(handler.ReceiveFile(dir.file("again"), Request()), kCopyStopped);
  EXPECT_FALSE(std::ifstream(dir.file("again")).good());
  // Only the receiver's final report was offered (the link would refuse it).
  EXPECT_EQ(link.count(), posted + 1);
}

// The names in `folder`, so that a leftover temporary file shows.
std::vector<std::string> Names(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(FileTransferHandlerReceive, OnlyACompleteCopyReplacesTheDestination) {
  TempDir dir;
  // The receiver gives up on a silent sender (4), the sender aborts (5), fewer
  // or more bytes arrive than were announced (3), or all is well (0). The report
  // carries one digit more than the state.
  for (const auto& [abort, waitMs, announced, state] :
       {std::tuple{false, 50L, std::optional<std::uint64_t>{}, kCopyWriteFailed},
        {true, 60000L, std::optional<std::uint64_t>{}, kCopyStopped},
        {false, 60000L, std::optional<std::uint64_t>{5}, kCopyReadFailed},
        {false, 60000L, std::optional<std::uint64_t>{2}, kCopyReadFailed},
        {false, 60000L, std::optional<std::uint64_t>{3}, kCopyDone}}) {
    SCOPED_TRACE(state);
    const std::string destination = dir.write("dst", "previous");
    ScriptedLink link;
    CFileTransferHandler handler(&link);
    handler.SetChunkWaitMs(waitMs);
    auto received =
        std::async(std::launch::async, [&] { return handler.ReceiveFile(destination, Request(), announced); });
    EXPECT_EQ(link.at(0), Posted(kFileTraffic, {kFileAccepted}));
    Feed(handler, std::string("x") + kFileChunk);
    EXPECT_EQ(link.at(1), Posted(kFileTraffic, {kFileChunkWritten}));
    if (abort) Feed(handler, {kFileAbort});
    if (waitMs > 50 && !abort) Feed(handler, std::string("yz") + kFileLastChunk);
    EXPECT_EQ(received.get(), state);
    EXPECT_EQ(link.at(link.count() - 1), Posted(kFileTraffic, std::to_string(state) + '0' + kFileFinal));
    EXPECT_EQ(vantrel::test::ReadFile(destination), state == kCopyDone ? "xyz" : "previous");
    EXPECT_EQ(Names(dir.path()), std::vector<std::string>{"dst"});
    EXPECT_TRUE(!abort || !handler.Receiving());
  }
  {
    SCOPED_TRACE("aborted before it began");
    ScriptedLink link;
    CFileTransferHandler handler(&link);
    handler.AbortReceive();
    EXPECT_EQ(handler.ReceiveFile(dir.file("early"), Request()), kCopyStopped);
    EXPECT_FALSE(std::ifstream(dir.file("early")).good());
    handler.ArmReceive();
    handler.SetChunkWaitMs(20);
    EXPECT_EQ(handler.ReceiveFile(dir.file("early"), Request()), kCopyWriteFailed);
  }
}

}  // namespace
