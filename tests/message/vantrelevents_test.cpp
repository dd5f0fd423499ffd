#include "vantrel/message/vantrelevents.h"

#include <gtest/gtest.h>

namespace {

using namespace vantrel::wire;

TEST(VantrelEvents, EqualityAndHashFollowClassAndKeyOnly) {
  VantrelClientEvent a(1, "h1", "recorder", "fh", "fc", QTYPE_CLIENT, kLocalSend, 0, "one", 4);
  VantrelClientEvent b(2, "h2", "recorder", "other", "sender", QTYPE_ASYNC, kLocalSendNoWait, 2, "two", 3);
  EXPECT_TRUE(a.isEqual(&b));
  EXPECT_EQ(a.hash(), b.hash());

  VantrelClientEvent upper(1, "h1", "Recorder", "fh", "fc", QTYPE_CLIENT, kLocalSend, 0, "one", 4);
  EXPECT_FALSE(a.isEqual(&upper)) << "keys differing in case are different";

  // Same texts, other class: the class id tells them apart.
  VantrelHostEvent hostA(1, "recorder", "recorder", "fh", "fc", QTYPE_CLIENT, kSend, 0, "one", 4);
  VantrelClientEvent clientA(1, "recorder", "recorder", "fh", "fc", QTYPE_CLIENT, kSend, 0, "one", 4);
  EXPECT_FALSE(hostA.isEqual(&clientA));
  EXPECT_FALSE(clientA.isEqual(&hostA));

  // The host event is keyed by to host, not to client.
  VantrelHostEvent h1(1, "lg01", "x", "", "", QTYPE_CLIENT, kSend, 0, nullptr, 0);
  VantrelHostEvent h2(1, "lg01", "y", "", "", QTYPE_CLIENT, kSend, 0, nullptr, 0);
  VantrelHostEvent h3(1, "lg02", "x", "", "", QTYPE_CLIENT, kSend, 0, nullptr, 0);
  EXPECT_TRUE(h1.isEqual(&h2));
  EXPECT_FALSE(h1.isEqual(&h3));
  EXPECT_EQ(h1.hash(), gVantrelKeyHash("lg01"));

  BaseEvent plain;
  EXPECT_FALSE(a.isEqual(&plain));
  EXPECT_FALSE(a.isEqual(nullptr));
}

TEST(VantrelEvents, RegistrationKeyMatchesRoutedMessage) {
  ClientObj owner;
  VantrelClientEvent key("recorder", &owner, 3);
  VantrelHostEvent hostKey("lg01~9011", &owner, 1);

  // A message rebuilt from a packed buffer finds the key.
  VantrelClientEvent sent(5, "lg01", "recorder", "lg02", "driver", QTYPE_CLIENT, kLocalSend, 0, "hi", 3);
  VantrelClientEvent received(sent.getPackedBuf(), static_cast<long>(sent.getPackedBufLen()), kLocalSend, 0);
  EXPECT_TRUE(key.isEqual(&received));
  EXPECT_EQ(key.hash(), received.hash());
  VantrelHostEvent routed(5, "lg01~9011", "recorder", "lg02", "driver", QTYPE_CLIENT, kSend, 0, "hi", 3);
  EXPECT_TRUE(hostKey.isEqual(&routed));

  VantrelClientEvent negative(1, "", "c", "", "", QTYPE_CLIENT, kSendNoResponse, 0, "abc", -5);
  EXPECT_EQ(negative.getDatalen(), 0u);
}

}  // namespace
