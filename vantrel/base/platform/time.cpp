#include "vantrel/base/platform/time.h"

namespace nTime {

cPoint cPoint::Now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return cPoint(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace nTime

double RQPSysTime() { return static_cast<double>(nTime::cPoint::Now().EpochMicroseconds()) / 1e6; }
