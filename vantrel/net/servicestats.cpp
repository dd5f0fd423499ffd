#include "vantrel/net/servicestats.h"

#include <algorithm>
#include <utility>

namespace vantrel::stats {

cTrafficTotals cTrafficTotals::Of(const cTrafficCounters& counters) {
  cTrafficTotals totals;
  totals.messagesIn = Read(counters.messagesIn);
  totals.bytesIn = Read(counters.bytesIn);
  totals.messagesOut = Read(counters.messagesOut);
  totals.bytesOut = Read(counters.bytesOut);
  totals.delivered = Read(counters.delivered);
  totals.notDelivered = Read(counters.notDelivered);
  totals.drops = Read(counters.drops);
  totals.queuedBytes = Read(counters.queuedBytes);
  totals.pendingAnswers = Read(counters.pendingAnswers);
  return totals;
}

cTrafficTotals& cTrafficTotals::operator+=(const cTrafficTotals& other) {
  messagesIn += other.messagesIn;
  bytesIn += other.bytesIn;
  messagesOut += other.messagesOut;
  bytesOut += other.bytesOut;
  delivered += other.delivered;
  notDelivered += other.notDelivered;
  drops += other.drops;
  queuedBytes += other.queuedBytes;
  pendingAnswers += other.pendingAnswers;
  return *this;
}

const char* StateName(tLinkState state) {
  switch (state) {
    case tLinkState::eConnecting:
      return "connecting";
    case tLinkState::eConnected:
      return "connected";
    case tLinkState::eClosed:
      return "closed";
  }
  return "unknown";
}

void cConnectionStats::SetName(std::string name) {
  std::lock_guard<std::mutex> guard(mutex_);
  name_ = std::move(name);
}

std::string cConnectionStats::Name() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return name_;
}

std::shared_ptr<cConnectionStats> cServiceStats::AddConnection(tConnectionKind kind, bool outgoing, bool tls) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto connection = std::make_shared<cConnectionStats>(kind, outgoing, tls, ++nextId_);
  connections_.push_back(connection);
  ++(kind == tConnectionKind::eClient ? clientsSeen_ : linksSeen_);
  return connection;
}

void cServiceStats::RemoveConnection(const std::shared_ptr<cConnectionStats>& connection) {
  if (connection == nullptr) return;
  cTrafficTotals totals = cTrafficTotals::Of(connection->counters);
  // Gauges describe the living only.
  totals.queuedBytes = 0;
  totals.pendingAnswers = 0;
  std::lock_guard<std::mutex> guard(mutex_);
  const auto found = std::find(connections_.begin(), connections_.end(), connection);
  if (found == connections_.end()) return;
  connections_.erase(found);
  (connection->kind == tConnectionKind::eClient ? retiredClients_ : retiredLinks_) += totals;
}

std::shared_ptr<cCopyProgress> cServiceStats::AddCopy(cCopyProgress::tDirection direction, std::string source,
                                                      std::string destination, std::string peer,
                                                      std::string requester) {
  auto copy = std::make_shared<cCopyProgress>(direction, std::move(source), std::move(destination), std::move(peer),
                                              std::move(requester));
  std::lock_guard<std::mutex> guard(mutex_);
  copies_.push_back(copy);
  return copy;
}

void cServiceStats::RemoveCopy(const std::shared_ptr<cCopyProgress>& copy, bool succeeded) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto found = std::find(copies_.begin(), copies_.end(), copy);
  if (found == copies_.end()) return;
  copies_.erase(found);
  ++(succeeded ? copiesSucceeded_ : copiesFailed_);
}

cServiceStats::cSnapshot cServiceStats::Snapshot() const {
  cSnapshot snapshot;
  std::lock_guard<std::mutex> guard(mutex_);
  snapshot.connections.assign(connections_.begin(), connections_.end());
  snapshot.copies.assign(copies_.begin(), copies_.end());
  snapshot.retiredClients = retiredClients_;
  snapshot.retiredLinks = retiredLinks_;
  snapshot.clientsSeen = clientsSeen_;
  snapshot.linksSeen = linksSeen_;
  snapshot.copiesSucceeded = copiesSucceeded_;
  snapshot.copiesFailed = copiesFailed_;
  return snapshot;
}

cCopyWatch::cCopyWatch(cServiceStats* registry, cCopyProgress::tDirection direction, std::string source,
                       std::string destination, std::string peer, std::string requester)
    : registry_(registry) {
  if (registry_ != nullptr)
    progress_ =
        registry_->AddCopy(direction, std::move(source), std::move(destination), std::move(peer), std::move(requester));
}

cCopyWatch::~cCopyWatch() {
  if (registry_ != nullptr) registry_->RemoveCopy(progress_, succeeded_);
}

}  // namespace vantrel::stats
