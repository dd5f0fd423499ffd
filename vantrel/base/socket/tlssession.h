#pragma once
// One connection's TLS session.
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include "vantrel/base/platform/socket.h"

struct ssl_st;

namespace nCommunication::nSocket::nImplementation_sho {

class cTlsContext;

// The TLS session of one connection, over its non-blocking socket: every call
// does what it can now and says what to wait for otherwise. Its lock is held
// for the OpenSSL call only, never while waiting, so the reader and a writer
// never use the session at the same time yet never wait on each other.
// Ownership: owned by the connection's transport; owns the SSL object (freed
// with it), not the socket. Threads: one thread configures the session and
// runs the handshake before anyone else uses it; then one reader and one
// writer at a time (the frame writer's lock serialises writers).
class cTlsSession {
 public:
  enum class tIo { eDone, eWantRead, eWantWrite, eEnd, eFailed };

  // Throws cSocketError ("<caller> - SSL_new failed: ...") when OpenSSL cannot
  // make a session.
  cTlsSession(const cTlsContext& context, vantrel::platform::tSocket socket, const char* caller);
  ~cTlsSession();
  cTlsSession(const cTlsSession&) = delete;
  cTlsSession& operator=(const cTlsSession&) = delete;

  // Client side: names `host` to the server (unless it is an address) and,
  // with `verify`, accepts only a certificate that names it. False when
  // OpenSSL cannot take the name.
  bool ConnectTo(const std::string& host, bool verify);
  // Server side; `verifyClient`, when given, replaces the context's demand for
  // a client certificate for this connection.
  void AcceptFrom(std::optional<bool> verifyClient);

  // After the handshake: true when the peer presented a certificate that was
  // verified and names `host` (a DNS name or, for a numeric address, an IP
  // address among its subject alternative names; the common name when it has
  // no DNS names). Partial wildcards ("a*.example") never match.
  bool PeerCertificateNames(const std::string& host);

  // One step of the handshake. eFailed: `failure` says why (OpenSSL's errors,
  // the certificate verdict, the system's error).
  tIo Handshake(std::string& failure);
  // eDone with `got` > 0 bytes, or what to wait for. Bytes OpenSSL decrypted
  // beyond `size` stay in the session for the next call, so a read is always
  // tried before a wait.
  tIo Read(char* buffer, std::size_t size, std::size_t& got);
  // Writes all of `data` or nothing; after eWantRead/eWantWrite the call must
  // be repeated with the same data and size.
  tIo Write(const void* data, std::size_t size);

 private:
  tIo Outcome(int rc) const;

  std::mutex mutex_;  // held only for each OpenSSL call
  ssl_st* ssl_ = nullptr;
};

}  // namespace nCommunication::nSocket::nImplementation_sho
