#pragma once
// The settings of the whole library, read once per process from Vantrel.ini.
//
// cVantrelIni reads every key when it is constructed and never changes after.
// The process-wide instance (cVantrelIni::Instance, and every g... accessor
// below) is built on first use under its own lock - concurrent first callers
// wait - and is read without locks afterwards. It is never destroyed, so the
// pointers it hands out stay valid for the life of the process, also for threads
// still running while the process exits. An exception thrown while it is built
// reaches the caller of the accessor that triggered the construction.
//
// Bad settings never stop the process here: a missing required key or a value
// that is not an integer is logged once and replaced by its neutral value
// (0 ms, false, the empty text).
#include <cstdint>
#include <string>
#include <vector>

#include "vantrel/base/platform/thread.h"
#include "vantrel/base/platform/time.h"

namespace nVantrelIni {

inline constexpr std::uint32_t kDefaultMaxMessageSize = 4194304;
// A file chunk (51200 bytes) with the record around it must fit in one frame.
inline constexpr std::uint32_t kMinMaxMessageSize = 65536;
inline constexpr std::uint32_t kDefaultMaxPendingConnections = 256;
// Queues and answers: bytes of messages waiting for one client or one link, and
// how long a peer may stay silent or leave a request unanswered.
inline constexpr std::uint64_t kDefaultMaxClientQueueBytes = 64ull << 20;
inline constexpr std::uint64_t kDefaultMaxLinkQueueBytes = 64ull << 20;
// 0: three ping intervals, at least 3 s.
inline constexpr int kDefaultLinkSilenceLimitSeconds = 0;
inline constexpr int kDefaultAnswerTimeoutSeconds = 120;
// The monitoring endpoint: HTTP on this port (0: none), on loopback unless widened.
inline constexpr unsigned short kDefaultMonitorPort = 9012;
inline constexpr const char* kDefaultMonitorAddress = "127.0.0.1";

// File copies between hosts: the most bytes a sender keeps unacknowledged. Its
// window starts small and grows to this, so a long link can be kept full.
inline constexpr std::uint64_t kDefaultFileCopyWindowBytes = 8ull << 20;

// Reading one key from a settings table. Integers are 32-bit signed decimals,
// extracted as a stream extraction does it (leading blanks skipped, reading stops
// at the first character that is not part of the number).

// The key's integer, or `defaultValue` when the key is absent; a value that is
// not an integer is logged and gives `defaultValue` too.
int gReadIntWithDefault(int table, const char* key, int defaultValue);
// The key's integer; a missing key or a value that is not an integer is logged
// (once) and gives the shipped file's value (0 for a key it does not name).
int gReadIntRequired(int table, const char* key);
// The key's whole value, or `defaultValue` when the key is absent.
std::string gReadStringOptional(int table, const char* key, const char* defaultValue);
// The key's whole value; a missing key is logged and gives the shipped file's
// value (the empty text for a key it does not name).
std::string gReadStringRequired(int table, const char* key);
// The first blank-delimited word of the key's value; a missing key is logged and
// gives the shipped file's; an empty value is logged and gives the empty text.
std::string gReadWordRequired(int table, const char* key);

// Parses a simulated-latency list: integers in ms up to the first -1. Reading
// also stops at the first value that is not an integer, and a text without -1
// ends at its end; both are logged (`what` names the list). "-1" gives an empty
// list.
std::vector<nTime::cDiff> gParseSimulatedLatency(const std::string& text, const char* what);

// The list as the socket options' constructor wants it: null ("none") when empty.
const std::vector<nTime::cDiff>* gLatencyListArgument(const std::vector<nTime::cDiff>& list);

}  // namespace nVantrelIni

// Owner: the process (Instance) or a test (the table constructor).
// Owns: copies of every setting. Threads: built by one thread, then read by any.
class cVantrelIni {
 public:
  // Finds and reads Vantrel.ini (see nEnvSettings::gFileInitTable).
  cVantrelIni();
  // Reads the settings from an already loaded table.
  explicit cVantrelIni(int table);

  // The process-wide instance, built on first use.
  static const cVantrelIni& Instance();

  int Table() const { return table_; }
  nTime::cDiff SocketCommunicationTimeout() const { return socketCommunicationTimeout_; }
  nTime::cDiff SocketClosedReactivationTimeout() const { return socketClosedReactivationTimeout_; }
  nTime::cDiff SocketSendBufferDeprecateTime() const { return socketSendBufferDeprecateTime_; }
  nTime::cDiff TimeoutKillWorkerProcess() const { return timeoutKillWorkerProcess_; }
  nTime::cDiff CycleLatencyThresholdLimit() const { return cycleLatencyThresholdLimit_; }
  const std::string& AddressPortDelimiter() const { return addressPortDelimiter_; }
  const nParallel::nImplementation_sho::cThreadAttributes& CommunicationThreadAttributes() const {
    return communicationThreadAttributes_;
  }
  nTime::cDiff ThreadBlockLimit() const { return threadBlockLimit_; }
  bool NetIsActiveImplemented() const { return netIsActiveImplemented_; }
  const std::string& SimulatedLatencyNet() const { return simulatedLatencyNet_; }
  const std::string& SimulatedLatencyLocal() const { return simulatedLatencyLocal_; }
  bool UseOpenSsl() const { return useOpenSsl_; }
  const std::string& CertificatesPath() const { return certificatesPath_; }
  bool VerifyServerCertificate() const { return verifyServerCertificate_; }
  bool VerifyClientCertificate() const { return verifyClientCertificate_; }
  std::uint32_t MaxMessageSize() const { return maxMessageSize_; }
  std::uint64_t MaxClientQueueBytes() const { return maxClientQueueBytes_; }
  std::uint64_t MaxLinkQueueBytes() const { return maxLinkQueueBytes_; }
  // Seconds; 0 means three ping intervals (at least 3 s).
  int LinkSilenceLimitSeconds() const { return linkSilenceLimitSeconds_; }
  int AnswerTimeoutSeconds() const { return answerTimeoutSeconds_; }
  // Folders that copies asked for by other hosts may write into (';' or ','
  // between them); empty: anywhere.
  const std::string& CopyRoots() const { return copyRoots_; }

  // File copies between hosts: bytes a sender may have unacknowledged (at
  // least one chunk).
  std::uint64_t FileCopyWindowBytes() const { return fileCopyWindowBytes_; }

  // Admission on the service's ports.
  // The one address the net port listens on; empty: all addresses.
  const std::string& NetListenAddress() const { return netListenAddress_; }
  // Connections that may wait for their handshake or greeting at once (both
  // ports together; at least 1).
  std::uint32_t MaxPendingConnections() const { return maxPendingConnections_; }

  // Monitoring: the HTTP endpoint's port (0: off) and the address it listens on.
  unsigned short MonitorPort() const { return monitorPort_; }
  const std::string& MonitorAddress() const { return monitorAddress_; }

 private:
  void Read();

  int table_ = 0;
  nTime::cDiff socketCommunicationTimeout_ = nTime::cDiff::FromSeconds(10);
  nTime::cDiff socketClosedReactivationTimeout_;
  nTime::cDiff socketSendBufferDeprecateTime_;
  nTime::cDiff timeoutKillWorkerProcess_;
  nTime::cDiff cycleLatencyThresholdLimit_;
  std::string addressPortDelimiter_;
  nParallel::nImplementation_sho::cThreadAttributes communicationThreadAttributes_;
  nTime::cDiff threadBlockLimit_;
  bool netIsActiveImplemented_ = false;
  std::string simulatedLatencyNet_;
  std::string simulatedLatencyLocal_;
  bool useOpenSsl_ = false;
  std::string certificatesPath_;
  bool verifyServerCertificate_ = false;
  bool verifyClientCertificate_ = false;
  std::uint32_t maxMessageSize_ = nVantrelIni::kDefaultMaxMessageSize;
  std::uint64_t maxClientQueueBytes_ = nVantrelIni::kDefaultMaxClientQueueBytes;
  std::uint64_t maxLinkQueueBytes_ = nVantrelIni::kDefaultMaxLinkQueueBytes;
  int linkSilenceLimitSeconds_ = nVantrelIni::kDefaultLinkSilenceLimitSeconds;
  int answerTimeoutSeconds_ = nVantrelIni::kDefaultAnswerTimeoutSeconds;
  std::string copyRoots_;
  std::uint64_t fileCopyWindowBytes_ = nVantrelIni::kDefaultFileCopyWindowBytes;
  std::string netListenAddress_;
  std::uint32_t maxPendingConnections_ = nVantrelIni::kDefaultMaxPendingConnections;
  unsigned short monitorPort_ = nVantrelIni::kDefaultMonitorPort;
  std::string monitorAddress_ = nVantrelIni::kDefaultMonitorAddress;
};

// The simulated latencies of host links, parsed from SimulatedLatencyNet_debug.
// Owner: the process (Instance) or a test. Immutable after construction.
class cSimulatedLatencyNetContainer_debug {
 public:
  explicit cSimulatedLatencyNetContainer_debug(const cVantrelIni& ini);
  static const cSimulatedLatencyNetContainer_debug& Instance();
  const std::vector<nTime::cDiff>& List() const { return list_; }

 private:
  std::vector<nTime::cDiff> list_;
};

// The simulated latencies of local client connections, from SimulatedLatencyLocal_debug.
// Owner: the process (Instance) or a test. Immutable after construction.
class cSimulatedLatencyLocalContainer_debug {
 public:
  explicit cSimulatedLatencyLocalContainer_debug(const cVantrelIni& ini);
  static const cSimulatedLatencyLocalContainer_debug& Instance();
  const std::vector<nTime::cDiff>& List() const { return list_; }

 private:
  std::vector<nTime::cDiff> list_;
};

// ---- exported accessors (each builds the process-wide settings on first use) ----
const char* gVantrelAddressPortDelimiter();
std::string gVantrelCertificatesPath();
bool gVantrelNetIsActiveImplemented_debug();
bool gVantrelUseOpenSsl();
bool gVantrelVerifyClientCertificate();
bool gVantrelVerifyServerCertificate();
nTime::cDiff gThreadBlockLimit_debug();
nTime::cDiff gTimeoutKillWorkerProcess();
nParallel::nImplementation_sho::cThreadAttributes gCommunicationThreadAttributes();

// ---- internal accessors ----
// Handle of the settings table, for further look-ups (clock resynchronisation).
int gIniTable();
