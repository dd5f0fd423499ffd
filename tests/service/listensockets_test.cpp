// The service's listeners: their accept thread never outlives the members it uses.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>

#include "tests/support/servicehelper.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/service/vantrellistensockets.h"

namespace vantrel::test {
namespace {

TEST(ListenerSocket, DestroyedWithoutAJoinItWaitsForTheRunningAcceptHandler) {
  struct cShared {
    std::atomic<bool> handlerRunning{false};
    std::atomic<bool> handlerGone{false};
    std::atomic<bool> goneWhileRunning{false};
    RQPManualEvent entered;
    RQPManualEvent release;
  };
  // Lives in the listener's handler: destroyed exactly when the handler is.
  struct cSentinel {
    std::shared_ptr<cShared> shared;
    ~cSentinel() {
      if (shared->handlerRunning) shared->goneWhileRunning = true;
      shared->handlerGone = true;
    }
  };
  const auto shared = std::make_shared<cShared>();
  std::shared_ptr<cSentinel> sentinel(new cSentinel{shared});
  LogCapture log;
  auto listener = std::make_unique<CVantrelClientListener>(
      gSocketOptionsLocal(), CVantrelListenerSocket::cThreadAttributes{},
      [sentinel](CVantrelListenerSocket::cSocketHandle&&, CVantrelListenerSocket::cTlsConnectionState) {
        const std::shared_ptr<cShared> state = sentinel->shared;  // the capture may not outlive the wait
        state->handlerRunning = true;
        state->entered.Set();
        state->release.Wait(10000);
        state->handlerRunning = false;
      });
  sentinel.reset();
  ASSERT_TRUE(listener->Listen());
  listener->StartAccepting();
  RawLink client;
  ASSERT_TRUE(client.connectClient(listener->GetPort()));
  ASSERT_EQ(shared->entered.Wait(10000), 1);

  auto destroyed = std::async(std::launch::async, [&] { listener.reset(); });
  // Either the destructor waits for the handler, or it has destroyed the handler under it.
  ASSERT_TRUE(WaitUntil([&] { return log.contains("waiting for the accept thread") || shared->handlerGone; }));
  shared->release.Set();
  ASSERT_EQ(destroyed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(shared->handlerGone);
  EXPECT_FALSE(shared->goneWhileRunning);
}

}  // namespace
}  // namespace vantrel::test
