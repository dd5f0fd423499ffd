#pragma once
// The service's two listening ports. CVantrelListenerSocket owns a listening
// stream socket and its accept thread "VTLsnr"; CVantrelNetListener accepts
// other hosts' services on the net port (all addresses, TLS when the settings
// ask for it) and makes a host link per connection; CVantrelClientListener
// accepts local client processes on the clients port (loopback only, never TLS)
// and makes a client connection per connection. Each connection made is handed
// to the service's connection keeper at once; the listener keeps none.
//
// Owner: CVantrelClass, which sets the port, starts, terminates, joins (through
// JoinThread) and deletes the listeners. Owns: the listening socket and the
// accept thread.
// Threads: Start and JoinThread on the main thread; the accept thread; Terminate
// from the main thread and from the accept thread itself.
#include <mutex>
#include <string>

#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"

class CVantrelClass;
class iVantrelConnection;

class CVantrelListenerSocket {
 public:
  using cSocketOptions = nCommunication::nSocket::nImplementation_sho::cSocketOptions;
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;
  using cTlsConnectionState = nCommunication::nSocket::nImplementation_sho::cTlsConnectionState;

  CVantrelListenerSocket(CVantrelClass* owner, bool useTls);
  // Terminates; does not join (the owner joins before deleting).
  virtual ~CVantrelListenerSocket();
  CVantrelListenerSocket(const CVantrelListenerSocket&) = delete;
  CVantrelListenerSocket& operator=(const CVantrelListenerSocket&) = delete;

  void SetPort(unsigned short port) { port_ = port; }
  // The port asked for, or the bound port once started with port 0.
  unsigned short GetPort() const { return port_; }
  StreamSocket& Socket() { return socket_; }

  // Binds, listens and starts the accept thread. False only when the port is in
  // use; other failures throw.
  bool Start();
  // Closes the listening socket, which ends the accept thread. Idempotent.
  void Terminate();
  void JoinThread();

 protected:
  virtual cSocketOptions SocketOptions() const = 0;
  virtual c_Socket::tBindScope BindScope() const = 0;
  // Makes the connection object for an accepted socket; null when none can be
  // made (logged).
  virtual iVantrelConnection* CreateConnection(cSocketHandle&& handle, cTlsConnectionState tls) = 0;
  CVantrelClass* owner() const { return owner_; }

 private:
  void ListenProc();

  vantrel::platform::cThread acceptThread_;
  std::mutex lock_;
  StreamSocket socket_;
  bool stopped_ = false;
  unsigned short port_ = 0;
  CVantrelClass* owner_;
};

class CVantrelNetListener : public CVantrelListenerSocket {
 public:
  // TLS on the listening socket follows the settings at construction.
  explicit CVantrelNetListener(CVantrelClass* owner);

 protected:
  cSocketOptions SocketOptions() const override;
  c_Socket::tBindScope BindScope() const override { return c_Socket::eAllAddresses; }
  iVantrelConnection* CreateConnection(cSocketHandle&& handle, cTlsConnectionState tls) override;
};

class CVantrelClientListener : public CVantrelListenerSocket {
 public:
  explicit CVantrelClientListener(CVantrelClass* owner);

 protected:
  cSocketOptions SocketOptions() const override;
  c_Socket::tBindScope BindScope() const override { return c_Socket::eLoopbackOnly; }
  iVantrelConnection* CreateConnection(cSocketHandle&& handle, cTlsConnectionState tls) override;
};
