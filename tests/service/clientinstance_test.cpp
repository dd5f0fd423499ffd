#include "vantrel/service/vantrelclientinstance.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "tests/service/servicefakes.h"
#include "vantrel/message/packmsg.h"

namespace vantrel::test {
namespace {

// Sends `record` from the instance's client, as the connection's reader does.
bool Send(VantrelClientInstance& from, std::uint32_t id, const char* toClient, short type,
          const char* toHost = "here~1") {
  const cVantrelMessage record(id, toHost, toClient, "here~1", from.name().c_str(), QTYPE_CLIENT, type, 0, "hello",
                               6);
  return from.handleMessage(record.getPackedBuf(), record.getPackedBufLen(), type, 0);
}

class ClientInstanceTest : public ::testing::Test {
 protected:
  CVantrelEventServer server{nullptr};
  FakeClientLink aliceLink{"alice"};
  FakeClientLink bobLink{"bob"};
  VantrelClientInstance alice{"alice", &aliceLink, &server};
  VantrelClientInstance bob{"bob", &bobLink, &server};
};

TEST_F(ClientInstanceTest, AcknowledgedLocalSendIsForwardedAndAnsweredOnTheAcknowledgementSubtype) {
  ASSERT_TRUE(Send(alice, 41, "bob", 1034));

  auto forwarded = bobLink.take();
  ASSERT_NE(forwarded, nullptr);
  EXPECT_EQ(forwarded->getType(), 1034);
  EXPECT_EQ(forwarded->getSubtype(), 0);
  EXPECT_STREQ(forwarded->getData(), "hello");
  EXPECT_STREQ(forwarded->getFromClient(), "alice");

  auto answer = aliceLink.take();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->getType(), 102);
  EXPECT_EQ(answer->getSubtype(), 1);
  EXPECT_EQ(answer->getQtype(), QTYPE_SYNC);
  EXPECT_EQ(answer->getMessageId(), 41u);
  EXPECT_STREQ(answer->getData(), "Error dispatching client event");
  EXPECT_EQ(answer->getDatalen(), std::strlen("Error dispatching client event") + 1);
  EXPECT_EQ(aliceLink.take(), nullptr);
}

TEST_F(ClientInstanceTest, NoWaitSendToUnknownClientIsAnsweredAsNotDelivered) {
  ASSERT_TRUE(Send(alice, 5, "nobody", 1036));
  auto answer = aliceLink.take();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->getType(), 103);
  EXPECT_EQ(answer->getSubtype(), 0);
  EXPECT_EQ(answer->getQtype(), QTYPE_ASYNC);
  EXPECT_EQ(answer->getMessageId(), 5u);

  // Delivered no-wait sends end on the acknowledgement subtype too.
  ASSERT_TRUE(Send(alice, 6, "bob", 1036));
  answer = aliceLink.take();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->getType(), 102);
  EXPECT_EQ(answer->getSubtype(), 1);
  EXPECT_EQ(answer->getQtype(), QTYPE_ASYNC);
}

TEST_F(ClientInstanceTest, NoResponseSendsAreNeverAnswered) {
  ASSERT_TRUE(Send(alice, 0, "nobody", 1035));
  ASSERT_TRUE(Send(alice, 0, "bob", 1035));
  EXPECT_EQ(aliceLink.take(), nullptr);
  EXPECT_NE(bobLink.take(), nullptr);

  // A remote no-response send that cannot be routed stays unanswered as well.
  server.setLinkFactory([](const std::string&) -> iVantrelHostLink* { return nullptr; });
  ASSERT_TRUE(Send(alice, 0, "carol", 3, "far~2"));
  EXPECT_EQ(aliceLink.take(), nullptr);
}

TEST_F(ClientInstanceTest, UnroutableRemoteSendIsAnsweredWithTheHostText) {
  server.setLinkFactory([](const std::string&) -> iVantrelHostLink* { return nullptr; });
  ASSERT_TRUE(Send(alice, 9, "carol", 2, "far~2"));
  auto answer = aliceLink.take();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->getType(), 103);
  EXPECT_EQ(answer->getSubtype(), 0);
  EXPECT_EQ(answer->getQtype(), QTYPE_SYNC);
  EXPECT_STREQ(answer->getData(), "Error dispatching host event");

  ASSERT_TRUE(Send(alice, 10, "carol", 4, "far~2"));
  answer = aliceLink.take();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->getQtype(), QTYPE_ASYNC);
}

TEST_F(ClientInstanceTest, FarewellUnregistersAndEndsReading) {
  EXPECT_FALSE(alice.handleMessage("", 1, 1033, 0));
  EXPECT_EQ(aliceLink.terminations, 1);
  EXPECT_FALSE(aliceLink.lastWait);  // the reader cannot join itself

  std::unique_ptr<VantrelClientEvent> toAlice(
      new VantrelClientEvent(1, "", "alice", "", "", QTYPE_CLIENT, 1034, 0, "x", 2));
  EXPECT_FALSE(server.dispatchClientEvent(toAlice.get()));
  EXPECT_EQ(server.clientCount(), 1u);

  // Detaching again (as a clean-up would) does not touch the connection again.
  alice.detach();
  EXPECT_EQ(aliceLink.terminations, 1);
}

TEST_F(ClientInstanceTest, MalformedAndUnknownMessagesAreDroppedWithoutAnswer) {
  const char garbage[] = "\x01\x02not a record at all";
  EXPECT_TRUE(alice.handleMessage(garbage, sizeof garbage, 1034, 0));
  EXPECT_TRUE(alice.handleMessage(garbage, sizeof garbage, 2, 0));
  EXPECT_TRUE(alice.handleMessage(nullptr, 0, 1034, 0));
  EXPECT_TRUE(Send(alice, 1, "bob", 999));
  EXPECT_TRUE(alice.handleMessage("", 1, 1044, 0));
  EXPECT_EQ(aliceLink.take(), nullptr);
  EXPECT_EQ(bobLink.take(), nullptr);
}

}  // namespace
}  // namespace vantrel::test
