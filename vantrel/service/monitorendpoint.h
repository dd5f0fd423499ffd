#pragma once
// cMonitorEndpoint: the service's monitoring endpoint over HTTP.
//   GET /healthz   200 "ok" while the service serves, 503 otherwise
//   GET /status    the service, its clients, links and copies in flight (JSON)
//   GET /metrics   the same counters in Prometheus text format
// Anything else is answered 404 (unknown path) or 400 (a request that does not
// parse); a request body or header block beyond a few KiB is refused. A client
// that sends slowly or reads slowly is cut off after a short time-out, and
// requests are served by a small, fixed set of threads, so nothing a client of
// the endpoint does reaches the service's own threads: they only bump atomic
// counters that the endpoint reads.
//
// Owner: the service object. Owns the HTTP server, its accept thread
// ("VTMonitor") and its workers ("VTMonWork"). Threads: Start and Stop on the
// service's main thread; the handlers run on the workers and read only the
// registry (thread-safe) and the identity (fixed before Start).
#include <functional>
#include <memory>
#include <string>

#include "vantrel/net/servicestats.h"
#include "vantrel/service/monitorreport.h"

namespace vantrel::monitor {

class cMonitorEndpoint {
 public:
  // `healthy` is asked on every /healthz; it must be thread-safe.
  cMonitorEndpoint(std::shared_ptr<const vantrel::stats::cServiceStats> stats, std::function<bool()> healthy);
  // Stops.
  ~cMonitorEndpoint();
  cMonitorEndpoint(const cMonitorEndpoint&) = delete;
  cMonitorEndpoint& operator=(const cMonitorEndpoint&) = delete;

  // Listens on `address` (numeric) and `port` (0: a free port) and serves. False,
  // with the reason in `error`, when it cannot listen; nothing runs then.
  // `identity.monitorPort` is filled in with the port. Call once.
  bool Start(const std::string& address, unsigned short port, cServiceIdentity identity, std::string& error);
  // The port it listens on; 0 before Start or after a failed one.
  unsigned short Port() const { return port_; }
  // Closes the listener and joins every thread; any number of calls.
  void Stop();

 private:
  class cServer;
  const std::shared_ptr<const vantrel::stats::cServiceStats> stats_;
  const std::function<bool()> healthy_;
  unsigned short port_ = 0;
  std::unique_ptr<cServer> server_;
};

}  // namespace vantrel::monitor
