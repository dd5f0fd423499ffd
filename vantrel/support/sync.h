#pragma once
// Small synchronisation classes used across the library (internal: not part of
// the installed API). All are built on the standard thread support; every
// operation may be called from any thread. None of them is copyable.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// A recursive mutex: the owning thread may lock it again, and each lock needs its
// unlock. Owned by whoever declares it (usually as a member guarding that
// object's state); any thread may lock it. The lower-case pair makes it usable
// with std::lock_guard / std::unique_lock; both pairs behave identically.
class RQPMutex {
 public:
  RQPMutex();
  ~RQPMutex();
  RQPMutex(const RQPMutex&) = delete;
  RQPMutex& operator=(const RQPMutex&) = delete;

  // Errors of the underlying mutex are thrown as std::system_error.
  void Lock();
  void Unlock();
  void lock() { Lock(); }
  void unlock() { Unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Scoped lock of an RQPMutex. Lives on the stack of the thread that took the
// lock; holds a pointer to the mutex (not ownership) and unlocks it on scope exit.
class RQPMutexGuard {
 public:
  explicit RQPMutexGuard(RQPMutex& mutex);
  ~RQPMutexGuard();
  RQPMutexGuard(const RQPMutexGuard&) = delete;
  RQPMutexGuard& operator=(const RQPMutexGuard&) = delete;

 private:
  RQPMutex* mutex_;
};

// Manual-reset event: once set it stays set and releases every waiter until it is
// reset. Owned by the object that declares it; any thread may set, reset, read or
// wait. The internal mutex is never held while the caller's code runs, and the
// state is also readable without it (Get).
class RQPAtomicManualEvent {
 public:
  // Resets the event for the life of the guard and sets it again when the scope
  // ends, also when an exception leaves it. Lives on the stack of one thread and
  // refers to (does not own) the event.
  class SetGuard {
   public:
    explicit SetGuard(RQPAtomicManualEvent& event);
    ~SetGuard();
    SetGuard(const SetGuard&) = delete;
    SetGuard& operator=(const SetGuard&) = delete;

   private:
    RQPAtomicManualEvent& event_;
  };

  RQPAtomicManualEvent();
  ~RQPAtomicManualEvent();
  RQPAtomicManualEvent(const RQPAtomicManualEvent&) = delete;
  RQPAtomicManualEvent& operator=(const RQPAtomicManualEvent&) = delete;

  // Always true. Wakes every waiter, after the internal mutex is released.
  bool Set();
  // Always true. Wakes nobody.
  bool Reset();
  bool Get() const;
  // Blocks until the event is set; returns at once when it already is.
  void Wait();
  // Blocks until the event is set or `milliseconds` have passed. Zero or a
  // negative time puts the deadline in the past: the state is tested once.
  // Returns the state at the end.
  bool Wait(long milliseconds);

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::atomic<bool> state_{false};
};

// A lock-free 32-bit counter. Its operations are relaxed: it counts, it orders
// nothing else. Arithmetic wraps around at the 32-bit limits.
class RQPSafeCounter {
 public:
  RQPSafeCounter(long initial = 0);
  RQPSafeCounter(const RQPSafeCounter&) = delete;
  RQPSafeCounter& operator=(const RQPSafeCounter&) = delete;

  long Increment();  // the new value
  long Decrement();  // the new value
  long Get() const;
  void Reset();

 private:
  std::atomic<std::int32_t> value_;
};

// A lock-free boolean. Set exchanges with acquire-release order and returns the
// previous value, so exactly one of several racing callers sees the change.
class RQPSafeFlag {
 public:
  RQPSafeFlag(bool initial = false);
  RQPSafeFlag(const RQPSafeFlag&) = delete;
  RQPSafeFlag& operator=(const RQPSafeFlag&) = delete;

  bool Set(bool value);
  bool Get() const;

 private:
  std::atomic<bool> value_;
};
