#pragma once
// Latency measurement of received frames. The socket layer computes, for every
// frame it receives, now minus the sender's time stamp in the frame header, and
// hands it to Measure. Measure logs latencies above the log threshold (at debug
// level above the normal log threshold, as a warning above the log threshold,
// rate-limited per socket by the options' cycle latency limit) and calls the
// derived class's OnLatencyAboveThreshold when |latency| exceeds the threshold.
//
// Thread safety: Measure is called concurrently by every reader thread that was
// given the configuration; derived classes must be thread-safe.
#include "vantrel/base/export.h"
#include "vantrel/base/platform/time.h"

namespace nCommunication::nSocket::nImplementation_sho {

class VANTREL_API iLatencyConfiguration {
 public:
  iLatencyConfiguration(nTime::cDiff threshold, nTime::cDiff logThreshold, nTime::cDiff normalLogThreshold)
      : threshold_(threshold), logThreshold_(logThreshold), normalLogThreshold_(normalLogThreshold) {}
  virtual ~iLatencyConfiguration() = default;

  nTime::cDiff Threshold() const { return threshold_; }
  nTime::cDiff LogThreshold() const { return logThreshold_; }
  nTime::cDiff NormalLogThreshold() const { return normalLogThreshold_; }

  // Called by the socket layer for each received frame. `peer` names the
  // connection in log lines. Returns true when the handler was called.
  bool Measure(nTime::cDiff latency, const char* peer);

 protected:
  virtual void OnLatencyAboveThreshold(nTime::cDiff latency) = 0;

 private:
  nTime::cDiff threshold_;
  nTime::cDiff logThreshold_;
  nTime::cDiff normalLogThreshold_;
};

}  // namespace nCommunication::nSocket::nImplementation_sho
