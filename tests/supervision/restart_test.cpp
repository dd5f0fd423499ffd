#include "vantrel/supervision/restart.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/platform/process.h"

namespace {

using vantrel::test::ReadFile;
using vantrel::test::TempDir;
using vantrel::test::WaitUntil;

std::vector<char*> Argv(std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  return argv;
}

[[noreturn]] void RestartFrom(const std::string& programs) {
  unsetenv("INVOCATION_ID");
  setenv("RQ_BIN", programs.c_str(), 1);
  std::vector<std::string> words{"vantrel", "--clients-port", "9010"};
  auto argv = Argv(words);
  gRememberProcessArguments(static_cast<int>(words.size()), argv.data());
  gRestartVantrelProcess();
}

TEST(Restart, RelaunchKeepsTheArgumentsAndAddsWaitOnce) {
  std::vector<std::string> words{"vantrel", "--net-port", "9999"};
  auto argv = Argv(words);
  gRememberProcessArguments(static_cast<int>(words.size()), argv.data());
  EXPECT_EQ(nSupervision::gRelaunchArguments(), (std::vector<std::string>{"--net-port", "9999", "/w"}));

  std::vector<std::string> again{"vantrel", "/w", "--log-level", "debug"};
  auto argv2 = Argv(again);
  gRememberProcessArguments(static_cast<int>(again.size()), argv2.data());
  EXPECT_EQ(nSupervision::gRelaunchArguments(), (std::vector<std::string>{"/w", "--log-level", "debug"}));
}

TEST(Restart, RelaunchProgramComesFromTheProgramsFolderOrIsThisProgram) {
  const char* old = getenv("RQ_BIN");
  const std::string saved = old != nullptr ? old : "";
  setenv("RQ_BIN", "/opt/product/bin", 1);
  EXPECT_EQ(nSupervision::gRelaunchProgram(), "/opt/product/bin/vantrel");
  unsetenv("RQ_BIN");
  EXPECT_EQ(nSupervision::gRelaunchProgram(), RQPExecutablePath());
  if (old != nullptr) setenv("RQ_BIN", saved.c_str(), 1);
}

TEST(RestartDeathTest, StartsTheSuccessorAndExitsWith42) {
  // Forked without re-running the test, so that the child uses this very folder.
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "fast");
  TempDir dir;
  const std::string script = dir.write("vantrel", "#!/bin/sh\necho \"$@\" > " + dir.file("args.tmp") + "\nmv " +
                                                      dir.file("args.tmp") + " " + dir.file("args") + "\n");
  chmod(script.c_str(), 0755);
  EXPECT_EXIT(RestartFrom(dir.path()), ::testing::ExitedWithCode(42), "");
  GTEST_FLAG_SET(death_test_style, style);
  ASSERT_TRUE(WaitUntil([&] { return !ReadFile(dir.file("args")).empty(); }));
  EXPECT_EQ(ReadFile(dir.file("args")), "--clients-port 9010 /w\n");
}

}  // namespace
