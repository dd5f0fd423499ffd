#include "vantrel/base/platform/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/testutil.h"

namespace {

using namespace std::chrono_literals;
using vantrel::test::ReadFile;
using vantrel::test::TempDir;
using vantrel::test::WaitUntil;

const std::string kShell = "/bin/sh";

std::vector<std::string> OpenDescriptors(RQPProcessId pid) {
  std::vector<std::string> fds;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec))
    fds.push_back(e.path().filename().string());
  std::sort(fds.begin(), fds.end());
  return fds;
}

// Starts a child that sleeps; kills and reaps it at the end of the test.
struct SleepingChild {
  explicit SleepingChild(const RQPProcessOptions& options = {}) {
    result = RQPCreateProcessZ0("/bin/sleep", {"30"}, options);
  }
  ~SleepingChild() {
    if (result.ok()) {
      RQPKillProcess(result.pid);
      RQPWaitProcess(result.pid, nullptr);
    }
  }
  RQPSpawnResult result;
};

TEST(Process, SpawnWaitAndExitCodes) {
  TempDir dir;
  const RQPSpawnResult child = RQPCreateProcessZ0(kShell, {"-c", "pwd > where; exit 7"}, {dir.path(), false});
  ASSERT_TRUE(child.ok()) << child.errorText;
  int code = -1;
  ASSERT_TRUE(RQPWaitProcess(child.pid, &code));
  EXPECT_EQ(code, 7);
  EXPECT_EQ(ReadFile(dir.file("where")), std::filesystem::canonical(dir.path()).string() + "\n");
  // Reaped: a second wait has nothing left to wait for.
  EXPECT_FALSE(RQPWaitProcess(child.pid, &code));
}

TEST(Process, StartFailuresAreReportedWithTheirCause) {
  TempDir dir;
  RQPSpawnResult missing = RQPCreateProcessZ0(dir.file("no-such-program"), {});
  EXPECT_FALSE(missing.ok());
  EXPECT_EQ(missing.errorCode, ENOENT);
  EXPECT_NE(missing.errorText.find("no-such-program"), std::string::npos) << missing.errorText;

  const std::string notExecutable = dir.write("plain.txt", "just text\n");
  RQPSpawnResult denied = RQPCreateProcessZ0(notExecutable, {});
  EXPECT_FALSE(denied.ok());
  EXPECT_EQ(denied.errorCode, EACCES);

  RQPSpawnResult badFolder = RQPCreateProcessZ0(kShell, {"-c", "true"}, {dir.file("missing-folder"), false});
  EXPECT_FALSE(badFolder.ok());
  EXPECT_NE(badFolder.errorText.find("missing-folder"), std::string::npos) << badFolder.errorText;

  EXPECT_FALSE(RQPCreateProcessZ0("", {}).ok());
  EXPECT_FALSE(RQPWaitProcess(0, nullptr));
  EXPECT_EQ(RQPWaitProcessFor(-1, nTime::cDiff::FromSeconds(1)), RQPWaitResult::failed);
}

TEST(Process, TimedWaitAndKill) {
  SleepingChild child;
  ASSERT_TRUE(child.result.ok()) << child.result.errorText;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RQPWaitProcessFor(child.result.pid, nTime::cDiff()), RQPWaitResult::timedOut);
  EXPECT_EQ(RQPWaitProcessFor(child.result.pid, nTime::cDiff::FromMilliseconds(50)), RQPWaitResult::timedOut);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);

  ASSERT_TRUE(RQPKillProcess(child.result.pid));
  int code = 0;
  EXPECT_EQ(RQPWaitProcessFor(child.result.pid, nTime::cDiff::FromSeconds(10), &code), RQPWaitResult::exited);
  EXPECT_EQ(code, 128 + SIGKILL);
  child.result.pid = 0;
}

TEST(Process, ChildrenGetOnlyTheStandardStreams) {
  // A descriptor someone forgot to mark close-on-exec must still not leak.
  const int leaky = open("/dev/null", O_RDONLY);
  ASSERT_GE(leaky, 3);
  SleepingChild attached;
  RQPProcessOptions detachedOptions;
  detachedOptions.detached = true;
  SleepingChild detached(detachedOptions);
  close(leaky);
  ASSERT_TRUE(attached.result.ok());
  ASSERT_TRUE(detached.result.ok());

  const std::vector<std::string> standard{"0", "1", "2"};
  ASSERT_TRUE(WaitUntil([&] { return OpenDescriptors(detached.result.pid) == standard; }))
      << "detached child keeps other descriptors";
  EXPECT_TRUE(WaitUntil([&] { return OpenDescriptors(attached.result.pid) == standard; }));

  // Detached: a session of its own, streams on the null device.
  EXPECT_EQ(getsid(detached.result.pid), detached.result.pid);
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(detached.result.pid) + "/fd/1"), "/dev/null");
  EXPECT_EQ(getsid(attached.result.pid), getsid(0));
}

TEST(Process, RunAndCaptureCollectsOutputAndNeverHangs) {
  const RQPRunResult echo =
      RQPRunAndCapture(kShell, {"-c", "echo one; echo two >&2; exit 3"}, nTime::cDiff::FromSeconds(10));
  EXPECT_TRUE(echo.started);
  EXPECT_FALSE(echo.timedOut);
  EXPECT_EQ(echo.exitCode, 3);
  EXPECT_EQ(echo.output, "one\n");

  const auto start = std::chrono::steady_clock::now();
  const RQPRunResult stuck = RQPRunAndCapture("/bin/sleep", {"30"}, nTime::cDiff::FromMilliseconds(200));
  EXPECT_TRUE(stuck.started);
  EXPECT_TRUE(stuck.timedOut);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);

  const RQPRunResult missing = RQPRunAndCapture("/no/such/program", {}, nTime::cDiff::FromSeconds(1));
  EXPECT_FALSE(missing.started);
  EXPECT_FALSE(missing.errorText.empty());
}

}  // namespace
