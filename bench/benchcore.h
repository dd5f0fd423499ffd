#pragma once
// The frame of vantrel-bench: named scenarios, the options they run with, and
// the result table that compares the bus with a plain-TCP floor.
//
// A scenario is a function registered under a name at static-initialisation
// time (VANTREL_BENCH_SCENARIO); the driver runs the chosen ones in name order
// and prints one table. Each result row names what was measured, the figure
// for the bus, and, where one exists, the figure of the floor measured in the
// same run, so the ratio is taken under the same machine load.
//
// Ownership: the registry is a process-wide list filled before main() and only
// read afterwards; the result table belongs to the driver. Everything here runs
// on the driver's thread.
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vantrel::bench {

using tClock = std::chrono::steady_clock;

// Options shared by every scenario.
struct cBenchOptions {
  bool quick = false;
  // Upper bound of the measuring time of one case (one size, one path).
  std::chrono::milliseconds caseBudget{2000};
  // The service program the scenarios start.
  std::string serviceProgram;
  // The service's log level; above "info" so that logging stays off the hot path.
  std::string serviceLogLevel = "warning";
  // The long-link scenario's large copy, whose receiving service's memory is
  // watched, in MiB.
  std::size_t largeCopyMiB = 1024;
  // The many-hosts scenario's peer counts; empty: its own list.
  std::vector<int> peerCounts;
  // The crowd scenario's clients held at once, whose cost per client it reports.
  int crowdHeld = 1000;
};

// One line of the result table. `higherIsBetter` says how to read the ratio.
struct cBenchRow {
  std::string scenario;
  std::string what;  // e.g. "local ack p50"
  std::string size;  // e.g. "1 KiB"
  std::string unit;  // e.g. "us", "msg/s"
  double value = 0;  // the bus
  std::optional<double> floor;
  bool higherIsBetter = false;
  std::string note;  // e.g. "12000 samples"
  // A ZeroMQ broker of the same shape, measured in the same run.
  std::optional<double> zeromq = std::nullopt;
};

class cBenchTable {
 public:
  void Add(cBenchRow row) { rows_.push_back(std::move(row)); }
  const std::vector<cBenchRow>& Rows() const { return rows_; }
  // Aligned text table with the ratios bus/floor and bus/ZeroMQ where those
  // were measured.
  std::string Render() const;

 private:
  std::vector<cBenchRow> rows_;
};

// A scenario returns false when it could not run (a service that would not
// start, a lost message); it says why on standard error.
using tScenario = std::function<bool(const cBenchOptions&, cBenchTable&)>;

struct cScenarioEntry {
  std::string name;
  std::string description;
  tScenario run;
};

// The registered scenarios, sorted by name.
std::vector<cScenarioEntry> RegisteredScenarios();
bool RegisterScenario(std::string name, std::string description, tScenario run);

#define VANTREL_BENCH_CONCAT2(a, b) a##b
#define VANTREL_BENCH_CONCAT(a, b) VANTREL_BENCH_CONCAT2(a, b)
// Registers `function` (signature of tScenario) under `name`.
#define VANTREL_BENCH_SCENARIO(name, description, function)                    \
  static const bool VANTREL_BENCH_CONCAT(gVantrelBenchRegistered_, __LINE__) = \
      ::vantrel::bench::RegisterScenario(name, description, function)

// A temporary folder of a scenario, removed with everything in it when the
// object goes; Path() is empty when it could not be made.
class cBenchFolder {
 public:
  explicit cBenchFolder(const std::string& what);
  ~cBenchFolder();
  cBenchFolder(const cBenchFolder&) = delete;
  cBenchFolder& operator=(const cBenchFolder&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Writes a file of `mebibytes` of varied bytes, so that a shifted or repeated
// chunk shows; false when it could not be written.
bool WriteSource(const std::string& path, std::size_t mebibytes);

// Percentiles of a set of samples (nearest rank). `p` in [0, 100]; samples
// need not be sorted; empty samples give 0.
double Percentile(std::vector<double> samples, double p);

// "64 B", "1 KiB", "64 KiB", "1 MiB".
std::string SizeText(std::size_t bytes);

// Microseconds between two points of the steady clock.
inline double Micros(tClock::time_point from, tClock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

}  // namespace vantrel::bench
