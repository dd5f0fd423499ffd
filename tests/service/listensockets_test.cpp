// The service's listeners: the accept thread never outlives the members it uses.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "tests/support/servicehelper.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/service/vantrellistensockets.h"

namespace vantrel::test {
namespace {

TEST(ListenerSocket, DestroyedWithoutAJoinItWaitsForTheRunningAcceptHandler) {
  struct cShared {
    std::atomic<bool> running{false}, goneWhileRunning{false};
    RQPManualEvent entered, release;
  };
  struct cSentinel {  // held by the listener's handler: destroyed with it
    std::shared_ptr<cShared> shared;
    ~cSentinel() { shared->goneWhileRunning = shared->running.load(); }
  };
  const auto shared = std::make_shared<cShared>();
  LogCapture log;
  auto listener = std::make_unique<CVantrelClientListener>(
      gSocketOptionsLocal(), CVantrelListenerSocket::cThreadAttributes{},
      [sentinel = std::shared_ptr<cSentinel>(new cSentinel{shared})](auto&&, auto&&) {
        const std::shared_ptr<cShared> state = sentinel->shared;  // the capture may go during the wait
        state->running = true;
        state->entered.Set();
        state->release.Wait(10000);
        state->running = false;
      });
  ASSERT_TRUE(listener->Listen());
  listener->StartAccepting();
  RawLink client;
  ASSERT_TRUE(client.connectClient(listener->GetPort()));
  ASSERT_EQ(shared->entered.Wait(10000), 1);

  auto destroyed = std::async(std::launch::async, [&] { listener.reset(); });
  // Either the destructor waits for the handler, or it has destroyed the handler under it.
  ASSERT_TRUE(WaitUntil([&] { return log.contains("waiting for the accept thread") || shared->goneWhileRunning; }));
  shared->release.Set();
  ASSERT_EQ(destroyed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_FALSE(shared->goneWhileRunning);
}

}  // namespace
}  // namespace vantrel::test
