#pragma once
// Certificates made at test time (no files checked in, nothing run outside the
// process): a certificate authority, and host certificates that it signs,
// written into a folder under the socket layer's fixed file names
// ("vantrel.crt", "vantrel.key", "ca.crt").
#include <memory>
#include <string>
#include <vector>

namespace vantrel::test {

class TestAuthority {
 public:
  explicit TestAuthority(const std::string& commonName);
  ~TestAuthority();
  TestAuthority(const TestAuthority&) = delete;
  TestAuthority& operator=(const TestAuthority&) = delete;

  // Issues a host certificate for the given DNS names and IP addresses (the
  // first DNS name, or else the first address, becomes its common name) and
  // writes into `folder`: the certificate and its key, and as "ca.crt" the
  // certificate of `trusted` (this authority when null) - pass another
  // authority to build a host that trusts the wrong one.
  void WriteHostFolder(const std::string& folder, const std::vector<std::string>& dnsNames,
                       const std::vector<std::string>& ipAddresses, const TestAuthority* trusted = nullptr) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vantrel::test
