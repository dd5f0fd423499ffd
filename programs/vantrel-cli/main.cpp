// vantrel-cli: a command-line client of the Vantrel message bus.
//
// Registers with the service on this machine under a client name and runs one
// subcommand. Each subcommand is one class below, registered in main(); a new
// one needs its class and one line there.
#include <CLI/CLI.hpp>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/client/vantrelclientobj.h"

namespace {

enum tExit : int {
  kExitOk = 0,
  kExitInternal = 1,
  kExitUsage = 2,
  kExitNoService = 3,
  kExitSendFailed = 4,
  kExitNotAcknowledged = 5,
  kExitNoMessage = 6,
};

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  success\n"
    "  1  unexpected internal error\n"
    "  2  usage error (bad option or address)\n"
    "  3  cannot register with the service, or the service ended the session\n"
    "  4  the message could not be sent to the service\n"
    "  5  not acknowledged: refused, not delivered, or no answer in time\n"
    "  6  timed out waiting, or no message waiting\n";

constexpr int kStatusSendFailed = 15007;
constexpr int kStatusAckError = 15008;

// A destination must name both a client and a host; the library splits at the
// last '@'.
std::string CheckAddress(const std::string& address) {
  const auto at = address.rfind('@');
  if (at == std::string::npos || at == 0 || at + 1 == address.size())
    return "address must be client@host, got '" + address + "'";
  return std::string();
}

// The registered client and the options every subcommand shares.
struct cSession {
  std::string name;
  unsigned short port = 0;
  cVantrelClientObject client;

  bool Open() {
    if (client.NETInitZ641(name.c_str(), port)) return true;
    std::fprintf(stderr, "vantrel-cli: cannot register as '%s' with the Vantrel service on port %s\n",
                 name.c_str(), port ? std::to_string(port).c_str() : "VANTREL_CLIENT_PORT or 9010");
    return false;
  }
};

// Prints a received record's data (text up to its first zero byte).
void PrintRecord(const cVantrelMessage& record, bool withSender) {
  if (withSender) std::printf("%s@%s\t", record.getFromClient(), record.getFromHost());
  const char* data = record.getData();
  const std::size_t length = data ? strnlen(data, record.getDatalen()) : 0;
  std::fwrite(data ? data : "", 1, length, stdout);
  std::fputc('\n', stdout);
}

void PrintData(const char* data) {
  std::fputs(data ? data : "", stdout);
  std::fputc('\n', stdout);
}

class iCommand {
 public:
  virtual ~iCommand() = default;
  virtual const char* Name() const = 0;
  virtual const char* Description() const = 0;
  virtual void Configure(CLI::App& app) = 0;
  virtual int Run(cSession& session) = 0;
};

// The three sends share a destination and a text.
class cSendBase : public iCommand {
 public:
  void Configure(CLI::App& app) override {
    app.add_option("address", address_, "destination client@host (host may carry ~port)")
        ->required()
        ->check(CheckAddress);
    app.add_option("text", text_, "message text")->required();
  }

 protected:
  // The text goes out with its terminating zero, so receivers get a C string.
  unsigned Length() const { return static_cast<unsigned>(text_.size() + 1); }

  int SendFailed(cSession& session) const {
    std::fprintf(stderr, "vantrel-cli: sending to %s failed (status %d)\n", address_.c_str(),
                 session.client.NETGetLastStatus());
    return kExitSendFailed;
  }

  std::string address_;
  std::string text_;
};

class cSend : public cSendBase {
 public:
  const char* Name() const override { return "send"; }
  const char* Description() const override { return "send a message and wait for its acknowledgement"; }
  int Run(cSession& session) override {
    if (session.client.NETSendMessageZ1(text_.c_str(), Length(), address_.c_str())) return kExitOk;
    const int status = session.client.NETGetLastStatus();
    if (status == kStatusSendFailed) return SendFailed(session);
    if (status == kStatusAckError)
      std::fprintf(stderr, "vantrel-cli: %s did not acknowledge the message\n", address_.c_str());
    else
      std::fprintf(stderr, "vantrel-cli: no acknowledgement from %s in time (not delivered?)\n", address_.c_str());
    return kExitNotAcknowledged;
  }
};

class cNotify : public cSendBase {
 public:
  const char* Name() const override { return "notify"; }
  const char* Description() const override { return "send a message without asking for any response"; }
  int Run(cSession& session) override {
    return session.client.NETSendMessageNoresponseZ1(text_.c_str(), Length(), address_.c_str())
               ? kExitOk
               : SendFailed(session);
  }
};

class cPost : public cSendBase {
 public:
  const char* Name() const override { return "post"; }
  const char* Description() const override {
    return "send a message without waiting; its answer carries --id";
  }
  void Configure(CLI::App& app) override {
    cSendBase::Configure(app);
    app.add_option("--id", id_, "message id that the answer names")->capture_default_str();
  }
  int Run(cSession& session) override {
    return session.client.NETSendMessageNowaitZ1(id_, text_.c_str(), Length(), address_.c_str())
               ? kExitOk
               : SendFailed(session);
  }

 private:
  long id_ = 0;
};

class cWait : public iCommand {
 public:
  const char* Name() const override { return "wait"; }
  const char* Description() const override { return "wait for one message and print it"; }
  void Configure(CLI::App& app) override {
    app.add_option("--timeout", timeoutMs_, "give up after this many milliseconds (0: wait for ever)")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--from", withSender_, "print the sender (client@host) and a tab before the text");
  }
  int Run(cSession& session) override {
    // The watchdog turns the client's queues off when the time is up, which
    // ends the blocked wait.
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    bool timedOut = false;
    std::thread watchdog;
    if (timeoutMs_ > 0) {
      watchdog = std::thread([&] {
        std::unique_lock<std::mutex> lock(mutex);
        if (!done.wait_for(lock, std::chrono::milliseconds(timeoutMs_), [&] { return finished; })) {
          timedOut = true;
          lock.unlock();
          session.client.NETTurnOff();
        }
      });
    }
    const cVantrelMessage* record = session.client.NETWaitMessageX1();
    {
      std::lock_guard<std::mutex> lock(mutex);
      finished = true;
    }
    done.notify_all();
    if (watchdog.joinable()) watchdog.join();

    if (record != nullptr) {
      PrintRecord(*record, withSender_);
      return kExitOk;
    }
    if (timedOut) {
      std::fprintf(stderr, "vantrel-cli: no message within %ld ms\n", timeoutMs_);
      return kExitNoMessage;
    }
    std::fprintf(stderr, "vantrel-cli: the service ended the session\n");
    return kExitNoService;
  }

 private:
  long timeoutMs_ = 0;
  bool withSender_ = false;
};

class cFetch : public iCommand {
 public:
  const char* Name() const override { return "fetch"; }
  const char* Description() const override { return "print a waiting message, if there is one, without blocking"; }
  void Configure(CLI::App&) override {}
  int Run(cSession& session) override {
    const char* data = session.client.NETFetchMessage();
    if (data == nullptr) {
      std::fprintf(stderr, "vantrel-cli: no message waiting\n");
      return kExitNoMessage;
    }
    PrintData(data);
    return kExitOk;
  }
};

class cWhoAmI : public iCommand {
 public:
  const char* Name() const override { return "whoami"; }
  const char* Description() const override { return "print this client's address as others reach it"; }
  void Configure(CLI::App&) override {}
  int Run(cSession& session) override {
    PrintData(session.client.NETWhoAmI());
    return kExitOk;
  }
};

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app{"vantrel-cli - command-line client of the Vantrel message bus"};
    app.footer(kExitCodes);
    app.require_subcommand(1);

    cSession session;
    session.name = "vantrel-cli-" + std::to_string(RQPCurrentProcessId());
    std::string logLevel;
    app.add_option("--name", session.name, "client name to register under")->capture_default_str();
    app.add_option("--port", session.port, "the service's client port (0: VANTREL_CLIENT_PORT, else 9010)")
        ->capture_default_str();
    app.add_option("--log-level", logLevel, "trace, debug, info, warning, error, critical or off");

    std::vector<std::unique_ptr<iCommand>> commands;
    commands.push_back(std::make_unique<cSend>());
    commands.push_back(std::make_unique<cNotify>());
    commands.push_back(std::make_unique<cPost>());
    commands.push_back(std::make_unique<cWait>());
    commands.push_back(std::make_unique<cFetch>());
    commands.push_back(std::make_unique<cWhoAmI>());

    iCommand* chosen = nullptr;
    for (auto& command : commands) {
      CLI::App* sub = app.add_subcommand(command->Name(), command->Description());
      sub->footer(kExitCodes);
      command->Configure(*sub);
      sub->callback([&chosen, raw = command.get()] { chosen = raw; });
    }

    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
      const int code = app.exit(e);
      return code == 0 ? kExitOk : kExitUsage;
    }
    if (!logLevel.empty()) {
      tQXLogMessageSeverity severity;
      if (!vantrel::log::ParseLevel(logLevel, severity)) {
        std::fprintf(stderr, "vantrel-cli: unknown log level '%s'\n", logLevel.c_str());
        return kExitUsage;
      }
      vantrel::log::SetLevel(severity);
    }
    if (chosen == nullptr) return kExitUsage;
    if (!session.Open()) return kExitNoService;
    const int result = chosen->Run(session);
    session.client.NETTerminate();
    return result;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vantrel-cli: %s\n", e.what());
    return kExitInternal;
  } catch (...) {
    std::fprintf(stderr, "vantrel-cli: unexpected error\n");
    return kExitInternal;
  }
}
