#pragma once
// What vantrel-cli reads from the local service's monitoring endpoint: the
// `status` subcommand (the service, its clients, links and copies in flight as
// tables) and the progress of a copy while it runs.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace vantrel::cli {

// Where the endpoint is: the settings' MonitorAddress and MonitorPort unless
// the command line names another port.
struct cMonitorTarget {
  std::string address;
  unsigned short port = 0;
  // Adds --monitor-port to `app`.
  void Configure(CLI::App& app);
  // Fills in what the command line left open from the settings; after parsing.
  void Resolve();

 private:
  bool portGiven_ = false;
};

// Byte counts for people: "1.5 GB", "812 KB", "17 B".
std::string HumanBytes(double bytes);

// The `status` subcommand. Register adds it to `app`; after parsing, Chosen
// tells whether it was picked and Run prints the tables (exit code 3 when the
// endpoint cannot be reached). Needs no registration with the service.
class cStatusCommand {
 public:
  void Register(CLI::App& app);
  bool Chosen() const { return chosen_; }
  int Run();

 private:
  cMonitorTarget target_;
  bool json_ = false;
  bool chosen_ = false;
};

// The progress of one copy this client asked for, shown while it runs: a bar
// on a terminal (bytes, percentage, rate, time left), plain lines with
// --progress otherwise, nothing by default when standard error is not a
// terminal. Owner: the copy subcommand; one thread.
class cCopyProgressView {
 public:
  // Adds --progress and --monitor-port to `app`.
  void Configure(CLI::App& app);
  // The copy of `source` (absolute) to `destination` on `host` has been asked for.
  void Begin(const std::string& source, const std::string& host, const std::string& destination,
             std::optional<std::uint64_t> size);
  // How long to wait between two updates.
  std::chrono::milliseconds Interval() const;
  // Asks the endpoint how far the copy is and shows it. True when more bytes are
  // done than at the last call (the copy is moving).
  bool Update();
  // The copy has ended: finishes the bar's line.
  void End();

 private:
  std::optional<std::uint64_t> poll();
  void show(std::uint64_t done, std::uint64_t total, double seconds);

  cMonitorTarget target_;
  bool lines_ = false;     // --progress
  bool terminal_ = false;  // standard error is a terminal
  bool shown_ = false;
  std::string source_, host_, destination_;
  std::uint64_t size_ = 0;
  std::uint64_t lastDone_ = 0;
  std::chrono::steady_clock::time_point start_;
};

}  // namespace vantrel::cli
