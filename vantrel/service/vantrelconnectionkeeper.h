#pragma once
// cVantrelConnectionKeeper: owns every connection the service creates, from the
// moment it is created (also before its greeting or handshake), and deletes it.
// A connection that ends by itself reports it with Ended; the reaper thread
// then joins its threads (Terminate(true)) and deletes it. At shutdown the
// reaper is stopped first and Shutdown terminates and deletes what is left.
//
// Owner: CVantrelClass. Owns: the connections and the reaper thread.
// Threads: Adopt from the accept threads and from whichever thread opens a link
// (under the event server's lock); Ended from the connections' own threads or
// the main thread; the reaper; StopReaper/Shutdown on the main thread. The
// keeper's lock is never held while a connection is called.
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "vantrel/base/platform/thread.h"
#include "vantrel/net/vantrellinks.h"

class cVantrelConnectionKeeper : public iVantrelConnectionOwner {
 public:
  cVantrelConnectionKeeper();
  // Shuts down if that has not happened.
  ~cVantrelConnectionKeeper() override;
  cVantrelConnectionKeeper(const cVantrelConnectionKeeper&) = delete;
  cVantrelConnectionKeeper& operator=(const cVantrelConnectionKeeper&) = delete;

  // Starts the reaper thread.
  void Start();
  void Adopt(std::unique_ptr<iVantrelConnection> connection) override;
  // The reaper will join and delete the connection; a second report is ignored.
  void Ended(iVantrelConnection* connection) override;
  // Ends the reaper thread; from now on ended connections wait for Shutdown.
  void StopReaper();
  // Stops the reaper, then terminates (joining) and deletes every connection,
  // including those adopted while this runs.
  void Shutdown();

  std::size_t Count();

 private:
  void ReaperLoop();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::unordered_map<iVantrelConnection*, std::unique_ptr<iVantrelConnection>> owned_;
  std::deque<iVantrelConnection*> ended_;
  bool stopping_ = false;
  vantrel::platform::cThread reaper_;
};
