// File copies between two real services on loopback, and a scripted peer or
// client where the real ones cannot produce the traffic.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>

#include "tests/support/servicehelper.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/client/vantrelini.h"
#include "vantrel/support/associativearray.h"

namespace vantrel::test {
namespace {

using namespace std::chrono_literals;
constexpr short kVersionMarker = 0x7F04;
constexpr std::size_t kChunk = 51200;

std::string Pattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  unsigned x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x = x * 1103515245u + 12345u;
    b = static_cast<char>(x >> 16);
  }
  return bytes;
}

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

std::string Request(const std::string& local, const std::string& remote) {
  CAssociativeArray request;
  request.AddCouple("$LOCALFILE", local);
  request.AddCouple("$REMOTEFILE", remote);
  std::string text;
  long length = 0;
  request.ToString(text, length, false, false);
  return text;
}

struct CopyResult {
  short type = 0;
  unsigned id = 0;
  long state = -1;
  std::string fileName;
  std::string text;
};

std::optional<CopyResult> Parse(const cVantrelMessage& record) {
  CopyResult result;
  result.type = record.getType();
  result.id = record.getMessageId();
  result.text = std::string(record.getData(), strnlen(record.getData(), record.getDatalen()));
  if (result.type == 102) {
    CAssociativeArray values;
    if (!values.FromString(record.getData(), static_cast<long>(record.getDatalen()))) return std::nullopt;
    result.state = std::stol(values.GetValueOfParameter("$FILECOPYCOMPLETIONSTATE"));
    result.fileName = values.GetValueOfParameter("$FILENAME");
  }
  return result;
}

class FileTransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(sender.start());
    ASSERT_TRUE(receiver.start());
    ASSERT_TRUE(sender.waitReady()) << sender.log();
    ASSERT_TRUE(receiver.waitReady()) << receiver.log();
    ASSERT_TRUE(client.NETInitZ641("requester", sender.clientsPort()));
  }

  std::optional<CopyResult> copy(long id, const std::string& local, const std::string& remote,
                                 std::chrono::milliseconds timeout = 60s) {
    request(id, local, remote);
    auto record = client.next(timeout);
    if (!record) return std::nullopt;
    return Parse(*record);
  }
  void request(long id, const std::string& local, const std::string& remote) {
    const std::string text = Request(local, remote);
    ASSERT_TRUE(client.NETCopyFileZ1(id, text.data(), static_cast<unsigned>(text.size()),
                                     receiver.hostText().c_str()));
  }

  ServiceProcess sender;
  ServiceProcess receiver;
  TestClient client;
  TempDir files;
};

TEST_F(FileTransferTest, CopiesArriveByteIdentical) {
  const std::size_t sizes[] = {0, 1, kChunk, kChunk + 1, 3 * 1024 * 1024 + 17};
  long id = 100;
  for (std::size_t size : sizes) {
    SCOPED_TRACE(size);
    const std::string content = Pattern(size, static_cast<unsigned>(size));
    const std::string source = files.write("src" + std::to_string(size), content);
    const std::string destination = files.file("dst" + std::to_string(size));
    auto result = copy(++id, source, destination);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->type, 102);
    EXPECT_EQ(result->id, static_cast<unsigned>(id));
    EXPECT_EQ(result->state, 0);
    EXPECT_EQ(result->fileName, source);
    EXPECT_TRUE(ReadFile(destination) == content);
  }
}

TEST_F(FileTransferTest, CopiesBothWaysAtOnceArriveByteIdentical) {
  // Each side's file threads send chunks and acknowledgements on the same
  // link at the same time, so frames of both transfers interleave.
  TestClient back;
  ASSERT_TRUE(back.NETInitZ641("backwards", receiver.clientsPort()));
  const std::string there = Pattern(40 * kChunk + 5, 7);
  const std::string here = Pattern(37 * kChunk + 11, 8);
  const std::string source = files.write("there-src", there);
  const std::string backSource = files.write("here-src", here);
  request(500, source, files.file("there-dst"));
  const std::string text = Request(backSource, files.file("here-dst"));
  ASSERT_TRUE(back.NETCopyFileZ1(501, text.data(), static_cast<unsigned>(text.size()), sender.hostText().c_str()));
  for (TestClient* requester : {&client, &back}) {
    auto record = requester->next(60s);
    ASSERT_TRUE(record.has_value());
    auto result = Parse(*record);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->state, 0);
  }
  EXPECT_TRUE(ReadFile(files.file("there-dst")) == there);
  EXPECT_TRUE(ReadFile(files.file("here-dst")) == here);
}

TEST_F(FileTransferTest, FailuresAreReportedAndTheLinkStaysUp) {
  // A missing source is named in the answer.
  auto result = copy(1, files.file("missing"), files.file("never"));
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->state, 1);
  EXPECT_EQ(result->fileName, files.file("missing"));
  EXPECT_FALSE(Exists(files.file("never")));

  // An unwritable destination: the receiver reports 1, which the sender reads
  // as 0; nothing appears at the destination.
  const std::string source = files.write("src", "content");
  const std::string unwritable = files.file("no-such-folder/dst");
  result = copy(2, source, unwritable);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->state, 0);
  EXPECT_FALSE(Exists(unwritable));
  EXPECT_TRUE(receiver.waitLog("cannot open " + unwritable));

  // A request without its parameters is answered, not dropped.
  const char junk[] = "not a parameter text";
  ASSERT_TRUE(client.NETCopyFileZ1(3, junk, sizeof junk, receiver.hostText().c_str()));
  auto record = client.next(30s);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->getMessageId(), 3u);
  auto junkResult = Parse(*record);
  ASSERT_TRUE(junkResult.has_value());
  EXPECT_EQ(junkResult->state, 1);

  // The same link still copies.
  result = copy(4, source, files.file("after"));
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->state, 0);
  EXPECT_EQ(ReadFile(files.file("after")), "content");
}

TEST_F(FileTransferTest, QueuedRequestsAreServedInOrder) {
  std::vector<std::string> contents;
  for (int i = 0; i < 4; ++i) {
    contents.push_back(Pattern(kChunk * 3 + static_cast<std::size_t>(i), static_cast<unsigned>(i)));
    const std::string source = files.write("src" + std::to_string(i), contents.back());
    request(10 + i, source, files.file("dst" + std::to_string(i)));
  }
  for (int i = 0; i < 4; ++i) {
    auto record = client.next(60s);
    ASSERT_TRUE(record.has_value());
    auto result = Parse(*record);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->id, static_cast<unsigned>(10 + i));
    EXPECT_EQ(result->state, 0);
    EXPECT_TRUE(ReadFile(files.file("dst" + std::to_string(i))) == contents[i]);
  }
}

TEST_F(FileTransferTest, ReceiverKilledMidTransferFailsTheCopy) {
  // Sparse: large enough to be in flight for a while, quick to make.
  const std::string source = files.file("big");
  { std::ofstream(source, std::ios::binary); }
  std::filesystem::resize_file(source, 2ull << 30);
  request(20, source, files.file("big-copy"));
  ASSERT_TRUE(receiver.waitLog("ReceiveFile(dstFilePath=")) << receiver.log();
  receiver.kill();
  auto record = client.next(60s);
  ASSERT_TRUE(record.has_value());
  auto result = Parse(*record);
  ASSERT_TRUE(result.has_value());
  EXPECT_EQ(result->id, 20u);
  if (result->type == 102) {
    EXPECT_EQ(result->state, 5);
  } else {
    EXPECT_EQ(result->type, 103);
    EXPECT_EQ(result->text, "Connection to host broke.");
  }
}

TEST_F(FileTransferTest, SurvivingReceiverLeavesNoPartialFile) {
  const std::string source = files.file("big");
  { std::ofstream(source, std::ios::binary); }
  std::filesystem::resize_file(source, 2ull << 30);
  const std::string destination = files.file("big-copy");
  request(30, source, destination);
  ASSERT_TRUE(receiver.waitLog("ReceiveFile(dstFilePath=")) << receiver.log();
  ASSERT_TRUE(WaitUntil([&] { return Exists(destination); }));
  sender.kill();
  ASSERT_TRUE(receiver.waitLog("CFileTransferHandler::ReceiveFile - done", 30s)) << receiver.log();
  EXPECT_FALSE(Exists(destination));
  EXPECT_TRUE(receiver.running());
}

// A peer service played by the test on a raw link.
class ScriptedPeer {
 public:
  explicit ScriptedPeer(unsigned short port) : socket_(false, "scripted peer") {
    connected_ = socket_.Connect("127.0.0.1", port, gSocketOptionsNet()) &&
                 socket_.SendTypedMessageZ2(203, kVersionMarker, "scripted~1", 11);
  }
  ~ScriptedPeer() { socket_.CloseSocket(); }
  bool connected() const { return connected_; }

  bool sendRecord(short type, const std::string& data) {
    const cVantrelMessage record(1, "target~2", "NoClient", "scripted~1", "tester", QTYPE_SYNC, type, 0, data.data(),
                                 static_cast<std::uint32_t>(data.size()));
    return socket_.SendTypedMessageZ2(type, kVersionMarker, record.getPackedBuf(), record.getPackedBufLen());
  }
  bool sendRaw(short type, const std::string& bytes) {
    return socket_.SendTypedMessageZ2(type, kVersionMarker, bytes.data(), static_cast<unsigned>(bytes.size()));
  }
  // The data of the next file message, or "<none>" after 10 s.
  std::string next() {
    auto read = std::async(std::launch::async, [this] {
      short type = 0, subtype = 0;
      char* data = nullptr;
      unsigned length = 0;
      if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, nullptr)) return std::string("<closed>");
      const cVantrelMessage record(data, length, type, subtype);
      StreamSocket::FreeMessage(data);
      if (!record.isValid()) return std::string("<malformed>");
      return std::to_string(type) + ":" + std::string(record.getData(), record.getDatalen());
    });
    if (read.wait_for(10s) != std::future_status::ready) {
      socket_.CloseSocket();
      return "<none>";
    }
    return read.get();
  }

 private:
  StreamSocket socket_;
  bool connected_ = false;
};

TEST_F(FileTransferTest, ScriptedPeerRestartsTheFileReaderAndSurvivesBadTraffic) {
  ScriptedPeer peer(receiver.netPort());
  ASSERT_TRUE(peer.connected());
  ASSERT_TRUE(receiver.waitLog("Received a connection from host: scripted~1"));

  // Chunk traffic before any transfer, and rubbish, change nothing.
  ASSERT_TRUE(peer.sendRecord(7, std::string("strayB")));
  ASSERT_TRUE(peer.sendRaw(7, "not a record"));
  ASSERT_TRUE(peer.sendRaw(6, "not a record either"));
  ASSERT_TRUE(peer.sendRecord(99, "unknown type"));

  const std::string first = files.file("first");
  const std::string second = files.file("second");
  ASSERT_TRUE(peer.sendRecord(6, first + '\0'));
  EXPECT_EQ(peer.next(), "7:A");
  ASSERT_TRUE(peer.sendRecord(7, std::string("abc") + 'B'));
  EXPECT_EQ(peer.next(), "7:D");
  ASSERT_TRUE(peer.sendRecord(7, std::string("Z")));  // unknown marker

  // A second request while the first receive runs: the first ends and its
  // partial file goes.
  ASSERT_TRUE(peer.sendRecord(6, second + '\0'));
  EXPECT_EQ(peer.next(), "7:5F");
  EXPECT_EQ(peer.next(), "7:A");
  EXPECT_FALSE(Exists(first));
  ASSERT_TRUE(peer.sendRecord(7, std::string("xyz") + 'C'));
  EXPECT_EQ(peer.next(), "7:D");
  EXPECT_EQ(peer.next(), "7:0F");
  EXPECT_EQ(ReadFile(second), "xyz");
  EXPECT_TRUE(receiver.waitLog("restarting the file reader"));
  EXPECT_TRUE(receiver.waitLog("no transfer in progress"));
  EXPECT_TRUE(receiver.waitLog("unknown marker"));
  EXPECT_TRUE(receiver.running());
}

TEST_F(FileTransferTest, LocalCopyAnswersWithItsCompletionState) {
  // A client that sends the local copy request itself.
  StreamSocket socket(false, "local client");
  ASSERT_TRUE(socket.ConnectLocal(sender.clientsPort(), gSocketOptionsNet()));
  std::string greeting(258, '\0');
  std::memcpy(&greeting[2], "localcopier", 11);
  ASSERT_TRUE(socket.SendTypedMessageZ2(1029, 0, greeting.data(), 258));
  auto receive = [&socket]() -> std::optional<cVantrelMessage> {
    auto read = std::async(std::launch::async, [&socket]() -> std::optional<cVantrelMessage> {
      short type = 0, subtype = 0;
      char* data = nullptr;
      unsigned length = 0;
      if (!socket.WaitTypedMessageZ1(type, subtype, data, length, nullptr)) return std::nullopt;
      cVantrelMessage record(data, length, type, subtype);
      const bool greeting = type == 1029;
      StreamSocket::FreeMessage(data);
      if (greeting) return cVantrelMessage(0, "", "", "", "", QTYPE_CLIENT, 1029, 0, "", 0);
      return record;
    });
    if (read.wait_for(10s) != std::future_status::ready) {
      socket.CloseSocket();
      return std::nullopt;
    }
    return read.get();
  };
  ASSERT_TRUE(receive().has_value());  // the greeting's echo

  const std::string content = Pattern(300000, 7);
  const std::string source = files.write("local-src", content);
  struct Case {
    std::string source, destination;
    long state;
    std::string fileName;
  };
  const Case cases[] = {
      {source, files.file("local-dst"), 0, source},
      {files.file("absent"), files.file("x"), 1, files.file("absent")},
      {source, files.file("no-folder/x"), 1, files.file("no-folder/x")},
  };
  unsigned id = 40;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.destination);
    const std::string text = Request(c.source, c.destination);
    const cVantrelMessage record(++id, "", "NoClient", "", "localcopier", QTYPE_CLIENT, 1037, 0, text.data(),
                                 static_cast<std::uint32_t>(text.size()));
    ASSERT_TRUE(socket.SendTypedMessageZ2(1037, 0, record.getPackedBuf(), record.getPackedBufLen()));
    auto answer = receive();
    ASSERT_TRUE(answer.has_value());
    auto result = Parse(*answer);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->type, 102);
    EXPECT_EQ(result->id, id);
    EXPECT_EQ(answer->getQtype(), QTYPE_ASYNC);
    EXPECT_EQ(result->state, c.state);
    EXPECT_EQ(result->fileName, c.fileName);
  }
  EXPECT_TRUE(ReadFile(files.file("local-dst")) == content);
}

}  // namespace
}  // namespace vantrel::test
