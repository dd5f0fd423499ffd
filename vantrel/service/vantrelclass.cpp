#include "vantrel/service/vantrelclass.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/lockfile.h"
#include "vantrel/base/socket/hostlookup.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/net/VantrelToolKit.h"
#include "vantrel/net/vantrelnetconnection.h"
#include "vantrel/service/vantrelconnectionkeeper.h"
#include "vantrel/service/vantreleventserver.h"
#include "vantrel/service/vantrellistensockets.h"
#include "vantrel/supervision/restart.h"
#include "vantrel/supervision/runvantrel.h"

using nCommunication::nSocket::nImplementation_sho::gGetHostByName;
using nCommunication::nSocket::nImplementation_sho::gGetLocalHostName;
using nCommunication::nSocket::nImplementation_sho::gPing;

namespace {
constexpr long kBusyCheckWaitMs = 5000;
constexpr double kBusyPingSeconds = 300;
}  // namespace

// Shared by the service object and the busy-check thread. Once the main thread
// has abandoned the check, the thread sees `abandoned` under the mutex and never
// touches the service object again.
struct CVantrelClass::cBusyCheckState {
  std::mutex mutex;
  bool abandoned = false;
  RQPManualEvent done;
  std::string host;
  unsigned short port = 0;
};

CVantrelClass::CVantrelClass() {
  eventServer = new CVantrelEventServer(this);
  netListener = new CVantrelNetListener(this);
  clientListener = new CVantrelClientListener(this);
  keeper = new cVantrelConnectionKeeper();
}

CVantrelClass::~CVantrelClass() {
  // Normally f_TerminateInternal has emptied the keeper already; connections
  // refer to the event server, so they go first in any case.
  keeper->Shutdown();
  delete clientListener;
  delete netListener;
  delete eventServer;
  delete keeper;
  RQPUnlockFile(instanceLockFd);
}

void CVantrelClass::RememberProcessArguments(int argc, char** argv) { gRememberProcessArguments(argc, argv); }

static std::string AddressHostText(const std::string& host, unsigned short port) {
  return host + gVantrelAddressPortDelimiter() + std::to_string(port);
}

bool CVantrelClass::vInitZ1() {
  useOpenSsl = gVantrelUseOpenSsl();
  if (useOpenSsl) {
    VLOG_INFO("Starting CVantrelClass::Init Using openssl");
    const std::string path = gVantrelCertificatesPath();
    if (path.empty()) {
      std::fputs("Certificates path is empty!\n", stderr);
      VLOG_ERROR("Certificates path is empty!");
      vantrel::log::Flush();
      std::exit(1);
    }
    certificatesPath = path;
    verifyServerCertificate = gVantrelVerifyServerCertificate();
    if (verifyServerCertificate) VLOG_INFO("Using openssl and verify_server_certificate");
    verifyClientCertificate = gVantrelVerifyClientCertificate();
    if (verifyClientCertificate) VLOG_INFO("Using openssl and verify_client_certificate");
    netListener->Socket().SetTlsSettings(nCommunication::nSocket::nImplementation_sho::cTlsSettings{
        certificatesPath, verifyServerCertificate, verifyClientCertificate});
  }

  hostName = gGetLocalHostName("host");
  const auto address = gGetHostByName(hostName);
  if (!address.has_value()) {
    VLOG_ERROR("FAILD to start vantrel. Cannot get address for host %s", hostName);
    std::fputs("FAILD to start vantrel. Cannot get address for host", stdout);
    std::fflush(stdout);
    return false;
  }
  hostAddress = *address;
  VLOG_INFO("CVantrelClass::Init - host: '%s', Address '%s'", hostName, hostAddress);

  keeper->Start();

  addressHostText = AddressHostText(hostName, netPort);
  netListener->SetPort(netPort);
  bool netStarted = false;
  try {
    netStarted = netListener->Start();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClass::Init - cannot listen on net port %d: %s", netPort, e.what());
    return false;
  }
  if (!netStarted) {
    VLOG_ERROR("CVantrelClass::Init - net port %d is in use", netPort);
    busyCheckDone.Reset();
    busyState = std::make_shared<cBusyCheckState>();
    busyState->host = hostName;
    busyState->port = netPort;
    auto state = busyState;
    busyCheckThread.Start(
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
    busyCheckDone.Set();
    if (finished) {
      busyCheckThread.Join();
    } else {
      // The ping may take its full time; the thread ends by itself.
      busyCheckThread.Detach();
      ReportPortBusyText(netPort);
    }
    return false;
  }
  if (netPort == 0) {
    netPort = netListener->GetPort();
    addressHostText = AddressHostText(hostName, netPort);
  }

  clientListener->SetPort(clientsPort);
  bool clientsStarted = false;
  try {
    clientsStarted = clientListener->Start();
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClass::Init - cannot listen on clients port %d: %s", clientsPort, e.what());
    return false;
  }
  if (!clientsStarted) {
    VLOG_ERROR("CVantrelClass::Init - clients port %d is in use", clientsPort);
    ReportPortBusyError(clientsPort, false);
    return false;
  }
  if (clientsPort == 0) clientsPort = clientListener->GetPort();
  MarkVantrelAlive();
  return true;
}

void CVantrelClass::BusyCheckFunc() {
  const bool pinged = gPing(hostName, netPort, nTime::cDiff::FromSeconds(kBusyPingSeconds)).has_value();
  ReportPortBusyError(netPort, pinged);
  busyCheckDone.Set();
}

void CVantrelClass::ReportPortBusyError(unsigned short port, bool pinged) {
  if (pinged) return;
  if (IsOtherVantrelAlive()) return;
  if (IsVantrelProcessRunning(nullptr) == 0) return;
  if (IsVantrlServiceRunning(false) != 0) return;
  ReportPortBusyText(port);
}

void CVantrelClass::ReportPortBusyText(unsigned short port) {
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
  ErrorMessageHandler(QXLOG_ERROR, text.c_str());
}

void CVantrelClass::ErrorMessageHandler(tQXLogMessageSeverity, const char*) {}

bool CVantrelClass::LockInstance() {
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

bool CVantrelClass::IsOtherVantrelAlive() { return !LockInstance(); }

void CVantrelClass::MarkVantrelAlive() { LockInstance(); }

void CVantrelClass::f_TerminateZ2() { f_Terminate(); }

void CVantrelClass::f_TerminateInternal() {
  if (stopped) return;
  stopped = true;
  netListener->Terminate();
  clientListener->Terminate();
  netListener->JoinThread();
  clientListener->JoinThread();
  // From here on nothing deletes a connection behind the event server's back.
  keeper->StopReaper();
  eventServer->cleanUp();
  keeper->Shutdown();
}

static CVantrelHostConnection::cTlsChoice CVantrelClass_TlsChoice(bool use, bool server, bool client, const std::string& p) {
  return CVantrelHostConnection::cTlsChoice{use, server, client, p};
}

iVantrelHostLink* CVantrelClass::CreateOutgoingHostLink(const std::string& hostText) {
  auto* link = new CVantrelHostConnection(
      hostText, this,
      CVantrelClass_TlsChoice(useOpenSsl, verifyServerCertificate, verifyClientCertificate, certificatesPath));
  keeper->Adopt(link);
  link->Start();
  return link;
}

iVantrelConnection* CVantrelClass::CreateIncomingHostLink(
    nCommunication::nSocket::nImplementation_sho::cSocketHandle&& handle,
    std::shared_ptr<nCommunication::nSocket::nImplementation_sho::cTlsContext> tls) {
  auto* link = new CVantrelHostConnection(
      std::move(handle), std::move(tls), this,
      CVantrelClass_TlsChoice(useOpenSsl, verifyServerCertificate, verifyClientCertificate, certificatesPath));
  keeper->Adopt(link);
  link->Start();
  return link;
}

iVantrelConnection* CVantrelClass::CreateClientConnection(
    nCommunication::nSocket::nImplementation_sho::cSocketHandle&& handle) {
  auto* connection = new CVantrelClientConnection(std::move(handle), this);
  keeper->Adopt(connection);
  connection->Start();
  return connection;
}

void CVantrelClass::ConnectionEnded(iVantrelConnection* connection) { keeper->Ended(connection); }
