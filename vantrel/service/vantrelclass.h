#pragma once
// CVantrelClass: the root object of the Vantrel service. A service program
// derives from it, sets the two ports, calls vInitZ1 and later f_TerminateZ2.
// It owns the event server (routing), the net listener (other hosts' services),
// the client listener (local client processes) and the connection keeper (every
// connection the listeners and the event server create).
//
// Owner: the service program (one object for the life of the process).
// Owns: the event server, both listeners, the connection keeper, the
// single-instance lock file, and a share of the busy-check state.
// Threads: vInitZ1, f_TerminateZ2 and f_TerminateInternal run on the program's
// main thread. The accept threads and connection threads call the factory and
// accessor functions below; everything they read is fixed before the listeners
// start. The busy-check thread touches only its shared state block, never this
// object once it has been abandoned.
#include <memory>
#include <string>

#include "vantrel/base/export.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/thread.h"

enum tQXLogMessageSeverity : int;

class CVantrelEventServer;
class CVantrelNetListener;
class CVantrelClientListener;
class cVantrelConnectionKeeper;
class iVantrelConnection;
class iVantrelHostLink;
namespace nCommunication::nSocket::nImplementation_sho {
class cSocketHandle;
class cTlsContext;
}  // namespace nCommunication::nSocket::nImplementation_sho

class VANTREL_API CVantrelClass {
 public:
  CVantrelClass();
  // Deletes the client listener, the net listener and the event server; the stop
  // routine must have run before.
  virtual ~CVantrelClass();
  CVantrelClass(const CVantrelClass&) = delete;
  CVantrelClass& operator=(const CVantrelClass&) = delete;

  void SetNetPortZ5181(unsigned short port) { netPort = port; }
  unsigned short GetNetPortZ5181() const { return netPort; }
  void SetClientsPortZ5181(unsigned short port) { clientsPort = port; }
  unsigned short GetClientsPortZ5181() const { return clientsPort; }

  // Starts the service: TLS settings, host name, net listener, client listener.
  // True when both listeners run. Exits the process with 1 when TLS is on and no
  // certificates folder is set.
  virtual bool vInitZ1();
  // Runs the derived class's stop routine.
  void f_TerminateZ2();
  virtual void f_Terminate() = 0;
  // True when another instance of the service holds this net port's instance lock.
  virtual bool IsOtherVantrelAlive();
  // Hook for start-up errors; does nothing here.
  virtual void ErrorMessageHandler(tQXLogMessageSeverity severity, const char* text);

  void BusyCheckFunc();

  // Keeps the program's arguments for a relaunch; the program's main calls it once.
  static void RememberProcessArguments(int argc, char** argv);

  // ---- used by the service's own parts ----
  CVantrelEventServer* EventServer() const { return eventServer; }
  const std::string& GetHostName() const { return hostName; }
  const std::string& GetHostAddress() const { return hostAddress; }
  // How clients and peers address this service: the host name, the address-port
  // delimiter and the net port ("lg01~9011").
  const std::string& GetAddressHostText() const { return addressHostText; }
  bool UseOpenSsl() const { return useOpenSsl; }
  // Makes, adopts and starts a connection (null when it cannot be made).
  iVantrelHostLink* CreateOutgoingHostLink(const std::string& hostText);
  iVantrelConnection* CreateIncomingHostLink(nCommunication::nSocket::nImplementation_sho::cSocketHandle&& handle,
                                             std::shared_ptr<nCommunication::nSocket::nImplementation_sho::cTlsContext> tls);
  iVantrelConnection* CreateClientConnection(nCommunication::nSocket::nImplementation_sho::cSocketHandle&& handle);
  // A connection has terminated by itself; the keeper joins and deletes it.
  void ConnectionEnded(iVantrelConnection* connection);

 protected:
  void MarkVantrelAlive();
  virtual void ReportPortBusyError(unsigned short port, bool pinged);
  // Stop order: listeners closed, accept threads joined, event server cleaned up
  // (links first, then clients), remaining connections terminated and deleted.
  void f_TerminateInternal();
  // The port-busy text goes to the log only (relaunched services, "/s").
  void SetReportToLogOnly(bool logOnly) { reportToLogOnly = logOnly; }

 private:
  struct cBusyCheckState;
  void ReportPortBusyText(unsigned short port);
  bool LockInstance();

  unsigned short netPort = 0;
  unsigned short clientsPort = 0;
  RQPManualEvent busyCheckDone;
  vantrel::platform::cThread busyCheckThread;
  bool reportToLogOnly = false;
  bool useOpenSsl = false;
  bool verifyServerCertificate = false;
  bool verifyClientCertificate = false;
  std::string certificatesPath;
  CVantrelEventServer* eventServer = nullptr;
  CVantrelNetListener* netListener = nullptr;
  CVantrelClientListener* clientListener = nullptr;
  std::string hostName;
  std::string hostAddress;
  std::string addressHostText;
  cVantrelConnectionKeeper* keeper = nullptr;
  std::shared_ptr<cBusyCheckState> busyState;
  int instanceLockFd = -1;
  bool stopped = false;
};
