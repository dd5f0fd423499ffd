// Services inside the test process: each runs with the settings it was given,
// and the restart rule reaches the test through the service's hook.
#include "vantrel/service/vantrelclass.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "tests/support/servicehelper.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/env/settings.h"

namespace vantrel::test {
namespace {

class InProcessService : public CVantrelClass {
 public:
  // The settings object is a temporary: the service must keep its own copy.
  explicit InProcessService(const std::string& delimiter)
      : CVantrelClass(cVantrelIni(nEnvSettings::gLoadTableFromText(
            "SocketCommunicationTimeout = 10000\nSocketClosedReactivationTimeout_debug = 0\n"
            "NetIsActiveImplemented_debug = 1\nCertificatesPath = /none\nAddressPortDelimiter = " +
                delimiter + "\n",
            "test.ini"))) {
    SetReportToLogOnly(true);
  }
  ~InProcessService() override { f_TerminateZ2(); }
  void f_Terminate() override { f_TerminateInternal(); }
  std::atomic<int> restarts{0};

 protected:
  void RestartProcess() override { ++restarts; }
};

TEST(InProcessServiceTest, EachServiceKeepsItsSettingsAndTheRestartRuleIsItsHook) {
  InProcessService a("~");
  InProcessService b("+");
  ASSERT_TRUE(a.vInitZ1());
  ASSERT_TRUE(b.vInitZ1());
  EXPECT_EQ(a.GetAddressHostText(), a.GetHostName() + "~" + std::to_string(a.GetNetPortZ5181()));
  EXPECT_EQ(b.GetAddressHostText(), b.GetHostName() + "+" + std::to_string(b.GetNetPortZ5181()));

  // A client that leaves without a greeting asks for a restart: that service's
  // hook is called, and as it returns, only the connection ends.
  {
    RawLink silent;
    ASSERT_TRUE(silent.connectClient(a.GetClientsPortZ5181()));
  }
  ASSERT_TRUE(WaitUntil([&] { return a.restarts.load() == 1; }));
  EXPECT_EQ(b.restarts.load(), 0);

  // Accepted in order: once `later` is answered, `waiting` has its connection.
  // (What the answer holds is checked end to end: clients route by it.)
  RawLink waiting;
  ASSERT_TRUE(waiting.connectClient(a.GetClientsPortZ5181()));
  RawLink later;
  ASSERT_TRUE(later.connectClient(a.GetClientsPortZ5181()));
  ASSERT_TRUE(later.greet("later"));
  ASSERT_TRUE(later.next().has_value());

  // Stopping the service while a client has yet to greet is no failure.
  a.f_TerminateZ2();
  EXPECT_EQ(a.restarts.load(), 1);
}

}  // namespace
}  // namespace vantrel::test
