#include "vantrel/base/socket/address.h"

#include <gtest/gtest.h>

using namespace nCommunication::nSocket::nImplementation_sho;

TEST(CVantrelAddressTest, SplitsAtTheLastAtSign) {
  const CVantrelAddress nested("a@b@c");
  EXPECT_EQ(nested.ClientName(), "a@b");
  EXPECT_EQ(nested.HostName(), "c");
  EXPECT_EQ(nested.Address(), "a@b@c");

  const CVantrelAddress noHost("nohost");
  EXPECT_EQ(noHost.ClientName(), "nohost");
  EXPECT_EQ(noHost.HostName(), "");
  EXPECT_EQ(noHost.Address(), "nohost@");

  const CVantrelAddress withPort("x@h~9011");
  EXPECT_EQ(withPort.ClientName(), "x");
  EXPECT_EQ(withPort.HostName(), "h~9011");

  const CVantrelAddress emptyClient("@lg01");
  EXPECT_EQ(emptyClient.ClientName(), "");
  EXPECT_EQ(emptyClient.HostName(), "lg01");

  // The joined text is itself a valid destination.
  const CVantrelAddress parts("recorder", "lg01~9011");
  EXPECT_EQ(CVantrelAddress(parts.Address()).ClientName(), "recorder");
  EXPECT_EQ(CVantrelAddress(parts.Address()).HostName(), "lg01~9011");
}

TEST(CVantrelAddressTest, SplitsHostAndPortAtTheFirstDelimiter) {
  auto hp = gSplitHostPort("h~9011", "~");
  EXPECT_EQ(hp.host, "h");
  EXPECT_TRUE(hp.hasDelimiter);
  ASSERT_TRUE(hp.port.has_value());
  EXPECT_EQ(*hp.port, 9011);

  hp = gSplitHostPort("lg01", "~");
  EXPECT_EQ(hp.host, "lg01");
  EXPECT_FALSE(hp.hasDelimiter);
  EXPECT_FALSE(hp.port.has_value());

  // A multi-character delimiter, and text after the port that is not a number.
  hp = gSplitHostPort("h::12", "::");
  EXPECT_EQ(hp.host, "h");
  EXPECT_EQ(hp.port.value_or(0), 12);
  for (const char* bad : {"h~", "h~x1", "h~70000", "h~0", "h~12~13", "h~+12", "h~ 12"}) {
    hp = gSplitHostPort(bad, "~");
    EXPECT_EQ(hp.host, "h") << bad;
    EXPECT_TRUE(hp.hasDelimiter) << bad;
    EXPECT_FALSE(hp.port.has_value()) << bad;
  }
}
