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

// What a client writes into a record; by default what the client library writes.
struct Written {
  short recordType = 0;              // 0: the frame's type
  const char* fromClient = nullptr;  // null: the sender's own name
  const char* fromHost = "here";
  short subtype = 0;
};

// Sends a record from the instance's client as a frame of `type`, as the
// connection's reader hands it on.
bool Send(VantrelClientInstance& from, std::uint32_t id, const char* toClient, short type,
          const char* toHost = "here~1", Written written = {}) {
  const cVantrelMessage record(id, toHost, toClient, written.fromHost,
                               written.fromClient ? written.fromClient : from.name().c_str(), QTYPE_CLIENT,
                               written.recordType ? written.recordType : type, written.subtype, "hello", 6);
  return from.handleMessage(record.getPackedBuf(), record.getPackedBufLen(), type, 0);
}

class ClientInstanceTest : public ::testing::Test {
 protected:
  CVantrelEventServer server;
  FakeClientLink aliceLink{"alice"};
  FakeClientLink bobLink{"bob"};
  VantrelClientInstance alice{"alice", &aliceLink, &server, "here"};
  VantrelClientInstance bob{"bob", &bobLink, &server, "here"};
};

// A delivered answer goes out only once the addressee's writer has written the
// message, and one dropped unwritten is not delivered. A client can neither
// answer in a service's place nor pose as another client.
TEST_F(ClientInstanceTest, EachSendTypeGetsItsAnswerOrNone) {
  // Remote hosts cannot be reached: their sends must be answered (or not) here.
  // This service's own names need no link at all.
  server.setLinkFactory([](const std::string&) -> iVantrelHostLink* { return nullptr; });
  server.setLocalHost({"here", "here~1", "~", 1, {}, {}});
  constexpr const char* kClientText = "Error dispatching client event";
  constexpr const char* kNotWritten = "Message could not be written to the client";
  const Written onAnswerChannel{0, nullptr, "here", kChannelAnswers};
  struct Case {
    short type;
    const char* toClient;
    const char* toHost;
    bool forwarded;
    short answerType;  // 0: no answer at all
    short answerSubtype;
    int qtype;
    const char* text;      // null: any
    Written written = {};  // what the client wrote into the record
    bool dropped = false;  // the forwarded message is never written
  } cases[] = {
      {kLocalSend, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_SYNC, kClientText},
      {kLocalSendNoWait, "nobody", "here~1", false, kNotDelivered, kChannelMessages, QTYPE_ASYNC, nullptr},
      {kLocalSendNoWait, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_ASYNC, nullptr},
      {kLocalSendNoResponse, "nobody", "here~1", false, 0, 0, 0, nullptr},
      {kLocalSendNoResponse, "bob", "here~1", true, 0, 0, 0, nullptr},
      {kSendNoResponse, "carol", "far~2", false, 0, 0, 0, nullptr},
      {kSend, "carol", "far~2", false, kNotDelivered, kChannelAnswers, QTYPE_SYNC, "Error dispatching host event"},
      {kSendNoWait, "carol", "far~2", false, kNotDelivered, kChannelMessages, QTYPE_ASYNC, nullptr},
      {kSend, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_SYNC, kClientText},
      {kSendNoWait, "bob", "here", true, kDelivered, kChannelAnswers, QTYPE_ASYNC, nullptr},
      {kLocalSend, "bob", "here~1", true, kNotDelivered, kChannelAnswers, QTYPE_SYNC, kNotWritten, {}, true},
      {kSendNoWait, "bob", "here", true, kNotDelivered, kChannelMessages, QTYPE_ASYNC, nullptr, {}, true},
      {kLocalSendNoResponse, "bob", "here~1", false, 0, 0, 0, nullptr, {kDelivered}},
      {kLocalSend, "bob", "here~1", false, kNotDelivered, kChannelAnswers, QTYPE_SYNC, kClientText, {kNotDelivered}},
      {kLocalSendNoWait, "bob", "here~1", false, kNotDelivered, kChannelMessages, QTYPE_ASYNC, nullptr, {kLocalSend}},
      {kLocalSendNoResponse, "bob", "here~1", true, 0, 0, 0, nullptr, {0, "boss", "lg99~9011"}},
      {kLocalSend, "bob", "here~1", true, kDelivered, kChannelAnswers, QTYPE_SYNC, nullptr, onAnswerChannel},
  };
  std::uint32_t id = 40;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.type) + " to " + c.toClient + " holding " + std::to_string(c.written.recordType));
    ASSERT_TRUE(Send(alice, ++id, c.toClient, c.type, c.toHost, c.written));
    auto forwarded = bobLink.take();
    EXPECT_EQ(forwarded != nullptr, c.forwarded);
    if (forwarded) {
      EXPECT_EQ(forwarded->getType(), c.type);
      EXPECT_STREQ(forwarded->getData(), "hello");
      EXPECT_STREQ(forwarded->getFromClient(), "alice");
      EXPECT_STREQ(forwarded->getFromHost(), "here");
      EXPECT_EQ(forwarded->getSubtype(), kChannelMessages);
      EXPECT_EQ(aliceLink.take(), nullptr) << "answered before it was written";
      if (!c.dropped) forwarded->settle(true);
      forwarded.reset();  // a second settlement (here, the drop) answers nothing
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
  ASSERT_TRUE(Send(alice, 8, "bob", kLocalSend));
  auto held = bobLink.take();
  EXPECT_FALSE(alice.handleMessage("", 1, kFarewell, 0));
  held->settle(true);  // written after the sender left: answers nobody
  EXPECT_EQ(aliceLink.take(), nullptr);
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
  // Only services answer.
  for (short type : {short{999}, kDelivered, kNotDelivered}) EXPECT_TRUE(Send(alice, 1, "bob", type));
  EXPECT_TRUE(alice.handleMessage("", 1, kIgnored, 0));
  EXPECT_EQ(aliceLink.take(), nullptr);
  EXPECT_EQ(bobLink.take(), nullptr);
}

}  // namespace
}  // namespace vantrel::test
