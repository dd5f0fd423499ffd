#include "vantrel/net/pendinganswers.h"

#include <gtest/gtest.h>

#include "vantrel/message/wire.h"

namespace vantrel::test {
namespace {
using namespace vantrel::wire;

cVantrelMessage Request(std::uint32_t id, const char* from, short type = kSendNoWait) {
  return cVantrelMessage(id, "far~2", "bob", "here", from, QTYPE_CLIENT, type, 0, "q", 2);
}

// Only an answer to a request that waits on the link is owed; each is owed
// once, and a request past its time is taken out, oldest first.
TEST(PendingAnswers, AnswersAreOwedOnceAndOnlyWhileTheRequestWaits) {
  cPendingAnswers ledger;
  EXPECT_FALSE(ledger.Record(Request(1, "alice"), 1.0)) << "recorded before the link connected";
  ledger.Open();
  ASSERT_TRUE(ledger.Record(Request(1, "alice"), 10.0));
  ASSERT_TRUE(ledger.Record(Request(2, "alice", kSend), 11.0));
  ASSERT_TRUE(ledger.Record(Request(1, "carol"), 12.0));

  EXPECT_FALSE(ledger.Settle(777, "alice")) << "never asked";
  EXPECT_FALSE(ledger.Settle(2, "carol")) << "asked by someone else";
  EXPECT_TRUE(ledger.Settle(1, "carol"));
  EXPECT_FALSE(ledger.Settle(1, "carol")) << "answered twice";

  const auto expired = ledger.Expire(11.5);
  ASSERT_EQ(expired.size(), 2u);
  EXPECT_EQ(expired.front().messageId, 1u);
  EXPECT_EQ(expired.back().type, kSend);
  EXPECT_FALSE(ledger.Settle(1, "alice")) << "late answer after the time-out";
  EXPECT_FALSE(ledger.Waiting());

  ASSERT_TRUE(ledger.Record(Request(3, "alice"), 20.0));
  EXPECT_TRUE(ledger.Waiting());
  EXPECT_EQ(ledger.Close().size(), 1u);
  EXPECT_FALSE(ledger.Record(Request(4, "alice"), 21.0)) << "recorded after the link broke";
}

}  // namespace
}  // namespace vantrel::test
