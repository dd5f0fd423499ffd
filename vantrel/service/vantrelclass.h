#pragma once
// CVantrelClass: the root object of the Vantrel service. A service program
// derives from it, supplies the stop operation, sets the two ports, calls
// vInitZ1 to start and f_TerminateZ2 to stop. The object owns everything the
// service runs: the router, the net listener (other hosts' services), the
// clients listener (local client processes), every connection they make, the
// single-instance lock and the busy-port check.
//
// Settings are taken once, when the object is constructed, and handed to every
// part that uses them, so two services in one process may run with different
// settings.
//
// Ownership: the program owns the object (usually one for the life of the
// process); the object owns all of the above and never hands out ownership.
// Threads: construction, the port setters, vInitZ1, f_TerminateZ2 and
// destruction run on one thread (the program's main thread). The accept and
// connection threads call the restart hook; the busy-check thread calls
// ReportPortBusyError and, through it, IsOtherVantrelAlive,
// IsOtherServiceProcessRunning and ErrorMessageHandler, so overrides of those
// must be thread-safe. The getters may be called from any thread once vInitZ1
// has returned.
#include <memory>
#include <string>

#include "vantrel/base/export.h"

enum tQXLogMessageSeverity : int;
class cVantrelIni;

class VANTREL_API CVantrelClass {
 public:
  // Exit status with which the default restart hook ends the process.
  static constexpr int kRestartExitCode = 42;

  // Takes the process's default settings (Vantrel.ini, read on first use); an
  // exception while they are read reaches the caller. Nothing runs yet.
  CVantrelClass();
  // Takes a copy of `settings`, which the caller may destroy afterwards.
  explicit CVantrelClass(const cVantrelIni& settings);
  // Stops whatever still runs (connections first) and releases the instance
  // lock. The derived class must have stopped the service (f_TerminateZ2) before
  // its own destructor ends, since the hooks are gone afterwards.
  virtual ~CVantrelClass();
  CVantrelClass(const CVantrelClass&) = delete;
  CVantrelClass& operator=(const CVantrelClass&) = delete;

  // The listening ports; set before vInitZ1. Port 0 asks for a free port, which
  // the getter returns once vInitZ1 has bound it.
  void SetNetPortZ5181(unsigned short port);
  unsigned short GetNetPortZ5181() const;
  void SetClientsPortZ5181(unsigned short port);
  unsigned short GetClientsPortZ5181() const;

  // Starts the service: TLS settings, host name, net listener, clients listener.
  // True when both listeners accept. False when the host name does not resolve
  // (nothing started), when the net port is busy (nothing started; the busy-port
  // report may take up to 5 s), or when the clients port is busy or a port cannot
  // be listened on (the net listener may keep running); each failure is logged.
  // Ends the process with exit status 1 when TLS is on and no certificates
  // folder is set. Call once.
  virtual bool vInitZ1();
  // Runs the derived class's stop operation; call it before destruction, on the
  // thread that called vInitZ1.
  void f_TerminateZ2();
  // The stop operation: expected to call f_TerminateInternal.
  virtual void f_Terminate() = 0;
  // True when another instance of the service holds this net port's instance
  // lock (the lock is taken for this object when it is free).
  virtual bool IsOtherVantrelAlive();
  // Receives the busy-port text (`text` is valid for the call only); does
  // nothing here.
  virtual void ErrorMessageHandler(tQXLogMessageSeverity severity, const char* text);
  // The busy-port check in one call: pings this host's net port (blocking up to
  // 300 s) and reports through ReportPortBusyError. vInitZ1 runs the same check
  // on a thread of its own and waits for it at most 5 s.
  void BusyCheckFunc();

  // What vInitZ1 found: the local host name, its IPv4 address in dotted text,
  // and the text peers and clients address this service by ("lg01~9011": name,
  // address-port delimiter, net port). Empty before vInitZ1; the references stay
  // valid for the life of the object.
  const std::string& GetHostName() const;
  const std::string& GetHostAddress() const;
  const std::string& GetAddressHostText() const;

 protected:
  // Hook: a connection met a socket failure the service cannot recover from (a
  // client's greeting that cannot be read, a send or read that throws). Called
  // on that connection's thread; expected not to return. The default logs,
  // flushes the log and ends the process at once with kRestartExitCode, leaving
  // the restart to the process's supervisor. Should an override return, the
  // failing connection ends and the service goes on.
  virtual void RestartProcess();
  // Hook for the busy-port report: true when another service process is known
  // to run on this host (then a busy port is not reported as held by a foreign
  // program). The default knows no such check and returns false.
  virtual bool IsOtherServiceProcessRunning();

  // Takes the single-instance lock for this net port (nothing when held).
  void MarkVantrelAlive();
  // Reports `port` as held by a foreign program (log, standard error unless
  // log-only, ErrorMessageHandler) unless `pinged` (something answers on it),
  // IsOtherVantrelAlive or IsOtherServiceProcessRunning.
  virtual void ReportPortBusyError(unsigned short port, bool pinged);
  // Stop order: listeners closed, accept threads joined, router cleaned up
  // (links first, then clients), remaining connections terminated, joined and
  // deleted. Blocks until every thread of the service has ended (a slow join is
  // logged, not abandoned); later calls return at once.
  void f_TerminateInternal();
  // The busy-port text goes to the log only (relaunched services, "/s"); set
  // before vInitZ1.
  void SetReportToLogOnly(bool logOnly);

 private:
  class cCore;
  std::unique_ptr<cCore> core_;
};
