#include "vantrel/supervision/Clock.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>

#include "tests/support/testutil.h"
#include "vantrel/base/env/settings.h"

namespace {

using namespace std::chrono_literals;
using nClock::cProcessResynch;
using nClock::htStatus;
using vantrel::test::LogCapture;
using vantrel::test::ReadFile;
using vantrel::test::TempDir;
using vantrel::test::WaitUntil;

constexpr nTime::cDiff kTenMinutes = nTime::cDiff::FromSeconds(600);

std::size_t Lines(const std::string& path) {
  const std::string text = ReadFile(path);
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// A resynchroniser whose command is a script in a temporary folder that appends
// one line per run to "runs" (and then runs `rest`).
class ResynchTest : public ::testing::Test {
 protected:
  std::unique_ptr<cProcessResynch> Make(nTime::cDiff cooldown, const std::string& rest = "") {
    const std::string script = dir_.write("clock.sh", "#!/bin/sh\necho \"$@\" >> runs\n" + rest);
    chmod(script.c_str(), 0755);
    return std::make_unique<cProcessResynch>(cooldown,
                                             nClock::cResynchCommand{script, "clock.sh --step 'a b'", dir_.path()});
  }
  bool WaitIdle(cProcessResynch& r, std::uint64_t runs) {
    return WaitUntil([&] { return r.Runs() == runs && r.Status() == htStatus::waiting; });
  }
  TempDir dir_;
  LogCapture log_;
};

TEST_F(ResynchTest, RunsTheCommandThenRespectsTheCooldown) {
  auto resynch = Make(kTenMinutes);
  EXPECT_EQ(resynch->Status(), htStatus::waiting);

  // Never run before: the cool-down has long passed.
  resynch->Notify(nTime::cDiff::FromSeconds(5));
  ASSERT_TRUE(WaitIdle(*resynch, 1));
  EXPECT_EQ(ReadFile(dir_.file("runs")), "--step a b\n");  // in its folder, with its arguments
  EXPECT_EQ(log_.count("nClock:cProcessResynch:Synch latency notify"), 1u);
  EXPECT_TRUE(log_.contains("nClock:cProcessResynch:Synch before clock latency synch:"));
  EXPECT_TRUE(log_.contains("nClock:cProcessResynch:Synch after clock latency synch:"));

  // Seconds after a run, a latency shorter than the cool-down waits.
  resynch->Notify(nTime::cDiff::FromSeconds(5));
  EXPECT_EQ(log_.count("nClock:cProcessResynch:Synch latency cooldown not passed"), 1u);
  EXPECT_EQ(resynch->Status(), htStatus::waiting);

  // A latency longer than the whole cool-down, either sign, runs at once.
  resynch->Notify(nTime::cDiff::FromSeconds(660));
  ASSERT_TRUE(WaitIdle(*resynch, 2));
  resynch->Notify(nTime::cDiff::FromSeconds(-660));
  ASSERT_TRUE(WaitIdle(*resynch, 3));
  EXPECT_EQ(Lines(dir_.file("runs")), 3u);
  EXPECT_EQ(log_.count("nClock:cProcessResynch:Synch latency cooldown not passed"), 1u);
}

TEST_F(ResynchTest, NotificationsDuringARunAreOnlyLoggedAndStopEndsARun) {
  ASSERT_EQ(mkfifo(dir_.file("gate").c_str(), 0600), 0);
  auto resynch = Make(nTime::cDiff(), "echo started > started\nread line < gate\n");
  resynch->Notify(nTime::cDiff::FromSeconds(5));
  ASSERT_TRUE(WaitUntil([&] { return !ReadFile(dir_.file("started")).empty(); }));
  EXPECT_EQ(resynch->Status(), htStatus::running);

  resynch->Notify(nTime::cDiff::FromSeconds(5));
  resynch->Notify(nTime::cDiff::FromSeconds(3600));
  EXPECT_EQ(log_.count("nClock:cProcessResynch:Synch latency is still in run"), 2u);

  { std::ofstream(dir_.file("gate")) << "go\n"; }
  ASSERT_TRUE(WaitIdle(*resynch, 1));
  EXPECT_EQ(Lines(dir_.file("runs")), 1u);

  // Destroying the resynchroniser while its command hangs ends the command.
  resynch->Notify(nTime::cDiff::FromSeconds(5));
  ASSERT_TRUE(WaitUntil([&] { return Lines(dir_.file("runs")) == 2; }));
  auto destroyed = std::async(std::launch::async, [&] { resynch.reset(); });
  const bool ended = destroyed.wait_for(10s) == std::future_status::ready;
  if (!ended) std::ofstream(dir_.file("gate")) << "go\n";  // unblock so that the test can end
  EXPECT_TRUE(ended) << "destruction waited for the command";
}

TEST_F(ResynchTest, AStartFailureIsLoggedAndTheResynchroniserStaysUsable) {
  auto resynch = std::make_unique<cProcessResynch>(
      nTime::cDiff(), nClock::cResynchCommand{dir_.file("missing"), "missing", dir_.path()});
  resynch->Notify(nTime::cDiff::FromSeconds(5));
  ASSERT_TRUE(WaitIdle(*resynch, 1));
  EXPECT_TRUE(log_.contains("cannot start " + dir_.file("missing")));
  resynch->Notify(nTime::cDiff::FromSeconds(5));
  EXPECT_TRUE(WaitIdle(*resynch, 2));
}

TEST_F(ResynchTest, OnlyTheNetworkConfigurationTriggers) {
  auto resynch = Make(kTenMinutes);
  const auto second = nTime::cDiff::FromSeconds(1);
  nClock::cLatencyConfigurationLocal local(second, second, second, resynch.get());
  local.OnLatencyAboveThreshold(nTime::cDiff::FromSeconds(86400));
  EXPECT_FALSE(log_.contains("latency notify"));
  EXPECT_EQ(resynch->Runs(), 0u);

  nClock::cLatencyConfigurationNet net(second, second, second, resynch.get());
  net.OnLatencyAboveThreshold(nTime::cDiff::FromSeconds(5));
  EXPECT_TRUE(WaitIdle(*resynch, 1));

  nClock::cLatencyConfigurationNet withoutResynch(second, second, second, nullptr);
  withoutResynch.OnLatencyAboveThreshold(nTime::cDiff::FromSeconds(5));  // dropped
  EXPECT_EQ(resynch->Runs(), 1u);
}

TEST(ClockSettings, ReadFromTheTableAndTheCommandOnlyWhenResynchronising) {
  const int table = nEnvSettings::gLoadTableFromText(
      "LatencyClockUpdate = 2\nLatencyClockUpdateCooldown = 1500\n"
      "LatencyClockUpdateCommandX0 = /usr/bin/my clock\nLatencyClockUpdateCommandX1 = my clock --now\n"
      "LatencyClockUpdateCommandX2 = /var/tmp\nLatencyClockNetThreshold = 7000\nLatencyClockLocalThresholdLog = 20\n",
      "clock-test");
  const nClock::cClockSettings s = nClock::gReadClockSettings(table, true);
  EXPECT_EQ(s.update, 2);
  EXPECT_EQ(s.cooldown, nTime::cDiff::FromMilliseconds(1500));
  EXPECT_EQ(s.command.program, "/usr/bin/my clock");
  EXPECT_EQ(s.command.commandLine, "my clock --now");
  EXPECT_EQ(s.command.workingFolder, "/var/tmp");
  EXPECT_EQ(s.netThreshold, nTime::cDiff::FromMilliseconds(7000));
  EXPECT_EQ(s.localLogThreshold, nTime::cDiff::FromMilliseconds(20));
  // A process that does not resynchronise reads no resynchronisation keys.
  EXPECT_EQ(nClock::gReadClockSettings(table, false).update, 0);
}

TEST(ClockProcess, BuildsAResynchroniserOnlyWhenAskedTo) {
  LogCapture log;
  nClock::cClockSettings settings;
  settings.update = 0;
  EXPECT_EQ(nClock::cProcess(settings).Resynch(), nullptr);
  settings.update = 7;
  EXPECT_EQ(nClock::cProcess(settings).Resynch(), nullptr);
  EXPECT_TRUE(log.contains("LatencyClockUpdate 7"));

  settings.update = 2;
  settings.command = {"/bin/true", "true", "/"};
  nClock::cProcess custom(settings);
  ASSERT_NE(custom.Resynch(), nullptr);
  EXPECT_EQ(custom.Resynch()->Command().program, "/bin/true");  // the configured command, not the built-in one

  settings.update = 1;
  nClock::cProcess builtIn(settings);
  ASSERT_NE(builtIn.Resynch(), nullptr);
  const std::string program = builtIn.Resynch()->Command().program;
  EXPECT_TRUE(program.ends_with("/chronyc") || program.ends_with("/systemctl")) << program;
}

TEST(ClockCommandLine, SplitsAtBlanksOutsideQuotes) {
  using V = std::vector<std::string>;
  EXPECT_EQ(nClock::gSplitCommandLine("  chronyc   makestep "), (V{"chronyc", "makestep"}));
  EXPECT_EQ(nClock::gSplitCommandLine("tool \"a b\" 'c d'e \"\""), (V{"tool", "a b", "c de", ""}));
  EXPECT_EQ(nClock::gSplitCommandLine(""), V{});
  EXPECT_EQ(nClock::gSplitCommandLine("x \"unclosed quote"), (V{"x", "unclosed quote"}));
}

}  // namespace
