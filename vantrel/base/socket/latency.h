#pragma once
// Latency measurement of received frames. The socket layer computes, for every
// frame it receives, now minus the sender's time stamp in the frame header, and
// hands it to Measure. Measure logs latencies above the log thresholds (at debug
// level above the normal log threshold, as a warning above the log threshold;
// the warnings are rate-limited per socket by the options' cycle latency limit
// through the socket's cLatencyLogLimiter) and calls the derived class's
// OnLatencyAboveThreshold when |latency| exceeds the threshold. The absolute
// value counts because a sender whose clock runs ahead gives a negative latency.
//
// Ownership: configurations are owned by whoever builds them (the clock
// resynchronisation); sockets only borrow them for one read.
// Thread safety: Measure is called concurrently by every reader thread that was
// given the configuration; derived classes must be thread-safe. A limiter
// belongs to one socket and is used only by that socket's reader.
#include <cstdint>

#include "vantrel/base/platform/time.h"

namespace nCommunication::nSocket::nImplementation_sho {

// Per-socket state that keeps latency warnings to one line per cycle.
// Owned by one socket; touched only by the thread that reads from it.
class cLatencyLogLimiter {
 public:
  explicit cLatencyLogLimiter(nTime::cDiff cycle = nTime::cDiff::FromMilliseconds(720000)) : cycle_(cycle) {}
  void SetCycle(nTime::cDiff cycle) { cycle_ = cycle; }
  // True when a warning may be written now; `suppressed` receives the number of
  // warnings held back since the last one written.
  bool Allow(nTime::cPoint now, std::uint64_t& suppressed);

 private:
  nTime::cDiff cycle_;
  bool logged_ = false;
  nTime::cPoint last_;
  std::uint64_t suppressed_ = 0;
};

class iLatencyConfiguration {
 public:
  iLatencyConfiguration(nTime::cDiff threshold, nTime::cDiff logThreshold, nTime::cDiff normalLogThreshold)
      : threshold_(threshold), logThreshold_(logThreshold), normalLogThreshold_(normalLogThreshold) {}
  virtual ~iLatencyConfiguration() = default;

  nTime::cDiff Threshold() const { return threshold_; }
  nTime::cDiff LogThreshold() const { return logThreshold_; }
  nTime::cDiff NormalLogThreshold() const { return normalLogThreshold_; }

  // Called by the socket layer for each received frame. `peer` names the
  // connection in log lines; `limiter` (may be null: no rate limit) is the
  // receiving socket's. Returns true when the handler was called.
  bool Measure(nTime::cDiff latency, const char* peer, cLatencyLogLimiter* limiter = nullptr);

 protected:
  virtual void OnLatencyAboveThreshold(nTime::cDiff latency) = 0;

 private:
  nTime::cDiff threshold_;
  nTime::cDiff logThreshold_;
  nTime::cDiff normalLogThreshold_;
};

// Which connections a configuration is for: local client connections or host links.
enum class tLatencyPath { local, net };

// Where readers find the process's latency configurations. The layer that owns
// them (the clock resynchronisation) installs its source when the library is
// loaded; before that, and in a process without one, readers get null and
// measure nothing. The source must return configurations that live as long as
// the process. Thread-safe; a later install replaces the source.
using tLatencyConfigurationSource = iLatencyConfiguration* (*)(tLatencyPath path);
void gSetLatencyConfigurationSource(tLatencyConfigurationSource source);
iLatencyConfiguration* gLatencyConfiguration(tLatencyPath path);

}  // namespace nCommunication::nSocket::nImplementation_sho
