#include "vantrel/base/socket/latency.h"

#include <atomic>

#include "vantrel/base/log/log.h"

namespace nCommunication::nSocket::nImplementation_sho {

namespace {
std::atomic<tLatencyConfigurationSource> gSource{nullptr};
}  // namespace

void gSetLatencyConfigurationSource(tLatencyConfigurationSource source) {
  gSource.store(source, std::memory_order_release);
}

iLatencyConfiguration* gLatencyConfiguration(tLatencyPath path) {
  const auto source = gSource.load(std::memory_order_acquire);
  return source == nullptr ? nullptr : source(path);
}

bool cLatencyLogLimiter::Allow(nTime::cPoint now, std::uint64_t& suppressed) {
  if (!logged_ || cycle_.IsZero() || now - last_ >= cycle_) {
    suppressed = suppressed_;
    suppressed_ = 0;
    logged_ = true;
    last_ = now;
    return true;
  }
  ++suppressed_;
  return false;
}

bool iLatencyConfiguration::Measure(nTime::cDiff latency, const char* peer, cLatencyLogLimiter* limiter) {
  const nTime::cDiff magnitude = latency.Abs();
  const char* who = peer ? peer : "";
  if (magnitude > logThreshold_) {
    std::uint64_t suppressed = 0;
    if (!limiter || limiter->Allow(nTime::cPoint::Now(), suppressed))
      VLOG_WARN("iLatencyConfiguration::Measure - latency %lld ms from %s (%llu more above %lld ms since last line)",
                static_cast<long long>(latency.Milliseconds()), who, static_cast<unsigned long long>(suppressed),
                static_cast<long long>(logThreshold_.Milliseconds()));
  } else if (magnitude > normalLogThreshold_) {
    VLOG_DEBUG("iLatencyConfiguration::Measure - latency %lld ms from %s",
               static_cast<long long>(latency.Milliseconds()), who);
  }
  if (magnitude > threshold_) {
    OnLatencyAboveThreshold(latency);
    return true;
  }
  return false;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
