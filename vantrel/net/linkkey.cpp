#include "vantrel/net/linkkey.h"

#include <cctype>

#include "vantrel/base/socket/address.h"

namespace {
std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}
}  // namespace

std::string gLinkKey(std::string_view hostText, std::string_view delimiter, unsigned short defaultPort) {
  const auto split = nCommunication::nSocket::nImplementation_sho::gSplitHostPort(hostText, delimiter);
  if (split.hasDelimiter && !split.port.has_value()) return Lower(hostText);
  // A fixed separator: the key never travels, and a delimiter setting that
  // differs between two texts must not make them two hosts.
  return Lower(split.host) + "~" + std::to_string(split.hasDelimiter ? *split.port : defaultPort);
}
