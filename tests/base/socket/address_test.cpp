#include "vantrel/base/socket/address.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace nCommunication::nSocket::nImplementation_sho;

TEST(CVantrelAddressTest, SplitsAtTheLastAtSign) {
  for (const auto& [text, client, host, joined] : {std::tuple{"a@b@c", "a@b", "c", "a@b@c"},
                                                   {"nohost", "nohost", "", "nohost@"},
                                                   {"x@h~9011", "x", "h~9011", "x@h~9011"},
                                                   {"@lg01", "", "lg01", "@lg01"}}) {
    const CVantrelAddress address(text);
    EXPECT_EQ(address.ClientName(), client) << text;
    EXPECT_EQ(address.HostName(), host) << text;
    EXPECT_EQ(address.Address(), joined) << text;
  }
  // The joined text is itself a valid destination.
  const CVantrelAddress parts("recorder", "lg01~9011");
  EXPECT_EQ(CVantrelAddress(parts.Address()).ClientName(), "recorder");
  EXPECT_EQ(CVantrelAddress(parts.Address()).HostName(), "lg01~9011");
}

TEST(CVantrelAddressTest, SplitsHostAndPortAtTheFirstDelimiter) {
  // A multi-character delimiter (0: no port).
  for (const auto& [text, delimiter, host, delimited, port] :
       {std::tuple{"h~9011", "~", "h", true, 9011}, {"lg01", "~", "lg01", false, 0}, {"h::12", "::", "h", true, 12}}) {
    const auto split = gSplitHostPort(text, delimiter);
    EXPECT_EQ(split.host, host) << text;
    EXPECT_EQ(split.hasDelimiter, delimited) << text;
    EXPECT_EQ(split.port.value_or(0), port) << text;
  }
  // Text after the delimiter that is not a port.
  for (const char* bad : {"h~", "h~x1", "h~70000", "h~0", "h~12~13", "h~+12", "h~ 12"}) {
    const auto split = gSplitHostPort(bad, "~");
    EXPECT_TRUE(split.host == "h" && split.hasDelimiter && !split.port.has_value()) << bad;
  }
}
