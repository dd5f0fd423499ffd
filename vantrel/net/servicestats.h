#pragma once
// What a running service counts, for its monitoring endpoint.
//
// Every connection owns one cConnectionStats, shared with the service's
// cServiceStats registry while the connection lives. The connection's threads
// bump its counters with relaxed atomic adds (no lock, no allocation); the
// registry only reads them. In and out counters sit on cache lines of their
// own, because the reader and the writer of one connection update them at once.
// A copy between hosts is a cCopyProgress, registered for as long as it runs.
//
// When a connection goes, its counters are added to the registry's retired
// totals, so that service-wide totals never go backwards.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantrel::stats {

inline void Add(std::atomic<std::uint64_t>& counter, std::uint64_t amount = 1) {
  counter.fetch_add(amount, std::memory_order_relaxed);
}
inline std::uint64_t Read(const std::atomic<std::uint64_t>& counter) { return counter.load(std::memory_order_relaxed); }

// Monotonic counts of one connection, and its queue gauge.
struct cTrafficCounters {
  // Frames received from the peer (a client's or another service's).
  alignas(64) std::atomic<std::uint64_t> messagesIn{0};
  std::atomic<std::uint64_t> bytesIn{0};
  // Frames written to the peer; answers are counted by kind besides.
  alignas(64) std::atomic<std::uint64_t> messagesOut{0};
  std::atomic<std::uint64_t> bytesOut{0};
  std::atomic<std::uint64_t> delivered{0};     // "delivered" answers written
  std::atomic<std::uint64_t> notDelivered{0};  // "not delivered" answers written
  // Messages refused at the queue bound or dropped as unsendable.
  alignas(64) std::atomic<std::uint64_t> drops{0};
  // Bytes of messages waiting to be written (a gauge, not a count).
  std::atomic<std::uint64_t> queuedBytes{0};
  // Requests sent on a link that wait for the peer's answer (a gauge).
  std::atomic<std::uint64_t> pendingAnswers{0};
};

// Plain values of the counters at one moment.
struct cTrafficTotals {
  std::uint64_t messagesIn = 0, bytesIn = 0, messagesOut = 0, bytesOut = 0;
  std::uint64_t delivered = 0, notDelivered = 0, drops = 0, queuedBytes = 0, pendingAnswers = 0;
  static cTrafficTotals Of(const cTrafficCounters& counters);
  cTrafficTotals& operator+=(const cTrafficTotals& other);
};

enum class tConnectionKind { eClient, eLink };
enum class tLinkState { eConnecting, eConnected, eClosed };
const char* StateName(tLinkState state);

// One connection's counters and what it is. Owner: shared by the connection and
// the registry. Threads: counters from any thread of the connection; the name
// and state are set by the connection's threads and read by the endpoint's, the
// name under the mutex.
class cConnectionStats {
 public:
  cConnectionStats(tConnectionKind kindOf, bool isOutgoing, bool withTls, std::uint64_t number = 0)
      : kind(kindOf), outgoing(isOutgoing), tls(withTls), id(number) {}

  const tConnectionKind kind;
  const bool outgoing;  // links: opened by this service
  const bool tls;
  // Unique within its registry (names may repeat); 0 outside one.
  const std::uint64_t id;
  cTrafficCounters counters;

  // A client's name, or a link's peer host text.
  void SetName(std::string name);
  std::string Name() const;
  void SetState(tLinkState state) { state_.store(state, std::memory_order_relaxed); }
  tLinkState State() const { return state_.load(std::memory_order_relaxed); }
  const std::chrono::steady_clock::time_point since = std::chrono::steady_clock::now();

 private:
  mutable std::mutex mutex_;
  std::string name_;  // guarded by mutex_
  std::atomic<tLinkState> state_{tLinkState::eConnecting};
};

// One file copy over a link, as far as it has come. Owner: shared by the file
// thread that runs the copy and the registry. Threads: that thread writes,
// the endpoint reads; the texts are fixed at construction.
struct cCopyProgress {
  enum class tDirection { eSend, eReceive };
  cCopyProgress(tDirection way, std::string from, std::string to, std::string host, std::string by)
      : direction(way),
        source(std::move(from)),
        destination(std::move(to)),
        peer(std::move(host)),
        requester(std::move(by)) {}
  const tDirection direction;
  const std::string source;       // the sender's path (empty on the receiving side)
  const std::string destination;  // the receiver's path
  const std::string peer;         // the other host
  const std::string requester;    // the client (sending side) or host (receiving side) that asked
  const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  std::atomic<std::uint64_t> bytesDone{0};
  std::atomic<std::uint64_t> bytesTotal{0};  // 0 until known
};

// Everything one service counts. Owner: the service (shared with its
// connection context). Threads: any; one mutex guards the lists and the
// retired totals, never held while anything else is called.
class cServiceStats {
 public:
  std::shared_ptr<cConnectionStats> AddConnection(tConnectionKind kind, bool outgoing, bool tls);
  // The connection is being deleted: its counts join the retired totals.
  void RemoveConnection(const std::shared_ptr<cConnectionStats>& connection);
  std::shared_ptr<cCopyProgress> AddCopy(cCopyProgress::tDirection direction, std::string source,
                                         std::string destination, std::string peer, std::string requester);
  // The copy ended with `succeeded`.
  void RemoveCopy(const std::shared_ptr<cCopyProgress>& copy, bool succeeded);

  struct cSnapshot {
    std::vector<std::shared_ptr<const cConnectionStats>> connections;
    std::vector<std::shared_ptr<const cCopyProgress>> copies;
    cTrafficTotals retiredClients, retiredLinks;
    std::uint64_t clientsSeen = 0, linksSeen = 0;
    std::uint64_t copiesSucceeded = 0, copiesFailed = 0;
  };
  // The live entries (counters keep moving while the caller reads them) and
  // the totals of those gone.
  cSnapshot Snapshot() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<cConnectionStats>> connections_;
  std::vector<std::shared_ptr<cCopyProgress>> copies_;
  cTrafficTotals retiredClients_, retiredLinks_;
  std::uint64_t clientsSeen_ = 0, linksSeen_ = 0;
  std::uint64_t copiesSucceeded_ = 0, copiesFailed_ = 0;
  std::uint64_t nextId_ = 0;
};

// A copy's registration for as long as the object lives; does nothing without
// a registry. Used by the one file thread that runs the copy.
class cCopyWatch {
 public:
  cCopyWatch(cServiceStats* registry, cCopyProgress::tDirection direction, std::string source, std::string destination,
             std::string peer, std::string requester);
  ~cCopyWatch();
  cCopyWatch(const cCopyWatch&) = delete;
  cCopyWatch& operator=(const cCopyWatch&) = delete;
  // Null without a registry.
  cCopyProgress* Progress() const { return progress_.get(); }
  void Finished(bool succeeded) { succeeded_ = succeeded; }

 private:
  cServiceStats* const registry_;
  std::shared_ptr<cCopyProgress> progress_;
  bool succeeded_ = false;
};

}  // namespace vantrel::stats
