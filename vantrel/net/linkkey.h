#pragma once
// The key under which a link to another host's service is registered and
// found. A host is reached by its name and net port, whichever way its text was
// written: "LG01", "lg01" and "lg01~9011" (with 9011 the net port the text
// defaults to) are one host, and so is the text "lg01~9011" that the host sends
// about itself when it opens a link. Every registration and every look-up of a
// link goes through gLinkKey, so an address and a handshake can never disagree.
//
// Pure function of its arguments; any thread.
#include <string>
#include <string_view>

// "name~port" with the name in lower case (host names do not depend on case)
// and the port in decimal: the port after `delimiter` when the text has one,
// `defaultPort` when it has none. A text whose port does not parse keys as
// itself (lower case), so it matches no well-formed address and its link fails
// on its own when it connects.
std::string gLinkKey(std::string_view hostText, std::string_view delimiter, unsigned short defaultPort);
// The same key written into `key`, whose capacity is reused: a router that
// keys every message keeps one buffer and allocates nothing.
void gLinkKey(std::string& key, std::string_view hostText, std::string_view delimiter, unsigned short defaultPort);
