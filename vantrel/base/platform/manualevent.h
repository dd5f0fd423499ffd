#pragma once
// Manual-reset event: once set it stays set and releases every waiter until it
// is reset. Any thread may call any operation.
#include <atomic>
#include <condition_variable>
#include <mutex>

class RQPManualEvent {
 public:
  RQPManualEvent();
  ~RQPManualEvent();
  // Copies the state only (a new object with its own waiters).
  RQPManualEvent(const RQPManualEvent& other);
  RQPManualEvent& operator=(const RQPManualEvent& other);

  bool Set();    // always true; wakes every waiter
  bool Reset();  // always true; wakes nobody
  // Blocks until set; returns 1.
  int Wait();
  // Blocks until set or `milliseconds` elapse. Returns 0 when the time elapsed
  // with the event still reset, 1 when it is set. Zero or a negative time tests once.
  int Wait(long milliseconds);
  bool Get() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable cond_;
  std::atomic<bool> state_{false};
};
