#include "vantrel/supervision/runvantrel.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/platform/hostinfo.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/supervision/processcheck.h"
#include "vantrel/supervision/restart.h"

namespace {

using namespace std::chrono_literals;
using vantrel::test::LogCapture;
using vantrel::test::ReadFile;
using vantrel::test::ScopedEnv;
using vantrel::test::TempDir;
using vantrel::test::WaitUntil;

std::string WriteScript(const TempDir& dir, const std::string& name, const std::string& body) {
  const std::string path = dir.write(name, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
  return path;
}

// A sleeping process with the given name, started from a link to sleep; optionally through setpriv, as another user
// (its options given). The test owns it and its child, which it kills and reaps; test thread only.
class FakeService {
 public:
  FakeService(const TempDir& dir, const std::string& name, std::vector<std::string> asUser = {}) {
    // A folder of its own, so that several fakes may share one name.
    const std::string folder = dir.file(std::to_string(++made_));
    mkdir(folder.c_str(), 0755);
    const std::string link = folder + "/" + name;
    symlink("/bin/sleep", link.c_str());
    asUser.insert(asUser.end(), {"--", link, "30"});
    child_ =
        asUser.size() > 3 ? RQPCreateProcessZ0(RQPFindProgram("setpriv"), asUser) : RQPCreateProcessZ0(link, {"30"});
    started_ =
        WaitUntil([&] { return RQPReadProcessEntry(child_.pid, entry_) && entry_.imageName == name.substr(0, 15); });
  }
  ~FakeService() {
    if (child_.ok() && RQPKillProcess(child_.pid)) RQPWaitProcess(child_.pid);
  }
  bool started() const { return started_; }
  const RQPProcessEntry& entry() const { return entry_; }

 private:
  static inline int made_ = 0;
  RQPSpawnResult child_;
  bool started_ = false;
  RQPProcessEntry entry_;
};

RQPProcessEntry Self() {
  RQPProcessEntry self;
  EXPECT_TRUE(RQPReadProcessEntry(getpid(), self));
  return self;
}

int Check(const std::vector<RQPProcessEntry>& entries, const char* direct, char* message) {
  return nSupervision::gCheckVantrelProcesses(entries, getpid(), direct, message);
}

TEST(VantrelProcessCheck, OnlyTheServiceProgramCountsNotTheCallerZombiesOrProgramsSharingItsPrefix) {
  TempDir dir;
  FakeService service(dir, "vantrel");
  FakeService windows(dir, "VANTREL.EXE");
  FakeService cli(dir, "vantrel-cli");
  FakeService tests(dir, "vantrel_tests");
  ASSERT_TRUE(service.started() && windows.started() && cli.started() && tests.started());
  {
    ScopedEnv direct("DIRECT_SNAREWAY_EXECUTION", nullptr);
    char message[kVantrelProcessMessageSize] = "untouched";
    EXPECT_EQ(IsVantrelProcessRunning(message), 0);
    EXPECT_STREQ(message, "untouched");
  }

  // The test program's own name begins with "vantrel" too: it must not count.
  const RQPProcessEntry self = Self();
  EXPECT_FALSE(nSupervision::gIsVantrelImage(self));
  EXPECT_EQ(Check({self, windows.entry()}, nullptr, nullptr), 0) << "case does not matter";
  for (const RQPProcessEntry& other : {cli.entry(), tests.entry()}) {
    char message[kVantrelProcessMessageSize] = "";
    EXPECT_EQ(Check({self, other}, "yes", message), 3) << other.imageName;
    EXPECT_STREQ(message, "The Vantrel process was not found.");
  }

  // A service process that has ended but was not reaped serves nobody.
  RQPProcessEntry zombie = service.entry();
  zombie.state = 'Z';
  EXPECT_EQ(Check({self, zombie}, nullptr, nullptr), 3);
}

TEST(VantrelProcessCheck, AnotherUserElevationOrSessionIsReported) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to start processes as user nobody";
  TempDir dir;
  chmod(dir.path().c_str(), 0755);
  FakeService foreign(dir, "vantrel", {"--reuid=65534", "--regid=65534", "--clear-groups"});
  // Real user root, effective user nobody: the same user, not elevated.
  FakeService lowered(dir, "vantrel", {"--ruid=0", "--euid=65534", "--regid=65534", "--clear-groups"});
  FakeService same(dir, "vantrel");
  ASSERT_TRUE(foreign.started() && lowered.started() && same.started());
  RQPProcessEntry elsewhere = same.entry();
  elsewhere.sessionId = Self().sessionId + 1;

  const std::string user = "The Vantrel process is running as different user \"" + RQPGetLocalHostName();
  const std::string advice =
      ".\r\nPlease close Brenmark Recorder, exit Vantrel and restart Brenmark Recorder to continue working.";
  const struct {
    const char* name;
    RQPProcessEntry entry;
    const char* direct;
    int result;
    std::string message;
  } rows[] = {
      // Another user's service is only in the way when direct execution is exactly "yes".
      {"other user, direct unset", foreign.entry(), nullptr, 0, ""},
      {"other user, direct empty", foreign.entry(), "", 0, ""},
      {"other user, direct YES", foreign.entry(), "YES", 0, ""},
      {"other user, direct yes", foreign.entry(), "yes", 2, user + "\\nobody\"" + advice},
      {"lower elevation", lowered.entry(), "no", 2,
       "The Vantrel process is running  with different elevation level" + advice},
      {"same user and session", same.entry(), "no", 0, ""},
      {"same user, other session", elsewhere, "no", 2, user + "\\root\"" + advice},
  };
  for (const auto& row : rows) {
    char message[kVantrelProcessMessageSize] = "";
    EXPECT_EQ(Check({Self(), row.entry}, row.direct, nullptr), row.result) << row.name;
    EXPECT_EQ(Check({Self(), row.entry}, row.direct, message), row.result) << row.name;
    EXPECT_EQ(message, row.message) << row.name;
  }
}

TEST(RelaunchGuard, ManyFailuresAtOnceLetOneThreadOfOneProcessRelaunch) {
  using tClaim = nSupervision::cRelaunchGuard::tClaim;
  TempDir dir;
  nSupervision::cRelaunchGuard guard(dir.path());
  std::vector<tClaim> claims(30);
  std::latch start(static_cast<std::ptrdiff_t>(claims.size()));
  std::vector<std::thread> threads;
  for (tClaim& claim : claims) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      claim = guard.Claim(9011);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(std::count(claims.begin(), claims.end(), tClaim::eRelaunch), 1);
  EXPECT_EQ(std::count(claims.begin(), claims.end(), tClaim::eThisProcess), 29);

  // The lock stays with the relauncher: another process (a guard of its own)
  // on the same port leaves the successor to it; one on another port does not.
  nSupervision::cRelaunchGuard other(dir.path());
  EXPECT_EQ(other.Claim(9011), tClaim::eOtherProcess);
  nSupervision::cRelaunchGuard otherPort(dir.path());
  EXPECT_EQ(otherPort.Claim(9021), tClaim::eRelaunch);
}

// A stand-in for systemctl, put first in PATH. It answers from files in its
// folder: "loaded" makes the unit known, "active" makes it run; "start" is
// recorded in "started".
class FakeSystemd {
 public:
  FakeSystemd() : path_("PATH", dir_.path() + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin")) {
    WriteScript(dir_, "systemctl",
                "D=$(dirname \"$0\")\n"
                "case \"$1\" in\n"
                "show) [ -f \"$D/loaded\" ] && state=loaded || state=not-found\n"
                "      printf 'Id=vantrel.service\\nDescription=Vantrel message bus\\nLoadState=%s\\n' $state ;;\n"
                "is-active) [ -f \"$D/active\" ] ;;\n"
                "start) echo \"$@\" > \"$D/started\" ;;\n"
                "esac\n");
  }
  void set(const std::string& name) const { dir_.write(name, ""); }
  std::string file(const std::string& name) const { return dir_.file(name); }

 private:
  TempDir dir_;
  ScopedEnv path_;
};

class RunVantrelTest : public ::testing::Test {
 protected:
  RunVantrelTest() : bin_("RQ_BIN", programs_.path().c_str()) {}
  void InstallProgram() {
    WriteScript(programs_, "vantrel",
                "echo $$ > " + programs_.file("pid.tmp") + "\n" + "mv " + programs_.file("pid.tmp") + " " +
                    programs_.file("pid") + "\n" + "echo \"$@\" > " + programs_.file("args") + "\n" +
                    "exec sleep 30\n");
  }
  TempDir programs_;
  FakeSystemd systemd_;  // no unit installed unless a test says so
  ScopedEnv bin_;
};

TEST_F(RunVantrelTest, StartsTheProgramFromTheProgramsFolderAndTerminatesIt) {
  InstallProgram();
  ASSERT_TRUE(RunVantrel(true));
  ASSERT_TRUE(WaitUntil([&] { return !ReadFile(programs_.file("args")).empty(); }));
  EXPECT_EQ(ReadFile(programs_.file("args")), "/s\n");
  const pid_t pid = std::atoi(ReadFile(programs_.file("pid")).c_str());
  ASSERT_GT(pid, 0);
  EXPECT_EQ(getsid(pid), pid);  // detached from the caller

  TerminateVantrel();
  EXPECT_EQ(kill(pid, 0), -1);  // killed and reaped
  TerminateVantrel();           // nothing left to do

  ASSERT_EQ(unlink(programs_.file("args").c_str()), 0);
  ASSERT_TRUE(RunVantrel(false));
  ASSERT_TRUE(WaitUntil([&] { return !ReadFile(programs_.file("args")).empty(); }));
  EXPECT_EQ(ReadFile(programs_.file("args")), "\n");
  TerminateVantrel();
}

TEST_F(RunVantrelTest, AMissingProgramIsReported) {
  LogCapture log;
  EXPECT_FALSE(RunVantrel(true));
  EXPECT_TRUE(log.contains("Error Occurred while running Vantrel (code: 2)\n please contact Tech support."));
}

TEST_F(RunVantrelTest, AnInstalledServiceIsKnownAndStartedThroughSystemd) {
  VantrelServiceConfig config;
  EXPECT_FALSE(config.ResolveVantrelServiceName());
  EXPECT_EQ(IsVantrlServiceRunning(false), 0);
  InstallProgram();
  systemd_.set("loaded");
  ASSERT_TRUE(config.ResolveVantrelServiceName());
  EXPECT_STREQ(config.GetServiceName(), "vantrel.service");
  EXPECT_STREQ(config.GetDisplayName(), "Vantrel message bus");
  // Installed, then running: the two answers as one number.
  EXPECT_EQ(IsVantrlServiceRunning(false) * 10 + IsVantrlServiceRunning(true), 10);
  EXPECT_TRUE(RunVantrel(true));
  EXPECT_EQ(ReadFile(systemd_.file("started")), "start --no-block vantrel.service\n");
  EXPECT_EQ(access(programs_.file("pid").c_str(), F_OK), -1);
  systemd_.set("active");
  EXPECT_EQ(IsVantrlServiceRunning(true), 1);
}

}  // namespace
