// File copies between two real services on loopback, and a raw peer or client
// where the real ones cannot produce the traffic.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "bench/tcprelay.h"
#include "tests/support/servicehelper.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/platform/file.h"
#include "vantrel/base/platform/fileuser.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/net/FileTransferHandler.h"
#include "vantrel/service/vantrelclass.h"
#include "vantrel/support/associativearray.h"

namespace vantrel::test {
namespace {

using namespace std::chrono_literals;
using namespace vantrel::wire;

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

std::string Request(const std::string& local, const std::string& remote) {
  return ParameterText({{kCopyLocalFile, local}, {kCopyRemoteFile, remote}});
}

// An answer to a copy request as one text: "<kDelivered> #id state S file F" for a
// completion report, "type #id text" for anything else, "<none>" for none.
std::string Describe(const std::optional<cVantrelMessage>& record) {
  if (!record) return "<none>";
  const char* data = record->getData() ? record->getData() : "";
  const std::string head = std::to_string(record->getType()) + " #" + std::to_string(record->getMessageId()) + " ";
  CAssociativeArray values;
  if (record->getType() != kDelivered) return head + std::string(data, strnlen(data, record->getDatalen()));
  if (!values.FromString(data, static_cast<long>(record->getDatalen()))) return head + "<no parameters>";
  return head + "state " + std::to_string(std::stol(values.GetValueOfParameter(kCopyState))) + " file " +
         values.GetValueOfParameter(kCopyFileName);
}

std::string Completed(unsigned id, int state, const std::string& file) {
  return std::to_string(kDelivered) + " #" + std::to_string(id) + " state " + std::to_string(state) + " file " + file;
}

class FileTransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(sender.launch()) << sender.log();
    ASSERT_TRUE(receiver.launch()) << receiver.log();
    ASSERT_TRUE(client.NETInitZ641("requester", sender.clientsPort()));
  }

  // Asks `from`'s service to copy `local` to `remote` on `host`.
  void request(long id, const std::string& local, const std::string& remote, TestClient& from,
               const std::string& host) {
    const std::string text = Request(local, remote);
    ASSERT_TRUE(from.NETCopyFileZ1(id, text.data(), static_cast<unsigned>(text.size()), host.c_str()));
  }
  void request(long id, const std::string& local, const std::string& remote) {
    request(id, local, remote, client, receiver.hostText());
  }
  // The next answer `requester` got, described.
  static std::string answer(TestClient& requester, std::chrono::milliseconds timeout = 60s) {
    return Describe(requester.next(timeout));
  }
  std::string copy(long id, const std::string& local, const std::string& remote) {
    request(id, local, remote);
    return answer(client);
  }
  // Sparse: large enough to be in flight for a while, quick to make.
  std::string bigFile() {
    const std::string path = files.file("big");
    { std::ofstream(path, std::ios::binary); }
    std::filesystem::resize_file(path, 2ull << 30);
    return path;
  }

  // `sender` keeps older peers' fixed window of five chunks; `receiver` widens its own.
  ServiceProcess sender{"FileCopyWindowBytes = 256000\n"};
  ServiceProcess receiver;
  TestClient client;
  TempDir files;
};

TEST_F(FileTransferTest, FailuresAreReportedAndTheLinkStaysUp) {
  // A missing source is named in the answer.
  EXPECT_EQ(copy(1, files.file("missing"), files.file("never")), Completed(1, kCopyOpenFailed, files.file("missing")));
  EXPECT_FALSE(Exists(files.file("never")));

  // An unwritable destination: the receiver refuses before accepting, and
  // nothing appears at the destination.
  const std::string source = files.write("src", "content");
  const std::string unwritable = files.file("no-such-folder/dst");
  EXPECT_EQ(copy(2, source, unwritable), Completed(2, kCopyOpenFailed, unwritable));
  EXPECT_FALSE(Exists(unwritable));
  EXPECT_TRUE(receiver.waitLog("cannot open " + unwritable + " for writing"));

  // A request without its parameters is answered, not dropped.
  const char junk[] = "not a parameter text";
  ASSERT_TRUE(client.NETCopyFileZ1(3, junk, sizeof junk, receiver.hostText().c_str()));
  EXPECT_TRUE(answer(client, 30s).starts_with(Completed(3, kCopyOpenFailed, "")));

  // The same link still copies.
  EXPECT_EQ(copy(4, source, files.file("after")), Completed(4, kCopyDone, source));
  EXPECT_EQ(ReadFile(files.file("after")), "content");
}

TEST_F(FileTransferTest, QueuedCopiesArriveByteIdenticalAndInOrderWhileACopyRunsTheOtherWay) {
  // The copy the other way makes each side's file threads send chunks and
  // acknowledgements on the same link at once, so the frames interleave.
  TestClient back;
  ASSERT_TRUE(back.NETInitZ641("backwards", receiver.clientsPort()));
  const std::string backContent = Pattern(30 * kFileChunkSize + 11, 8);
  const std::string backSource = files.write("back-src", backContent);
  request(500, backSource, files.file("back-dst"), back, sender.hostText());
  // Once the back copy arrives, the sender knows the receiver's link; queued
  // before that, the requests could leave over two links and finish out of order.
  ASSERT_TRUE(sender.waitLog("ReceiveFile(dstFilePath=" + files.file("back-dst"))) << sender.log();

  // Empty, one byte, one whole chunk, one byte more, many chunks and a short last one.
  const std::size_t sizes[] = {0, 1, kFileChunkSize, kFileChunkSize + 1, 3 * 1024 * 1024 + 17};
  const auto source = [&](unsigned i) { return files.file("src" + std::to_string(i)); };
  const auto destination = [&](unsigned i) { return files.file("dst" + std::to_string(i)); };
  for (unsigned i = 0; i < std::size(sizes); ++i) {
    files.write("src" + std::to_string(i), Pattern(sizes[i], i));
    request(10 + i, source(i), destination(i));
  }
  for (unsigned i = 0; i < std::size(sizes); ++i) {
    EXPECT_EQ(answer(client), Completed(10 + i, kCopyDone, source(i)));
    EXPECT_TRUE(ReadFile(destination(i)) == Pattern(sizes[i], i)) << sizes[i];
  }
  EXPECT_EQ(answer(back), Completed(500, kCopyDone, backSource));
  EXPECT_TRUE(ReadFile(files.file("back-dst")) == backContent);
}

TEST_F(FileTransferTest, ALongLinkBrokenWithTheWindowFullFailsTheCopyAndLeavesNoPartialFile) {
  // The receiver's sender widens to its whole window over 100 ms round trips.
  bench::cDelayRelay relay(std::chrono::milliseconds(50));
  ASSERT_TRUE(relay.Start(sender.netPort()));
  TestClient far;
  ASSERT_TRUE(far.NETInitZ641("far", receiver.clientsPort()));
  std::filesystem::create_directory(files.file("in"));
  request(20, bigFile(), files.file("in/big-copy"), far, "127.0.0.1~" + std::to_string(relay.Port()));
  const auto arrived = [&] {
    std::error_code ec;
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(files.file("in"))) bytes += entry.file_size(ec);
    return bytes;
  };
  ASSERT_TRUE(WaitUntil([&] { return arrived() > (24u << 20); }, 60s)) << arrived();
  relay.Stop();
  const std::string result = answer(far);
  EXPECT_TRUE(result.starts_with(Completed(20, kCopyStopped, "")) ||
              result == std::to_string(kNotDelivered) + " #20 Connection to host broke.")
      << result;
  EXPECT_TRUE(WaitUntil([&] { return std::filesystem::is_empty(files.file("in")); }));
  // Both go on: the other way, directly.
  EXPECT_EQ(copy(21, files.write("small", "small"), files.file("in/small")),
            Completed(21, kCopyDone, files.file("small")));
  EXPECT_TRUE(sender.running() && receiver.running());
}

// A file message from a peer played by the test.
bool SendFileRecord(RawLink& peer, short type, const std::string& data) {
  const cVantrelMessage record(1, "target~2", "NoClient", "scripted~1", "tester", QTYPE_SYNC, type, 0, data.data(),
                               static_cast<std::uint32_t>(data.size()));
  return peer.send(record, kVersionMarker);
}

// The data of the next file message the service sent to `peer`.
std::string NextFileMessage(RawLink& peer) {
  auto frame = peer.next();
  if (!frame) return "<none>";
  const cVantrelMessage record = frame->record();
  if (!record.isValid()) return "<malformed>";
  if (frame->type != kFileTraffic) return "<type " + std::to_string(frame->type) + ">";
  return std::string(record.getData(), record.getDatalen());
}

TEST_F(FileTransferTest, ScriptedPeerRestartsTheFileReaderAndSurvivesBadTraffic) {
  RawLink peer;
  ASSERT_TRUE(peer.connectPeer(receiver.netPort(), "scripted~1", kVersionMarker));
  ASSERT_TRUE(receiver.waitLog("Received a connection from host: scripted~1"));

  // Chunk traffic before any transfer, and rubbish, change nothing.
  ASSERT_TRUE(SendFileRecord(peer, kFileTraffic, "strayB"));
  ASSERT_TRUE(peer.send(kFileRequest, kVersionMarker, "not a record"));
  ASSERT_TRUE(SendFileRecord(peer, 99, "unknown type"));

  const std::string first = files.file("first");
  const std::string second = files.file("second");
  ASSERT_TRUE(SendFileRecord(peer, kFileRequest, first + '\0'));
  EXPECT_EQ(NextFileMessage(peer), "A");
  ASSERT_TRUE(SendFileRecord(peer, kFileTraffic, "abcB"));
  EXPECT_EQ(NextFileMessage(peer), "D");

  // A second request while the first receive runs: the first ends and its
  // partial file goes.
  ASSERT_TRUE(SendFileRecord(peer, kFileRequest, second + '\0'));
  EXPECT_EQ(NextFileMessage(peer), "50F");
  EXPECT_EQ(NextFileMessage(peer), "A");
  EXPECT_FALSE(Exists(first));
  // Within a transfer, no record, an empty one and an unknown marker are
  // dropped unanswered and never reach the file.
  ASSERT_TRUE(peer.send(kFileTraffic, kVersionMarker, "not a record either"));
  ASSERT_TRUE(SendFileRecord(peer, kFileTraffic, ""));
  ASSERT_TRUE(SendFileRecord(peer, kFileTraffic, "Z"));
  ASSERT_TRUE(SendFileRecord(peer, kFileTraffic, "xyzC"));
  EXPECT_EQ(NextFileMessage(peer), "D");
  EXPECT_EQ(NextFileMessage(peer), "00F");
  EXPECT_EQ(ReadFile(second), "xyz");
  EXPECT_TRUE(receiver.waitLog("restarting the file reader"));
  EXPECT_TRUE(receiver.waitLog("no transfer in progress"));
  EXPECT_TRUE(receiver.waitLog("unknown marker"));
  EXPECT_TRUE(receiver.waitLog("malformed file message dropped"));
  EXPECT_TRUE(receiver.running());
}

// ---- services inside the test process ----------------------------------------------

// What happens to the next source once its first chunk was read: 's' it
// shrinks to 100,000 bytes, 'g' it grows by four.
std::atomic<char> gChange{0};
void ChangeAfterFirstChunk(const std::string& path, std::uint64_t) {
  const char change = gChange.exchange(0);
  if (change == 'g') std::ofstream(path, std::ios::app) << "more";
  if (change == 's') std::filesystem::resize_file(path, 100000);
}

// Two services send to a third, whose copies from other hosts must stay inside `in/`.
class CopyAcrossServicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(files.file("in"));
    for (auto* service : {&a, &b, &r}) ASSERT_TRUE(service->vInitZ1());
    ASSERT_TRUE(fromA.NETInitZ641("fromA", a.GetClientsPortZ5181()));
    ASSERT_TRUE(fromB.NETInitZ641("fromB", b.GetClientsPortZ5181()));
    ASSERT_TRUE(onR.NETInitZ641("onR", r.GetClientsPortZ5181()));
    CFileTransferHandler::SetChunkReadHook(&ChangeAfterFirstChunk);
  }
  void TearDown() override { CFileTransferHandler::SetChunkReadHook(nullptr); }
  // `client` asks for the copy `local` -> `remote` on r's host.
  void ask(TestClient& client, long id, const std::string& local, const std::string& remote) {
    const std::string text = Request(local, remote);
    ASSERT_TRUE(
        client.NETCopyFileZ1(id, text.data(), static_cast<unsigned>(text.size()), r.GetAddressHostText().c_str()));
  }

  TempDir files;
  InProcessService a, b;
  InProcessService r{"CopyRoots = " + files.file("in") + "\n"};
  TestClient fromA, fromB, onR;
};

TEST_F(CopyAcrossServicesTest, ConcurrentCopiesAndAChangingSourceNeverLeaveAMixture) {
  const std::string contentA(300000, 'A');
  const std::string contentB(300000, 'B');
  const std::string sourceA = files.write("a", contentA);
  const std::string sourceB = files.write("b", contentB);
  const std::string destination = files.file("in/dst");
  for (unsigned round = 0; round < 50; ++round) {
    ask(fromA, 2 * round, sourceA, destination);
    ask(fromB, 2 * round + 1, sourceB, destination);
    ASSERT_EQ(Describe(fromA.next(30s)), Completed(2 * round, kCopyDone, sourceA));
    ASSERT_EQ(Describe(fromB.next(30s)), Completed(2 * round + 1, kCopyDone, sourceB));
    const std::string landed = ReadFile(destination);
    ASSERT_TRUE(landed == contentA || landed == contentB) << "round " << round << ": a mixture";
  }
  // A source cut short (or, every other round, growing) in the middle of its
  // copy: a failure, and the file that was there stays whole.
  const std::string changing = files.file("t");
  for (unsigned round = 0; round < 50; ++round) {
    const std::string before = ReadFile(destination);
    files.write("t", contentA);
    gChange = round % 2 == 1 ? 'g' : 's';
    ask(fromA, 100 + round, changing, destination);
    ASSERT_EQ(Describe(fromA.next(30s)), Completed(100 + round, kCopyReadFailed, changing));
    ASSERT_EQ(ReadFile(destination), before);
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(files.file("in")), {}), 1) << "a temporary file is left";
}

TEST_F(CopyAcrossServicesTest, CopiesFromOtherHostsStayInsideTheRootsAndCopiesHereNeedNoLink) {
  const std::string source = files.write("src", "content");
  std::filesystem::create_directory_symlink(files.path(), files.file("in/out"));
  for (const auto& remote : {files.file("outside"), files.file("in/../outside"), files.file("in/out/outside")}) {
    ask(fromA, 1, source, remote);
    EXPECT_EQ(Describe(fromA.next(30s)), Completed(1, kCopyDenied, remote));
  }
  EXPECT_FALSE(Exists(files.file("outside")));
  ask(fromA, 2, source, files.file("in/ok"));
  EXPECT_EQ(Describe(fromA.next(30s)), Completed(2, kCopyDone, source));

  // A copy to this very service is done here, whatever the roots say (they bind
  // other hosts), with the same result shape; a copy onto itself is refused.
  LogCapture log;
  ask(onR, 3, source, files.file("here"));
  auto answer = onR.next(30s);
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(Describe(answer), Completed(3, kCopyDone, source));
  EXPECT_NE(std::string(answer->getData(), answer->getDatalen()).find(kCopyLocalFile), std::string::npos);
  EXPECT_EQ(ReadFile(files.file("here")), "content");
  ask(onR, 4, source, source);
  EXPECT_EQ(Describe(onR.next(30s)), Completed(4, kCopySameFile, source));
  EXPECT_EQ(ReadFile(source), "content");
  EXPECT_FALSE(log.contains("Creating new CVantrelHostConnection(" + r.GetAddressHostText()));

  // The local form of a copy (the client library has no call for it) answers alike.
  RawLink raw;
  ASSERT_TRUE(raw.connectClient(r.GetClientsPortZ5181()) && raw.greet("raw") && raw.next().has_value());
  const std::string text = Request(files.file("absent"), files.file("never"));
  ASSERT_TRUE(raw.send(cVantrelMessage(5, "", "NoClient", "", "raw", QTYPE_CLIENT, kLocalFileCopy, 0, text.data(),
                                       static_cast<std::uint32_t>(text.size())),
                       0));
  const auto frame = raw.next();
  ASSERT_TRUE(frame.has_value());
  EXPECT_EQ(frame->record().getQtype(), QTYPE_ASYNC);
  EXPECT_EQ(Describe(frame->record()), Completed(5, kCopyOpenFailed, files.file("absent")));
}

// ---- two local users ------------------------------------------------------------------

// A second local user for the test's life, and a client run as that user.
class TwoUsersTest : public ::testing::Test {
 protected:
  static constexpr const char* kUser = "vantrelcopytest";
  void SetUp() override {
    if (vantrel::platform::gProcessUser() != 0) GTEST_SKIP() << "needs root to create a second user and run as it";
    run("/usr/sbin/userdel", {kUser});
    ASSERT_EQ(run("/usr/sbin/useradd", {"--no-create-home", "--shell", "/usr/sbin/nologin", kUser}), 0);
    ASSERT_EQ(run("/bin/chmod", {"755", files.path()}), 0);
    ASSERT_TRUE(service.launch()) << service.log();
  }
  void TearDown() override {
    if (vantrel::platform::gProcessUser() == 0) run("/usr/sbin/userdel", {kUser});
  }
  static int run(const std::string& program, const std::vector<std::string>& arguments) {
    return RQPRunAndCapture(program, arguments, nTime::cDiff::FromSeconds(30)).exitCode;
  }
  // A file or (empty content) folder of `owner` that only it may use.
  std::string privatePath(const std::string& name, const std::string& owner, const std::string& content) {
    const std::string path = content.empty() ? files.file(name) : files.write(name, content);
    if (content.empty()) std::filesystem::create_directory(path);
    EXPECT_EQ(run("/bin/chmod", {"go-rwx", path}) + run("/bin/chown", {owner, path}), 0);
    return path;
  }
  // vantrel-cli, run as the second user, copies `local` to `remote` on this host.
  int copyAsUser(const std::string& local, const std::string& remote) {
    return run("/usr/sbin/runuser", {"-u", kUser, "--", VANTREL_BINARY_DIR "/programs/vantrel-cli", "--port",
                                     std::to_string(service.clientsPort()), "copy", local, service.hostText(), remote});
  }

  TempDir files;
  ServiceProcess service;
};

TEST_F(TwoUsersTest, AClientCopiesWithItsOwnUsersRights) {
  const std::string theirs = privatePath("theirs", "root", "theirs");
  const std::string mine = privatePath("mine", kUser, "mine");
  privatePath("out", kUser, "");
  privatePath("closed", "root", "");

  // Another user's private file cannot be read; the user's own file can, but
  // not into a folder the user may not write.
  EXPECT_NE(copyAsUser(theirs, files.file("out/stolen")), 0);
  EXPECT_FALSE(Exists(files.file("out/stolen")));
  EXPECT_TRUE(service.waitLog("refused: its user may not read " + theirs)) << service.log();
  EXPECT_NE(copyAsUser(mine, files.file("closed/copy")), 0);
  EXPECT_FALSE(Exists(files.file("closed/copy")));
  EXPECT_EQ(copyAsUser(mine, files.file("out/copy")), 0) << service.log();
  EXPECT_EQ(ReadFile(files.file("out/copy")), "mine");
  // Made by the user, not by the service.
  EXPECT_EQ(vantrel::platform::gFileStatus(files.file("out/copy"))->owner,
            vantrel::platform::gFileStatus(files.file("out"))->owner);
}
}  // namespace
}  // namespace vantrel::test
