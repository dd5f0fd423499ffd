#pragma once
// cVantrelConnectionKeeper: owns every connection the service creates, from the
// moment it is created (also before its greeting or handshake), and deletes it.
// A connection that ends by itself reports it with Ended; the reaper thread
// then joins its threads (Terminate(true)) and deletes it. At shutdown the
// reaper is stopped first and Shutdown terminates and deletes what is left.
//
// Admission: an accepted connection is pending until it completes its
// handshake (net port) or greeting (clients port). Pending connections are
// bounded in number (across both ports) and in time: one that has not been
// admitted by its deadline is closed, and when the bound is reached the oldest
// pending connection of the net port makes room for the new one - so a crowd of
// connections that never speak holds neither threads nor descriptors for long,
// and a real peer or a local client, which speak at once, still gets in. A new
// net connection never displaces a local client; when only local clients wait,
// it is refused. After many connections have been deleted, the keeper returns
// the heap's free memory to the system.
//
// Owner: CVantrelClass. Owns: the connections and the reaper thread.
// Threads: Adopt/AdoptPending from the accept threads and from whichever thread
// opens a link (under the event server's lock); Ended and Admitted from the
// connections' own threads or the main thread; the reaper, which alone
// terminates displaced or expired connections and deletes ended ones;
// StopReaper/Shutdown on the main thread. The keeper's lock is never held while
// a connection is called.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "vantrel/base/platform/thread.h"
#include "vantrel/net/vantrellinks.h"

class cVantrelConnectionKeeper : public iVantrelConnectionOwner {
 public:
  enum class tPort { eNet, eClients };
  struct cAdmissionLimits {
    std::size_t maxPending = 256;
    std::chrono::milliseconds deadline{10000};
  };

  cVantrelConnectionKeeper();
  // Shuts down if that has not happened.
  ~cVantrelConnectionKeeper() override;
  cVantrelConnectionKeeper(const cVantrelConnectionKeeper&) = delete;
  cVantrelConnectionKeeper& operator=(const cVantrelConnectionKeeper&) = delete;

  // Set before Start.
  void SetAdmissionLimits(cAdmissionLimits limits) { limits_ = limits; }
  // Starts the reaper thread.
  void Start();
  void Adopt(std::unique_ptr<iVantrelConnection> connection) override;
  // Takes an accepted connection that has yet to be admitted; `peer` names it
  // in log lines. False when there is no room: the connection was deleted
  // (closing its socket) and must not be started. Otherwise the caller starts
  // it and then calls Started: until then it is neither displaced nor expired,
  // so it cannot be deleted under the caller's hands.
  bool AdoptPending(std::unique_ptr<iVantrelConnection> connection, tPort port, const std::string& peer);
  void Started(iVantrelConnection* connection);
  void Admitted(iVantrelConnection* connection) override;
  // The reaper will join and delete the connection; a second report is ignored.
  void Ended(iVantrelConnection* connection) override;
  // Ends the reaper thread; from now on ended connections wait for Shutdown.
  void StopReaper();
  // Stops the reaper, then terminates (joining) and deletes every connection,
  // including those adopted while this runs.
  void Shutdown();

  std::size_t Count();
  std::size_t PendingCount();

 private:
  using tClock = std::chrono::steady_clock;
  struct cPending {
    iVantrelConnection* connection;
    tPort port;
    tClock::time_point deadline;
    std::string peer;
    bool started = false;
  };
  // At most one log line per second for each kind of report; the rest are counted.
  struct cReportLimiter {
    tClock::time_point last{};
    std::size_t held = 0;
    // True when a line is due now; `held` then says how many were left out.
    bool Due(tClock::time_point now, std::size_t& left);
  };

  void ReaperLoop();
  // Takes `connection` off the pending list; true when it was there. Caller
  // holds mutex_.
  bool Unpend(iVantrelConnection* connection);
  // Moves the started pending connections whose deadline has passed to close_;
  // returns the earliest deadline still ahead (max when none).
  tClock::time_point ExpireLocked(tClock::time_point now);
  // Returns freed memory once enough connections have been deleted since the
  // last time; when that is too recent, returns when to try again (max: nothing
  // to do). Unlocks `lock` while trimming.
  tClock::time_point TrimIfDue(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable wake_;
  std::unordered_map<iVantrelConnection*, std::unique_ptr<iVantrelConnection>> owned_;
  std::deque<iVantrelConnection*> ended_;
  // Oldest first; all share one deadline span, so also the earliest deadline first.
  std::deque<cPending> pending_;
  // Displaced or expired: terminated by the reaper, which deletes them once they end.
  std::vector<iVantrelConnection*> close_;
  cReportLimiter displacedReports_;
  cReportLimiter expiredReports_;
  std::size_t reapedSinceTrim_ = 0;
  tClock::time_point lastTrim_{};
  bool stopping_ = false;
  bool recheck_ = false;  // a pending connection was started: deadlines to look at again
  cAdmissionLimits limits_;
  vantrel::platform::cThread reaper_;
};
