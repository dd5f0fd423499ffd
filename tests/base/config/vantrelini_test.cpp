#include "vantrel/base/config/vantrelini.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/socket/socketoptions.h"

namespace {

using nTime::cDiff;
using nCommunication::nSocket::nImplementation_sho::gBuildSocketOptions;
using vantrel::test::LogCapture;

const std::string kRequiredOnly =
    "SocketCommunicationTimeout = 10000\nSocketClosedReactivationTimeout_debug = 0\n"
    "NetIsActiveImplemented_debug = 1\nCertificatesPath = /etc/vantrel/certs\n";

cDiff Ms(int ms) { return cDiff::FromMilliseconds(ms); }

std::vector<std::int64_t> AsMs(const std::vector<cDiff>& list) {
  std::vector<std::int64_t> out;
  for (const cDiff& d : list) out.push_back(d.Milliseconds());
  return out;
}

// Settings built from `text`, with what they printed on standard output.
struct Built {
  std::unique_ptr<cVantrelIni> ini;
  std::string out;
};

Built Build(const std::string& text) {
  const int table = nEnvSettings::gLoadTableFromText(text, "test.ini");
  testing::internal::CaptureStdout();
  Built b{std::make_unique<cVantrelIni>(table), ""};
  b.out = testing::internal::GetCapturedStdout();
  return b;
}

TEST(VantrelIni, RequiredKeysOnlyGiveEveryDefaultAndPrintTheTlsBlock) {
  LogCapture log;
  const Built b = Build(kRequiredOnly);
  const cVantrelIni& ini = *b.ini;
  EXPECT_EQ(ini.SocketCommunicationTimeout(), Ms(10000));
  EXPECT_TRUE(ini.NetIsActiveImplemented());
  EXPECT_EQ(ini.SocketSendBufferDeprecateTime(), Ms(0));
  EXPECT_EQ(ini.TimeoutKillWorkerProcess(), Ms(300000));
  EXPECT_EQ(ini.CycleLatencyThresholdLimit(), Ms(720000));
  EXPECT_EQ(ini.CommunicationThreadAttributes().StackSize(), 500000u);
  EXPECT_EQ(ini.ThreadBlockLimit(), Ms(200000));
  EXPECT_EQ(ini.AddressPortDelimiter(), "~");
  EXPECT_TRUE(cSimulatedLatencyNetContainer_debug(ini).List().empty());
  EXPECT_TRUE(cSimulatedLatencyLocalContainer_debug(ini).List().empty());
  EXPECT_FALSE(ini.UseOpenSsl() || ini.VerifyServerCertificate() || ini.VerifyClientCertificate());
  EXPECT_EQ(ini.MaxMessageSize(), 4194304u);
  EXPECT_EQ(b.out,
            "\x1b[1m\x1b[4mopenssl settings\x1b[0m\n* UseOpenSsl: false\n* CertificatesPath: /etc/vantrel/certs\n"
            "* VerifyServerCertificate: false\n* VerifyClientCertificate: false\n");
  EXPECT_EQ(log.lines().size(), 0u);  // absent optional keys are silent
}

TEST(VantrelIni, EveryKeyIsReadWhateverItsCaseAndPostProcessed) {
  const Built b = Build(
      "[Sockets]\nsocketcommunicationtimeout = 2500\nSOCKETCLOSEDREACTIVATIONTIMEOUT_DEBUG = 3000\n"
      "; NetIsActiveImplemented_debug = 1\nNetIsActiveImplemented_debug = 0\n"
      "SocketSendBufferDeprecateTime = 40\nSimulatedLatencyNet_debug = 5 0 20 -1\n"
      "SimulatedLatencyLocal_debug = 7 -1\nTimeoutKillWorkerProcess =  250ms\n"
      "CycleLatencyThresholdLimit_debug = 12\nCommunicationThreadStackSize = 1\n[Other]\n"
      "ThreadBlockLimit_debug = +13\nAddressPortDelimiter = ::\nuseopenssl = 2\n"
      "CertificatesPath =   C:\\My Certs\\x\nVerifyServerCertificate = 1\nVerifyClientCertificate = -1\n"
      "MaxMessageSize = 8388608\n");
  const cVantrelIni& ini = *b.ini;
  EXPECT_EQ(ini.SocketCommunicationTimeout(), Ms(2500));
  EXPECT_EQ(ini.SocketClosedReactivationTimeout(), Ms(3000));
  EXPECT_FALSE(ini.NetIsActiveImplemented());
  EXPECT_EQ(ini.SocketSendBufferDeprecateTime(), Ms(40));
  EXPECT_EQ(ini.TimeoutKillWorkerProcess(), Ms(250));  // read as a stream reads an integer
  EXPECT_EQ(ini.CycleLatencyThresholdLimit(), Ms(12));
  EXPECT_EQ(ini.CommunicationThreadAttributes().StackSize(), 1u);
  EXPECT_EQ(ini.ThreadBlockLimit(), Ms(13));
  EXPECT_EQ(ini.AddressPortDelimiter(), "::");
  EXPECT_TRUE(ini.UseOpenSsl());
  EXPECT_EQ(ini.CertificatesPath(), "C:\\My");  // cut at the blank
  EXPECT_TRUE(ini.VerifyServerCertificate() && ini.VerifyClientCertificate());
  EXPECT_EQ(ini.MaxMessageSize(), 8388608u);
  EXPECT_EQ(AsMs(cSimulatedLatencyNetContainer_debug(ini).List()), (std::vector<std::int64_t>{5, 0, 20}));
  EXPECT_EQ(AsMs(cSimulatedLatencyLocalContainer_debug(ini).List()), (std::vector<std::int64_t>{7}));
  EXPECT_NE(b.out.find("* UseOpenSsl: true\n* CertificatesPath: C:\\My\n* VerifyServerCertificate: true\n"
                       "* VerifyClientCertificate: true\n"),
            std::string::npos)
      << b.out;

  for (const char* size : {"0", "-4096"})
    EXPECT_FALSE(Build(kRequiredOnly + "CommunicationThreadStackSize = " + size + "\n")
                     .ini->CommunicationThreadAttributes()
                     .HasStackSize())
        << size;
}

TEST(VantrelIni, MissingAndUnparsableValuesAreReportedOnceAndNeutral) {
  {
    LogCapture log;
    const Built b = Build("UseOpenSsl = 1\n");
    EXPECT_EQ(b.ini->SocketCommunicationTimeout(), Ms(0));  // 0: no time-out
    EXPECT_FALSE(b.ini->NetIsActiveImplemented());
    EXPECT_EQ(b.ini->CertificatesPath(), "");
    for (const char* key : {"SocketCommunicationTimeout", "SocketClosedReactivationTimeout_debug",
                            "NetIsActiveImplemented_debug", "CertificatesPath"})
      EXPECT_EQ(log.count(key), 1u) << key;
    EXPECT_EQ(log.lines().size(), 4u);
  }
  LogCapture log;
  const Built b = Build(
      "SocketCommunicationTimeout = soon\nSocketClosedReactivationTimeout_debug = 0\n"
      "NetIsActiveImplemented_debug = on\nCertificatesPath =   \nTimeoutKillWorkerProcess = abc\n"
      "UseOpenSsl = yes\nCommunicationThreadStackSize = 99999999999\nMaxMessageSize = big\n");
  EXPECT_EQ(b.ini->SocketCommunicationTimeout(), Ms(0));
  EXPECT_FALSE(b.ini->NetIsActiveImplemented());
  EXPECT_EQ(b.ini->CertificatesPath(), "");
  EXPECT_EQ(b.ini->TimeoutKillWorkerProcess(), Ms(0));
  EXPECT_FALSE(b.ini->UseOpenSsl());
  EXPECT_FALSE(b.ini->CommunicationThreadAttributes().HasStackSize());
  EXPECT_EQ(b.ini->MaxMessageSize(), nVantrelIni::kMinMaxMessageSize);
  for (const char* key : {"SocketCommunicationTimeout", "NetIsActiveImplemented_debug", "CertificatesPath",
                          "TimeoutKillWorkerProcess", "UseOpenSsl", "CommunicationThreadStackSize", "MaxMessageSize"})
    EXPECT_EQ(log.count(key), 1u) << key;
}

TEST(VantrelIni, SmallMaxMessageSizeIsRaisedWithALogLine) {
  LogCapture log;
  EXPECT_EQ(Build(kRequiredOnly + "MaxMessageSize = 1000\n").ini->MaxMessageSize(), 65536u);
  EXPECT_EQ(log.count("MaxMessageSize"), 1u);
  EXPECT_EQ(Build(kRequiredOnly + "MaxMessageSize = 65536\n").ini->MaxMessageSize(), 65536u);
  EXPECT_EQ(log.count("MaxMessageSize"), 1u);
}

TEST(SimulatedLatency, ListsStopAtMinusOneOrAtTheFirstBadValue) {
  using nVantrelIni::gParseSimulatedLatency;
  EXPECT_TRUE(gParseSimulatedLatency("-1 40", "list").empty());
  EXPECT_EQ(AsMs(gParseSimulatedLatency(" 5\t0 20 -1 30 -1", "list")), (std::vector<std::int64_t>{5, 0, 20}));

  LogCapture log;
  EXPECT_EQ(AsMs(gParseSimulatedLatency("5 x 7 -1", "badlist")), (std::vector<std::int64_t>{5}));
  EXPECT_EQ(AsMs(gParseSimulatedLatency("3 4", "openlist")), (std::vector<std::int64_t>{3, 4}));
  EXPECT_TRUE(gParseSimulatedLatency("", "emptylist").empty());
  for (const char* what : {"badlist", "openlist", "emptylist"}) EXPECT_EQ(log.count(what), 1u) << what;
}

TEST(SocketOptionsBuilder, SixArgumentsInOrderAndNoneForAnEmptyList) {
  const Built b = Build(
      "SocketCommunicationTimeout = 1500\nSocketClosedReactivationTimeout_debug = 250\n"
      "NetIsActiveImplemented_debug = 1\nCertificatesPath = /c\nSocketSendBufferDeprecateTime = 3000\n"
      "CycleLatencyThresholdLimit_debug = 60000\nSimulatedLatencyNet_debug = 9 8 -1\nMaxMessageSize = 131072\n");
  const cSimulatedLatencyLocalContainer_debug local(*b.ini);
  EXPECT_EQ(nVantrelIni::gLatencyListArgument(local.List()), nullptr);  // "none"
  const auto options = gBuildSocketOptions(*b.ini, local.List());
  EXPECT_EQ(options.connectTimeout, Ms(1500));
  EXPECT_EQ(options.communicationTimeout, Ms(1500));
  EXPECT_EQ(options.closedReactivationTimeout, Ms(250));
  EXPECT_EQ(options.sendBufferDeprecateTime, Ms(3000));
  EXPECT_TRUE(options.simulatedLatency.empty());
  EXPECT_EQ(options.cycleLatencyThresholdLimit, Ms(60000));
  EXPECT_EQ(options.maxMessageSize, 131072u);

  const cSimulatedLatencyNetContainer_debug net(*b.ini);
  EXPECT_EQ(nVantrelIni::gLatencyListArgument(net.List()), &net.List());
  EXPECT_EQ(AsMs(gBuildSocketOptions(*b.ini, net.List()).simulatedLatency), (std::vector<std::int64_t>{9, 8}));
}

}  // namespace
