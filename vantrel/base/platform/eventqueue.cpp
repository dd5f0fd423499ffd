#include "vantrel/base/platform/eventqueue.h"

#include <chrono>

#include "vantrel/base/log/log.h"

RQPEventQueue::RQPEventQueue() = default;

RQPEventQueue::~RQPEventQueue() { clear(); }

void RQPEventQueue::InitZ72() {
  std::lock_guard<std::mutex> lock(mutex_);
  released_ = false;
  terminated_ = false;
}

bool RQPEventQueue::putEvent(RWCollectable* event) {
  if (!event) return false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!terminated_) {
      events_.push_back(event);
      cond_.notify_one();
      return true;
    }
  }
  VLOG_DEBUG("RQPEventQueue::putEvent - queue terminated, event %s dropped", event->nameOf());
  delete event;
  return false;
}

RWCollectable* RQPEventQueue::waitEvent() {
  RWCollectable* event = nullptr;
  return waitEvent(event, -1) == htEvent ? event : nullptr;
}

htWaitReturnType RQPEventQueue::waitEvent(RWCollectable*& event, long milliseconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto ready = [&] { return terminated_ || released_ || !events_.empty(); };
  if (milliseconds < 0) {
    cond_.wait(lock, ready);
  } else if (milliseconds > 0) {
    cond_.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds), ready);
  }
  if (terminated_) return htTerminated;
  if (!events_.empty()) {
    event = events_.front();
    events_.pop_front();
    return htEvent;
  }
  return released_ ? htReleased : htTimeout;
}

RWCollectable* RQPEventQueue::get() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (events_.empty()) return nullptr;
  RWCollectable* event = events_.front();
  events_.pop_front();
  return event;
}

std::deque<RWCollectable*> RQPEventQueue::takeAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::deque<RWCollectable*> taken;
  taken.swap(events_);
  return taken;
}

bool RQPEventQueue::isEmpty() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.empty();
}

std::size_t RQPEventQueue::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_.size();
}

void RQPEventQueue::releaseZ72() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
  }
  cond_.notify_all();
}

void RQPEventQueue::TerminateZ72() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    terminated_ = true;
  }
  cond_.notify_all();
}

void RQPEventQueue::clear() {
  std::deque<RWCollectable*> drained;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    drained.swap(events_);
  }
  for (RWCollectable* e : drained) delete e;
}
