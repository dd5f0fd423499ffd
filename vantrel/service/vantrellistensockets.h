#pragma once
// The service's two listening ports. CVantrelListenerSocket owns a listening
// stream socket and its accept thread "VTLsnr", and hands every accepted socket
// to its accept handler; CVantrelNetListener accepts other hosts' services on
// the net port (all addresses, TLS when the settings ask for it);
// CVantrelClientListener accepts local client processes on the clients port
// (loopback only, never TLS). The handler makes the connection and gives it to
// the service's connection keeper at once; the listener keeps none.
//
// Owner: the service (CVantrelClass), which sets the port, listens, starts
// accepting, terminates, joins (through JoinThread or the destructor) and
// deletes the listeners.
// Owns: the listening socket and the accept thread.
// Threads: Listen, StartAccepting and JoinThread on the main thread; the accept
// thread; Terminate from the main thread and from the accept thread itself.
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"

class CVantrelListenerSocket {
 public:
  using cSocketOptions = nCommunication::nSocket::nImplementation_sho::cSocketOptions;
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;
  using cTlsConnectionState = nCommunication::nSocket::nImplementation_sho::cTlsConnectionState;
  using cThreadAttributes = nParallel::nImplementation_sho::cThreadAttributes;
  // Makes, adopts and starts the connection for an accepted socket; called on the
  // accept thread. An exception drops that connection (logged); the listener
  // goes on.
  using tAcceptHandler = std::function<void(cSocketHandle&& handle, cTlsConnectionState tls)>;

  // Accepted sockets get `options`; the accept thread gets `threadAttributes`.
  CVantrelListenerSocket(bool useTls, const char* name, c_Socket::tBindScope scope, cSocketOptions options,
                         cThreadAttributes threadAttributes, tAcceptHandler onAccept);
  // Terminates and joins the accept thread (at once when the owner has joined
  // it already); blocks while the accept handler runs. Never call it from the
  // handler.
  virtual ~CVantrelListenerSocket();
  CVantrelListenerSocket(const CVantrelListenerSocket&) = delete;
  CVantrelListenerSocket& operator=(const CVantrelListenerSocket&) = delete;

  void SetPort(unsigned short port) { port_ = port; }
  // The port asked for, or the bound port once listening on port 0.
  unsigned short GetPort() const { return port_; }
  StreamSocket& Socket() { return socket_; }

  // Binds and listens. False only when the port is in use; other failures throw.
  bool Listen();
  // Starts the accept thread (once, after Listen succeeded).
  void StartAccepting();
  // Closes the listening socket, which ends the accept thread. Idempotent.
  void Terminate();
  void JoinThread();

 private:
  void ListenProc();

  vantrel::platform::cThread acceptThread_;
  std::mutex lock_;
  StreamSocket socket_;
  bool stopped_ = false;  // guarded by lock_
  unsigned short port_ = 0;
  const c_Socket::tBindScope scope_;
  const cSocketOptions options_;
  const cThreadAttributes threadAttributes_;
  const tAcceptHandler onAccept_;
};

class CVantrelNetListener : public CVantrelListenerSocket {
 public:
  CVantrelNetListener(bool useTls, cSocketOptions options, cThreadAttributes threadAttributes, tAcceptHandler onAccept)
      : CVantrelListenerSocket(useTls, "net listener", c_Socket::eAllAddresses, std::move(options),
                               std::move(threadAttributes), std::move(onAccept)) {}
};

class CVantrelClientListener : public CVantrelListenerSocket {
 public:
  CVantrelClientListener(cSocketOptions options, cThreadAttributes threadAttributes, tAcceptHandler onAccept)
      : CVantrelListenerSocket(false, "clients listener", c_Socket::eLoopbackOnly, std::move(options),
                               std::move(threadAttributes), std::move(onAccept)) {}
};
