#pragma once
// Stream sockets carrying typed messages (see frame.h for the framing).
//
//   c_Socket      the descriptor's life: listening, closing, names for log lines
//   StreamSocket  connecting, accepting, TLS, sending and receiving frames
//
// Closing: CloseSocket() only shuts the connection down and wakes every thread
// blocked on the socket (read, write, accept, connect, a simulated-latency
// delay); the descriptor itself is closed by the destructor. The owner joins the
// threads that use a socket before destroying it, so a descriptor number is
// never reused under a running reader.
//
// Failures that a peer or a close can cause (end of stream, reset, time-out, a
// bad frame, a TLS alert, a local close) make an operation return false. Only
// local faults throw (cSocketError, cAlreadyInUse, std::bad_alloc).
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "vantrel/base/export.h"
#include "vantrel/base/socket/latency.h"
#include "vantrel/base/socket/socketerror.h"
#include "vantrel/base/socket/socketoptions.h"

struct ssl_st;
struct iovec;

namespace nCommunication::nSocket::nImplementation_sho {

class cTlsContext;
// What an accepted connection needs to run its own TLS handshake later: the
// listener's server context, shared. Null for a plain listener.
using cTlsConnectionState = std::shared_ptr<cTlsContext>;

// TLS settings of a socket. The certificates folder holds three files with
// fixed names (docs/protocol.md): "vantrel.crt" (this host's certificate chain,
// PEM, leaf first), "vantrel.key" (its private key, PEM) and "ca.crt" (the
// authorities that peers' certificates must chain to, PEM).
struct cTlsSettings {
  std::string certificatesPath;
  bool verifyServerCertificate = false;  // connecting side: chain and dialled host name
  bool verifyClientCertificate = false;  // accepting side: demand a certificate, verify its chain
};

inline constexpr const char* kTlsCertificateFile = "vantrel.crt";
inline constexpr const char* kTlsKeyFile = "vantrel.key";
inline constexpr const char* kTlsAuthorityFile = "ca.crt";

// The descriptor of an accepted connection together with the options it was
// accepted with. Owns the descriptor (closes it when destroyed) until a
// StreamSocket adopts it. Move-only; used by one thread at a time.
class VANTREL_API cSocketHandle {
 public:
  cSocketHandle() = default;
  cSocketHandle(int descriptor, const cSocketOptions& options) : fd_(descriptor), options_(options) {}
  ~cSocketHandle();
  cSocketHandle(cSocketHandle&& other) noexcept;
  cSocketHandle& operator=(cSocketHandle&& other) noexcept;
  cSocketHandle(const cSocketHandle&) = delete;
  cSocketHandle& operator=(const cSocketHandle&) = delete;

  bool fIsValid() const { return fd_ >= 0; }
  int Number() const { return fd_; }
  const cSocketOptions& Options() const { return options_; }
  // Gives up ownership; the caller closes the descriptor.
  int Release();

 private:
  int fd_ = -1;
  cSocketOptions options_;
};

enum class tSocketStatus { eGood, eClosed, eFailed, eInvalidHandle };
VANTREL_API const char* gSocketStatusText(tSocketStatus status);

// What Accept returns: the raw connection (no handshake has run), the TLS state
// for the connection's own handshake, and why there is no handle when there is
// none (eClosed: the listener was closed; eFailed: it broke).
struct cAcceptResult {
  std::optional<cSocketHandle> handle;
  cTlsConnectionState tls;
  tSocketStatus status = tSocketStatus::eFailed;
};

struct cValidatedHandle {
  cSocketHandle handle;
  tSocketStatus status = tSocketStatus::eInvalidHandle;
};

// Turns Accept's optional handle into a handle that names an open descriptor,
// or an invalid handle with status eInvalidHandle.
VANTREL_API cValidatedHandle gValidate(std::optional<cSocketHandle>&& handle);

}  // namespace nCommunication::nSocket::nImplementation_sho

// The descriptor side of a socket.
// Ownership: owned by one object (a listener, a connection, the client
// communicator); owns the connection's descriptor and a wake-up descriptor.
// Threads: any thread may call CloseSocket and the name queries at any time;
// the rest is called by the owner's threads as StreamSocket describes.
class VANTREL_API c_Socket {
 public:
  enum tBindScope { eLoopbackOnly, eAllAddresses };

  c_Socket();
  virtual ~c_Socket();
  c_Socket(const c_Socket&) = delete;
  c_Socket& operator=(const c_Socket&) = delete;

  // Binds (SO_REUSEADDR) and listens. Port 0 takes an ephemeral port; LocalPort()
  // tells which. The clients' listener passes eLoopbackOnly, host links listen on
  // all addresses. Throws cAlreadyInUse when the port is taken, cSocketError on
  // any other failure.
  virtual void CreateListenerSocket(unsigned short port, tBindScope scope = eAllAddresses);

  // Shuts the connection (or listener) down and wakes every blocked operation at
  // once. Idempotent; the descriptor stays open until destruction.
  void CloseSocket();
  bool IsClosed() const { return closed_.load(std::memory_order_acquire); }

  // Descriptor number for log lines (-1 when there is none).
  int Handle() const { return fd_.load(std::memory_order_acquire); }
  unsigned short LocalPort() const { return localPort_.load(std::memory_order_acquire); }
  unsigned short PeerPort() const { return peerPort_.load(std::memory_order_acquire); }
  std::string PeerAddress() const;

 protected:
  enum class tWait { eReady, eClosed, eTimeout, eError };
  // Waits until `descriptor` is ready for `events`, the socket is closed, or the
  // deadline (microseconds on the steady clock; negative: none) passes.
  tWait WaitReady(int descriptor, short events, std::int64_t deadlineUs) const;
  // Waits for a close only, at most `us` microseconds. True when closed.
  bool WaitClosedFor(std::int64_t us) const;
  // Stores a connected or listening descriptor; when the socket was closed
  // meanwhile the descriptor is shut down at once and false is returned.
  bool AdoptDescriptor(int descriptor);
  static std::int64_t SteadyNowUs();

 private:
  std::atomic<int> fd_{-1};
  int wakeFd_ = -1;
  std::atomic<bool> closed_{false};
  mutable std::mutex stateMutex_;  // orders AdoptDescriptor against CloseSocket; guards peerAddress_
  std::string peerAddress_;
  std::atomic<unsigned short> localPort_{0};
  std::atomic<unsigned short> peerPort_{0};
};

// A stream socket that carries typed messages, optionally over TLS.
// Ownership: as c_Socket; also owns its TLS session.
// Threads: one thread connects (or the accepted connection's reader runs the
// handshake) before others use the socket; afterwards one reader calls
// WaitTypedMessageZ1 while any number of threads call SendTypedMessageZ2 (each
// frame goes out whole under the socket's send lock); any thread may close.
// A listening socket has one accept thread.
class VANTREL_API StreamSocket : public c_Socket {
 public:
  using cSocketOptions = nCommunication::nSocket::nImplementation_sho::cSocketOptions;
  using cTlsSettings = nCommunication::nSocket::nImplementation_sho::cTlsSettings;
  using cTlsConnectionState = nCommunication::nSocket::nImplementation_sho::cTlsConnectionState;
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;
  using cAcceptResult = nCommunication::nSocket::nImplementation_sho::cAcceptResult;
  using iLatencyConfiguration = nCommunication::nSocket::nImplementation_sho::iLatencyConfiguration;

  StreamSocket(bool useTls, std::string name);
  // Adopts an accepted connection. With a TLS state the connection's own reader
  // must call CompleteAcceptHandshake before anything else.
  StreamSocket(cSocketHandle&& accepted, cTlsConnectionState tls, std::string name);
  ~StreamSocket() override;

  // TLS settings; set before Connect or CreateListenerSocket. On an accepted
  // socket, the verification flags replace the listener's for this connection.
  void SetTlsSettings(const cTlsSettings& settings);
  void SetCertificatesPath(const std::string& path);
  bool UsesTls() const { return useTls_; }
  const std::string& Name() const { return name_; }
  // Replaces the options of a connected or accepted socket (before its threads run).
  void SetOptions(const cSocketOptions& options) { options_ = options; }
  const cSocketOptions& Options() const { return options_; }

  // Connects to 127.0.0.1:port.
  bool ConnectLocal(unsigned short port, const cSocketOptions& options);
  // Resolves `host` (name or dotted address) and connects, each attempt bounded
  // by connectTimeout; refused connections are retried until
  // closedReactivationTimeout has passed. With TLS the client handshake follows,
  // also bounded by connectTimeout. False on any failure (logged).
  bool Connect(const std::string& host, unsigned short port, const cSocketOptions& options);

  // TLS listeners build their server context first, so unusable certificate
  // files throw cSocketError before the port is bound.
  void CreateListenerSocket(unsigned short port, tBindScope scope = eAllAddresses) override;

  // Blocks until a peer connects or the listener is closed. Transient errors
  // (interrupted calls, connections aborted before they were taken, descriptor
  // exhaustion) are retried here; no handle means the listener is closed or broken.
  cAcceptResult Accept(const cSocketOptions& options);

  // Runs the server side of the TLS handshake of an accepted connection, bounded
  // by the communication time-out. True at once for a plain connection.
  bool CompleteAcceptHandshake(const cSocketOptions& options);

  // Sends one frame. `data` may be null only when `length` is 0.
  bool SendTypedMessageZ2(short type, short subtype, const char* data, unsigned length);

  // One frame of a batch; the data stays the caller's.
  struct cOutgoingFrame {
    short type = 0;
    short subtype = 0;
    const char* data = nullptr;
    unsigned length = 0;
  };
  static constexpr std::size_t kMaxBatch = 64;
  // Sends up to kMaxBatch frames in order with as few writes as the socket
  // allows; each frame goes out whole and no other sender's frame comes in
  // between. False as soon as one frame cannot be sent (as SendTypedMessageZ2).
  bool SendTypedMessages(const cOutgoingFrame* frames, std::size_t count);

  // Blocks until a whole frame has arrived. On success `data` is a buffer made
  // with new char[length + 1] whose last byte is 0 (so text payloads are
  // terminated); release it with FreeMessage or adopt it and delete[] it later.
  // `latency` (may be null) receives the frame's measured latency.
  bool WaitTypedMessageZ1(short& type, short& subtype, char*& data, unsigned& length,
                          iLatencyConfiguration* latency);

  static void FreeMessage(char* data) { delete[] data; }
  // The owned form of a received payload, for code that keeps or hands it on.
  using tFrameData = std::unique_ptr<char[]>;

 private:
  enum class tIo { eDone, eWantRead, eWantWrite, eEof, eError };
  tIo RecvSome(int fd, char* buffer, std::size_t size, std::size_t& got, bool mayBlock);
  // Waits (bounded by the frame deadline once a frame has started) until the
  // socket can go on. False on close, time-out or error.
  bool WaitForMore(int fd, tIo io, bool frameStarted, std::int64_t& deadlineUs);
  // Makes at least `need` (<= kReadBufferSize) bytes available in the read
  // buffer, reading as much as the socket offers in each call.
  bool Buffer(int fd, std::size_t need, bool frameStarted, std::int64_t& deadlineUs);
  // Reads exactly `size` bytes straight into `buffer` (large payloads).
  bool ReadAll(int fd, char* buffer, std::size_t size, std::int64_t& deadlineUs);
  bool SendAll(int fd, const char* header, std::size_t headerSize, const char* payload, std::size_t payloadSize,
               bool& partial);
  // Plain sockets: writes every part, waiting (bounded) when the socket pushes back.
  bool SendVector(int fd, iovec* parts, int count, bool& partial);
  bool CheckOutgoing(const char* data, unsigned length) const;
  // Installs `ssl` as this socket's session and runs its handshake; a failed
  // handshake closes the socket.
  bool RunHandshake(ssl_st* ssl, int fd, std::int64_t deadlineUs, const char* what);
  bool HandshakeLoop(int fd, std::int64_t deadlineUs, const char* what);
  bool AwaitSendable(int fd, short events, std::int64_t& deadlineUs);
  void ApplyConnectionOptions(int fd) const;
  std::int64_t DeadlineAfter(nTime::cDiff span) const;

  const bool useTls_;
  const std::string name_;
  cSocketOptions options_;
  cTlsSettings tlsSettings_;
  bool tlsVerifyOverride_ = false;
  cTlsConnectionState tlsContext_;  // listener's server context, or the accepted connection's

  // Bytes read from the socket and not yet handed out. Small frames that
  // arrive together are parsed from here, so a burst costs one read; payloads
  // larger than the buffer are read straight into their own buffer. Touched
  // by the reading thread only.
  static constexpr std::size_t kReadBufferSize = 64 * 1024;
  // Payloads from this size on are read straight into their own buffer; after
  // such a frame the next header is read alone, so a stream of large frames
  // is not copied twice.
  static constexpr std::size_t kDirectPayloadSize = 16 * 1024;
  bool largePayloads_ = false;
  std::unique_ptr<char[]> readBuffer_;
  std::size_t readStart_ = 0;
  std::size_t readEnd_ = 0;
  bool blockingReads_ = false;  // plain socket whose descriptor is blocking: idle reads wait in recv

  std::mutex sendMutex_;  // held for one frame's write only
  std::mutex sslMutex_;   // held only for the OpenSSL call itself
  ssl_st* ssl_ = nullptr;
  std::atomic<bool> tlsReady_{false};  // handshake done; ssl_ fixed from then on
  std::atomic<std::uint64_t> simulatedLatencyIndex_{0};
  nCommunication::nSocket::nImplementation_sho::cLatencyLogLimiter latencyLimiter_;  // reader's
};
