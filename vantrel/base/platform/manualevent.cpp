#include "vantrel/base/platform/manualevent.h"

#include <chrono>

RQPManualEvent::RQPManualEvent() = default;
RQPManualEvent::~RQPManualEvent() = default;

RQPManualEvent::RQPManualEvent(const RQPManualEvent& other) : state_(other.Get()) {}

RQPManualEvent& RQPManualEvent::operator=(const RQPManualEvent& other) {
  if (this != &other) {
    if (other.Get())
      Set();
    else
      Reset();
  }
  return *this;
}

bool RQPManualEvent::Set() {
  // Notified under the lock: a waiter that sees the state may destroy the event
  // as soon as it returns, so nothing may touch it after the lock is released.
  std::lock_guard<std::mutex> lock(mutex_);
  state_.store(true, std::memory_order_release);
  cond_.notify_all();
  return true;
}

bool RQPManualEvent::Reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  state_.store(false, std::memory_order_release);
  return true;
}

int RQPManualEvent::Wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  cond_.wait(lock, [&] { return state_.load(std::memory_order_acquire); });
  return 1;
}

int RQPManualEvent::Wait(long milliseconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (milliseconds > 0) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    cond_.wait_until(lock, deadline, [&] { return state_.load(std::memory_order_acquire); });
  }
  return state_.load(std::memory_order_acquire) ? 1 : 0;
}

bool RQPManualEvent::Get() const { return state_.load(std::memory_order_acquire); }
