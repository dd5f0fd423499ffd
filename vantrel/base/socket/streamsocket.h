#pragma once
// Stream sockets carrying typed messages (see frame.h for the framing).
//
//   c_Socket      the descriptor's life: listening, closing, names for log lines
//                 (socketbase.h)
//   StreamSocket  connecting, accepting, TLS, sending and receiving frames
//
// Failures that a peer or a close can cause (end of stream, reset, time-out, a
// bad frame, a TLS alert, a local close) make an operation return false. Only
// local faults throw (cSocketError, cAlreadyInUse, std::bad_alloc).
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "vantrel/base/platform/descriptors.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/frame.h"
#include "vantrel/base/socket/latency.h"
#include "vantrel/base/socket/socketbase.h"
#include "vantrel/base/socket/socketerror.h"
#include "vantrel/base/socket/socketoptions.h"

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

// What Accept returns: the raw connection (no handshake has run), the TLS state
// for the connection's own handshake, and why there is no handle when there is
// none (eClosed: the listener was closed; eFailed: it broke).
struct cAcceptResult {
  std::optional<cSocketHandle> handle;
  cTlsConnectionState tls;
  tSocketStatus status = tSocketStatus::eFailed;
};

class cTransport;
class cFrameReader;
class cFrameWriter;
class cTlsSession;

}  // namespace nCommunication::nSocket::nImplementation_sho

// A stream socket that carries typed messages, optionally over TLS: the
// connector, the transport (plain or TLS bytes), the frame reader and the frame
// writer, composed over the platform socket.
// Ownership: as c_Socket; also owns its transport (with the TLS session),
// frame reader and frame writer.
// Threads: one thread connects (or the accepted connection's reader runs the
// handshake) before others use the socket; afterwards one reader calls
// WaitTypedMessageZ1 while any number of threads call SendTypedMessageZ2 (each
// frame goes out whole under the socket's send lock); any thread may close.
// A listening socket has one accept thread.
class StreamSocket : public c_Socket {
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
  // also bounded by connectTimeout. False on any failure (logged; `failure`,
  // when given, says why in a few words: no resolve, refused, timed out, TLS).
  bool Connect(const std::string& host, unsigned short port, const cSocketOptions& options,
               std::string* failure = nullptr);

  // TLS listeners build their server context first, so unusable certificate
  // files throw cSocketError before the port is bound.
  void CreateListenerSocket(unsigned short port, tBindScope scope = eAllAddresses) override;

  // Blocks until a peer connects or the listener is closed. Transient errors
  // (interrupted calls, connections aborted before they were taken) are
  // retried here; no handle means the listener is closed or broken. Out of
  // descriptors, a waiting connection is taken with the listener's spare
  // descriptor and closed at once, so its peer learns at once that it was
  // refused, the listener neither spins nor stops, and the refusal is logged
  // (at most once a second) with the limit and the number open.
  cAcceptResult Accept(const cSocketOptions& options);

  // Runs the server side of the TLS handshake of an accepted connection, bounded
  // by the communication time-out. True at once for a plain connection.
  bool CompleteAcceptHandshake(const cSocketOptions& options);

  // After CompleteAcceptHandshake (or a TLS Connect): true when the peer's
  // certificate was verified and names `host`; false on a plain connection.
  // Used to tie the name a peer gives itself to the certificate it proved.
  bool PeerCertificateNames(const std::string& host) const;

  // Sends one frame. `data` may be null only when `length` is 0.
  bool SendTypedMessageZ2(short type, short subtype, const char* data, unsigned length);
  // As SendTypedMessageZ2, but a small frame sent while another thread writes
  // on this socket is copied behind that write and true comes back at once:
  // that thread sends it with its next write. A frame taken so is sent, or the
  // socket is closed. Frames of one thread keep their order.
  bool PostTypedMessage(short type, short subtype, const char* data, unsigned length);
  // Write-behind for a sender that streams small frames alone (cFrameWriter):
  // enable it before sending; PostBehindTypedMessage then hands a small frame
  // that finds nobody writing to the socket's flusher thread. Drain waits, at
  // most `timeout`, until every frame taken is written or failed.
  void EnableWriteBehind(const nParallel::nImplementation_sho::cThreadAttributes& attributes);
  bool PostBehindTypedMessage(short type, short subtype, const char* data, unsigned length);
  bool DrainWrites(std::chrono::milliseconds timeout);

  // One frame of a batch; the data stays the caller's.
  using cOutgoingFrame = nCommunication::nSocket::nImplementation_sho::cOutgoingFrame;
  static constexpr std::size_t kMaxBatch = nCommunication::nSocket::nImplementation_sho::kMaxFramesPerBatch;
  // Sends up to kMaxBatch frames in order with as few writes as the socket
  // allows; each frame goes out whole and no other sender's frame comes in
  // between. False as soon as one frame cannot be sent (as SendTypedMessageZ2).
  bool SendTypedMessages(const cOutgoingFrame* frames, std::size_t count);

  // Blocks until a whole frame has arrived. On success `data` is a buffer made
  // with new char[length + 1] whose last byte is 0 (so text payloads are
  // terminated); release it with FreeMessage or adopt it and delete[] it later.
  // `latency` (may be null) receives the frame's measured latency.
  bool WaitTypedMessageZ1(short& type, short& subtype, char*& data, unsigned& length, iLatencyConfiguration* latency);

  static void FreeMessage(char* data) { delete[] data; }
  // After a failed WaitTypedMessageZ1: the peer closed in order without having
  // sent a single byte, as a port check or health probe does. Reader only.
  bool PeerLeftSilently() const;
  // The owned form of a received payload, for code that keeps or hands it on.
  using tFrameData = std::unique_ptr<char[]>;

 private:
  using cTransport = nCommunication::nSocket::nImplementation_sho::cTransport;
  using cFrameReader = nCommunication::nSocket::nImplementation_sho::cFrameReader;
  using cFrameWriter = nCommunication::nSocket::nImplementation_sho::cFrameWriter;
  using cTlsSession = nCommunication::nSocket::nImplementation_sho::cTlsSession;

  // Takes `socket` as this socket's connection; false when it was closed meanwhile.
  bool Adopt(vantrel::platform::tSocket socket);
  // Runs the handshake of `session`; a failed handshake closes the socket.
  bool RunHandshake(std::unique_ptr<cTlsSession> session, std::int64_t deadlineUs, const char* what,
                    std::string* failure = nullptr);

  const bool useTls_;
  const std::string name_;
  cSocketOptions options_;
  cTlsSettings tlsSettings_;
  bool tlsVerifyOverride_ = false;
  cTlsConnectionState tlsContext_;  // listener's server context, or the accepted connection's

  std::unique_ptr<cTransport> transport_;  // the connection's bytes
  std::unique_ptr<cFrameReader> reader_;   // the reading thread's
  std::unique_ptr<cFrameWriter> writer_;
  nCommunication::nSocket::nImplementation_sho::cLatencyLogLimiter latencyLimiter_;  // the reading thread's

  // Listeners only, used by the accept thread alone: the descriptor kept for
  // refusing a connection at the limit.
  std::unique_ptr<vantrel::platform::cSpareDescriptor> spare_;
  // Takes one waiting connection and closes it; false when even that failed.
  bool RefuseAtLimit(vantrel::platform::tSocket listener);
};
