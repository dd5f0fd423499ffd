#pragma once
// Queue of collectable objects handed from one thread to another, with blocking
// waits.
//
// Ownership: a queued event belongs to the queue; whoever takes it (waitEvent,
// get) owns it from then on. Events still queued when the queue is destroyed or
// cleared are deleted. An event offered to a terminated queue is deleted at once.
//
// States and what they do to waiters:
//  - usable (after construction or InitZ72): waits block until an event arrives;
//  - released (releaseZ72): every wait that would block (now or later) returns at
//    once with htReleased / null; queued events can still be taken and new
//    events are accepted. InitZ72 makes waits block again.
//  - terminated (TerminateZ72): every wait returns at once with htTerminated /
//    null, even when events are queued; putEvent refuses (and deletes) events;
//    get() still drains what is queued. InitZ72 makes the queue usable again.
// Every operation may be called from any thread.
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

#include "vantrel/base/platform/collectable.h"

enum htWaitReturnType : int {
  htTimeout = 0,
  htEvent = 1,
  htReleased = 2,
  htTerminated = 3,
};

class RQPEventQueue {
 public:
  RQPEventQueue();
  virtual ~RQPEventQueue();
  RQPEventQueue(const RQPEventQueue&) = delete;
  RQPEventQueue& operator=(const RQPEventQueue&) = delete;

  void InitZ72();
  // Appends at the tail and wakes one waiter. False when the queue is terminated
  // (the event has then been deleted) or the event is null.
  bool putEvent(RWCollectable* event);
  // Blocks for the head event; null when released or terminated.
  RWCollectable* waitEvent();
  // As above with a time limit in milliseconds; a negative limit waits without
  // limit, zero tests once. `event` is set only for htEvent.
  htWaitReturnType waitEvent(RWCollectable*& event, long milliseconds);
  // Head event without waiting; null when empty.
  RWCollectable* get();
  // Every queued event, oldest first, taken at once: another thread taking
  // events meanwhile gets only ones older than all of these.
  std::deque<RWCollectable*> takeAll();
  bool isEmpty() const;
  std::size_t size() const;
  void releaseZ72();
  void TerminateZ72();
  // Deletes every queued event.
  void clear();

 private:
  mutable std::mutex mutex_;
  std::condition_variable cond_;
  std::deque<RWCollectable*> events_;
  bool released_ = false;
  bool terminated_ = false;
};
