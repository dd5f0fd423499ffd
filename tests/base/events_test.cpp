#include "vantrel/base/events/events.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "vantrel/message/vantrelevents.h"

namespace {

// A client object that records what its handler received (and deletes it,
// as the owner of a delivered event must).
struct Receiver : ClientObj {
  std::vector<std::string> got;
  int id = signOn([this](BaseEvent* e) {
    got.push_back(dynamic_cast<cVantrelMessage*>(e)->getData());
    delete e;
    return 1;
  });
};

VantrelClientEvent* Message(const char* to, const char* text) {
  return new VantrelClientEvent(0, "", to, "", "", QTYPE_CLIENT, vantrel::wire::kLocalSend, 0, text,
                                static_cast<long>(std::char_traits<char>::length(text) + 1));
}

TEST(EventRegistry, DispatchGoesToNewestRegistrationOfEqualKey) {
  ServerObj server(37);
  Receiver older, newer;
  auto* olderKey = new VantrelClientEvent("recorder", &older, older.id);
  ASSERT_TRUE(server.registerEvent(olderKey));
  ASSERT_TRUE(server.registerEvent(new VantrelClientEvent("recorder", &newer, newer.id)));
  EXPECT_EQ(server.registrationCount(), 2u);

  EXPECT_TRUE(server.dispatchEvent(Message("recorder", "first")));

  // Removing the stale registration by identity leaves the newer one working.
  EXPECT_TRUE(server.unRegisterEvent(olderKey));
  EXPECT_FALSE(server.unRegisterEvent(olderKey));
  EXPECT_TRUE(server.dispatchEvent(Message("recorder", "second")));
  EXPECT_EQ(newer.got, (std::vector<std::string>{"first", "second"}));
  EXPECT_TRUE(older.got.empty());

  // An equal but different object removes nothing.
  VantrelClientEvent lookalike("recorder", &newer, newer.id);
  EXPECT_FALSE(server.unRegisterEvent(&lookalike));
  EXPECT_EQ(server.registrationCount(), 1u);
}

TEST(EventRegistry, UnknownKeyLeavesEventWithCaller) {
  ServerObj server(1);  // one bucket: every key collides
  Receiver r;
  server.registerEvent(new VantrelClientEvent("a", &r, r.id));
  server.registerEvent(new VantrelHostEvent("a", &r, r.id));
  std::unique_ptr<VantrelClientEvent> e(Message("b", "x"));
  EXPECT_FALSE(server.dispatchEvent(e.get()));
  EXPECT_STREQ(e->getData(), "x");  // still ours
  EXPECT_EQ(server.findEvent(VantrelClientEvent("a", nullptr, 0))->isA(), VantrelClientEvent::kClassId);
  EXPECT_EQ(server.findEvent(VantrelHostEvent("a", nullptr, 0))->isA(), VantrelHostEvent::kClassId);
}

TEST(EventRegistry, UnRegisterClientRemovesOnlyThatClient) {
  ServerObj server(37);
  Receiver a, b;
  server.registerEvent(new VantrelClientEvent("x", &a, a.id));
  server.registerEvent(new VantrelHostEvent("lg01", &a, a.id));
  server.registerEvent(new VantrelClientEvent("x", &b, b.id));
  EXPECT_EQ(server.unRegisterClient(&b), 1);
  EXPECT_TRUE(server.dispatchEvent(Message("x", "to a")));
  EXPECT_EQ(a.got.size(), 1u);
  EXPECT_EQ(a.pleaseUnRegisterAll(&server), 2);
  EXPECT_EQ(server.registrationCount(), 0u);
  // A key without a client object is refused and stays with the caller.
  VantrelClientEvent orphan("x", nullptr, 0);
  EXPECT_FALSE(server.registerEvent(&orphan));
}

TEST(EventRegistry, RegistrationRequestsAndQueueDelivery) {
  ServerObj server(37);
  ClientObj queued, other;
  auto* key = new VantrelClientEvent("q", &queued, ClientObj::kQueueHandler);
  EXPECT_FALSE(other.pleaseRegister(&server, key)) << "another object's event is refused";
  ASSERT_TRUE(queued.pleaseRegister(&server, key));

  EXPECT_TRUE(server.dispatchEvent(Message("q", "queued")));
  RWCollectable* taken = queued.eventQueue().get();
  ASSERT_NE(taken, nullptr);
  EXPECT_STREQ(dynamic_cast<cVantrelMessage*>(taken)->getData(), "queued");
  delete taken;

  // A terminated queue discards, and the event is not handed back.
  queued.eventQueue().TerminateZ72();
  EXPECT_EQ(key->dispatchEvent(Message("q", "late")), 0);

  // An unknown handler id discards as well.
  EXPECT_EQ(queued.dispatch(Message("q", "lost"), 99), 0);
  EXPECT_EQ(queued.signOn(nullptr), -1);
  EXPECT_TRUE(queued.pleaseUnRegister(&server, key));
  EXPECT_EQ(server.registrationCount(), 0u);
}

}  // namespace
