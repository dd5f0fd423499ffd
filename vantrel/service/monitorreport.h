#pragma once
// What the monitoring endpoint says, built from a snapshot of the service's
// counters: the /status document (JSON) and the /metrics text (Prometheus
// text exposition format). Pure functions of their arguments: any thread.
#include <chrono>
#include <string>

#include "vantrel/net/servicestats.h"

namespace vantrel::monitor {

// What the service is, fixed once it runs.
struct cServiceIdentity {
  std::string version;
  std::string hostText;  // as peers address it: "lg01~9011"
  unsigned short clientsPort = 0;
  unsigned short netPort = 0;
  unsigned short monitorPort = 0;
  bool tls = false;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

std::string gStatusJson(const cServiceIdentity& identity, const vantrel::stats::cServiceStats::cSnapshot& snapshot);
std::string gMetricsText(const cServiceIdentity& identity, const vantrel::stats::cServiceStats::cSnapshot& snapshot);

}  // namespace vantrel::monitor
