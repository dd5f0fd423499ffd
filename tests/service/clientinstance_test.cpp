#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "tests/service/servicefakes.h"
#include "vantrel/message/packmsg.h"
#include "vantrel/service/vantrelclientinstance.h"
#include "vantrel/service/vantreleventserver.h"

namespace vantrel::test {
namespace {
using namespace vantrel::wire;

// Sends `record` from the instance's client, as the connection's reader does.
bool Send(VantrelClientInstance& from, std::uint32_t id, const char* toClient, short type,
          const char* toHost = "here~1") {
  const cVantrelMessage record(id, toHost, toClient, "here~1", from.name().c_str(), QTYPE_CLIENT, type, 0, "hello", 6);
  return from.handleMessage(record.getPackedBuf(), record.getPackedBufLen(), type, 0);
}

class ClientInstanceTest : public ::testing::Test {
 protected:
  CVantrelEventServer server;
  FakeClientLink aliceLink{"alice"};
  FakeClientLink bobLink{"bob"};
  VantrelClientInstance alice{"alice", &aliceLink, &server};
  VantrelClientInstance bob{"bob", &bobLink, &server};
};

TEST_F(ClientInstanceTest, EachSendTypeGetsItsAnswerOrNone) {
  // Remote hosts cannot be reached: their sends must be answered (or not) here.
  // This service's own names need no link at all.
  server.setLinkFactory([](const std::string&) -> iVantrelHostLink* { return nullptr; });
  server.setLocalHost({"here", "here~1", "~", 1, {}, {}});
  struct Case {
    short type;
    const char* toClient;
    const char* toHost;
    bool forwarded;
    short answerType;  // 0: no answer at all
    short answerSubtype;
    int qtype;
    const char* text;  // null: any
  } cases[] = {
      {kLocalSend, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_SYNC, "Error dispatching client event"},
      {kLocalSendNoWait, "nobody", "here~1", false, kNotDelivered, kChannelMessages, QTYPE_ASYNC, nullptr},
      {kLocalSendNoWait, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_ASYNC, nullptr},
      {kLocalSendNoResponse, "nobody", "here~1", false, 0, 0, 0, nullptr},
      {kLocalSendNoResponse, "bob", "here~1", true, 0, 0, 0, nullptr},
      {kSendNoResponse, "carol", "far~2", false, 0, 0, 0, nullptr},
      {kSend, "carol", "far~2", false, kNotDelivered, kChannelMessages, QTYPE_SYNC, "Error dispatching host event"},
      {kSendNoWait, "carol", "far~2", false, kNotDelivered, kChannelMessages, QTYPE_ASYNC, nullptr},
      {kSend, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_SYNC, "Error dispatching client event"},
      {kSendNoWait, "bob", "here", true, kDelivered, kChannelAnswers, QTYPE_ASYNC, nullptr},
  };
  std::uint32_t id = 40;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.type) + " to " + c.toClient);
    ASSERT_TRUE(Send(alice, ++id, c.toClient, c.type, c.toHost));
    auto forwarded = bobLink.take();
    EXPECT_EQ(forwarded != nullptr, c.forwarded);
    if (forwarded) {
      EXPECT_EQ(forwarded->getType(), c.type);
      EXPECT_STREQ(forwarded->getData(), "hello");
      EXPECT_STREQ(forwarded->getFromClient(), "alice");
    }
    auto answer = aliceLink.take();
    if (c.answerType == 0) {
      EXPECT_EQ(answer, nullptr);
      continue;
    }
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer->getType(), c.answerType);
    EXPECT_EQ(answer->getSubtype(), c.answerSubtype);
    EXPECT_EQ(answer->getQtype(), c.qtype);
    EXPECT_EQ(answer->getMessageId(), id);
    if (c.text) {
      EXPECT_STREQ(answer->getData(), c.text);
      EXPECT_EQ(answer->getDatalen(), std::strlen(c.text) + 1);
    }
    EXPECT_EQ(aliceLink.take(), nullptr);
  }
}

TEST_F(ClientInstanceTest, FarewellUnregistersAndEndsReading) {
  EXPECT_FALSE(alice.handleMessage("", 1, kFarewell, 0));
  EXPECT_EQ(aliceLink.terminations, 1);
  EXPECT_FALSE(aliceLink.lastWait);  // the reader cannot join itself
  EXPECT_EQ(server.clientCount(), 1u);

  // Detaching again (as a clean-up would) does not touch the connection again.
  alice.detach();
  EXPECT_EQ(aliceLink.terminations, 1);
}

TEST_F(ClientInstanceTest, MalformedAndUnknownMessagesAreDroppedWithoutAnswer) {
  const char garbage[] = "\x01\x02not a record at all";
  EXPECT_TRUE(alice.handleMessage(garbage, sizeof garbage, kLocalSend, 0));
  EXPECT_TRUE(alice.handleMessage(garbage, sizeof garbage, kSend, 0));
  EXPECT_TRUE(alice.handleMessage(nullptr, 0, kLocalSend, 0));
  EXPECT_TRUE(Send(alice, 1, "bob", 999));
  EXPECT_TRUE(alice.handleMessage("", 1, kIgnored, 0));
  EXPECT_EQ(aliceLink.take(), nullptr);
  EXPECT_EQ(bobLink.take(), nullptr);
}

}  // namespace
}  // namespace vantrel::test
