#include "vantrel/base/config/vantrelini.h"

#include <cstdint>
#include <cstdio>
#include <optional>
#include <sstream>

#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/env/integer.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/terminal.h"
#include "vantrel/message/wire.h"

namespace nVantrelIni {
namespace {

// The file's documented form: a 32-bit number at the start of the value ("250ms" is 250).
std::optional<int> ExtractInt(const std::string& text) {
  const auto value =
      vantrel::env::ParseInteger(text, INT32_MIN, INT32_MAX, nullptr, vantrel::env::tIntegerForm::eLeadingNumber);
  if (!value) return std::nullopt;
  return static_cast<int>(*value);
}

// The value the shipped settings file gives `key`, if it names the key at all.
std::optional<std::string> BuiltInValue(const char* key) {
  std::optional<std::string> text;
  nEnvSettings::gGetPropertyString(text, nEnvSettings::gBuiltInDefaultsTable(), key);
  return text;
}

int BuiltInInt(const char* key) {
  const auto text = BuiltInValue(key);
  return text ? ExtractInt(*text).value_or(0) : 0;
}

// A present value that is not an integer: reported, and the default stands in
// for it, never a zero that would change what the setting does.
int NotAnInteger(const char* key, const std::string& text, int defaultValue) {
  VLOG_ERROR("cVantrelIni - setting %s: \"%s\" is not an integer; %d is used", key, text, defaultValue);
  return defaultValue;
}

// As gReadIntWithDefault; `parsed` tells whether a present value was an integer.
int ReadIntWithDefault(int table, const char* key, int defaultValue, bool& parsed) {
  std::optional<std::string> text;
  nEnvSettings::gGetPropertyString(text, table, key);
  parsed = true;
  if (!text) return defaultValue;
  if (auto value = ExtractInt(*text)) return *value;
  parsed = false;
  return NotAnInteger(key, *text, defaultValue);
}

}  // namespace

int gReadIntWithDefault(int table, const char* key, int defaultValue) {
  bool parsed;
  return ReadIntWithDefault(table, key, defaultValue, parsed);
}

int gReadIntRequired(int table, const char* key) {
  const std::string text = nEnvSettings::gGetPropertyStream(table, key);
  if (auto value = ExtractInt(text)) return *value;
  // A missing key has been reported by the settings reader already.
  if (!nEnvSettings::gHasProperty(table, key)) return BuiltInInt(key);
  return NotAnInteger(key, text, BuiltInInt(key));
}

std::string gReadStringOptional(int table, const char* key, const char* defaultValue) {
  std::optional<std::string> text;
  nEnvSettings::gGetPropertyString(text, table, key);
  return text ? *text : std::string(defaultValue);
}

std::string gReadStringRequired(int table, const char* key) {
  if (nEnvSettings::gHasProperty(table, key)) return nEnvSettings::gGetPropertyStream(table, key);
  (void)nEnvSettings::gGetPropertyStream(table, key);  // reports the missing key once
  return BuiltInValue(key).value_or(std::string());
}

std::string gReadWordRequired(int table, const char* key) {
  std::istringstream in(gReadStringRequired(table, key));
  std::string word;
  in >> word;
  if (word.empty() && nEnvSettings::gHasProperty(table, key))
    VLOG_ERROR("cVantrelIni - setting %s has no value; the empty text is used", key);
  return word;
}

std::vector<nTime::cDiff> gParseSimulatedLatency(const std::string& text, const char* what) {
  std::vector<nTime::cDiff> list;
  std::istringstream in(text);
  for (std::string word;;) {
    if (!(in >> word)) {
      VLOG_WARN("cVantrelIni - %s \"%s\" does not end with -1; the list ends at the end of the text", what, text);
      break;
    }
    const auto value = vantrel::env::ParseInteger(word, INT32_MIN, INT32_MAX);
    if (!value) {
      VLOG_WARN("cVantrelIni - %s \"%s\": a value is not an integer; the list ends before it", what, text);
      break;
    }
    if (*value == -1) break;
    list.push_back(nTime::cDiff::FromMilliseconds(static_cast<double>(*value)));
  }
  return list;
}

const std::vector<nTime::cDiff>* gLatencyListArgument(const std::vector<nTime::cDiff>& list) {
  return list.empty() ? nullptr : &list;
}

}  // namespace nVantrelIni

using namespace nVantrelIni;

namespace {

const char* TrueFalse(bool b) { return b ? "true" : "false"; }

// The TLS settings are shown on the console when the settings are read.
void PrintLine(const std::string& line) {
  std::fputs(line.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace

cVantrelIni::cVantrelIni() {
  RQEnvContainerClass env;
  nEnvSettings::gFileInitTable(env, "Vantrel.ini", table_);
  Read();
}

cVantrelIni::cVantrelIni(int table) : table_(table) { Read(); }

void cVantrelIni::Read() {
  const auto ms = [](int v) { return nTime::cDiff::FromMilliseconds(static_cast<double>(v)); };
  const int t = table_;

  socketCommunicationTimeout_ = ms(gReadIntRequired(t, "SocketCommunicationTimeout"));
  socketClosedReactivationTimeout_ = ms(gReadIntRequired(t, "SocketClosedReactivationTimeout_debug"));
  netIsActiveImplemented_ = gReadIntRequired(t, "NetIsActiveImplemented_debug") != 0;
  socketSendBufferDeprecateTime_ = ms(gReadIntWithDefault(t, "SocketSendBufferDeprecateTime", 0));
  simulatedLatencyNet_ = gReadStringOptional(t, "SimulatedLatencyNet_debug", "-1");
  simulatedLatencyLocal_ = gReadStringOptional(t, "SimulatedLatencyLocal_debug", "-1");
  timeoutKillWorkerProcess_ = ms(gReadIntWithDefault(t, "TimeoutKillWorkerProcess", 300000));
  cycleLatencyThresholdLimit_ = ms(gReadIntWithDefault(t, "CycleLatencyThresholdLimit_debug", 720000));

  // A whole number of pages: a size that is not one leaves the top of every
  // stack straddling one page more, 4 KiB resident per thread for nothing.
  const int stackSize = gReadIntWithDefault(t, "CommunicationThreadStackSize", 524288);
  if (stackSize >= 1)
    communicationThreadAttributes_.SetStackSize(static_cast<std::size_t>(stackSize));
  else
    communicationThreadAttributes_.ClearStackSize();

  threadBlockLimit_ = ms(gReadIntWithDefault(t, "ThreadBlockLimit_debug", 200000));
  addressPortDelimiter_ = gReadStringOptional(t, "AddressPortDelimiter", "~");

  // Bold and underlined for a person; files and pipes get the plain words.
  PrintLine(vantrel::platform::StandardOutputIsTerminal() ? "\033[1m\033[4mopenssl settings\033[0m"
                                                          : "openssl settings");
  useOpenSsl_ = gReadIntWithDefault(t, "UseOpenSsl", 0) != 0;
  PrintLine(std::string("* UseOpenSsl: ") + TrueFalse(useOpenSsl_));
  certificatesPath_ = gReadWordRequired(t, "CertificatesPath");
  PrintLine("* CertificatesPath: " + certificatesPath_);
  verifyServerCertificate_ = gReadIntWithDefault(t, "VerifyServerCertificate", 0) != 0;
  PrintLine(std::string("* VerifyServerCertificate: ") + TrueFalse(verifyServerCertificate_));
  verifyClientCertificate_ = gReadIntWithDefault(t, "VerifyClientCertificate", 0) != 0;
  PrintLine(std::string("* VerifyClientCertificate: ") + TrueFalse(verifyClientCertificate_));

  copyRoots_ = gReadStringOptional(t, "CopyRoots", "");

  bool parsed;
  const int maxSize = ReadIntWithDefault(t, "MaxMessageSize", static_cast<int>(kDefaultMaxMessageSize), parsed);
  if (maxSize < static_cast<int>(kMinMaxMessageSize)) {
    if (parsed)
      VLOG_WARN("cVantrelIni - MaxMessageSize %d is below the least frame size; %u is used", maxSize,
                kMinMaxMessageSize);
    maxMessageSize_ = kMinMaxMessageSize;
  } else {
    maxMessageSize_ = static_cast<std::uint32_t>(maxSize);
  }

  // Blank (the default) listens on every address.
  std::istringstream listen(gReadStringOptional(t, "NetListenAddress", ""));
  listen >> netListenAddress_;
  const int maxPending =
      ReadIntWithDefault(t, "MaxPendingConnections", static_cast<int>(kDefaultMaxPendingConnections), parsed);
  if (!parsed || maxPending < 1) {
    if (parsed)
      VLOG_WARN("cVantrelIni - MaxPendingConnections %d is below 1; %u is used", maxPending,
                kDefaultMaxPendingConnections);
    maxPendingConnections_ = kDefaultMaxPendingConnections;
  } else {
    maxPendingConnections_ = static_cast<std::uint32_t>(maxPending);
  }
  // Below two messages a bound would refuse what a single sender may send.
  const auto queueBound = [&](const char* key, std::uint64_t fallback) {
    const int value = ReadIntWithDefault(t, key, static_cast<int>(fallback), parsed);
    if (!parsed) return fallback;  // logged by the reader
    const std::uint64_t least = std::uint64_t{maxMessageSize_} * 2;
    const std::uint64_t bytes = value < 0 ? fallback : static_cast<std::uint64_t>(value);
    if (bytes >= least) return bytes;
    VLOG_WARN("cVantrelIni - %s %d is below two messages; %llu is used", key, value,
              static_cast<unsigned long long>(least));
    return least;
  };
  maxClientQueueBytes_ = queueBound("MaxClientQueueBytes", kDefaultMaxClientQueueBytes);
  maxLinkQueueBytes_ = queueBound("MaxLinkQueueBytes", kDefaultMaxLinkQueueBytes);
  const int silence = gReadIntWithDefault(t, "LinkSilenceLimitSeconds", kDefaultLinkSilenceLimitSeconds);
  linkSilenceLimitSeconds_ = silence < 0 ? kDefaultLinkSilenceLimitSeconds : silence;
  const int answerTimeout = gReadIntWithDefault(t, "AnswerTimeoutSeconds", kDefaultAnswerTimeoutSeconds);
  answerTimeoutSeconds_ = answerTimeout < 1 ? kDefaultAnswerTimeoutSeconds : answerTimeout;

  // A window smaller than one chunk would let no chunk go at all.
  const int window =
      ReadIntWithDefault(t, "FileCopyWindowBytes", static_cast<int>(kDefaultFileCopyWindowBytes), parsed);
  if (!parsed) {
    fileCopyWindowBytes_ = kDefaultFileCopyWindowBytes;
  } else if (window < static_cast<int>(vantrel::wire::kFileChunkSize)) {
    VLOG_WARN("cVantrelIni - FileCopyWindowBytes %d is below one chunk; %u is used", window,
              vantrel::wire::kFileChunkSize);
    fileCopyWindowBytes_ = vantrel::wire::kFileChunkSize;
  } else {
    fileCopyWindowBytes_ = static_cast<std::uint64_t>(window);
  }

  const int monitorPort = ReadIntWithDefault(t, "MonitorPort", kDefaultMonitorPort, parsed);
  if (monitorPort < 0 || monitorPort > 65535) {
    VLOG_WARN("cVantrelIni - MonitorPort %d is not a port; %u is used", monitorPort, kDefaultMonitorPort);
    monitorPort_ = kDefaultMonitorPort;
  } else {
    monitorPort_ = static_cast<unsigned short>(parsed ? monitorPort : kDefaultMonitorPort);
  }
  std::istringstream monitorAddress(gReadStringOptional(t, "MonitorAddress", kDefaultMonitorAddress));
  monitorAddress >> monitorAddress_;
  if (monitorAddress_.empty()) monitorAddress_ = kDefaultMonitorAddress;
}

const cVantrelIni& cVantrelIni::Instance() {
  // Built under the static's own guard; never destroyed (see the header).
  static const cVantrelIni* const instance = new cVantrelIni();
  return *instance;
}

cSimulatedLatencyNetContainer_debug::cSimulatedLatencyNetContainer_debug(const cVantrelIni& ini)
    : list_(gParseSimulatedLatency(ini.SimulatedLatencyNet(), "SimulatedLatencyNet_debug")) {}

const cSimulatedLatencyNetContainer_debug& cSimulatedLatencyNetContainer_debug::Instance() {
  static const cSimulatedLatencyNetContainer_debug* const instance =
      new cSimulatedLatencyNetContainer_debug(cVantrelIni::Instance());
  return *instance;
}

cSimulatedLatencyLocalContainer_debug::cSimulatedLatencyLocalContainer_debug(const cVantrelIni& ini)
    : list_(gParseSimulatedLatency(ini.SimulatedLatencyLocal(), "SimulatedLatencyLocal_debug")) {}

const cSimulatedLatencyLocalContainer_debug& cSimulatedLatencyLocalContainer_debug::Instance() {
  static const cSimulatedLatencyLocalContainer_debug* const instance =
      new cSimulatedLatencyLocalContainer_debug(cVantrelIni::Instance());
  return *instance;
}

const char* gVantrelAddressPortDelimiter() { return cVantrelIni::Instance().AddressPortDelimiter().c_str(); }
std::string gVantrelCertificatesPath() { return cVantrelIni::Instance().CertificatesPath(); }
bool gVantrelNetIsActiveImplemented_debug() { return cVantrelIni::Instance().NetIsActiveImplemented(); }
bool gVantrelUseOpenSsl() { return cVantrelIni::Instance().UseOpenSsl(); }
bool gVantrelVerifyClientCertificate() { return cVantrelIni::Instance().VerifyClientCertificate(); }
bool gVantrelVerifyServerCertificate() { return cVantrelIni::Instance().VerifyServerCertificate(); }
nTime::cDiff gThreadBlockLimit_debug() { return cVantrelIni::Instance().ThreadBlockLimit(); }
nTime::cDiff gTimeoutKillWorkerProcess() { return cVantrelIni::Instance().TimeoutKillWorkerProcess(); }
nParallel::nImplementation_sho::cThreadAttributes gCommunicationThreadAttributes() {
  return cVantrelIni::Instance().CommunicationThreadAttributes();
}

int gIniTable() { return cVantrelIni::Instance().Table(); }
