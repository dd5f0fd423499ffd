#pragma once
// The descriptor side of the socket layer: who owns a socket's descriptor, how
// a listener is made, and how a socket is closed (see streamsocket.h for the
// stream on top).
//
// Closing: CloseSocket() only shuts the connection down and wakes every thread
// blocked on the socket (read, write, accept, connect, a simulated-latency
// delay); the descriptor itself is closed by the destructor. The owner joins the
// threads that use a socket before destroying it, so a descriptor number is
// never reused under a running reader.
#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/closesignal.h"
#include "vantrel/base/socket/socketerror.h"
#include "vantrel/base/socket/socketoptions.h"

namespace nCommunication::nSocket::nImplementation_sho {

// The descriptor of an accepted connection together with the options it was
// accepted with. Owns the descriptor (closes it when destroyed) until a
// StreamSocket adopts it. Move-only; used by one thread at a time.
class cSocketHandle {
 public:
  cSocketHandle() = default;
  cSocketHandle(vantrel::platform::tSocket descriptor, const cSocketOptions& options)
      : socket_(descriptor), options_(options) {}
  ~cSocketHandle();
  cSocketHandle(cSocketHandle&& other) noexcept;
  cSocketHandle& operator=(cSocketHandle&& other) noexcept;
  cSocketHandle(const cSocketHandle&) = delete;
  cSocketHandle& operator=(const cSocketHandle&) = delete;

  bool fIsValid() const { return socket_.Get() >= 0; }
  // The descriptor's number, for log lines.
  int Number() const { return static_cast<int>(socket_.Get()); }
  vantrel::platform::tSocket Native() const { return socket_.Get(); }
  const cSocketOptions& Options() const { return options_; }
  // Gives up ownership; the caller closes the descriptor.
  vantrel::platform::tSocket Release() { return socket_.Release(); }

 private:
  vantrel::platform::cUniqueSocket socket_;
  cSocketOptions options_;
};

enum class tSocketStatus { eGood, eClosed, eFailed, eInvalidHandle };
const char* gSocketStatusText(tSocketStatus status);

struct cValidatedHandle {
  cSocketHandle handle;
  tSocketStatus status = tSocketStatus::eInvalidHandle;
};

// Turns Accept's optional handle into a handle that names an open descriptor,
// or an invalid handle with status eInvalidHandle.
cValidatedHandle gValidate(std::optional<cSocketHandle>&& handle);

}  // namespace nCommunication::nSocket::nImplementation_sho

// The descriptor side of a socket.
// Ownership: owned by one object (a listener, a connection, the client
// communicator); owns the connection's descriptor and its close signal.
// Threads: any thread may call CloseSocket and the name queries at any time;
// the rest is called by the owner's threads as StreamSocket describes.
class c_Socket {
 public:
  enum tBindScope { eLoopbackOnly, eAllAddresses };

  c_Socket() = default;
  virtual ~c_Socket();
  c_Socket(const c_Socket&) = delete;
  c_Socket& operator=(const c_Socket&) = delete;

  // Binds (SO_REUSEADDR) and listens. Port 0 takes an ephemeral port; LocalPort()
  // tells which. The clients' listener passes eLoopbackOnly, host links listen on
  // all addresses. Throws cAlreadyInUse when the port is taken, cSocketError on
  // any other failure.
  virtual void CreateListenerSocket(unsigned short port, tBindScope scope = eAllAddresses);
  // A numeric address (IPv4 or IPv6) to listen on instead of `scope`'s; empty
  // keeps the scope. Set before CreateListenerSocket, which throws cSocketError
  // when it is not a numeric address of this host.
  void SetListenAddress(std::string address) { listenAddress_ = std::move(address); }

  // Shuts the connection (or listener) down and wakes every blocked operation at
  // once. Idempotent; the descriptor stays open until destruction.
  void CloseSocket();
  bool IsClosed() const { return closing_.IsRaised(); }
  // Sends the peer the end of the stream after what was already written; reads
  // go on until the peer closes too. On TLS the peer sees the stream end
  // without a close notice, which it takes as the link closing.
  void CloseSending();

  // Descriptor number for log lines (-1 when there is none).
  int Handle() const { return static_cast<int>(fd_.load(std::memory_order_acquire)); }
  unsigned short LocalPort() const { return localPort_.load(std::memory_order_acquire); }
  unsigned short PeerPort() const { return peerPort_.load(std::memory_order_acquire); }
  std::string PeerAddress() const;

 protected:
  using cCloseSignal = nCommunication::nSocket::nImplementation_sho::cCloseSignal;
  const cCloseSignal& Closing() const { return closing_; }
  vantrel::platform::tSocket Native() const { return fd_.load(std::memory_order_acquire); }
  // Stores a connected or listening descriptor; when the socket was closed
  // meanwhile the descriptor is shut down at once and false is returned.
  bool AdoptDescriptor(vantrel::platform::tSocket descriptor);

 private:
  std::atomic<vantrel::platform::tSocket> fd_{vantrel::platform::kNoSocket};
  cCloseSignal closing_;
  mutable std::mutex stateMutex_;  // orders AdoptDescriptor against CloseSocket; guards peerAddress_
  std::string peerAddress_;
  std::atomic<unsigned short> localPort_{0};
  std::atomic<unsigned short> peerPort_{0};
  std::string listenAddress_;  // set before listening, by the owner's thread
};
