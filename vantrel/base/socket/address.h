#pragma once
// Address texts of the bus.
//
// A destination is "client@host", split at the LAST '@' so that a client name
// may itself contain '@'. A text without '@' is a client name with an empty
// host. The host part may carry a port after the configured address-port
// delimiter ("lg01~9011"); gSplitHostPort separates the two.
//
// Ownership: plain values. Thread safety: none needed (no shared state).
#include <optional>
#include <string>
#include <string_view>

class CVantrelAddress {
 public:
  CVantrelAddress() = default;
  explicit CVantrelAddress(std::string_view address);
  CVantrelAddress(std::string_view client, std::string_view host);

  const std::string& ClientName() const { return client_; }
  const std::string& HostName() const { return host_; }
  // client + "@" + host (also when the host is empty).
  std::string Address() const;

 private:
  std::string client_;
  std::string host_;
};

namespace nCommunication::nSocket::nImplementation_sho {

// A host text split at the first address-port delimiter.
struct cHostPort {
  std::string host;  // the whole text when there is no delimiter
  bool hasDelimiter = false;
  std::optional<unsigned short> port;  // set when a decimal port 1..65535 follows
};

// Splits "name<delimiter>port". The delimiter comes from the settings; an empty
// delimiter never splits.
cHostPort gSplitHostPort(std::string_view text, std::string_view delimiter);

}  // namespace nCommunication::nSocket::nImplementation_sho
