#include "vantrel/service/vantrelconnectionkeeper.h"

#include <algorithm>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/memory.h"

namespace {
// Returning freed memory walks every heap: worth it only once a crowd of
// connections has gone, and not more than once a second.
constexpr std::size_t kTrimAfterReaped = 64;
constexpr std::chrono::seconds kTrimInterval{1};
constexpr std::chrono::seconds kReportInterval{1};
}  // namespace

bool cVantrelConnectionKeeper::cReportLimiter::Due(tClock::time_point now, std::size_t& left) {
  if (last != tClock::time_point{} && now - last < kReportInterval) {
    ++held;
    return false;
  }
  left = held;
  held = 0;
  last = now;
  return true;
}

cVantrelConnectionKeeper::cVantrelConnectionKeeper() = default;

cVantrelConnectionKeeper::~cVantrelConnectionKeeper() { Shutdown(); }

void cVantrelConnectionKeeper::Start() {
  reaper_.Start([this] { ReaperLoop(); }, "VTReaper", "cVantrelConnectionKeeper:ReaperThread");
}

void cVantrelConnectionKeeper::Adopt(std::unique_ptr<iVantrelConnection> connection) {
  if (connection == nullptr) return;
  std::lock_guard<std::mutex> guard(mutex_);
  iVantrelConnection* key = connection.get();
  owned_.emplace(key, std::move(connection));
}

bool cVantrelConnectionKeeper::AdoptPending(std::unique_ptr<iVantrelConnection> connection, tPort port,
                                            const std::string& peer) {
  if (connection == nullptr) return false;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    bool room = pending_.size() < limits_.maxPending;
    if (!room) {
      // The oldest connection of the net port that has not spoken yet gives way;
      // a local client may also displace the oldest local client.
      auto victim = std::find_if(pending_.begin(), pending_.end(),
                                 [](const cPending& p) { return p.started && p.port == tPort::eNet; });
      if (victim == pending_.end() && port == tPort::eClients)
        victim = std::find_if(pending_.begin(), pending_.end(), [](const cPending& p) { return p.started; });
      const tClock::time_point now = tClock::now();
      std::size_t left = 0;
      if (victim != pending_.end()) {
        if (displacedReports_.Due(now, left))
          VLOG_WARN(
              "cVantrelConnectionKeeper - %zu connections have yet to complete their handshake or greeting "
              "(MaxPendingConnections): the oldest, from %s, is closed for one from %s (%zu more since the last "
              "report)",
              pending_.size(), victim->peer, peer, left);
        close_.push_back(victim->connection);
        pending_.erase(victim);
        wake_.notify_all();
        room = true;
      } else if (displacedReports_.Due(now, left)) {
        VLOG_WARN(
            "cVantrelConnectionKeeper - %zu local clients have yet to greet (MaxPendingConnections): connection from "
            "%s refused (%zu more since the last report)",
            pending_.size(), peer, left);
      }
    }
    if (room) {
      iVantrelConnection* key = connection.get();
      pending_.push_back(cPending{key, port, tClock::now() + limits_.deadline, peer});
      owned_.emplace(key, std::move(connection));
      return true;
    }
  }
  // Deleted outside the lock: its Terminate reports to this keeper.
  connection.reset();
  return false;
}

void cVantrelConnectionKeeper::Started(iVantrelConnection* connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (cPending& p : pending_) {
    if (p.connection == connection) {
      p.started = true;
      recheck_ = true;  // its deadline may be the next one, or past
      wake_.notify_all();
      return;
    }
  }
}

bool cVantrelConnectionKeeper::Unpend(iVantrelConnection* connection) {
  auto it = std::find_if(pending_.begin(), pending_.end(),
                         [connection](const cPending& p) { return p.connection == connection; });
  if (it == pending_.end()) return false;
  pending_.erase(it);
  return true;
}

void cVantrelConnectionKeeper::Admitted(iVantrelConnection* connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  Unpend(connection);
}

void cVantrelConnectionKeeper::Ended(iVantrelConnection* connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (owned_.count(connection) == 0) return;
  Unpend(connection);
  if (std::find(ended_.begin(), ended_.end(), connection) != ended_.end()) return;
  ended_.push_back(connection);
  wake_.notify_one();
}

cVantrelConnectionKeeper::tClock::time_point cVantrelConnectionKeeper::ExpireLocked(tClock::time_point now) {
  tClock::time_point next = tClock::time_point::max();
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (!it->started) {
      ++it;  // its adopter calls Started at once and wakes the reaper
      continue;
    }
    if (it->deadline > now) {
      next = std::min(next, it->deadline);
      break;  // the rest are younger
    }
    std::size_t left = 0;
    if (expiredReports_.Due(now, left))
      VLOG_WARN(
          "cVantrelConnectionKeeper - connection from %s has not completed its handshake or greeting within %lld ms; "
          "closed (%zu more since the last report)",
          it->peer, static_cast<long long>(limits_.deadline.count()), left);
    close_.push_back(it->connection);
    it = pending_.erase(it);
  }
  return next;
}

cVantrelConnectionKeeper::tClock::time_point cVantrelConnectionKeeper::TrimIfDue(std::unique_lock<std::mutex>& lock) {
  if (reapedSinceTrim_ < kTrimAfterReaped) return tClock::time_point::max();
  const tClock::time_point now = tClock::now();
  // Rate-limited, but never forgotten: a crowd that leaves just after a trim is
  // trimmed for when the interval has passed.
  if (now - lastTrim_ < kTrimInterval) return lastTrim_ + kTrimInterval;
  reapedSinceTrim_ = 0;
  lastTrim_ = now;
  lock.unlock();
  vantrel::platform::gReturnFreeMemory();
  lock.lock();
  return tClock::time_point::max();
}

void cVantrelConnectionKeeper::ReaperLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    recheck_ = false;
    const tClock::time_point next = ExpireLocked(tClock::now());
    if (stopping_) return;
    if (!close_.empty()) {
      std::vector<iVantrelConnection*> closing;
      closing.swap(close_);
      lock.unlock();
      // Only this thread deletes before shutdown, and only what has ended, so
      // these are alive; each reports Ended and is deleted on a later round.
      for (iVantrelConnection* connection : closing) connection->Terminate(false);
      lock.lock();
      continue;
    }
    if (ended_.empty()) {
      const tClock::time_point wakeAt = std::min(next, TrimIfDue(lock));
      if (!ended_.empty() || !close_.empty() || stopping_ || recheck_) continue;
      const auto ready = [this] { return stopping_ || recheck_ || !ended_.empty() || !close_.empty(); };
      if (wakeAt == tClock::time_point::max()) {
        wake_.wait(lock, ready);
      } else {
        wake_.wait_until(lock, wakeAt, ready);
      }
      continue;
    }
    iVantrelConnection* key = ended_.front();
    ended_.pop_front();
    auto node = owned_.extract(key);
    lock.unlock();
    if (!node.empty()) {
      // Joins the connection's threads; they are on their way out.
      node.mapped()->Terminate(true);
      node.mapped().reset();
    }
    lock.lock();
    ++reapedSinceTrim_;
  }
}

void cVantrelConnectionKeeper::StopReaper() {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  reaper_.Join();
}

void cVantrelConnectionKeeper::Shutdown() {
  StopReaper();
  for (;;) {
    std::vector<std::unique_ptr<iVantrelConnection>> left;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      for (auto& [key, connection] : owned_) left.push_back(std::move(connection));
      owned_.clear();
      ended_.clear();
      pending_.clear();
      close_.clear();
    }
    if (left.empty()) return;
    // Terminate everything first so that no connection can still reach one that
    // is being deleted, then delete.
    for (auto& connection : left) connection->Terminate(true);
    left.clear();
  }
}

std::size_t cVantrelConnectionKeeper::Count() {
  std::lock_guard<std::mutex> guard(mutex_);
  return owned_.size();
}

std::size_t cVantrelConnectionKeeper::PendingCount() {
  std::lock_guard<std::mutex> guard(mutex_);
  return pending_.size();
}
