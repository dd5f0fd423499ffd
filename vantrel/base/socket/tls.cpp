#include "vantrel/base/socket/tls.h"

#include <openssl/err.h>

#include "vantrel/base/platform/file.h"

namespace nCommunication::nSocket::nImplementation_sho {
namespace {

bool FileExists(const std::string& path) {
  return vantrel::platform::gFileKind(path) == vantrel::platform::tFileKind::eRegular;
}

std::string Join(const std::string& folder, const char* file) {
  if (folder.empty() || folder.back() == '/') return folder + file;
  return folder + "/" + file;
}

}  // namespace

std::string gTlsErrorText() {
  std::string text;
  char buffer[256];
  while (unsigned long code = ERR_get_error()) {
    ERR_error_string_n(code, buffer, sizeof buffer);
    if (!text.empty()) text += "; ";
    text += buffer;
  }
  return text.empty() ? std::string("no OpenSSL error queued") : text;
}

cTlsContext::cTlsContext(tRole role, const cTlsSettings& settings) : role_(role), settings_(settings) {
  ERR_clear_error();
  ctx_ = SSL_CTX_new(role == eServer ? TLS_server_method() : TLS_client_method());
  if (!ctx_) throw cSocketError("TLS: cannot create a context: " + gTlsErrorText());
  auto fail = [this](const std::string& what) {
    const std::string text = what + ": " + gTlsErrorText();
    SSL_CTX_free(ctx_);
    ctx_ = nullptr;
    throw cSocketError(text);
  };
  SSL_CTX_set_min_proto_version(ctx_, TLS1_2_VERSION);
  // Peers that close without close_notify are treated as an ordinary end of
  // stream; renegotiation would let a write read from the socket behind the
  // reader's back.
  SSL_CTX_set_options(ctx_, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(ctx_, SSL_MODE_AUTO_RETRY);

  const std::string certificate = Join(settings.certificatesPath, kTlsCertificateFile);
  const std::string key = Join(settings.certificatesPath, kTlsKeyFile);
  const std::string authority = Join(settings.certificatesPath, kTlsAuthorityFile);

  // The server always presents its certificate; a client presents one when the
  // folder has it (an accepting side that verifies clients demands it).
  const bool needOwn = role == eServer;
  if (needOwn || (FileExists(certificate) && FileExists(key))) {
    if (SSL_CTX_use_certificate_chain_file(ctx_, certificate.c_str()) != 1)
      fail("TLS: cannot load certificate chain " + certificate);
    if (SSL_CTX_use_PrivateKey_file(ctx_, key.c_str(), SSL_FILETYPE_PEM) != 1)
      fail("TLS: cannot load private key " + key);
    if (SSL_CTX_check_private_key(ctx_) != 1) fail("TLS: private key " + key + " does not match " + certificate);
  }

  const bool needAuthority = role == eServer ? settings.verifyClientCertificate : settings.verifyServerCertificate;
  if (needAuthority || FileExists(authority)) {
    if (SSL_CTX_load_verify_locations(ctx_, authority.c_str(), nullptr) != 1)
      fail("TLS: cannot load certificate authorities " + authority);
    if (role == eServer) {
      if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(authority.c_str()))
        SSL_CTX_set_client_CA_list(ctx_, names);
    }
  }
  if (role == eServer)
    SSL_CTX_set_verify(
        ctx_, settings.verifyClientCertificate ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_NONE,
        nullptr);
  else
    SSL_CTX_set_verify(ctx_, settings.verifyServerCertificate ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
}

cTlsContext::~cTlsContext() {
  if (ctx_) SSL_CTX_free(ctx_);
}

}  // namespace nCommunication::nSocket::nImplementation_sho
