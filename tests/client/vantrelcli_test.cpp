// The command-line client's results and exit codes, against a scripted service.
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "tests/support/scriptedservice.h"
#include "tests/support/testutil.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/message/wire.h"

using vantrel::test::ScriptedService;
using namespace vantrel::wire;

namespace {

class VantrelCli : public ::testing::Test {
 protected:
  // The program is built with the tests: a missing one is a wrong path, not a reason to skip.
  void SetUp() override { ASSERT_TRUE(std::filesystem::exists(program_)) << program_; }

  RQPRunResult Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--name", "cli", "--port", std::to_string(service_.Port())});
    return vantrel::test::RunProgram(program_, arguments);
  }

  // The record of the next frame that the run numbered `connection` sent after its greeting.
  cVantrelMessage SentRecord(std::size_t connection) {
    auto greeting = service_.NextFrame(connection);
    EXPECT_TRUE(greeting && greeting->type == kGreeting);
    auto frame = service_.NextFrame(connection);
    return frame ? frame->record() : cVantrelMessage(nullptr, 0, 0, 0);
  }

  const std::string program_ = vantrel::test::ProgramPath("vantrel-cli");
  ScriptedService service_{{.hostName = "lg01", .netPort = 9011}};
};

TEST_F(VantrelCli, SendsReportTheirOutcomeInTheExitCode) {
  auto sent = Run({"send", "peer@lg02", "hello"});
  EXPECT_EQ(sent.exitCode, 0);
  cVantrelMessage record = SentRecord(0);
  EXPECT_EQ(record.getType(), kSend);
  EXPECT_STREQ(record.getData(), "hello");

  service_.SetAck(ScriptedService::tAck::eRefused);
  EXPECT_EQ(Run({"send", "peer@lg01", "hello"}).exitCode, 5);
  EXPECT_EQ(SentRecord(1).getType(), kLocalSend);

  EXPECT_EQ(Run({"notify", "peer@lg02", "note"}).exitCode, 0);
  EXPECT_EQ(SentRecord(2).getType(), kSendNoResponse);

  EXPECT_EQ(Run({"post", "--id", "9", "peer@lg02", "later"}).exitCode, 0);
  cVantrelMessage posted = SentRecord(3);
  EXPECT_EQ(posted.getType(), kSendNoWait);
  EXPECT_EQ(posted.getMessageId(), 9u);

  // The shared options may follow the subcommand and its arguments.
  EXPECT_EQ(Run({"notify", "peer@lg02", "late options", "--name", "other", "--log-level", "error"}).exitCode, 0);
  cVantrelMessage late = SentRecord(4);
  EXPECT_STREQ(late.getData(), "late options");
  EXPECT_STREQ(late.getFromClient(), "other");

  EXPECT_EQ(Run({"send", "no-host-part", "x"}).exitCode, 2);
  EXPECT_EQ(Run({"frobnicate"}).exitCode, 2);
  const auto noService =
      vantrel::test::RunProgram(program_, {"--port", std::to_string(vantrel::test::FreePort()), "whoami"});
  EXPECT_EQ(noService.exitCode, 3);
  const auto version = Run({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.output.rfind("vantrel-cli ", 0), 0u) << version.output;
}

TEST_F(VantrelCli, ReceivingAndIdentity) {
  auto whoami = Run({"whoami"});
  EXPECT_EQ(whoami.exitCode, 0);
  EXPECT_NE(whoami.output.find("cli@lg01"), std::string::npos) << whoami.output;

  EXPECT_EQ(Run({"fetch"}).exitCode, 6);
  EXPECT_EQ(Run({"wait", "--timeout", "100"}).exitCode, 6);

  auto waiting = std::async(std::launch::async, [&] { return Run({"wait", "--from"}); });
  ASSERT_TRUE(service_.WaitConnections(4));
  ASSERT_TRUE(service_.NextFrame(3));  // greeting: the client is registered
  ASSERT_TRUE(service_.SendRecord(3, kLocalSend, kChannelMessages, "incoming"));
  auto received = waiting.get();
  EXPECT_EQ(received.exitCode, 0);
  EXPECT_NE(received.output.find("sender@elsewhere\tincoming\n"), std::string::npos) << received.output;

  // listen prints id, type and sender; post --wait ends with the message carrying its id.
  auto listening = std::async(std::launch::async, [&] { return Run({"listen", "--count", "2"}); });
  auto posting = std::async(std::launch::async, [&] { return Run({"post", "--id", "7", "--wait", "peer@lg02", "q"}); });
  ASSERT_TRUE(service_.WaitConnections(6));
  for (std::size_t connection : {4u, 5u}) {
    ASSERT_TRUE(service_.NextFrame(connection));  // greeting
    ASSERT_TRUE(service_.SendRecord(connection, kLocalSend, kChannelMessages, "first", 3));
    ASSERT_TRUE(service_.SendRecord(connection, kSendNoWait, kChannelMessages, "second", 7));
  }
  const auto listened = listening.get();
  EXPECT_EQ(listened.exitCode, 0);
  const auto posted = posting.get();
  EXPECT_EQ(posted.exitCode, 0);
  EXPECT_EQ(listened.output, "3\t1034\tsender@elsewhere\tfirst\n7\t4\tsender@elsewhere\tsecond\n");
  EXPECT_EQ(posted.output, "sender@elsewhere\tsecond\n");
}

}  // namespace
