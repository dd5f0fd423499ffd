#pragma once
// Time spans and points. A span is kept in microseconds; spans built from
// milliseconds take a double so that the settings' integers widen exactly.
#include <chrono>
#include <cstdint>

namespace nTime {

class cDiff {
 public:
  constexpr cDiff() = default;
  // From milliseconds.
  static constexpr cDiff FromMilliseconds(double ms) { return cDiff(static_cast<std::int64_t>(ms * 1000.0)); }
  static constexpr cDiff FromMicroseconds(std::int64_t us) { return cDiff(us); }
  static constexpr cDiff FromSeconds(double s) { return cDiff(static_cast<std::int64_t>(s * 1e6)); }

  constexpr std::int64_t Microseconds() const { return us_; }
  constexpr std::int64_t Milliseconds() const { return us_ / 1000; }
  constexpr double Seconds() const { return static_cast<double>(us_) / 1e6; }
  constexpr cDiff Abs() const { return cDiff(us_ < 0 ? -us_ : us_); }
  constexpr bool IsZero() const { return us_ == 0; }
  std::chrono::microseconds Chrono() const { return std::chrono::microseconds(us_); }

  friend constexpr auto operator<=>(cDiff, cDiff) = default;
  friend constexpr cDiff operator+(cDiff a, cDiff b) { return cDiff(a.us_ + b.us_); }
  friend constexpr cDiff operator-(cDiff a, cDiff b) { return cDiff(a.us_ - b.us_); }
  friend constexpr cDiff operator*(cDiff a, double f) { return cDiff(static_cast<std::int64_t>(a.us_ * f)); }

 private:
  constexpr explicit cDiff(std::int64_t us) : us_(us) {}
  std::int64_t us_ = 0;
};

// A wall-clock instant (microseconds since the Unix epoch).
class cPoint {
 public:
  constexpr cPoint() = default;
  static cPoint Now();
  static constexpr cPoint FromEpochMicroseconds(std::int64_t us) { return cPoint(us); }
  constexpr std::int64_t EpochMicroseconds() const { return us_; }

  friend constexpr auto operator<=>(cPoint, cPoint) = default;
  friend constexpr cDiff operator-(cPoint a, cPoint b) { return cDiff::FromMicroseconds(a.us_ - b.us_); }
  friend constexpr cPoint operator+(cPoint a, cDiff d) { return cPoint(a.us_ + d.Microseconds()); }

 private:
  constexpr explicit cPoint(std::int64_t us) : us_(us) {}
  std::int64_t us_ = 0;
};

}  // namespace nTime

// Seconds since the Unix epoch, with sub-second precision (wall clock).
double RQPSysTime();
