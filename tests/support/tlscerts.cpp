#include "tests/support/tlscerts.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace vantrel::test {
namespace {

struct PkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
  void operator()(X509* p) const { X509_free(p); }
};
using Key = std::unique_ptr<EVP_PKEY, PkeyFree>;
using Cert = std::unique_ptr<X509, X509Free>;

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("tlscerts: ") + what + " failed");
}

Key NewKey() {
  Key key(EVP_EC_gen("P-256"));
  Check(key != nullptr, "EVP_EC_gen");
  return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  Check(ext != nullptr, "X509V3_EXT_conf_nid");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

Cert NewCertificate(const std::string& commonName, EVP_PKEY* key) {
  static std::atomic<long> serial{1};
  Cert cert(X509_new());
  Check(cert != nullptr, "X509_new");
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial++);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7L * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                             -1, 0);
  return cert;
}

// Writes into `path` what `write` writes into an open file.
template <typename Write>
void WritePem(const std::string& path, Write write) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w"), std::fclose);
  Check(file != nullptr && write(file.get()) == 1, "writing a certificate file");
}

}  // namespace

struct TestAuthority::Impl {
  Key key;
  Cert cert;
};

TestAuthority::TestAuthority(const std::string& commonName) : impl_(std::make_unique<Impl>()) {
  impl_->key = NewKey();
  impl_->cert = NewCertificate(commonName, impl_->key.get());
  X509_set_issuer_name(impl_->cert.get(), X509_get_subject_name(impl_->cert.get()));
  AddExtension(impl_->cert.get(), impl_->cert.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(impl_->cert.get(), impl_->cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  AddExtension(impl_->cert.get(), impl_->cert.get(), NID_subject_key_identifier, "hash");
  Check(X509_sign(impl_->cert.get(), impl_->key.get(), EVP_sha256()) > 0, "X509_sign (authority)");
}

TestAuthority::~TestAuthority() = default;

void TestAuthority::WriteHostFolder(const std::string& folder, const std::vector<std::string>& dnsNames,
                                    const std::vector<std::string>& ipAddresses, const TestAuthority* trusted) const {
  Key key = NewKey();
  const std::string commonName =
      !dnsNames.empty() ? dnsNames.front() : (!ipAddresses.empty() ? ipAddresses.front() : std::string("host"));
  Cert cert = NewCertificate(commonName, key.get());
  X509_set_issuer_name(cert.get(), X509_get_subject_name(impl_->cert.get()));
  std::string alternatives;
  for (const auto& name : dnsNames) alternatives += (alternatives.empty() ? "DNS:" : ",DNS:") + name;
  for (const auto& ip : ipAddresses) alternatives += (alternatives.empty() ? "IP:" : ",IP:") + ip;
  if (!alternatives.empty()) AddExtension(cert.get(), impl_->cert.get(), NID_subject_alt_name, alternatives);
  AddExtension(cert.get(), impl_->cert.get(), NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(cert.get(), impl_->cert.get(), NID_key_usage, "critical,digitalSignature,keyEncipherment");
  AddExtension(cert.get(), impl_->cert.get(), NID_ext_key_usage, "serverAuth,clientAuth");
  AddExtension(cert.get(), impl_->cert.get(), NID_authority_key_identifier, "keyid:always");
  Check(X509_sign(cert.get(), impl_->key.get(), EVP_sha256()) > 0, "X509_sign (host)");

  std::filesystem::create_directories(folder);
  WritePem(folder + "/vantrel.crt", [&](std::FILE* f) { return PEM_write_X509(f, cert.get()); });
  WritePem(folder + "/vantrel.key",
           [&](std::FILE* f) { return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
  WritePem(folder + "/ca.crt",
           [&](std::FILE* f) { return PEM_write_X509(f, (trusted ? trusted : this)->impl_->cert.get()); });
}

}  // namespace vantrel::test
