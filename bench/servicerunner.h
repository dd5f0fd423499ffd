#pragma once
// Runs the real `vantrel` program for a benchmark: on free loopback ports, in a
// temporary folder of its own with its own settings file and log file.
//
// Readiness is seen by a completed client greeting (a probe client registers
// and leaves), never by connecting and closing, which the service would answer
// by restarting itself.
//
// Ownership: the benchmark owns the object; the object owns the child process
// (stopped with SIGTERM, killed if it will not stop) and the folder (removed).
// Used by one thread.
#include <chrono>
#include <cstdint>
#include <string>

namespace vantrel::bench {

class cBenchService {
 public:
  cBenchService(std::string program, std::string logLevel);
  ~cBenchService();
  cBenchService(const cBenchService&) = delete;
  cBenchService& operator=(const cBenchService&) = delete;

  // The monitoring endpoint's port for the next Start (0, the default: off).
  void SetMonitorPort(unsigned short port) { monitorPort_ = port; }
  // Starts the program and waits until a client can register. On failure the
  // reason is in Error() and the child, if any, has been stopped.
  bool Start(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // SIGTERM, then a bounded wait; SIGKILL when the service will not stop.
  // Returns the exit code, or -1 when it had to be killed.
  int Stop();

  unsigned short ClientsPort() const { return clientsPort_; }
  // The service's process id while it runs (0 before Start and after Stop).
  long Pid() const { return pid_; }
  unsigned short NetPort() const { return netPort_; }
  // CPU time the service's threads that still run have spent so far, in
  // nanoseconds (the scheduler's own count: exact, unlike clock ticks); 0 when
  // it cannot be read.
  std::uint64_t CpuNanoseconds() const;
  const std::string& Error() const { return error_; }
  std::string LogFile() const { return folder_ + "/vantrel.log"; }
  // The settings file the service reads; the benchmark's own clients read the
  // same one.
  std::string SettingsFile() const { return folder_ + "/Vantrel.ini"; }

 private:
  bool Running();

  std::string program_;
  std::string logLevel_;
  std::string folder_;
  unsigned short clientsPort_ = 0;
  unsigned short netPort_ = 0;
  unsigned short monitorPort_ = 0;
  long pid_ = 0;
  std::string error_;
};

// A TCP port that was free a moment ago (loopback, or all addresses).
unsigned short FreeTcpPort(bool loopbackOnly);

// The settings both the services and the benchmark's clients use: the shipped
// defaults, without TLS and without clock corrections, then the lines given to
// AddBenchSetting.
std::string BenchSettingsText();
// A "Key = value" line every service started afterwards reads after the
// defaults (set by the driver before any scenario runs).
void AddBenchSetting(const std::string& line);

}  // namespace vantrel::bench
