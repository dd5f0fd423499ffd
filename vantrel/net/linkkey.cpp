#include "vantrel/net/linkkey.h"

#include <cctype>
#include <charconv>

#include "vantrel/base/socket/address.h"

void gLinkKey(std::string& key, std::string_view hostText, std::string_view delimiter, unsigned short defaultPort) {
  const auto split = nCommunication::nSocket::nImplementation_sho::gSplitHostPort(hostText, delimiter);
  const bool unparsed = split.hasDelimiter && !split.port.has_value();
  const std::string_view name = unparsed ? hostText : std::string_view(split.host);
  key.clear();
  for (const char c : name) key.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  if (unparsed) return;
  // A fixed separator: the key never travels, and a delimiter setting that
  // differs between two texts must not make them two hosts.
  key.push_back('~');
  char digits[8];
  const auto end = std::to_chars(digits, digits + sizeof digits, split.hasDelimiter ? *split.port : defaultPort).ptr;
  key.append(digits, end);
}

std::string gLinkKey(std::string_view hostText, std::string_view delimiter, unsigned short defaultPort) {
  std::string key;
  gLinkKey(key, hostText, delimiter, defaultPort);
  return key;
}
