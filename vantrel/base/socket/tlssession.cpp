#include "vantrel/base/socket/tlssession.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "vantrel/base/socket/tls.h"

namespace nCommunication::nSocket::nImplementation_sho {

cTlsSession::cTlsSession(const cTlsContext& context, vantrel::platform::tSocket socket, const char* caller) {
  ssl_ = SSL_new(context.Native());
  if (!ssl_) throw cSocketError(std::string(caller) + " - SSL_new failed: " + gTlsErrorText());
  SSL_set_fd(ssl_, static_cast<int>(socket));
}

cTlsSession::~cTlsSession() { SSL_free(ssl_); }

bool cTlsSession::ConnectTo(const std::string& host, bool verify) {
  SSL_set_connect_state(ssl_);
  const bool address = vantrel::platform::gIsNumericAddress(host);
  if (!address) SSL_set_tlsext_host_name(ssl_, host.c_str());
  if (!verify) return true;
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl_);
  X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return (address ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str())
                  : X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size())) == 1;
}

void cTlsSession::AcceptFrom(std::optional<bool> verifyClient) {
  SSL_set_accept_state(ssl_);
  if (verifyClient)
    SSL_set_verify(ssl_, *verifyClient ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_NONE, nullptr);
}

bool cTlsSession::PeerCertificateNames(const std::string& host) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (host.empty() || SSL_get_verify_result(ssl_) != X509_V_OK) return false;
  X509* certificate = SSL_get0_peer_certificate(ssl_);
  if (certificate == nullptr) return false;
  if (vantrel::platform::gIsNumericAddress(host)) return X509_check_ip_asc(certificate, host.c_str(), 0) == 1;
  return X509_check_host(certificate, host.data(), host.size(), X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr) == 1;
}

cTlsSession::tIo cTlsSession::Outcome(int rc) const {
  switch (SSL_get_error(ssl_, rc)) {
    case SSL_ERROR_WANT_READ:
      return tIo::eWantRead;
    case SSL_ERROR_WANT_WRITE:
      return tIo::eWantWrite;
    case SSL_ERROR_ZERO_RETURN:
      return tIo::eEnd;
    default:
      return tIo::eFailed;
  }
}

cTlsSession::tIo cTlsSession::Handshake(std::string& failure) {
  std::lock_guard<std::mutex> lock(mutex_);
  ERR_clear_error();
  const int rc = SSL_do_handshake(ssl_);
  if (rc == 1) return tIo::eDone;
  const int error = SSL_get_error(ssl_, rc);
  if (error == SSL_ERROR_WANT_READ) return tIo::eWantRead;
  if (error == SSL_ERROR_WANT_WRITE) return tIo::eWantWrite;
  const vantrel::platform::cSocketResult system = vantrel::platform::gLastSocketError();
  const bool queued = ERR_peek_error() != 0;
  failure = gTlsErrorText();
  const long verify = SSL_get_verify_result(ssl_);
  if (verify != X509_V_OK) failure += std::string("; certificate: ") + X509_verify_cert_error_string(verify);
  if (error == SSL_ERROR_SYSCALL && system.code != 0) failure += "; " + system.Text();
  // Neither OpenSSL nor the system has a word for a peer that just hung up,
  // which is what a service without TLS does with a handshake it cannot read.
  if ((error == SSL_ERROR_ZERO_RETURN || (error == SSL_ERROR_SYSCALL && system.code == 0)) && !queued)
    failure = "the peer closed the connection during the handshake; is it a TLS service?";
  return tIo::eFailed;
}

cTlsSession::tIo cTlsSession::Read(char* buffer, std::size_t size, std::size_t& got) {
  got = 0;
  std::lock_guard<std::mutex> lock(mutex_);
  ERR_clear_error();
  if (SSL_read_ex(ssl_, buffer, size, &got) == 1) return tIo::eDone;
  return Outcome(0);
}

cTlsSession::tIo cTlsSession::Write(const void* data, std::size_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  ERR_clear_error();
  std::size_t written = 0;
  if (SSL_write_ex(ssl_, data, size, &written) == 1) return tIo::eDone;
  const tIo io = Outcome(0);
  return io == tIo::eEnd ? tIo::eFailed : io;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
