#pragma once
// Counting what arrives at a benchmark's receiver, for a scenario thread that
// waits until a given number has come.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace vantrel::bench {

// Add and End come from the receiving thread, WaitFor from the scenario's;
// Count from either.
class cArrivals {
 public:
  void Add(std::uint64_t arrived = 1) {
    // Sequentially consistent on both sides: the waiter stores the target and
    // then reads the count, this thread adds to the count and then reads the
    // target, so at least one of them sees the other and no wake-up is lost.
    // The receiver takes no lock until the target is reached.
    if (count_.fetch_add(arrived) + arrived >= target_.load()) {
      std::lock_guard<std::mutex> guard(mutex_);
      changed_.notify_all();
    }
  }
  // The stream ended: a waiter stops waiting for more.
  void End() {
    std::lock_guard<std::mutex> guard(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  std::uint64_t Count() const { return count_.load(); }
  // True once at least `target` have arrived; false at the deadline or when
  // the stream ended first.
  bool WaitFor(std::uint64_t target, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    target_ = target;
    return changed_.wait_for(lock, timeout, [&] { return Count() >= target || ended_; }) && Count() >= target;
  }

 private:
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::uint64_t> target_{~std::uint64_t{0}};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ended_ = false;
};

}  // namespace vantrel::bench
