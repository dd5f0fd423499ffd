#include "vantrel/service/vantrelconnectionkeeper.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "vantrel/base/log/log.h"

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

void cVantrelConnectionKeeper::Ended(iVantrelConnection* connection) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (owned_.count(connection) == 0) return;
  if (std::find(ended_.begin(), ended_.end(), connection) != ended_.end()) return;
  ended_.push_back(connection);
  wake_.notify_one();
}

void cVantrelConnectionKeeper::ReaperLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !ended_.empty(); });
    if (stopping_) return;
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
