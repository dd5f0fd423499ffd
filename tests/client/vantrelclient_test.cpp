// The client library against a scripted service on a real loopback socket.
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/scriptedservice.h"
#include "tests/support/testutil.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/client/vantrelclientobjimp.h"
#include "vantrel/message/clientname.h"
#include "vantrel/message/wire.h"

using vantrel::test::cFrame;
using vantrel::test::LogCapture;
using vantrel::test::ScopedEnv;
using vantrel::test::ScriptedService;
using namespace vantrel::wire;

namespace {

// Connects `client` as "tester" and takes the greeting off the record.
void Register(cVantrelClientObject& client, ScriptedService& service, std::size_t connection = 0) {
  ASSERT_TRUE(client.NETInitZ641("tester", service.Port()));
  ASSERT_EQ(service.NextFrame(connection).value_or(cFrame{}).type, kGreeting);
}

// A client registered with a scripted service that calls itself "lg01".
class RegisteredClient : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(Register(client_, service_)); }

  // Short, so that a send nobody acknowledges fails quickly.
  ScopedEnv ackTimeout_{"VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT", "300"};
  ScriptedService service_{{.hostName = "lg01"}};
  cVantrelClientObject client_;
};

}  // namespace

TEST(ClientLibrary, GreetingRefusedOrUnansweredFailsInit) {
  {
    ScriptedService service({.greetingReplyType = 0});
    cVantrelClientObject client;
    EXPECT_FALSE(client.NETInitZ641("tester", service.Port()));
    EXPECT_FALSE(client.Valid());
    EXPECT_STREQ(client.NETWhoAmI(), "");
    EXPECT_EQ(client.NETGetLastStatus(), kStatusNotInitialised);
  }
  {
    // The service drops the connection before it replies: init must not hang.
    ScriptedService service({.replyToGreeting = false});
    cVantrelClientObject client;
    auto init = std::async(std::launch::async, [&] { return client.NETInitZ641("tester", service.Port()); });
    ASSERT_TRUE(service.NextFrame(0));
    service.Close(0);
    ASSERT_EQ(init.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_FALSE(init.get());
  }
}

TEST(ClientLibrary, NameAndPortAreCheckedBeforeConnectingAndTheReplyDecidesWhoWeAre) {
  ScriptedService service({.hostName = "lg01", .netPort = 9123});
  const std::string port = std::to_string(service.Port());
  const std::string longest(kMaxClientNameSize, 'n');
  struct {
    std::string name;
    const char* env;  // VANTREL_CLIENT_PORT for a registration with port 0; null: the service's port
    const char* why;  // in the error text; null: registered
  } cases[] = {
      {longest + "n", nullptr, "256 bytes long"},
      {"two\nlines", nullptr, "control character 0x0a"},
      {"tester", "9011x", "VANTREL_CLIENT_PORT \"9011x\" is not a whole number"},
      {"tester", "70000", "not between 0 and 65535"},
      // Registered last: its greeting is the first the service sees, so none of the above connected.
      {longest, port.c_str(), nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why ? c.why : "registered");
    ScopedEnv env("VANTREL_CLIENT_PORT", c.env);
    cVantrelClientObject client;
    EXPECT_EQ(client.NETInitZ641(c.name.c_str(), c.env ? 0 : service.Port()), c.why == nullptr);
    const std::string error = client.NETGetLastErrorMessage();
    if (c.why != nullptr) {
      EXPECT_NE(error.find(c.why), std::string::npos) << error;
      EXPECT_EQ(client.NETGetLastStatus(), kStatusNotInitialised);
      continue;
    }
    EXPECT_EQ(error, "");
    auto greeting = service.NextFrame(0);
    ASSERT_TRUE(greeting);
    EXPECT_EQ(greeting->type, kGreeting);
    EXPECT_EQ(greeting->subtype, 0);
    // A name too long for the greeting's field travels whole after it.
    EXPECT_EQ(vantrel::GreetingClientName(greeting->data.data(), greeting->data.size()), longest);
    EXPECT_STREQ(client.NETLocalHostName(), "lg01");
    EXPECT_EQ(client.NETWhoAmI(), longest + "@lg01" + gVantrelAddressPortDelimiter() + "9123");
  }
  RQPUnsetEnvironment("VANTREL_CLIENT_PORT");
  std::unique_ptr<ScriptedService> onDefault;
  try {
    onDefault = std::make_unique<ScriptedService>(ScriptedService::cOptions{.port = 9010});
  } catch (const std::exception&) {
    GTEST_SKIP() << "port 9010 is in use on this machine";
  }
  cVantrelClientObject client;
  EXPECT_TRUE(client.NETInitZ641("tester", 0));
  EXPECT_TRUE(onDefault->WaitConnections(1));
}

TEST_F(RegisteredClient, EachSendPathUsesItsTypeCode) {
  struct {
    std::function<bool()> send;
    short type;
    const char* toHost;
    const char* toClient;
    unsigned messageId;
  } cases[] = {
      {[&] { return client_.NETSendMessageZ1("a", 2, "peer@lg01"); }, kLocalSend, "lg01", "peer", 0},
      {[&] { return client_.NETSendMessageZ1("b", 2, "peer@LG01"); }, kSend, "LG01", "peer", 0},  // case counts
      {[&] { return client_.NETSendMessageNoresponseZ1("c", 2, "peer@lg01"); }, kLocalSendNoResponse, "lg01", "peer",
       0},
      {[&] { return client_.NETSendMessageNoresponseZ1("d", 2, "peer@lg02"); }, kSendNoResponse, "lg02", "peer", 0},
      {[&] { return client_.NETSendMessageNowaitZ1(77, "e", 2, "peer@lg01"); }, kLocalSendNoWait, "lg01", "peer", 77},
      {[&] { return client_.NETSendMessageNowaitZ1(78, "f", 2, "peer@lg02~9011"); }, kSendNoWait, "lg02~9011", "peer",
       78},
      {[&] { return client_.NETCopyFileZ1(79, "g", 2, "lg01"); }, kFileCopy, "lg01", "NoClient", 79},
      {[&] { return client_.NETCopyFileZ1(80, "h", 2, "lg02"); }, kFileCopy, "lg02", "NoClient", 80},
  };
  char payload = 'a';
  for (auto& c : cases) {
    SCOPED_TRACE(std::string("payload ") + payload);
    EXPECT_TRUE(c.send());
    auto frame = service_.NextFrame(0);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->type, c.type);
    EXPECT_EQ(frame->subtype, 0);
    cVantrelMessage record = frame->record();
    ASSERT_TRUE(record.isValid());
    EXPECT_EQ(record.getType(), c.type);
    EXPECT_STREQ(record.getToHost(), c.toHost);
    EXPECT_STREQ(record.getToClient(), c.toClient);
    EXPECT_STREQ(record.getFromHost(), "lg01~9011");  // the full text the service writes too
    EXPECT_STREQ(record.getFromClient(), "tester");
    EXPECT_EQ(record.getMessageId(), c.messageId);
    EXPECT_EQ(record.getQtype(), QTYPE_CLIENT);
    EXPECT_EQ(std::string(record.getData()), std::string(1, payload));
    ++payload;
  }
}

TEST_F(RegisteredClient, BadAddressesSendNothing) {
  for (const char* address : {"@lg01", "peer", "peer@", ""}) {
    SCOPED_TRACE(address);
    EXPECT_FALSE(client_.NETSendMessageZ1("x", 2, address));
    EXPECT_EQ(client_.NETGetLastStatus(), kStatusOk);
    EXPECT_FALSE(client_.NETSendMessageNoresponseZ1("x", 2, address));
    EXPECT_FALSE(client_.NETSendMessageNowaitZ1(1, "x", 2, address));
  }
  EXPECT_FALSE(client_.NETCopyFileZ1(1, "x", 2, ""));
  // The first frame after the greeting is the one sent to a good address.
  ASSERT_TRUE(client_.NETSendMessageNoresponseZ1("ok", 3, "peer@lg09"));
  EXPECT_STREQ(service_.NextFrame(0).value_or(cFrame{}).record().getData(), "ok");
}

TEST_F(RegisteredClient, AcknowledgementDecidesTheResultOfASend) {
  // "Not delivered" arrives on the message channel, not as an acknowledgement.
  using tAck = ScriptedService::tAck;
  for (const auto& [ack, sent, status] : {std::tuple{tAck::eDelivered, true, kStatusOk},
                                          {tAck::eRefused, false, kStatusAckError},
                                          {tAck::eNone, false, kStatusOk},
                                          {tAck::eNotDelivered, false, kStatusOk}}) {
    service_.SetAck(ack);
    EXPECT_EQ(client_.NETSendMessageZ1("x", 2, "peer@lg09"), sent) << static_cast<int>(ack);
    EXPECT_EQ(client_.NETGetLastStatus(), status) << static_cast<int>(ack);
  }
  const cVantrelMessage* answer = client_.NETWaitMessageX1();
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->getType(), kNotDelivered);

  // A stale acknowledgement left on the queue does not answer the next send.
  service_.SetAck(ScriptedService::tAck::eNone);
  ASSERT_TRUE(service_.SendRecord(0, kDelivered, kChannelAnswers, ""));
  ASSERT_TRUE(service_.SendRecord(0, kLocalSend, kChannelMessages, "marker"));  // arrives after the stale one
  ASSERT_STREQ(client_.NETWaitMessageX2(), "marker");
  EXPECT_FALSE(client_.NETSendMessageZ1("x", 2, "peer@lg09"));
}

TEST_F(RegisteredClient, ReceivingByWaitAndFetch) {
  ASSERT_TRUE(service_.SendRecord(0, kLocalSend, kChannelMessages, "first", 5));
  ASSERT_TRUE(service_.SendRecord(0, kLocalSend, kChannelMessages, "second"));
  const cVantrelMessage* record = client_.NETWaitMessageX1();
  ASSERT_NE(record, nullptr);
  EXPECT_STREQ(record->getData(), "first");
  EXPECT_STREQ(record->getFromClient(), "sender");
  EXPECT_EQ(record->getMessageId(), 5u);
  ASSERT_TRUE(vantrel::test::WaitUntil([&] { return client_.NETFetchMessage() != nullptr; }));
  EXPECT_EQ(client_.NETFetchMessage(), nullptr);
  EXPECT_EQ(client_.NETGetLastStatus(), kStatusOk);
}

// Records the channels the hook sees, keeps channel-2 messages itself and, when
// told to, ends its session from the hook on a channel-0 message.
class HookedClient : public cVantrelClientObject {
 public:
  ~HookedClient() { NETTerminate(); }
  bool NewMessageEvent(cTypedMessageObject* message, short channel) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      channels.push_back(channel);
    }
    if (channel == kChannelMessages && !onMessage) return true;
    delete message;
    if (channel == kChannelMessages) std::function<void(HookedClient*)>{onMessage}(this);  // may delete this
    return false;
  }
  std::mutex mutex;
  std::vector<short> channels;
  std::function<void(HookedClient*)> onMessage;
};

TEST(ClientLibrary, HookSeesChannelsZeroAndTwoOnlyAndBadSubtypesAreDropped) {
  ScriptedService service;
  HookedClient client;
  Register(client, service);
  LogCapture log;
  ASSERT_TRUE(service.SendRecord(0, kDelivered, kChannelAnswers, "ack"));
  ASSERT_TRUE(service.SendRecord(0, kDelivered, kChannelNoWaitAnswers, "nowait answer"));
  ASSERT_TRUE(service.SendRecord(0, kLocalSend, 7, "bad subtype"));
  ASSERT_TRUE(service.SendRecord(0, kLocalSend, -1, "negative subtype"));
  ASSERT_TRUE(service.SendRecord(0, kLocalSend, kChannelMessages, "message"));
  EXPECT_STREQ(client.NETWaitMessageX2(), "message");
  {
    std::lock_guard<std::mutex> lock(client.mutex);
    EXPECT_EQ(client.channels, (std::vector<short>{kChannelNoWaitAnswers, kChannelMessages}));
  }
  EXPECT_TRUE(log.contains("subtype 7 dropped"));
  EXPECT_TRUE(log.contains("subtype -1 dropped"));
  EXPECT_EQ(client.NETFetchMessage(), nullptr);
}

TEST(ClientLibrary, HookMayRegisterAgainOrDeleteItsOwnClient) {
  for (const bool deleteItself : {false, true}) {
    ScriptedService service;
    RQPManualEvent done;
    auto* client = new HookedClient;
    client->onMessage = [&](HookedClient* self) {
      deleteItself ? delete self : void(self->NETInitZ641("again", service.Port()));
      done.Set();
    };
    Register(*client, service, 0);
    ASSERT_TRUE(service.SendRecord(0, kLocalSend, kChannelMessages, "end"));
    ASSERT_EQ(done.Wait(10000), 1);
    // The first session ended in order, whatever the hook did.
    EXPECT_EQ(service.NextFrame(0).value_or(cFrame{}).type, kFarewell);
    EXPECT_TRUE(service.WaitPeerClosed(0));
    if (deleteItself) continue;
    ASSERT_TRUE(client->Valid());
    EXPECT_TRUE(client->NETSendMessageNoresponseZ1("x", 2, "peer@h"));
    ASSERT_TRUE(service.NextFrame(1));  // the greeting
    EXPECT_EQ(service.NextFrame(1).value_or(cFrame{}).type, kSendNoResponse);
    delete client;
  }
}

TEST(ClientLibrary, TurningOffEndsWaitsAndDropsTraffic) {
  ScriptedService service;
  cVantrelClientObject waiting;
  Register(waiting, service, 0);
  auto wait = std::async(std::launch::async, [&] { return waiting.NETWaitMessageX1(); });
  EXPECT_EQ(wait.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_TRUE(waiting.NETTurnOff());
  ASSERT_EQ(wait.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(wait.get(), nullptr);
  EXPECT_EQ(waiting.NETGetLastStatus(), kStatusNotInitialised);

  cVantrelClientObject toggled;
  Register(toggled, service, 1);
  LogCapture log;
  ASSERT_TRUE(toggled.NETTurnOff());
  ASSERT_TRUE(service.SendRecord(1, kLocalSend, kChannelMessages, "while off"));
  ASSERT_TRUE(log.waitFor("turned off, message dropped"));
  ASSERT_TRUE(toggled.NETTurnOn());
  ASSERT_TRUE(service.SendRecord(1, kLocalSend, kChannelMessages, "while on"));
  EXPECT_STREQ(toggled.NETWaitMessageX2(), "while on");
}

TEST_F(RegisteredClient, TerminateSaysFarewellAndInitReconnects) {
  client_.NETTerminate();
  auto farewell = service_.NextFrame(0);
  ASSERT_TRUE(farewell);
  EXPECT_EQ(farewell->type, kFarewell);
  EXPECT_EQ(farewell->data, std::string(1, '\0'));
  EXPECT_TRUE(service_.WaitPeerClosed(0));
  EXPECT_EQ(client_.NETWaitMessageX1(), nullptr);
  EXPECT_EQ(client_.NETGetLastStatus(), kStatusNotInitialised);

  Register(client_, service_, 1);
  // A second init ends the first session with its farewell.
  ASSERT_TRUE(client_.NETInitZ641("tester", service_.Port()));
  EXPECT_EQ(service_.NextFrame(1).value_or(cFrame{}).type, kFarewell);
  EXPECT_TRUE(service_.WaitPeerClosed(1));
  ASSERT_TRUE(service_.WaitConnections(3));
  EXPECT_TRUE(client_.NETSendMessageNoresponseZ1("again", 6, "peer@x"));
}

TEST_F(RegisteredClient, ServiceClosingEndsTheSession) {
  auto wait = std::async(std::launch::async, [&] { return client_.NETWaitMessageX2(); });
  service_.Close(0);
  ASSERT_EQ(wait.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(wait.get(), nullptr);
  EXPECT_FALSE(client_.NETSendMessageNoresponseZ1("x", 2, "peer@x"));
  EXPECT_EQ(client_.NETGetLastStatus(), kStatusNotInitialised);
  EXPECT_STREQ(client_.NETWhoAmI(), "");
}

TEST(ClientQueue, AckQueueKeepsOnlyTheNewestEntries) {
  CVantrelClientQueue queue(1, 4);
  LogCapture log;
  for (int i = 0; i < 6; ++i) {
    const std::string text = std::to_string(i);
    queue.putMessage(new cTypedMessageObject(text.c_str(), 2, kDelivered, kChannelAnswers));
  }
  EXPECT_EQ(queue.size(), 4u);
  EXPECT_EQ(log.count("oldest dropped"), 2u);
  for (const char* expected : {"2", "3", "4", "5"}) {
    std::unique_ptr<cTypedMessageObject> next(queue.fetchMessage());
    ASSERT_TRUE(next);
    EXPECT_STREQ(next->getData(), expected);
  }
  EXPECT_EQ(queue.fetchMessage(), nullptr);
}
