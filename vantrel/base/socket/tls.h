#pragma once
// TLS contexts of the socket layer (internal: pulls in OpenSSL, so no public
// header includes it).
//
// A server context belongs to a TLS listener and is shared (through
// cTlsConnectionState) with every connection it accepted, which runs its own
// handshake later. A client context is made by the connecting socket.
// Ownership: shared_ptr; the SSL_CTX is freed with the last reference.
// Threads: immutable once built; OpenSSL allows SSL_new from any thread.
#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "vantrel/base/socket/streamsocket.h"

namespace nCommunication::nSocket::nImplementation_sho {

class cTlsContext {
 public:
  enum tRole { eServer, eClient };
  // Loads the certificate folder. Throws cSocketError naming the file and the
  // OpenSSL error when a needed file is missing or unusable.
  cTlsContext(tRole role, const cTlsSettings& settings);
  ~cTlsContext();
  cTlsContext(const cTlsContext&) = delete;
  cTlsContext& operator=(const cTlsContext&) = delete;

  SSL_CTX* Native() const { return ctx_; }
  tRole Role() const { return role_; }
  const cTlsSettings& Settings() const { return settings_; }

 private:
  tRole role_;
  cTlsSettings settings_;
  SSL_CTX* ctx_ = nullptr;
};

// The queued OpenSSL errors of this thread as one text (the queue is emptied).
std::string gTlsErrorText();

}  // namespace nCommunication::nSocket::nImplementation_sho
