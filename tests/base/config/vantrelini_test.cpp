#include "vantrel/base/config/vantrelini.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/socket/socketoptions.h"

namespace {

using nCommunication::nSocket::nImplementation_sho::gBuildSocketOptions;
using nTime::cDiff;
using vantrel::test::LogCapture;

const std::string kRequiredOnly =
    "SocketCommunicationTimeout = 10000\nSocketClosedReactivationTimeout_debug = 0\n"
    "NetIsActiveImplemented_debug = 1\nCertificatesPath = /etc/vantrel/certs\n";

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

// Every setting in one text (times in ms; a stack size of 0 is none), so that
// whole configurations compare at once.
std::string Describe(const cVantrelIni& ini) {
  const auto& threads = ini.CommunicationThreadAttributes();
  std::ostringstream s;
  s << "timeout=" << ini.SocketCommunicationTimeout().Milliseconds()
    << " reactivation=" << ini.SocketClosedReactivationTimeout().Milliseconds()
    << " netActive=" << ini.NetIsActiveImplemented()
    << " deprecate=" << ini.SocketSendBufferDeprecateTime().Milliseconds()
    << " kill=" << ini.TimeoutKillWorkerProcess().Milliseconds()
    << " cycle=" << ini.CycleLatencyThresholdLimit().Milliseconds()
    << " stack=" << (threads.HasStackSize() ? threads.StackSize() : 0)
    << " block=" << ini.ThreadBlockLimit().Milliseconds() << " delimiter=" << ini.AddressPortDelimiter()
    << " latencyNet=" << ini.SimulatedLatencyNet() << " latencyLocal=" << ini.SimulatedLatencyLocal()
    << " tls=" << ini.UseOpenSsl() << ini.VerifyServerCertificate() << ini.VerifyClientCertificate()
    << " certs=" << ini.CertificatesPath() << " max=" << ini.MaxMessageSize();
  return s.str();
}

TEST(VantrelIni, AbsentOptionalKeysTakeTheShippedValuesSilentlyAndTheTlsBlockIsPrinted) {
  LogCapture log;
  const Built b = Build(kRequiredOnly);
  EXPECT_EQ(Describe(*b.ini), Describe(*Build(std::string(nEnvSettings::gBuiltInDefaults())).ini));
  EXPECT_EQ(b.out,
            "openssl settings\n* UseOpenSsl: false\n* CertificatesPath: /etc/vantrel/certs\n"  // no escapes in a pipe
            "* VerifyServerCertificate: false\n* VerifyClientCertificate: false\n");
  EXPECT_EQ(log.lines().size(), 0u);
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
  // An integer is read as a stream reads one ("250ms" is 250); the path is cut at the blank.
  EXPECT_EQ(Describe(*b.ini),
            "timeout=2500 reactivation=3000 netActive=0 deprecate=40 kill=250 cycle=12 stack=1 block=13 "
            "delimiter=:: latencyNet=5 0 20 -1 latencyLocal=7 -1 tls=111 certs=C:\\My max=8388608");
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

TEST(VantrelIni, MissingAndUnparsableValuesAreReportedOnceAndTakeTheShippedValues) {
  {
    LogCapture log;
    const Built b = Build("UseOpenSsl = 1\n");
    // Never a zero that changes behaviour (0 would mean no time-out).
    EXPECT_EQ(b.ini->SocketCommunicationTimeout(), cDiff::FromMilliseconds(10000));
    EXPECT_TRUE(b.ini->NetIsActiveImplemented());
    EXPECT_EQ(b.ini->CertificatesPath(), "/etc/vantrel/certs");
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
  EXPECT_EQ(b.ini->SocketCommunicationTimeout(), cDiff::FromMilliseconds(10000));
  EXPECT_TRUE(b.ini->NetIsActiveImplemented());
  EXPECT_EQ(b.ini->CertificatesPath(), "");  // written empty on purpose
  EXPECT_EQ(b.ini->TimeoutKillWorkerProcess(), cDiff::FromMilliseconds(300000));
  EXPECT_FALSE(b.ini->UseOpenSsl());
  EXPECT_EQ(b.ini->CommunicationThreadAttributes().StackSize(), 524288u);
  EXPECT_EQ(b.ini->MaxMessageSize(), 4194304u);
  for (const char* key : {"SocketCommunicationTimeout", "NetIsActiveImplemented_debug", "CertificatesPath",
                          "TimeoutKillWorkerProcess", "UseOpenSsl", "CommunicationThreadStackSize", "MaxMessageSize"})
    EXPECT_EQ(log.count(key), 1u) << key;
}

TEST(VantrelIni, SizesBelowTheirLeastAreRaisedWithALogLine) {
  LogCapture log;
  EXPECT_EQ(Build(kRequiredOnly + "MaxMessageSize = 1000\n").ini->MaxMessageSize(), 65536u);
  EXPECT_EQ(Build(kRequiredOnly + "MaxMessageSize = 65536\n").ini->MaxMessageSize(), 65536u);
  EXPECT_EQ(log.count("MaxMessageSize"), 1u);
  EXPECT_EQ(Build(kRequiredOnly + "FileCopyWindowBytes = 1000\n").ini->FileCopyWindowBytes(), 51200u);
  EXPECT_EQ(Build(kRequiredOnly + "FileCopyWindowBytes = 51200\n").ini->FileCopyWindowBytes(), 51200u);
  EXPECT_EQ(Build(kRequiredOnly).ini->FileCopyWindowBytes(), 8u << 20);
  EXPECT_EQ(log.count("FileCopyWindowBytes"), 1u);
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

TEST(SocketOptionsBuilder, EachLinkKindGetsItsOwnLatencyListAndTheSharedLimits) {
  const Built b = Build(
      "SocketCommunicationTimeout = 1500\nSocketClosedReactivationTimeout_debug = 250\n"
      "NetIsActiveImplemented_debug = 1\nCertificatesPath = /c\nSocketSendBufferDeprecateTime = 3000\n"
      "CycleLatencyThresholdLimit_debug = 60000\nSimulatedLatencyNet_debug = 9 8 -1\n"
      "SimulatedLatencyLocal_debug = 7 -1\nMaxMessageSize = 131072\n");
  const cSimulatedLatencyNetContainer_debug net(*b.ini);
  const auto options = gBuildSocketOptions(*b.ini, net.List());
  EXPECT_EQ(options.connectTimeout.Milliseconds(), 1500);
  EXPECT_EQ(options.communicationTimeout.Milliseconds(), 1500);
  EXPECT_EQ(options.closedReactivationTimeout.Milliseconds(), 250);
  EXPECT_EQ(options.sendBufferDeprecateTime.Milliseconds(), 3000);
  EXPECT_EQ(options.cycleLatencyThresholdLimit.Milliseconds(), 60000);
  EXPECT_EQ(options.maxMessageSize, 131072u);
  EXPECT_EQ(AsMs(options.simulatedLatency), (std::vector<std::int64_t>{9, 8}));
  const cSimulatedLatencyLocalContainer_debug local(*b.ini);
  EXPECT_EQ(AsMs(gBuildSocketOptions(*b.ini, local.List()).simulatedLatency), (std::vector<std::int64_t>{7}));

  // The list argument of the options is "none" (null) only for an empty list.
  EXPECT_EQ(nVantrelIni::gLatencyListArgument(net.List()), &net.List());
  EXPECT_EQ(nVantrelIni::gLatencyListArgument(std::vector<cDiff>()), nullptr);
}

}  // namespace
