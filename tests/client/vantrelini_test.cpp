#include "vantrel/client/vantrelini.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/env/settings.h"

namespace {

using nTime::cDiff;
using vantrel::test::LogCapture;

const char* const kRequiredOnly =
    "SocketCommunicationTimeout = 10000\n"
    "SocketClosedReactivationTimeout_debug = 0\n"
    "NetIsActiveImplemented_debug = 1\n"
    "CertificatesPath = /etc/vantrel/certs\n";

cDiff Ms(int ms) { return cDiff::FromMilliseconds(ms); }

// Builds the settings from `text`, keeping what they print on standard output.
struct Built {
  std::unique_ptr<cVantrelIni> ini;
  std::string out;
};

Built Build(const std::string& text) {
  const int table = nEnvSettings::gLoadTableFromText(text, "test.ini");
  testing::internal::CaptureStdout();
  Built b;
  b.ini = std::make_unique<cVantrelIni>(table);
  b.out = testing::internal::GetCapturedStdout();
  return b;
}

std::vector<std::int64_t> AsMs(const std::vector<cDiff>& list) {
  std::vector<std::int64_t> out;
  for (const cDiff& d : list) out.push_back(d.Milliseconds());
  return out;
}

TEST(VantrelIni, RequiredKeysOnlyGiveEveryDefaultAndPrintTlsBlock) {
  LogCapture log;
  const Built b = Build(kRequiredOnly);
  const cVantrelIni& ini = *b.ini;

  EXPECT_EQ(ini.SocketCommunicationTimeout(), Ms(10000));
  EXPECT_EQ(ini.SocketClosedReactivationTimeout(), Ms(0));
  EXPECT_TRUE(ini.NetIsActiveImplemented());
  EXPECT_EQ(ini.SocketSendBufferDeprecateTime(), Ms(0));
  EXPECT_EQ(ini.TimeoutKillWorkerProcess(), Ms(300000));
  EXPECT_EQ(ini.CycleLatencyThresholdLimit(), Ms(720000));
  ASSERT_TRUE(ini.CommunicationThreadAttributes().HasStackSize());
  EXPECT_EQ(ini.CommunicationThreadAttributes().StackSize(), 500000u);
  EXPECT_EQ(ini.ThreadBlockLimit(), Ms(200000));
  EXPECT_EQ(ini.AddressPortDelimiter(), "~");
  EXPECT_TRUE(cSimulatedLatencyNetContainer_debug(ini).List().empty());
  EXPECT_TRUE(cSimulatedLatencyLocalContainer_debug(ini).List().empty());
  EXPECT_FALSE(ini.UseOpenSsl());
  EXPECT_EQ(ini.CertificatesPath(), "/etc/vantrel/certs");
  EXPECT_FALSE(ini.VerifyServerCertificate());
  EXPECT_FALSE(ini.VerifyClientCertificate());
  EXPECT_EQ(ini.MaxMessageSize(), 4194304u);

  EXPECT_EQ(b.out,
            "\x1b[1m\x1b[4mopenssl settings\x1b[0m\n"
            "* UseOpenSsl: false\n"
            "* CertificatesPath: /etc/vantrel/certs\n"
            "* VerifyServerCertificate: false\n"
            "* VerifyClientCertificate: false\n");
  EXPECT_TRUE(log.lines().empty()) << log.lines().front();  // absent optional keys are silent
}

TEST(VantrelIni, EveryKeyIsReadAndPostProcessed) {
  const Built b = Build(
      "SocketCommunicationTimeout = 2500\n"
      "SocketClosedReactivationTimeout_debug = 3000\n"
      "NetIsActiveImplemented_debug = 0\n"
      "SocketSendBufferDeprecateTime = 40\n"
      "SimulatedLatencyNet_debug = 5 0 20 -1\n"
      "SimulatedLatencyLocal_debug = 7 -1\n"
      "TimeoutKillWorkerProcess = 11\n"
      "CycleLatencyThresholdLimit_debug = 12\n"
      "CommunicationThreadStackSize = 1\n"
      "ThreadBlockLimit_debug = 13\n"
      "AddressPortDelimiter = ::\n"
      "UseOpenSsl = 2\n"
      "CertificatesPath =   C:\\My Certs\\x\n"
      "VerifyServerCertificate = 1\n"
      "VerifyClientCertificate = -1\n"
      "MaxMessageSize = 8388608\n");
  const cVantrelIni& ini = *b.ini;
  EXPECT_EQ(ini.SocketCommunicationTimeout(), Ms(2500));
  EXPECT_EQ(ini.SocketClosedReactivationTimeout(), Ms(3000));
  EXPECT_FALSE(ini.NetIsActiveImplemented());
  EXPECT_EQ(ini.SocketSendBufferDeprecateTime(), Ms(40));
  EXPECT_EQ(ini.TimeoutKillWorkerProcess(), Ms(11));
  EXPECT_EQ(ini.CycleLatencyThresholdLimit(), Ms(12));
  EXPECT_EQ(ini.CommunicationThreadAttributes().StackSize(), 1u);  // one byte asked for
  EXPECT_EQ(ini.ThreadBlockLimit(), Ms(13));
  EXPECT_EQ(ini.AddressPortDelimiter(), "::");
  EXPECT_TRUE(ini.UseOpenSsl());  // any non-zero value
  EXPECT_EQ(ini.CertificatesPath(), "C:\\My");  // cut at the blank
  EXPECT_TRUE(ini.VerifyServerCertificate());
  EXPECT_TRUE(ini.VerifyClientCertificate());
  EXPECT_EQ(ini.MaxMessageSize(), 8388608u);
  EXPECT_EQ(AsMs(cSimulatedLatencyNetContainer_debug(ini).List()), (std::vector<std::int64_t>{5, 0, 20}));
  EXPECT_EQ(AsMs(cSimulatedLatencyLocalContainer_debug(ini).List()), (std::vector<std::int64_t>{7}));
  EXPECT_NE(b.out.find("* UseOpenSsl: true\n* CertificatesPath: C:\\My\n* VerifyServerCertificate: true\n"
                       "* VerifyClientCertificate: true\n"),
            std::string::npos)
      << b.out;
}

TEST(VantrelIni, StackSizeZeroOrNegativeLeavesSystemDefault) {
  for (const char* value : {"0", "-4096"}) {
    const Built b = Build(std::string(kRequiredOnly) + "CommunicationThreadStackSize = " + value + "\n");
    EXPECT_FALSE(b.ini->CommunicationThreadAttributes().HasStackSize()) << value;
  }
}

TEST(VantrelIni, KeysMatchWithoutRegardToCaseAndIgnoreSectionsAndComments) {
  const Built b = Build(
      "; settings\n[Sockets]\nsocketcommunicationtimeout = 5\n# ok\n"
      "SOCKETCLOSEDREACTIVATIONTIMEOUT_DEBUG = 6\n[TLS]\nnetisactiveimplemented_debug = 1\n"
      "certificatespath = /c\nuSEoPENsSL = 1\n;UseOpenSsl = 0\n");
  EXPECT_EQ(b.ini->SocketCommunicationTimeout(), Ms(5));
  EXPECT_EQ(b.ini->SocketClosedReactivationTimeout(), Ms(6));
  EXPECT_TRUE(b.ini->UseOpenSsl());
  EXPECT_EQ(b.ini->CertificatesPath(), "/c");
}

TEST(VantrelIni, IntegersAreExtractedLikeAStream) {
  const Built b = Build(std::string(kRequiredOnly) + "TimeoutKillWorkerProcess =  250ms\nThreadBlockLimit_debug = +7x\n");
  EXPECT_EQ(b.ini->TimeoutKillWorkerProcess(), Ms(250));
  EXPECT_EQ(b.ini->ThreadBlockLimit(), Ms(7));
}

TEST(VantrelIni, MissingRequiredKeysAreReportedOnceAndNeutral) {
  LogCapture log;
  const Built b = Build("UseOpenSsl = 1\n");
  EXPECT_EQ(b.ini->SocketCommunicationTimeout(), Ms(0));  // 0: no time-out
  EXPECT_EQ(b.ini->SocketClosedReactivationTimeout(), Ms(0));
  EXPECT_FALSE(b.ini->NetIsActiveImplemented());
  EXPECT_EQ(b.ini->CertificatesPath(), "");
  for (const char* key : {"SocketCommunicationTimeout", "SocketClosedReactivationTimeout_debug",
                          "NetIsActiveImplemented_debug", "CertificatesPath"})
    EXPECT_EQ(log.count(key), 1u) << key;
  EXPECT_EQ(log.lines().size(), 4u);
}

TEST(VantrelIni, UnparsableValuesAreReportedOnceAndNeutral) {
  {
  LogCapture log;
  const Built b = Build(std::string(kRequiredOnly) +
                        "TimeoutKillWorkerProcess = abc\n"
                        "UseOpenSsl = yes\n"
                        "CommunicationThreadStackSize = 99999999999\n"
                        "MaxMessageSize = big\n");
  EXPECT_EQ(b.ini->TimeoutKillWorkerProcess(), Ms(0));
  EXPECT_FALSE(b.ini->UseOpenSsl());
  EXPECT_FALSE(b.ini->CommunicationThreadAttributes().HasStackSize());  // out of range
  EXPECT_EQ(b.ini->MaxMessageSize(), nVantrelIni::kMinMaxMessageSize);
  for (const char* key : {"TimeoutKillWorkerProcess", "UseOpenSsl", "CommunicationThreadStackSize", "MaxMessageSize"})
    EXPECT_EQ(log.count(key), 1u) << key;
  }
  LogCapture log2;
  const Built c = Build("SocketCommunicationTimeout = soon\nSocketClosedReactivationTimeout_debug = 0\n"
                        "NetIsActiveImplemented_debug = on\nCertificatesPath =   \n");
  EXPECT_EQ(c.ini->SocketCommunicationTimeout(), Ms(0));
  EXPECT_FALSE(c.ini->NetIsActiveImplemented());
  EXPECT_EQ(c.ini->CertificatesPath(), "");
  EXPECT_EQ(log2.count("SocketCommunicationTimeout"), 1u);
  EXPECT_EQ(log2.count("NetIsActiveImplemented_debug"), 1u);
  EXPECT_EQ(log2.count("CertificatesPath"), 1u);
}

TEST(VantrelIni, SmallMaxMessageSizeIsRaisedWithALogLine) {
  LogCapture log;
  const Built b = Build(std::string(kRequiredOnly) + "MaxMessageSize = 1000\n");
  EXPECT_EQ(b.ini->MaxMessageSize(), 65536u);
  EXPECT_EQ(log.count("MaxMessageSize"), 1u);
  EXPECT_EQ(Build(std::string(kRequiredOnly) + "MaxMessageSize = 65536\n").ini->MaxMessageSize(), 65536u);
}

TEST(VantrelIni, BuiltInDefaultsMatchTheDocumentedValues) {
  testing::internal::CaptureStdout();
  const cVantrelIni ini(nEnvSettings::gBuiltInDefaultsTable());
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(ini.SocketCommunicationTimeout(), Ms(10000));
  EXPECT_EQ(ini.SocketClosedReactivationTimeout(), Ms(0));
  EXPECT_TRUE(ini.NetIsActiveImplemented());
  EXPECT_EQ(ini.CertificatesPath(), "/etc/vantrel/certs");
  EXPECT_EQ(ini.TimeoutKillWorkerProcess(), Ms(300000));
  EXPECT_EQ(ini.CycleLatencyThresholdLimit(), Ms(720000));
  EXPECT_EQ(ini.CommunicationThreadAttributes().StackSize(), 500000u);
  EXPECT_EQ(ini.AddressPortDelimiter(), "~");
  EXPECT_EQ(ini.MaxMessageSize(), 4194304u);
  EXPECT_FALSE(ini.UseOpenSsl());
  EXPECT_EQ(nVantrelIni::gReadIntRequired(ini.Table(), "LatencyClockUpdate"), 0);
  EXPECT_EQ(nVantrelIni::gReadIntRequired(ini.Table(), "LatencyClockUpdateCooldown"), 600000);
}

TEST(SimulatedLatency, ListsStopAtMinusOneOrAtTheFirstBadValue) {
  using nVantrelIni::gParseSimulatedLatency;
  EXPECT_TRUE(gParseSimulatedLatency("-1", "list").empty());
  EXPECT_TRUE(gParseSimulatedLatency("-1 40", "list").empty());
  EXPECT_EQ(AsMs(gParseSimulatedLatency("5 0 20 -1", "list")), (std::vector<std::int64_t>{5, 0, 20}));
  EXPECT_EQ(AsMs(gParseSimulatedLatency(" 5\t0 20 -1 30 -1", "list")), (std::vector<std::int64_t>{5, 0, 20}));

  LogCapture log;
  EXPECT_EQ(AsMs(gParseSimulatedLatency("5 x 7 -1", "badlist")), (std::vector<std::int64_t>{5}));
  EXPECT_EQ(log.count("badlist"), 1u);
  EXPECT_EQ(AsMs(gParseSimulatedLatency("3 4", "openlist")), (std::vector<std::int64_t>{3, 4}));
  EXPECT_EQ(log.count("openlist"), 1u);
  EXPECT_TRUE(gParseSimulatedLatency("", "emptylist").empty());
  EXPECT_EQ(log.count("emptylist"), 1u);
}

TEST(SocketOptionsBuilder, SixArgumentsInOrderAndNoneForAnEmptyList) {
  const Built b = Build(
      "SocketCommunicationTimeout = 1500\nSocketClosedReactivationTimeout_debug = 250\n"
      "NetIsActiveImplemented_debug = 1\nCertificatesPath = /c\n"
      "SocketSendBufferDeprecateTime = 3000\nCycleLatencyThresholdLimit_debug = 60000\n"
      "SimulatedLatencyNet_debug = 9 8 -1\nMaxMessageSize = 131072\n");
  const std::vector<cDiff> empty;
  EXPECT_EQ(nVantrelIni::gLatencyListArgument(empty), nullptr);

  const auto local = b.ini->BuildSocketOptions(cSimulatedLatencyLocalContainer_debug(*b.ini).List());
  EXPECT_EQ(local.connectTimeout, Ms(1500));
  EXPECT_EQ(local.communicationTimeout, Ms(1500));
  EXPECT_EQ(local.closedReactivationTimeout, Ms(250));
  EXPECT_EQ(local.sendBufferDeprecateTime, Ms(3000));
  EXPECT_TRUE(local.simulatedLatency.empty());
  EXPECT_EQ(local.cycleLatencyThresholdLimit, Ms(60000));
  EXPECT_EQ(local.maxMessageSize, 131072u);

  const cSimulatedLatencyNetContainer_debug net(*b.ini);
  EXPECT_EQ(nVantrelIni::gLatencyListArgument(net.List()), &net.List());
  const auto options = b.ini->BuildSocketOptions(net.List());
  EXPECT_EQ(AsMs(options.simulatedLatency), (std::vector<std::int64_t>{9, 8}));
  EXPECT_EQ(options.maxMessageSize, 131072u);
}

TEST(VantrelIniInstance, ConcurrentFirstUseBuildsOneInstance) {
  testing::internal::CaptureStdout();
  std::vector<const char*> seen(4, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([i, &seen] { seen[i] = gVantrelAddressPortDelimiter(); });
  for (auto& t : threads) t.join();
  testing::internal::GetCapturedStdout();
  for (const char* p : seen) EXPECT_EQ(p, cVantrelIni::Instance().AddressPortDelimiter().c_str());
  EXPECT_EQ(gIniTable(), cVantrelIni::Instance().Table());
  EXPECT_EQ(gSocketOptionsNet().maxMessageSize, cVantrelIni::Instance().MaxMessageSize());
}

}  // namespace
