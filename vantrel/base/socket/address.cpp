#include "vantrel/base/socket/address.h"

#include "vantrel/base/env/integer.h"

CVantrelAddress::CVantrelAddress(std::string_view address) {
  const auto at = address.rfind('@');
  if (at == std::string_view::npos) {
    client_.assign(address);
    return;
  }
  client_.assign(address.substr(0, at));
  host_.assign(address.substr(at + 1));
}

CVantrelAddress::CVantrelAddress(std::string_view client, std::string_view host) : client_(client), host_(host) {}

std::string CVantrelAddress::Address() const {
  std::string text;
  text.reserve(client_.size() + 1 + host_.size());
  text.append(client_).append(1, '@').append(host_);
  return text;
}

namespace nCommunication::nSocket::nImplementation_sho {

cHostPort gSplitHostPort(std::string_view text, std::string_view delimiter) {
  cHostPort result;
  const auto at = delimiter.empty() ? std::string_view::npos : text.find(delimiter);
  if (at == std::string_view::npos) {
    result.host.assign(text);
    return result;
  }
  result.hasDelimiter = true;
  result.host.assign(text.substr(0, at));
  const std::string_view digits = text.substr(at + delimiter.size());
  result.port = vantrel::env::ParsePort(digits);
  return result;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
