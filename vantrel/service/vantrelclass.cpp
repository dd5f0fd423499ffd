#include "vantrel/service/vantrelclass.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/localaddress.h"
#include "vantrel/base/platform/lockfile.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/servicemanager.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/hostlookup.h"
#include "vantrel/base/socket/shortage.h"
#include "vantrel/base/socket/socketerror.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/net/VantrelToolKit.h"
#include "vantrel/net/vantrelclientconnection.h"
#include "vantrel/net/vantrelconnectioncontext.h"
#include "vantrel/net/vantrelnetconnection.h"
#include "vantrel/service/monitorendpoint.h"
#include "vantrel/service/vantrelclientinstance.h"
#include "vantrel/service/vantrelconnectionkeeper.h"
#include "vantrel/service/vantreleventserver.h"
#include "vantrel/service/vantrellistensockets.h"
#include "vantrel/version.h"

using nCommunication::nSocket::nImplementation_sho::cOutOfDescriptors;
using nCommunication::nSocket::nImplementation_sho::cSocketHandle;
using nCommunication::nSocket::nImplementation_sho::cSocketOptions;
using nCommunication::nSocket::nImplementation_sho::cTlsConnectionState;
using nCommunication::nSocket::nImplementation_sho::cTlsSettings;
using nCommunication::nSocket::nImplementation_sho::gBuildSocketOptions;
using nCommunication::nSocket::nImplementation_sho::gGetHostByName;
using nCommunication::nSocket::nImplementation_sho::gGetLocalHostName;
using nCommunication::nSocket::nImplementation_sho::gPing;
using nCommunication::nSocket::nImplementation_sho::gReportDescriptorShortage;

namespace {
constexpr long kBusyCheckWaitMs = 5000;
constexpr double kBusyPingSeconds = 300;
// How long an accepted connection may take for its handshake or greeting when
// the communication time-out is off.
constexpr std::chrono::milliseconds kDefaultAdmissionDeadline{10000};

cVantrelConnectionKeeper::cAdmissionLimits AdmissionLimits(const cVantrelIni& settings) {
  cVantrelConnectionKeeper::cAdmissionLimits limits;
  limits.maxPending = settings.MaxPendingConnections();
  const auto timeout = std::chrono::milliseconds(settings.SocketCommunicationTimeout().Milliseconds());
  limits.deadline = timeout.count() > 0 ? timeout : kDefaultAdmissionDeadline;
  return limits;
}

// The peer of an accepted connection, for log lines.
std::string PeerText(const cSocketHandle& handle) {
  const vantrel::platform::cEndpoint peer = vantrel::platform::gPeerEndpoint(handle.Native());
  return peer.address + ":" + std::to_string(peer.port);
}
}  // namespace

// Everything the service object owns, and the factory of client sessions.
// Owned by CVantrelClass. Threads: as CVantrelClass; every member the accept
// and connection threads read is fixed before the first listener accepts, and
// the connection context is immutable.
class CVantrelClass::cCore : public iVantrelClientSessionFactory {
 public:
  cCore(CVantrelClass& owner, const cVantrelIni& ini)
      : service_(owner),
        settings(ini),
        netOptions(gBuildSocketOptions(settings, cSimulatedLatencyNetContainer_debug(settings).List())),
        netListener(settings.UseOpenSsl(), netOptions, settings.CommunicationThreadAttributes(),
                    [this](cSocketHandle&& handle, cTlsConnectionState tlsState) {
                      CreateIncomingHostLink(std::move(handle), std::move(tlsState));
                    }),
        clientListener(gBuildSocketOptions(settings, cSimulatedLatencyLocalContainer_debug(settings).List()),
                       settings.CommunicationThreadAttributes(), [this](cSocketHandle&& handle, cTlsConnectionState) {
                         CreateClientConnection(std::move(handle));
                       }) {
    eventServer.setLinkFactory([this](const std::string& hostText) { return CreateOutgoingHostLink(hostText); });
    keeper.SetAdmissionLimits(AdmissionLimits(settings));
    netListener.Socket().SetListenAddress(settings.NetListenAddress());
  }

  ~cCore() override {
    AnnounceStopping();
    // Normally f_TerminateInternal has emptied the keeper already; connections
    // refer to the router and the context, so they go first in any case.
    keeper.Shutdown();
    RQPUnlockFile(instanceLockFd);
  }

  std::unique_ptr<iVantrelClientSession> CreateClientSession(const std::string& name,
                                                             iVantrelClientLink* link) override {
    // The greeting has arrived: the connection no longer counts as pending.
    keeper.Admitted(link);
    // The sender's host is this service's full host text, net port included:
    // a reply to it must reach this service, not another one on the same machine.
    return std::make_unique<VantrelClientInstance>(name, link, &eventServer, addressHostText, context->copies);
  }

  // Once the net port is known and before any listener accepts.
  void BuildConnectionContext() {
    auto built = std::make_shared<cVantrelConnectionContext>();
    built->router = &eventServer;
    built->owner = &keeper;
    built->sessions = this;
    CVantrelClass* service = &service_;
    built->restartProcess = [service] { service->RestartProcess(); };
    built->hostName = hostName;
    built->addressHostText = addressHostText;
    built->addressPortDelimiter = settings.AddressPortDelimiter();
    built->netPort = netPort;
    built->tls = tls;
    built->netOptions = netOptions;
    built->threadAttributes = settings.CommunicationThreadAttributes();
    built->pingSeconds = CVantrelHostConnection::PingTimeoutSeconds();
    built->maxClientQueueBytes = settings.MaxClientQueueBytes();
    built->maxLinkQueueBytes = settings.MaxLinkQueueBytes();
    built->linkSilenceSeconds = settings.LinkSilenceLimitSeconds();
    built->answerTimeoutSeconds = settings.AnswerTimeoutSeconds();
    built->fileCopyWindowBytes = settings.FileCopyWindowBytes();
    built->copies = cCopyPolicy::Make(settings.CopyRoots(), settings.CertificatesPath(), settings.MaxMessageSize());
    built->stats = stats;
    context = std::move(built);

    cLocalIdentity identity;
    identity.hostName = hostName;
    identity.addressHostText = addressHostText;
    identity.delimiter = settings.AddressPortDelimiter();
    identity.netPort = netPort;
    identity.listenAddress = vantrel::platform::gParseNumericAddress(settings.NetListenAddress());
    std::string error;
    identity.interfaceAddresses = vantrel::platform::gInterfaceAddresses(&error);
    if (!error.empty()) VLOG_WARN("CVantrelClass::Init - this host's addresses are unknown: %s", error);
    eventServer.setLocalHost(std::move(identity));
  }

  // Said once at start: who may use a net port that other hosts can reach.
  void WarnIfOpenToOtherHosts() {
    const auto address = vantrel::platform::gParseNumericAddress(settings.NetListenAddress());
    if (address && vantrel::platform::gIsLoopback(*address)) return;
    if (tls.useOpenSsl && tls.verifyClientCertificate) return;
    VLOG_WARN(
        "CVantrelClass::Init - net port %d listens on %s without client-certificate verification: any peer that "
        "reaches it may send messages to this host's clients under any host name, and ask this service to write and "
        "read files within CopyRoots (anywhere when CopyRoots is empty). Set NetListenAddress, or UseOpenSsl and "
        "VerifyClientCertificate, to limit it",
        netPort, address ? settings.NetListenAddress() : std::string("every address"));
  }

  // Make, adopt and start a connection. The router opens outgoing links while
  // it holds its lock; the new link registers itself before this returns.
  iVantrelHostLink* CreateOutgoingHostLink(const std::string& hostText) {
    std::unique_ptr<CVantrelHostConnection> link;
    try {
      link = std::make_unique<CVantrelHostConnection>(hostText, context);
    } catch (const cOutOfDescriptors&) {
      // No link: the router answers the sender at once.
      gReportDescriptorShortage("CVantrelClass::CreateOutgoingHostLink", "link not opened");
      return nullptr;
    }
    CVantrelHostConnection* started = link.get();
    keeper.Adopt(std::move(link));
    started->Start();
    return started;
  }
  // Accepted connections are pending until their handshake or greeting; the
  // keeper bounds how many wait and for how long.
  void CreateIncomingHostLink(cSocketHandle&& handle, cTlsConnectionState tlsState) {
    const std::string peer = PeerText(handle);
    auto link = std::make_unique<CVantrelHostConnection>(std::move(handle), std::move(tlsState), context);
    CVantrelHostConnection* started = link.get();
    if (!keeper.AdoptPending(std::move(link), cVantrelConnectionKeeper::tPort::eNet, peer)) return;
    StartPending(started);
  }
  void CreateClientConnection(cSocketHandle&& handle) {
    const std::string peer = PeerText(handle);
    auto connection = std::make_unique<CVantrelClientConnection>(std::move(handle), context);
    CVantrelClientConnection* started = connection.get();
    if (!keeper.AdoptPending(std::move(connection), cVantrelConnectionKeeper::tPort::eClients, peer)) return;
    StartPending(started);
  }
  template <typename tConnection>
  void StartPending(tConnection* connection) {
    try {
      connection->Start();
    } catch (...) {
      // Not running, but its deadline still ends it.
      keeper.Started(connection);
      throw;
    }
    keeper.Started(connection);
  }

  // Once both listeners run: the monitoring endpoint (when configured), then
  // the service manager hears that the service is ready.
  void AnnounceReady() {
    serving = true;
    if (settings.MonitorPort() != 0) {
      vantrel::monitor::cServiceIdentity identity;
      identity.version = VANTREL_VERSION_STRING;
      identity.hostText = addressHostText;
      identity.clientsPort = clientsPort;
      identity.netPort = netPort;
      identity.tls = tls.useOpenSsl;
      identity.started = startedAt;
      auto endpoint = std::make_unique<vantrel::monitor::cMonitorEndpoint>(stats, [this] { return serving.load(); });
      std::string error;
      if (endpoint->Start(settings.MonitorAddress(), settings.MonitorPort(), std::move(identity), error)) {
        VLOG_INFO("CVantrelClass::Init - monitoring on http://%s:%d/ (/healthz, /status, /metrics)",
                  settings.MonitorAddress(), endpoint->Port());
        monitor = std::move(endpoint);
      } else {
        // The service works without it; an operator sees why it is missing.
        VLOG_ERROR("CVantrelClass::Init - monitoring endpoint is off: %s (MonitorPort, MonitorAddress)", error);
      }
    }
    if (vantrel::platform::gNotifyServiceReady()) VLOG_INFO("CVantrelClass::Init - service manager told: ready");
    const long watchdogMs = vantrel::platform::gServiceWatchdogIntervalMs();
    if (watchdogMs > 0) {
      watchdogStop.Reset();
      // Twice per interval, so one late beat does not count as a hang.
      const long beatMs = std::max(1L, watchdogMs / 2);
      watchdog.Start(
          [this, beatMs] {
            while (watchdogStop.Wait(beatMs) == 0) vantrel::platform::gNotifyServiceAlive();
          },
          "VTWatchdog", "CVantrelClass:Watchdog");
      VLOG_INFO("CVantrelClass::Init - service manager watchdog every %ld ms", beatMs);
    }
  }

  // First in the stop order: nobody should read "ready" or "ok" from a service
  // that is closing.
  void AnnounceStopping() {
    const bool wasServing = serving.exchange(false);
    if (wasServing) vantrel::platform::gNotifyServiceStopping();
    watchdogStop.Set();
    watchdog.Join();
    if (monitor != nullptr) monitor->Stop();
  }

  void ReportPortBusyText(unsigned short port) {
    const std::string text = fmt::sprintf(
        "Port %d is in use by other application. Could not start Brenmark communication module.\n\nPlease free the "
        "port or change the port number in brenmark.ini and try again.",
        port);
    VLOG_ERROR("%s", text);
    if (!reportToLogOnly) {
      // Where a desktop would show a message box, the text goes to standard error.
      std::fprintf(stderr, "Brenmark Communication Initialization Error: %s\n", text.c_str());
      std::fflush(stderr);
    }
    service_.ErrorMessageHandler(QXLOG_ERROR, text.c_str());
  }

  bool LockInstance() {
    if (instanceLockFd >= 0) return true;
    // One lock per net port: several services on one host (host~port addressing)
    // are separate instances.
    const bool global = VantrelToolKit::GetLocalHostOS() == "Win2000";
    const std::string path = RQPRuntimeFolder(global) + "/QXVantrel-" + std::to_string(netPort) + ".lock";
    std::string error;
    const int handle = RQPLockFileExclusive(path, &error);
    if (handle < 0) {
      VLOG_INFO("CVantrelClass::IsOtherVantrelAlive - %s", error);
      return false;
    }
    instanceLockFd = handle;
    return true;
  }

  // Shared by the service object and the busy-check thread. Once the main thread
  // has abandoned the check, the thread sees `abandoned` under the mutex and
  // never touches the service object again.
  struct cBusyCheckState {
    std::mutex mutex;
    bool abandoned = false;
    RQPManualEvent done;
    std::string host;
    unsigned short port = 0;
  };

  CVantrelClass& service_;
  const cVantrelIni settings;
  const cSocketOptions netOptions;
  unsigned short netPort = 0;
  unsigned short clientsPort = 0;
  bool reportToLogOnly = false;
  cVantrelTlsChoice tls;
  std::string hostName;
  std::string hostAddress;
  std::string addressHostText;
  RQPManualEvent busyCheckDone;
  vantrel::platform::cThread busyCheckThread;
  std::shared_ptr<cBusyCheckState> busyState;
  int instanceLockFd = -1;
  bool stopped = false;
  std::shared_ptr<const cVantrelConnectionContext> context;
  const std::chrono::steady_clock::time_point startedAt = std::chrono::steady_clock::now();
  // Counters of every connection and copy; connections share it through the context.
  const std::shared_ptr<vantrel::stats::cServiceStats> stats = std::make_shared<vantrel::stats::cServiceStats>();
  std::atomic<bool> serving{false};  // read by the endpoint's workers
  std::unique_ptr<vantrel::monitor::cMonitorEndpoint> monitor;
  RQPManualEvent watchdogStop;
  vantrel::platform::cThread watchdog;
  // Connections refer to the router and the keeper: both outlive them.
  CVantrelEventServer eventServer;
  cVantrelConnectionKeeper keeper;
  CVantrelNetListener netListener;
  CVantrelClientListener clientListener;
};

CVantrelClass::CVantrelClass() : CVantrelClass(cVantrelIni::Instance()) {}

CVantrelClass::CVantrelClass(const cVantrelIni& settings) : core_(std::make_unique<cCore>(*this, settings)) {}

CVantrelClass::~CVantrelClass() = default;

void CVantrelClass::SetNetPortZ5181(unsigned short port) { core_->netPort = port; }
unsigned short CVantrelClass::GetNetPortZ5181() const { return core_->netPort; }
void CVantrelClass::SetClientsPortZ5181(unsigned short port) { core_->clientsPort = port; }
unsigned short CVantrelClass::GetClientsPortZ5181() const { return core_->clientsPort; }
const std::string& CVantrelClass::GetHostName() const { return core_->hostName; }
const std::string& CVantrelClass::GetHostAddress() const { return core_->hostAddress; }
const std::string& CVantrelClass::GetAddressHostText() const { return core_->addressHostText; }
void CVantrelClass::SetReportToLogOnly(bool logOnly) { core_->reportToLogOnly = logOnly; }

static std::string AddressHostText(const std::string& host, const std::string& delimiter, unsigned short port) {
  return host + delimiter + std::to_string(port);
}

bool CVantrelClass::vInitZ1() {
  cCore& core = *core_;
  const cVantrelIni& settings = core.settings;
  core.tls.useOpenSsl = settings.UseOpenSsl();
  if (core.tls.useOpenSsl) {
    VLOG_INFO("Starting CVantrelClass::Init Using openssl");
    const std::string& path = settings.CertificatesPath();
    if (path.empty()) {
      std::fputs("Certificates path is empty!\n", stderr);
      VLOG_ERROR("Certificates path is empty!");
      vantrel::log::Flush();
      std::exit(1);
    }
    core.tls.certificatesPath = path;
    core.tls.verifyServerCertificate = settings.VerifyServerCertificate();
    if (core.tls.verifyServerCertificate) VLOG_INFO("Using openssl and verify_server_certificate");
    core.tls.verifyClientCertificate = settings.VerifyClientCertificate();
    if (core.tls.verifyClientCertificate) VLOG_INFO("Using openssl and verify_client_certificate");
    core.netListener.Socket().SetTlsSettings(
        cTlsSettings{path, core.tls.verifyServerCertificate, core.tls.verifyClientCertificate});
  }

  core.hostName = gGetLocalHostName("host");
  const auto address = gGetHostByName(core.hostName);
  if (!address.has_value()) {
    VLOG_ERROR("FAILD to start vantrel. Cannot get address for host %s", core.hostName);
    std::fputs("FAILD to start vantrel. Cannot get address for host\n", stderr);
    return false;
  }
  core.hostAddress = *address;
  VLOG_INFO("CVantrelClass::Init - host: '%s', Address '%s'", core.hostName, core.hostAddress);

  core.keeper.Start();

  const std::string& delimiter = settings.AddressPortDelimiter();
  core.addressHostText = AddressHostText(core.hostName, delimiter, core.netPort);
  core.netListener.SetPort(core.netPort);
  bool netListening = false;
  try {
    netListening = core.netListener.Listen();
    if (netListening) {
      if (core.netPort == 0) {
        core.netPort = core.netListener.GetPort();
        core.addressHostText = AddressHostText(core.hostName, delimiter, core.netPort);
      }
      // Every connection, from the first accepted one on, gets the final port.
      core.BuildConnectionContext();
      core.netListener.StartAccepting();
      core.WarnIfOpenToOtherHosts();
    }
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClass::Init - cannot listen on net port %d: %s", core.netPort, e.what());
    return false;
  }
  if (!netListening) {
    VLOG_ERROR("CVantrelClass::Init - net port %d is in use", core.netPort);
    core.busyCheckDone.Reset();
    core.busyState = std::make_shared<cCore::cBusyCheckState>();
    core.busyState->host = core.hostName;
    core.busyState->port = core.netPort;
    auto state = core.busyState;
    core.busyCheckThread.Start(
        [this, state] {
          const bool pinged = gPing(state->host, state->port, nTime::cDiff::FromSeconds(kBusyPingSeconds)).has_value();
          std::lock_guard<std::mutex> guard(state->mutex);
          if (state->abandoned) return;
          ReportPortBusyError(state->port, pinged);
          state->done.Set();
        },
        "CheckBusy", "VantrelMain:CheckBusy");
    bool finished = state->done.Wait(kBusyCheckWaitMs) != 0;
    if (!finished) {
      std::lock_guard<std::mutex> guard(state->mutex);
      finished = state->done.Get();
      if (!finished) state->abandoned = true;
    }
    core.busyCheckDone.Set();
    if (finished) {
      core.busyCheckThread.Join();
    } else {
      // The ping may take its full time; the thread ends by itself.
      core.busyCheckThread.Detach();
      core.ReportPortBusyText(core.netPort);
    }
    return false;
  }

  core.clientListener.SetPort(core.clientsPort);
  bool clientsListening = false;
  try {
    clientsListening = core.clientListener.Listen();
    if (clientsListening) {
      if (core.clientsPort == 0) core.clientsPort = core.clientListener.GetPort();
      core.clientListener.StartAccepting();
    }
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClass::Init - cannot listen on clients port %d: %s", core.clientsPort, e.what());
    return false;
  }
  if (!clientsListening) {
    VLOG_ERROR("CVantrelClass::Init - clients port %d is in use", core.clientsPort);
    ReportPortBusyError(core.clientsPort, false);
    return false;
  }
  MarkVantrelAlive();
  core.AnnounceReady();
  return true;
}

void CVantrelClass::BusyCheckFunc() {
  const bool pinged = gPing(core_->hostName, core_->netPort, nTime::cDiff::FromSeconds(kBusyPingSeconds)).has_value();
  ReportPortBusyError(core_->netPort, pinged);
  core_->busyCheckDone.Set();
}

void CVantrelClass::ReportPortBusyError(unsigned short port, bool pinged) {
  if (pinged) return;
  if (IsOtherVantrelAlive()) return;
  if (IsOtherServiceProcessRunning()) return;
  core_->ReportPortBusyText(port);
}

void CVantrelClass::ErrorMessageHandler(tQXLogMessageSeverity, const char*) {}

bool CVantrelClass::IsOtherVantrelAlive() { return !core_->LockInstance(); }

void CVantrelClass::MarkVantrelAlive() { core_->LockInstance(); }

void CVantrelClass::RestartProcess() {
  VLOG_ERROR("exiting vantrel service with error. Should restart automatically");
  vantrel::log::Flush();
  // Not exit(): other threads are still running, and static destructors would
  // pull objects from under them.
  RQPExitNow(kRestartExitCode);
}

bool CVantrelClass::IsOtherServiceProcessRunning() { return false; }

void CVantrelClass::f_TerminateZ2() { f_Terminate(); }

void CVantrelClass::f_TerminateInternal() {
  cCore& core = *core_;
  if (core.stopped) return;
  core.stopped = true;
  core.AnnounceStopping();
  core.netListener.Terminate();
  core.clientListener.Terminate();
  core.netListener.JoinThread();
  core.clientListener.JoinThread();
  // From here on nothing deletes a connection behind the router's back.
  core.keeper.StopReaper();
  core.eventServer.cleanUp();
  core.keeper.Shutdown();
}
