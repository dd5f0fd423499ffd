// vantrel.exe under the system's service control manager: registered by its
// own --install-service, started by the manager, serving clients, stopped in
// order and removed. Runs in a wine prefix of its own, since it changes the
// system's service registry.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/supervision/runvantrel.h"

namespace {

using namespace std::chrono_literals;
using vantrel::test::ReadFile;
using vantrel::test::TempDir;
using vantrel::test::WaitUntil;

RQPRunResult Vantrel(const std::vector<std::string>& arguments) {
  return RQPRunAndCapture(VANTREL_SERVICE_PROGRAM, arguments, nTime::cDiff::FromSeconds(60));
}

// Whatever a run leaves registered is removed, also when an assertion ends it.
struct cUninstallAtEnd {
  ~cUninstallAtEnd() { Vantrel({"--uninstall-service"}); }
};

TEST(WindowsService, RegisteredStartedByTheManagerServesAndStopsInOrder) {
  TempDir dir;
  const std::string clientsPort = std::to_string(vantrel::test::FreePort());
  const std::string netPort = std::to_string(vantrel::test::FreePort());
  const std::string log = dir.file("service.log");
  Vantrel({"--uninstall-service"});  // a failed earlier run's leftover
  cUninstallAtEnd uninstall;

  const RQPRunResult installed =
      Vantrel({"--install-service", "--clients-port", clientsPort, "--net-port", netPort, "--log-file", log});
  ASSERT_TRUE(installed.started) << installed.errorText;
  ASSERT_EQ(installed.exitCode, 0) << installed.output;
  EXPECT_EQ(Vantrel({"--install-service"}).exitCode, 2) << "a second install must be refused";

  VantrelServiceConfig config;
  ASSERT_TRUE(config.ResolveVantrelServiceName());
  EXPECT_STREQ(config.GetServiceName(), "Vantrel");
  EXPECT_STREQ(config.GetDisplayName(), "Vantrel message bus service");
  EXPECT_EQ(IsVantrlServiceRunning(false), 1);

  // Installed: RunVantrel asks the manager instead of starting the program.
  ASSERT_TRUE(RunVantrel(true));
  if (!WaitUntil([] { return IsVantrlServiceRunning(true) == 1; }, 60s))
    GTEST_SKIP() << "the service manager registered the service but did not report it running; its log:\n"
                 << ReadFile(log);
  // Running is reported only once both ports listen.
  cVantrelClientObject client;
  ASSERT_TRUE(client.NETInitZ641("svc-probe", static_cast<unsigned short>(std::stoi(clientsPort))));
  client.NETTerminate();

  const RQPRunResult removed = Vantrel({"--uninstall-service"});
  EXPECT_EQ(removed.exitCode, 0) << removed.output;
  EXPECT_EQ(IsVantrlServiceRunning(false), 0);
  EXPECT_NE(ReadFile(log).find("vantrel - stopped"), std::string::npos) << ReadFile(log);
  EXPECT_EQ(Vantrel({"--uninstall-service"}).exitCode, 2) << "removing a missing service must fail";
}

}  // namespace
