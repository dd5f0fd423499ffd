#pragma once
// cAnswerPath: the delivery receipt that one connection attaches to every
// message it routes, so that the message's writer (or whoever drops it) can
// answer the sender without knowing the sender's connection.
//
// Owner: shared between the connection (or session) that made it and the
// messages in flight; it outlives the connection, which closes it before it
// goes, and from then on it answers nobody. Threads: any writer or dropping
// thread settles, possibly under the router's lock; the owner closes. The mutex
// is held while the answer is handed on, which only queues it, so a close never
// returns while an answer is being given to a connection about to go.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>

#include "vantrel/message/vantrelevents.h"

class cAnswerPath final : public iDeliveryReceipt {
 public:
  using tAnswer = std::function<void(const cVantrelMessage& message, bool delivered)>;
  explicit cAnswerPath(tAnswer answer) : answer_(std::move(answer)) {}

  void Settle(const cVantrelMessage& message, bool delivered) override {
    std::lock_guard<std::mutex> guard(mutex_);
    if (answer_) answer_(message, delivered);
  }
  // Answers nobody from now on; waits for an answer being given.
  void Close() {
    std::lock_guard<std::mutex> guard(mutex_);
    answer_ = nullptr;
  }

 private:
  std::mutex mutex_;
  tAnswer answer_;  // guarded by mutex_
};

// Counts what a connection drops and says when to log it: the first drop at
// once, later ones at most once a second, so that a flood cannot fill the log.
// Owner: the connection that drops. Threads: any; lock-free.
class cDropCounter {
 public:
  // Counts one drop; true when a line should be logged now, with `total` drops so far.
  bool Count(std::uint64_t& total) {
    total = count_.fetch_add(1, std::memory_order_relaxed) + 1;
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    std::int64_t due = nextLog_.load(std::memory_order_relaxed);
    return now >= due && nextLog_.compare_exchange_strong(due, now + 1000, std::memory_order_relaxed);
  }
  std::uint64_t Total() const { return count_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> count_{0};
  std::atomic<std::int64_t> nextLog_{0};
};
