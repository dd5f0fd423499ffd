// vantrel-cli: a command-line client of the Vantrel message bus.
//
// Registers with the service on this machine under a client name and runs one
// subcommand. Each subcommand is one class below, registered in main(); a new
// one needs its class and one line there.
#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "programs/vantrel-cli/monitorview.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/process.h"
#include "vantrel/base/platform/terminal.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/message/wire.h"
#include "vantrel/support/associativearray.h"
#include "vantrel/version.h"

namespace {

enum tExit : int {
  kExitOk = 0,
  kExitInternal = 1,
  kExitUsage = 2,
  kExitNoService = 3,
  kExitSendFailed = 4,
  kExitNotAcknowledged = 5,
  kExitNoMessage = 6,
  kExitCopyFailed = 7,
};

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  success\n"
    "  1  unexpected internal error\n"
    "  2  usage error (bad option or address)\n"
    "  3  cannot register with the service, or the service ended the session\n"
    "  4  the message could not be sent to the service\n"
    "  5  not acknowledged: refused, not delivered, or no answer in time\n"
    "  6  timed out waiting, or no message waiting\n"
    "  7  the copy did not complete (its state says why)\n";

constexpr const char* kEnvironment =
    "\nEnvironment:\n"
    "  VANTREL_CLIENT_PORT  the service's client port when --port is 0 (else 9010)\n"
    "  VANTREL_INI          the settings file (else Vantrel.ini in the usual places)\n"
    "  VANTREL_LOG_LEVEL    the log level when --log-level is not given (default warning)\n"
    "  VANTREL_LOG_FILE     write the log to this file instead of standard error\n";

namespace wire = vantrel::wire;

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
    std::fprintf(stderr, "vantrel-cli: cannot register as '%s' with the Vantrel service on port %s\n", name.c_str(),
                 port ? std::to_string(port).c_str() : "VANTREL_CLIENT_PORT or 9010");
    return false;
  }
};

// The sender's address as the service wrote it: client@host~port, itself a
// valid destination for a reply.
std::string SenderAddress(const cVantrelMessage& record) {
  return std::string(record.getFromClient() ? record.getFromClient() : "") + "@" +
         (record.getFromHost() ? record.getFromHost() : "");
}

// Prints a received record's data (text up to its first zero byte).
void PrintRecord(const cVantrelMessage& record, bool withSender) {
  if (withSender) std::printf("%s\t", SenderAddress(record).c_str());
  const char* data = record.getData();
  const std::size_t length = data ? strnlen(data, record.getDatalen()) : 0;
  std::fwrite(data ? data : "", 1, length, stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);  // a reader at the other end of a pipe sees each message as it comes
}

// Waits for the next record that `wanted` accepts, for at most `timeoutMs`
// (0: for ever). Null when the time ran out (`timedOut` set) or the service
// ended the session. Records that `wanted` refuses are skipped.
template <typename tWanted>
const cVantrelMessage* WaitForRecord(cSession& session, long timeoutMs, bool& timedOut, tWanted wanted) {
  // The watchdog turns the client's queues off when the time is up, which
  // ends the blocked wait.
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  timedOut = false;
  std::thread watchdog;
  if (timeoutMs > 0) {
    watchdog = std::thread([&] {
      std::unique_lock<std::mutex> lock(mutex);
      if (!done.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return finished; })) {
        timedOut = true;
        lock.unlock();
        session.client.NETTurnOff();
      }
    });
  }
  const cVantrelMessage* record = nullptr;
  while ((record = session.client.NETWaitMessageX1()) != nullptr && !wanted(*record)) {
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    finished = true;
  }
  done.notify_all();
  if (watchdog.joinable()) watchdog.join();
  return record;
}

void PrintData(const char* data) {
  std::fputs(data ? data : "", stdout);
  std::fputc('\n', stdout);
}

int EndedByService() {
  std::fprintf(stderr, "vantrel-cli: the service ended the session\n");
  return kExitNoService;
}

class iCommand {
 public:
  virtual ~iCommand() = default;
  virtual const char* Name() const = 0;
  virtual const char* Description() const = 0;
  virtual void Configure(CLI::App& app) = 0;
  // Runs before the client registers (settings read at registration).
  virtual void Prepare() {}
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
  void Configure(CLI::App& app) override {
    cSendBase::Configure(app);
    app.add_option("--timeout", timeoutMs_, "give up waiting for the acknowledgement after this many milliseconds")
        ->check(CLI::PositiveNumber);
  }
  void Prepare() override {
    // The client library reads its acknowledgement time-out when it registers.
    if (timeoutMs_ > 0) RQPSetEnvironment("VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT", std::to_string(timeoutMs_));
  }
  int Run(cSession& session) override {
    if (session.client.NETSendMessageZ1(text_.c_str(), Length(), address_.c_str())) return kExitOk;
    const int status = session.client.NETGetLastStatus();
    if (status == wire::kStatusSendFailed) return SendFailed(session);
    if (status == wire::kStatusAckError)
      std::fprintf(stderr, "vantrel-cli: %s: not delivered (status %d; the reason is logged above)\n", address_.c_str(),
                   status);
    else
      std::fprintf(stderr, "vantrel-cli: no acknowledgement from %s in time (not delivered?)\n", address_.c_str());
    return kExitNotAcknowledged;
  }

 private:
  long timeoutMs_ = 0;
};

class cNotify : public cSendBase {
 public:
  const char* Name() const override { return "notify"; }
  const char* Description() const override { return "send a message without asking for any response"; }
  int Run(cSession& session) override {
    return session.client.NETSendMessageNoresponseZ1(text_.c_str(), Length(), address_.c_str()) ? kExitOk
                                                                                                : SendFailed(session);
  }
};

class cPost : public cSendBase {
 public:
  const char* Name() const override { return "post"; }
  const char* Description() const override { return "send a message without waiting; its answer carries --id"; }
  void Configure(CLI::App& app) override {
    cSendBase::Configure(app);
    app.add_option("--id", id_, "message id that the answer names")->capture_default_str();
    app.add_option("--wait", waitMs_,
                   "stay registered for this many milliseconds (0: for ever) and print the first message that "
                   "carries the id: the addressee's answer, or the service's \"not delivered\"")
        ->expected(0, 1)
        ->default_str("0")
        ->check(CLI::NonNegativeNumber);
  }
  int Run(cSession& session) override {
    if (!session.client.NETSendMessageNowaitZ1(id_, text_.c_str(), Length(), address_.c_str()))
      return SendFailed(session);
    if (!waitMs_) return kExitOk;
    bool timedOut = false;
    const cVantrelMessage* answer = WaitForRecord(session, *waitMs_, timedOut, [this](const cVantrelMessage& record) {
      return static_cast<long>(record.getMessageId()) == id_;
    });
    if (answer == nullptr) {
      if (!timedOut) return EndedByService();
      std::fprintf(stderr, "vantrel-cli: no answer to message %ld within %ld ms\n", id_, *waitMs_);
      return kExitNoMessage;
    }
    if (answer->getType() == wire::kNotDelivered) {
      std::fprintf(stderr, "vantrel-cli: %s: message %ld not delivered (%s)\n", address_.c_str(), id_,
                   answer->getData() ? answer->getData() : "");
      return kExitNotAcknowledged;
    }
    PrintRecord(*answer, true);
    return kExitOk;
  }

 private:
  long id_ = 0;
  std::optional<long> waitMs_;
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
    bool timedOut = false;
    const cVantrelMessage* record =
        WaitForRecord(session, timeoutMs_, timedOut, [](const cVantrelMessage&) { return true; });
    if (record != nullptr) {
      PrintRecord(*record, withSender_);
      return kExitOk;
    }
    if (timedOut) {
      std::fprintf(stderr, "vantrel-cli: no message within %ld ms\n", timeoutMs_);
      return kExitNoMessage;
    }
    return EndedByService();
  }

 private:
  long timeoutMs_ = 0;
  bool withSender_ = false;
};

class cListen : public iCommand {
 public:
  const char* Name() const override { return "listen"; }
  const char* Description() const override {
    return "stay registered and print every message (id, type, sender, text) until interrupted";
  }
  void Configure(CLI::App& app) override {
    app.add_option("--count", count_, "stop after this many messages (0: never)")->check(CLI::NonNegativeNumber);
  }
  int Run(cSession& session) override {
    for (long seen = 0; count_ == 0 || seen < count_; ++seen) {
      const cVantrelMessage* record = session.client.NETWaitMessageX1();
      if (record == nullptr) return EndedByService();
      std::printf("%u\t%d\t", record->getMessageId(), record->getType());
      PrintRecord(*record, true);
    }
    return kExitOk;
  }

 private:
  long count_ = 0;
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

// What a copy's completion state means, in words.
const char* CopyStateText(long state) {
  switch (state) {
    case wire::kCopyDone:
      return "copied";
    case wire::kCopyOpenFailed:
      return "the file could not be opened";
    case wire::kCopyCloseFailed:
      return "the file could not be closed after the copy";
    case wire::kCopyReadFailed:
      return "the sender stopped before the end (read error)";
    case wire::kCopyWriteFailed:
      return "the receiver stopped waiting for data; the partial file was deleted";
    case wire::kCopyStopped:
      return "the transfer was stopped, or the peer reported a failure";
    case wire::kCopySameFile:
      return "source and destination are the same file; nothing was done";
    case wire::kCopyDenied:
      return "refused: the file may not be read or written for this user, or lies outside the copy roots";
    default:
      return "unknown completion state";
  }
}

class cCopy : public iCommand {
 public:
  const char* Name() const override { return "copy"; }
  const char* Description() const override {
    return "copy a local file to a path on another host (or this one) and wait for the result";
  }
  void Configure(CLI::App& app) override {
    app.add_option("local", local_, "the file on this host")->required();
    app.add_option("host", host_, "the destination host (may carry ~port)")->required();
    app.add_option("remote", remote_, "the destination path on that host")->required();
    app.add_option("--timeout", timeoutMs_,
                   "give up after this many milliseconds without progress (progress is read from the service's "
                   "monitoring endpoint; without it, after this many milliseconds in all)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_option("--id", id_, "message id of the copy request")->capture_default_str();
    progress_.Configure(app);
  }

  int Run(cSession& session) override {
    // The service opens the file, and its working folder is not ours.
    std::error_code error;
    const std::string source = std::filesystem::absolute(local_, error).string();
    const auto size = std::filesystem::file_size(source, error);
    const long long bytes = error ? -1 : static_cast<long long>(size);

    CAssociativeArray request;
    request.AddCouple(wire::kCopyLocalFile, source);
    request.AddCouple(wire::kCopyRemoteFile, remote_);
    std::string text;
    long length = 0;
    request.ToString(text, length, false, false);

    const auto start = std::chrono::steady_clock::now();
    if (!session.client.NETCopyFileZ1(id_, text.data(), static_cast<unsigned>(length), host_.c_str())) {
      std::fprintf(stderr, "vantrel-cli: the copy request for %s could not be sent (status %d)\n", host_.c_str(),
                   session.client.NETGetLastStatus());
      return kExitSendFailed;
    }

    // The waiter takes messages until the answer to this request arrives; this
    // thread keeps the time and, on a terminal, shows that it is working.
    std::mutex mutex;
    std::condition_variable done;
    std::optional<cAnswer> answer;
    bool ended = false;
    std::thread waiter([&] {
      std::optional<cAnswer> found;
      while (!found) {
        const cVantrelMessage* record = session.client.NETWaitMessageX1();
        if (record == nullptr) break;
        found = Match(*record);
      }
      std::lock_guard<std::mutex> lock(mutex);
      answer = std::move(found);
      ended = true;
      done.notify_all();
    });

    progress_.Begin(source, host_, remote_,
                    bytes < 0 ? std::nullopt : std::optional<std::uint64_t>(static_cast<std::uint64_t>(bytes)));
    // The time-out counts from the last progress, so a large copy on a slow
    // link is not cut off while it moves.
    auto deadline = start + std::chrono::milliseconds(timeoutMs_);
    bool timedOut = false;
    {
      std::unique_lock<std::mutex> lock(mutex);
      while (!ended) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
          timedOut = true;
          break;
        }
        const auto next = std::min(deadline, now + progress_.Interval());
        if (done.wait_until(lock, next, [&] { return ended; })) break;
        lock.unlock();
        const bool moved = progress_.Update();
        lock.lock();
        if (moved) deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs_);
      }
    }
    progress_.End();
    // Turning the client off ends the waiter's blocked wait.
    if (timedOut) session.client.NETTurnOff();
    waiter.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    if (!answer) {
      if (timedOut) {
        std::fprintf(stderr, "vantrel-cli: no copy result within %ld ms\n", timeoutMs_);
        return kExitNoMessage;
      }
      std::fprintf(stderr, "vantrel-cli: the service ended the session\n");
      return kExitNoService;
    }
    if (!answer->isResult) {
      std::fprintf(stderr, "vantrel-cli: copy to %s failed: %s\n", host_.c_str(), answer->text.c_str());
      return kExitCopyFailed;
    }
    std::printf("%s -> %s:%s: %s (state %ld)\n", source.c_str(), host_.c_str(), remote_.c_str(),
                CopyStateText(answer->state), answer->state);
    if (answer->state != wire::kCopyDone) {
      std::printf("file: %s\n", answer->fileName.c_str());
      return kExitCopyFailed;
    }
    const double megabytes = bytes > 0 ? static_cast<double>(bytes) / 1e6 : 0.0;
    std::printf("%lld bytes in %.3f s, %.2f MB/s\n", bytes < 0 ? 0 : bytes, seconds,
                seconds > 0 ? megabytes / seconds : 0.0);
    return kExitOk;
  }

 private:
  struct cAnswer {
    bool isResult = false;  // a copy result; otherwise a failure text
    long state = -1;
    std::string fileName;
    std::string text;
  };

  // The answer to this request, if `record` is one.
  std::optional<cAnswer> Match(const cVantrelMessage& record) const {
    if (static_cast<long>(record.getMessageId()) != id_) return std::nullopt;
    cAnswer answer;
    const char* data = record.getData() ? record.getData() : "";
    if (record.getType() == wire::kDelivered) {
      CAssociativeArray result;
      if (!result.FromString(data, static_cast<long>(record.getDatalen())) || !result.HasParameter(wire::kCopyState)) {
        return std::nullopt;
      }
      answer.isResult = true;
      answer.state = std::strtol(result.GetValueOfParameter(wire::kCopyState).c_str(), nullptr, 10);
      answer.fileName = result.GetValueOfParameter(wire::kCopyFileName);
      return answer;
    }
    if (record.getType() == wire::kNotDelivered) {
      answer.text = std::string(data, strnlen(data, record.getDatalen()));
      return answer;
    }
    return std::nullopt;
  }

  std::string local_;
  std::string host_;
  std::string remote_;
  long timeoutMs_ = 600000;
  long id_ = 1;
  vantrel::cli::cCopyProgressView progress_;
};

}  // namespace

// The settings print their TLS block on standard output when they are first
// read. This program's standard output is for results that scripts read, so the
// block goes to standard error instead.
void ReadSettingsQuietly() {
  const vantrel::platform::cStandardOutputToError redirect;
  (void)gVantrelUseOpenSsl();
}

int main(int argc, char** argv) {
  try {
    CLI::App app{"vantrel-cli - command-line client of the Vantrel message bus", "vantrel-cli"};
    app.footer(std::string(kExitCodes) + kEnvironment);
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("vantrel-cli ") + VANTREL_VERSION_STRING);

    cSession session;
    session.name = "vantrel-cli-" + std::to_string(RQPCurrentProcessId());
    std::string logLevel;
    // Given twice (before and after the subcommand), the later one counts.
    app.add_option("--name", session.name, "client name to register under")
        ->capture_default_str()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--port", session.port, "the service's client port (0: VANTREL_CLIENT_PORT, else 9010)")
        ->capture_default_str()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--log-level", logLevel, "trace, debug, info, warning, error, critical or off")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);

    std::vector<std::unique_ptr<iCommand>> commands;
    commands.push_back(std::make_unique<cSend>());
    commands.push_back(std::make_unique<cNotify>());
    commands.push_back(std::make_unique<cPost>());
    commands.push_back(std::make_unique<cWait>());
    commands.push_back(std::make_unique<cListen>());
    commands.push_back(std::make_unique<cFetch>());
    commands.push_back(std::make_unique<cWhoAmI>());
    commands.push_back(std::make_unique<cCopy>());

    vantrel::cli::cStatusCommand status;
    status.Register(app);
    iCommand* chosen = nullptr;
    for (auto& command : commands) {
      CLI::App* sub = app.add_subcommand(command->Name(), command->Description());
      sub->footer(std::string(kExitCodes) + kEnvironment);
      // The shared options (--name, --port, --log-level) may follow the subcommand too.
      sub->fallthrough();
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
    if (status.Chosen()) return status.Run();
    if (chosen == nullptr) return kExitUsage;
    chosen->Prepare();
    ReadSettingsQuietly();
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
