#pragma once
// Runs the real `vantrel` program for integration tests: on free ports, with its
// own temporary folder, settings file and log file. Readiness is seen in the log
// ("vantrel ready"), never by connecting and closing, which the service answers
// by restarting itself.
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/frame.h"
#include "tests/support/testutil.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/service/vantrelclass.h"

namespace vantrel::test {

// A service core inside the test process, on free ports, with `extra` settings
// lines after the test defaults; the restart rule only counts. The settings
// object is a temporary: the service must keep its own copy.
class InProcessService : public CVantrelClass {
 public:
  explicit InProcessService(const std::string& extra = "");
  ~InProcessService() override { f_TerminateZ2(); }
  void f_Terminate() override { f_TerminateInternal(); }
  std::atomic<int> restarts{0};

 protected:
  void RestartProcess() override { ++restarts; }
};

// Owner: the test. Owns the process (and a successor it relaunched), its folder
// and files. Used by the test thread only.
class ServiceProcess {
 public:
  // Picks two free ports and writes a default settings file with `iniExtra`
  // lines appended.
  explicit ServiceProcess(const std::string& iniExtra = "");
  // Kills the process (and a successor it relaunched) when still running.
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Extra environment of the process (set before Start).
  void setEnv(const std::string& name, const std::string& value) { env_[name] = value; }
  // 0 leaves a port to the program's default.
  void setPorts(unsigned short clientsPort, unsigned short netPort);
  // Starts the program through `launcher`: a program and its arguments that
  // ends by replacing itself with the command line that follows them.
  void setLauncher(std::vector<std::string> launcher) { launcher_ = std::move(launcher); }

  // Spawns the program; false when it cannot be started.
  bool start();
  // Spawns the program and waits for its readiness line.
  bool launch();
  bool waitLog(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(15)) const;
  std::size_t logCount(const std::string& text) const;
  std::string log() const;

  // SIGTERM and wait; the exit code (or 128 + signal), nothing on time-out.
  std::optional<int> stop(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  std::optional<int> waitExit(std::chrono::milliseconds timeout);
  void kill();
  // SIGSTOP, then waits until every thread of the process has really stopped:
  // the signal is delivered asynchronously, and a process that is only asked to
  // stop may still read and answer for a while.
  bool freeze(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool running();

  // The process's id while it runs (-1 otherwise).
  RQPProcessId pid() const { return pid_; }
  unsigned short clientsPort() const { return clientsPort_; }
  // Resident memory of the running program in KiB (0 when it cannot be read).
  long rssKiB() const;
  // Threads of the running program (0 when they cannot be counted).
  long threads() const;
  unsigned short netPort() const { return netPort_; }
  // This service's host text as clients and peers use it ("name~port").
  std::string hostText() const;
  std::string logFile() const { return dir_.file("vantrel.log"); }
  std::string iniFile() const { return dir_.file("Vantrel.ini"); }
  // Other processes whose command line names this service's log file (a
  // relaunched successor).
  std::vector<RQPProcessId> successors() const;

 private:
  TempDir dir_;
  unsigned short clientsPort_;
  unsigned short netPort_;
  std::map<std::string, std::string> env_;
  std::vector<std::string> launcher_;
  RQPProcessId pid_ = -1;
  std::optional<int> exitCode_;
};

std::string LocalHostName();

// A client object that keeps what arrives on channel 0 (messages and failure
// answers) for the test, so that waits can have deadlines. The library's reader
// thread fills the queue, the test thread empties it; a lock guards it.
class TestClient : public cVantrelClientObject {
 public:
  TestClient() = default;
  ~TestClient() { NETTerminate(); }
  bool NewMessageEvent(cTypedMessageObject* message, short channel) override;
  // The next record that arrived on channel 0, waiting at most `timeout`.
  std::optional<cVantrelMessage> next(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // That record's type and data as one text ("2 hello"); "<none>" when none came.
  std::string nextText(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::size_t pending();

 private:
  std::mutex mutex_;
  std::deque<cVantrelMessage> received_;
};

// A connection the test drives frame by frame, for traffic that neither the
// client library nor a real peer service produces: a client that greets by
// hand or not at all, a peer with its own handshake, malformed frames.
// Owner: the test; used by its thread (a read runs on a helper thread, which
// `next` always waits for).
class RawLink {
 public:
  RawLink() : socket_(false, "raw test link") {}
  ~RawLink() { socket_.CloseSocket(); }

  // To a service's clients port.
  bool connectClient(unsigned short clientsPort);
  // To a service's net port, followed by a handshake as peer `host`.
  bool connectPeer(unsigned short netPort, const std::string& host, short versionMarker);
  // The 258-byte greeting of a client named `name`.
  bool greet(const std::string& name);
  bool send(short type, short subtype, const std::string& bytes);
  // The record as a frame of its own type.
  bool send(const cVantrelMessage& record, short subtype);
  // The next frame. Nothing when the link closed (closed() then tells) or
  // after `timeout`, which closes the link.
  std::optional<cFrame> next(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool closed() const { return closed_; }
  int handle() const { return socket_.Handle(); }

 private:
  StreamSocket socket_;
  bool closed_ = false;
};

}  // namespace vantrel::test
