#include "vantrel/support/sync.h"

#include <chrono>

RQPMutex::RQPMutex() = default;
RQPMutex::~RQPMutex() = default;

void RQPMutex::Lock() { mutex_.lock(); }
void RQPMutex::Unlock() { mutex_.unlock(); }

RQPMutexGuard::RQPMutexGuard(RQPMutex& mutex) : mutex_(&mutex) { mutex_->Lock(); }

RQPMutexGuard::~RQPMutexGuard() {
  if (mutex_ != nullptr) mutex_->Unlock();
}

RQPAtomicManualEvent::SetGuard::SetGuard(RQPAtomicManualEvent& event) : event_(event) { event_.Reset(); }
RQPAtomicManualEvent::SetGuard::~SetGuard() { event_.Set(); }

RQPAtomicManualEvent::RQPAtomicManualEvent() = default;
RQPAtomicManualEvent::~RQPAtomicManualEvent() = default;

bool RQPAtomicManualEvent::Set() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_.store(true, std::memory_order_release);
  }
  // Waking after the unlock spares the woken threads an immediate block on the mutex.
  cond_.notify_all();
  return true;
}

bool RQPAtomicManualEvent::Reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  state_.store(false, std::memory_order_release);
  return true;
}

bool RQPAtomicManualEvent::Get() const { return state_.load(std::memory_order_acquire); }

void RQPAtomicManualEvent::Wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  cond_.wait(lock, [this] { return state_.load(std::memory_order_acquire); });
}

bool RQPAtomicManualEvent::Wait(long milliseconds) {
  // Widened with its sign: a negative time gives a deadline in the past.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<std::int64_t>(milliseconds));
  std::unique_lock<std::mutex> lock(mutex_);
  return cond_.wait_until(lock, deadline, [this] { return state_.load(std::memory_order_acquire); });
}

RQPSafeCounter::RQPSafeCounter(long initial) : value_(static_cast<std::int32_t>(initial)) {}

// fetch_add wraps in two's complement; the returned new value is computed the same
// way so that it always equals what was stored.
long RQPSafeCounter::Increment() {
  const std::uint32_t old = static_cast<std::uint32_t>(value_.fetch_add(1, std::memory_order_relaxed));
  return static_cast<std::int32_t>(old + 1u);
}

long RQPSafeCounter::Decrement() {
  const std::uint32_t old = static_cast<std::uint32_t>(value_.fetch_sub(1, std::memory_order_relaxed));
  return static_cast<std::int32_t>(old - 1u);
}

long RQPSafeCounter::Get() const { return value_.load(std::memory_order_relaxed); }

void RQPSafeCounter::Reset() { value_.store(0, std::memory_order_relaxed); }

RQPSafeFlag::RQPSafeFlag(bool initial) : value_(initial) {}

bool RQPSafeFlag::Set(bool value) { return value_.exchange(value, std::memory_order_acq_rel); }

bool RQPSafeFlag::Get() const { return value_.load(std::memory_order_relaxed); }
