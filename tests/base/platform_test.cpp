// Threads and the event queue: the hand-over points between every thread of
// the system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/platform/eventqueue.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/thread.h"

using namespace std::chrono_literals;
using vantrel::platform::cThread;

namespace {

struct Item : RWCollectable {
  explicit Item(int v, std::atomic<int>* deletedCount = nullptr) : value(v), deleted(deletedCount) {}
  ~Item() override {
    if (deleted) ++*deleted;
  }
  int value;
  std::atomic<int>* deleted;
};

int ValueOf(RWCollectable* c) {
  int v = static_cast<Item*>(c)->value;
  delete c;
  return v;
}

constexpr int kWaiters = 5;

// Starts waiters on `q`, calls `wake` and counts the waiters whose wait ended with `expected`.
int WaitersEndingWith(RQPEventQueue& q, htWaitReturnType expected, long limitMs, void (RQPEventQueue::*wake)()) {
  std::atomic<int> count{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i)
    waiters.emplace_back([&] {
      RWCollectable* ev = nullptr;
      if (q.waitEvent(ev, limitMs) == expected) ++count;
    });
  (q.*wake)();
  for (auto& t : waiters) t.join();
  return count.load();
}

}  // namespace

TEST(EventQueue, FifoGetAndTimeout) {
  RQPEventQueue q;
  EXPECT_EQ(q.get(), nullptr);
  RWCollectable* ev = nullptr;
  EXPECT_EQ(q.waitEvent(ev, 0), htTimeout);
  EXPECT_EQ(q.waitEvent(ev, 20), htTimeout);

  EXPECT_FALSE(q.putEvent(nullptr));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(q.putEvent(new Item(i)));
  EXPECT_EQ(q.size(), 3u);
  EXPECT_EQ(ValueOf(q.get()), 0);
  ASSERT_EQ(q.waitEvent(ev, 0), htEvent);
  EXPECT_EQ(ValueOf(ev), 1);
  EXPECT_EQ(ValueOf(q.waitEvent()), 2);
  EXPECT_TRUE(q.isEmpty());
}

TEST(EventQueue, ReleaseWakesEveryWaiterAndStaysUntilInit) {
  RQPEventQueue q;
  EXPECT_EQ(WaitersEndingWith(q, htReleased, -1, &RQPEventQueue::releaseZ72), kWaiters);

  // Released: a later wait does not block, queued events are still handed out.
  EXPECT_EQ(q.waitEvent(), nullptr);
  q.putEvent(new Item(7));
  EXPECT_EQ(ValueOf(q.waitEvent()), 7);

  q.InitZ72();
  RWCollectable* ev = nullptr;
  EXPECT_EQ(q.waitEvent(ev, 10), htTimeout);
}

TEST(EventQueue, TerminateWakesWaitersAndRefusesEvents) {
  std::atomic<int> deleted{0};
  {
    RQPEventQueue q;
    EXPECT_EQ(WaitersEndingWith(q, htTerminated, 60000, &RQPEventQueue::TerminateZ72), kWaiters);
    EXPECT_FALSE(q.putEvent(new Item(2, &deleted)));
    EXPECT_EQ(deleted.load(), 1);

    q.InitZ72();
    EXPECT_TRUE(q.putEvent(new Item(3, &deleted)));
    EXPECT_TRUE(q.putEvent(new Item(4, &deleted)));
    q.TerminateZ72();
    // Terminated: waits end at once even with events queued; get() drains.
    EXPECT_EQ(q.waitEvent(), nullptr);
    EXPECT_EQ(ValueOf(q.get()), 3);
    EXPECT_EQ(q.size(), 1u);
  }
  EXPECT_EQ(deleted.load(), 3);  // 2 refused, 3 taken and deleted, 4 deleted with the queue
}

TEST(EventQueue, ConcurrentProducersKeepEachProducersOrder) {
  RQPEventQueue q;
  constexpr int kProducers = 4, kPerProducer = 5000;
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p)
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) q.putEvent(new Item(p * kPerProducer + i));
    });
  std::vector<int> last(kProducers, -1);
  int received = 0;
  while (received < kProducers * kPerProducer) {
    RWCollectable* ev = nullptr;
    ASSERT_EQ(q.waitEvent(ev, 10000), htEvent);
    const int v = ValueOf(ev);
    const int p = v / kPerProducer, i = v % kPerProducer;
    ASSERT_GT(i, last[p]) << "producer " << p << " reordered";
    last[p] = i;
    ++received;
  }
  for (auto& t : producers) t.join();
  EXPECT_TRUE(q.isEmpty());
}

TEST(Thread, RunsOnceJoinsAndNamesItself) {
  cThread t;
  EXPECT_TRUE(t.Join());  // never started: returns at once
  std::string seenName;
  const auto body = [&] { seenName = cThread::CurrentName(); };
  t.Start(body, "VTTest", "ThreadTest:Body");
  EXPECT_TRUE(t.Join());
  EXPECT_EQ(seenName, "VTTest");
  EXPECT_TRUE(t.Finished());
  EXPECT_THAT([&] { t.Start([] {}, "again", "again"); },
              testing::ThrowsMessage<std::logic_error>("this object doesn't support thread re-start."));
  t.Reset();
  t.Start(body, "VTTest2", "ThreadTest:Again");
  EXPECT_TRUE(t.Join());
  EXPECT_EQ(seenName, "VTTest2");
}

TEST(Thread, JoinOnItselfReturnsAndExceptionsAreCaught) {
  vantrel::test::LogCapture log;
  cThread t;
  std::atomic<int> selfJoin{-1};
  t.Start(
      [&] {
        selfJoin = t.Join() ? 1 : 0;
        throw std::runtime_error("boom in body");
      },
      "VTThrow", "ThreadTest:Throw");
  t.Join();
  EXPECT_EQ(selfJoin.load(), 0);
  EXPECT_TRUE(log.contains("Exception: boom in body"));
}

TEST(Thread, TinyStackIsRaisedAndEveryJoinerReturns) {
  vantrel::test::LogCapture log;
  RQPManualEvent release;
  cThread t;
  t.Start([&] { release.Wait(); }, "VTStack", "ThreadTest:Stack", nParallel::nImplementation_sho::cThreadAttributes(1));
  EXPECT_TRUE(log.contains("raised"));
  EXPECT_FALSE(t.JoinFor(nTime::cDiff::FromMilliseconds(20)));
  std::atomic<int> joined{0};
  std::thread a([&] { joined += t.Join(); });
  std::thread b([&] { joined += t.JoinFor(nTime::cDiff::FromSeconds(10)); });
  release.Set();
  a.join();
  b.join();
  EXPECT_EQ(joined.load(), 2);
  EXPECT_TRUE(t.Finished());
}
