#include "vantrel/support/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/platform/manualevent.h"

namespace {

using namespace std::chrono_literals;
using vantrel::test::WaitUntil;

// The two manual-reset events promise the same behaviour; one set of cases
// covers both.
template <typename Event>
class ManualResetEvent : public ::testing::Test {};
using ManualResetEvents = ::testing::Types<RQPManualEvent, RQPAtomicManualEvent>;
TYPED_TEST_SUITE(ManualResetEvent, ManualResetEvents);

TYPED_TEST(ManualResetEvent, TimedWaitsTestTheStateAndHonourTheDeadline) {
  TypeParam event;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(event.Wait(0L), 0);
  EXPECT_EQ(event.Wait(-5000L), 0);  // a deadline in the past tests once
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(event.Wait(60L), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 60ms);

  event.Set();
  event.Set();
  event.Wait();  // set twice: returns at once
  EXPECT_EQ(event.Wait(-1L), 1);
  EXPECT_TRUE(event.Get());
  event.Reset();
  event.Reset();
  EXPECT_FALSE(event.Get());
  EXPECT_EQ(event.Wait(0L), 0);
}

TYPED_TEST(ManualResetEvent, OneSetReleasesEveryWaiter) {
  TypeParam event;
  constexpr int kWaiters = 8;
  std::atomic<int> started{0}, released{0}, timedWaitsSet{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kWaiters; ++i) {
    threads.emplace_back([&, i] {
      ++started;
      if (i % 2 == 0)
        event.Wait();
      else
        timedWaitsSet += event.Wait(20000L) ? 1 : 0;
      ++released;
    });
  }
  ASSERT_TRUE(WaitUntil([&] { return started.load() == kWaiters; }));
  EXPECT_EQ(released.load(), 0);
  event.Set();
  EXPECT_TRUE(WaitUntil([&] { return released.load() == kWaiters; }, 5s));
  for (auto& t : threads) t.join();
  EXPECT_EQ(timedWaitsSet.load(), kWaiters / 2);
}

TEST(AtomicManualEvent, SetGuardResetsForItsScopeAndSetsAgainEvenOnException) {
  RQPAtomicManualEvent event;
  event.Set();
  try {
    RQPAtomicManualEvent::SetGuard guard(event);
    EXPECT_FALSE(event.Get());
    throw std::runtime_error("leave the scope");
  } catch (const std::runtime_error&) {
  }
  EXPECT_TRUE(event.Get());
}

TEST(SafeCounterAndFlag, WrapAtThirtyTwoBitsAndLoseNothingUnderRaces) {
  RQPSafeCounter top(INT32_MAX);
  EXPECT_EQ(top.Increment(), static_cast<long>(INT32_MIN));
  EXPECT_EQ(top.Decrement(), static_cast<long>(INT32_MAX));

  RQPSafeCounter counter;
  RQPSafeFlag flag;
  std::atomic<int> winners{0};
  constexpr int kThreads = 4, kEach = 20000;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      if (!flag.Set(true)) ++winners;  // Set returns the previous value
      for (int n = 0; n < kEach; ++n) counter.Increment();
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter.Get(), kThreads * kEach);
  EXPECT_EQ(winners.load(), 1);
  EXPECT_TRUE(flag.Set(false));
  EXPECT_FALSE(flag.Get());
}

TEST(Mutex, IsReentrantAndNeedsOneUnlockPerLock) {
  RQPMutex mutex;
  std::atomic<bool> acquired{false};
  std::thread other;
  {
    RQPMutexGuard outer(mutex);
    {
      std::lock_guard<RQPMutex> inner(mutex);  // same thread: no deadlock
      other = std::thread([&] {
        RQPMutexGuard guard(mutex);
        acquired = true;
      });
    }
    // Still held once: the other thread must stay out.
    EXPECT_FALSE(WaitUntil([&] { return acquired.load(); }, 100ms));
  }
  EXPECT_TRUE(WaitUntil([&] { return acquired.load(); }));
  other.join();
}

}  // namespace
