// Three hosts, each a network namespace with its own name and address, each
// running the real `vantrel` on the default ports; clients address each other
// by host name only. The hosts hang off a bridge in a fourth namespace, so the
// machine's own network is untouched; names resolve through a per-namespace
// hosts file and `unshare --uts` gives each program its namespace's host name.
// Needs root, `ip` and `unshare`; otherwise skipped with the reason.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/platform/process.h"

namespace vantrel::test {
namespace {

constexpr int kHosts = 3;
constexpr nTime::cDiff kCommandTimeout = nTime::cDiff::FromSeconds(20);
constexpr nTime::cDiff kStopTimeout = nTime::cDiff::FromSeconds(20);
constexpr auto kReadyTimeout = std::chrono::seconds(30);
// Bounds every acknowledged send of a client, so that a lost answer fails the
// test instead of stalling it for the library's default minute.
constexpr const char* kAckTimeout = "VANTREL_INTERNAL_ACK_ON_SEND_WAIT_TIMEOUT=10000";

// The last line of a program's output (the settings banner comes first).
std::string LastLine(const std::string& output) { return output.substr(output.rfind('\n', output.size() - 2) + 1); }

std::string HostName(int index) { return "h" + std::to_string(index + 1); }
std::string HostAddress(int index) { return "10.200.0." + std::to_string(index + 1); }

// The hosts, their bridge and their services. Everything it made is removed by
// the destructor, whatever state the set-up reached. Owned by the test suite;
// used by the test thread only.
class cThreeHostLab {
 public:
  cThreeHostLab() : prefix_("vtn" + std::to_string(::getpid()) + "-") {}
  ~cThreeHostLab() { TearDown(); }
  cThreeHostLab(const cThreeHostLab&) = delete;
  cThreeHostLab& operator=(const cThreeHostLab&) = delete;

  // Empty when the lab is up; otherwise why it could not be built. `skip`
  // tells a missing privilege or tool (skip) from a failure of the system.
  std::string Build(bool& skip) {
    skip = true;
    if (::geteuid() != 0) return "network namespaces need root";
    ip_ = RQPFindProgram("ip");
    unshare_ = RQPFindProgram("unshare");
    if (ip_.empty() || unshare_.empty()) return "the ip and unshare programs are needed";
    if (!std::filesystem::exists(service_) || !std::filesystem::exists(cli_))
      return "the vantrel and vantrel-cli programs are not built";
    if (!Shell("ip netns add " + Switch())) return "ip netns add was refused: " + lastOutput_;
    built_ = true;
    skip = false;

    // A bridge in the switch's namespace; per host a namespace on a veth port of
    // it, an address, and a hosts file naming every host.
    std::string hosts = "127.0.0.1 localhost\n";
    for (int i = 0; i < kHosts; ++i) hosts += HostAddress(i) + " " + HostName(i) + "\n";
    std::string script = "ip -n " + Switch() + " link add br0 type bridge\nip -n " + Switch() + " link set br0 up\n";
    for (int i = 0; i < kHosts; ++i) {
      const std::string host = Namespace(i), port = "p" + std::to_string(i + 1);
      script += "ip netns add " + host + "\nip -n " + Switch() + " link add " + port +
                " type veth peer name eth0 netns " + host + "\nip -n " + Switch() + " link set " + port +
                " master br0 up\nip -n " + host + " addr add " + HostAddress(i) + "/24 dev eth0\nip -n " + host +
                " link set eth0 up\nip -n " + host + " link set lo up\nmkdir -p /etc/netns/" + host + "\nprintf '" +
                hosts + "' > /etc/netns/" + host + "/hosts\n";
    }
    if (!Shell(script)) return "the hosts and their network: " + lastOutput_;

    settings_ = dir_.write("Vantrel.ini",
                           "SocketCommunicationTimeout = 10000\n"
                           "AddressPortDelimiter = ~\n"
                           "UseOpenSsl = 0\n"
                           "LatencyClockUpdate = 0\n");
    for (int i = 0; i < kHosts; ++i) {
      const RQPSpawnResult spawned = RQPCreateProcessZ0(
          ip_, InHost(i, {service_, "--config", settings_, "--log-file", LogFile(i), "--log-level", "info"},
                      dir_.file(HostName(i) + ".out")));
      if (!spawned.ok()) return "cannot start the service of " + HostName(i) + ": " + spawned.errorText;
      services_.push_back(spawned.pid);
    }
    for (int i = 0; i < kHosts; ++i) {
      if (!WaitLog(i, "vantrel ready", kReadyTimeout))
        return "the service of " + HostName(i) + " did not become ready:\n" + ReadFile(LogFile(i)) +
               ReadFile(dir_.file(HostName(i) + ".out"));
    }
    return std::string();
  }

  // Runs vantrel-cli on host `index` as client `name`; its exit code and
  // standard output.
  RQPRunResult Cli(int index, const std::string& name, const std::vector<std::string>& command) const {
    std::vector<std::string> program = {"/usr/bin/env", "VANTREL_INI=" + settings_, kAckTimeout, cli_, "--name", name};
    program.insert(program.end(), command.begin(), command.end());
    return RQPRunAndCapture(ip_, InHost(index, program, "/dev/null"), kCommandTimeout);
  }

  bool WaitLog(int index, const std::string& text, std::chrono::milliseconds timeout) const {
    return WaitUntil([&] { return ReadFile(LogFile(index)).find(text) != std::string::npos; }, timeout);
  }

  std::string LogFile(int index) const { return dir_.file(HostName(index) + ".log"); }

  // Stops every service (SIGTERM, then SIGKILL after a bounded wait); for each
  // one that did not exit with 0, a line with its code and its output.
  std::vector<std::string> StopServices() {
    std::vector<std::string> failures;
    for (const RQPProcessId pid : services_) ::kill(static_cast<pid_t>(pid), SIGTERM);
    for (std::size_t i = 0; i < services_.size(); ++i) {
      int code = -1;
      if (RQPWaitProcessFor(services_[i], kStopTimeout, &code) != RQPWaitResult::exited) {
        RQPKillProcess(services_[i]);
        RQPWaitProcess(services_[i]);
        failures.push_back(HostName(static_cast<int>(i)) + ": did not stop within the time limit");
      } else if (code != 0) {
        failures.push_back(HostName(static_cast<int>(i)) + ": exit " + std::to_string(code) + "\n" +
                           ReadFile(dir_.file(HostName(static_cast<int>(i)) + ".out")));
      }
    }
    services_.clear();
    return failures;
  }

 private:
  std::string Switch() const { return prefix_ + "sw"; }
  std::string Namespace(int index) const { return prefix_ + HostName(index); }

  // The arguments of `ip` that run `program` in host `index`'s namespace under
  // its own host name, with its standard output and error in `output`.
  std::vector<std::string> InHost(int index, const std::vector<std::string>& program, const std::string& output) const {
    // Each program replaces the one before it (ip, unshare, sh), so the child's
    // id ends up being the program's own.
    std::vector<std::string> args = {
        "netns",
        "exec",
        Namespace(index),
        unshare_,
        "--uts",
        "--",
        "/bin/sh",
        "-c",
        "hostname " + HostName(index) + " && exec \"$@\"" +
            (output == "/dev/null" ? std::string(" 2>/dev/null") : " >" + output + " 2>&1"),
        "sh"};
    args.insert(args.end(), program.begin(), program.end());
    return args;
  }

  // Runs `script` with the shell, stopping at the first failing command.
  bool Shell(const std::string& script) {
    const RQPRunResult result = RQPRunAndCapture("/bin/sh", {"-ec", "exec 2>&1\n" + script}, kCommandTimeout);
    lastOutput_ = result.started ? "exit " + std::to_string(result.exitCode) + " " + result.output : result.errorText;
    return result.started && !result.timedOut && result.exitCode == 0;
  }

  void TearDown() {
    StopServices();
    if (!built_) return;
    // Removing a namespace removes its end of the veth pairs, and with it the
    // other end; the bridge goes with its namespace.
    std::string script = "ip netns del " + Switch();
    for (int i = 0; i < kHosts; ++i) script += "; ip netns del " + Namespace(i) + "; rm -rf /etc/netns/" + Namespace(i);
    Shell(script);
    built_ = false;
  }

  const std::string prefix_;
  const std::string service_ = VANTREL_BINARY_DIR "/programs/vantrel";
  const std::string cli_ = VANTREL_BINARY_DIR "/programs/vantrel-cli";
  TempDir dir_;
  std::string ip_;
  std::string unshare_;
  std::string settings_;
  std::string lastOutput_;
  bool built_ = false;
  std::vector<RQPProcessId> services_;
};

class ThreeHostsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    lab_ = std::make_unique<cThreeHostLab>();
    problem_ = lab_->Build(skip_);
  }
  static void TearDownTestSuite() {
    // A crash or sanitizer report on the way out fails the suite too.
    if (lab_ && problem_.empty())
      for (const std::string& failure : lab_->StopServices()) ADD_FAILURE() << failure;
    lab_.reset();
  }

  void SetUp() override {
    if (!problem_.empty() && skip_) GTEST_SKIP() << problem_;
    ASSERT_TRUE(problem_.empty()) << problem_;
  }

  static std::unique_ptr<cThreeHostLab> lab_;
  static std::string problem_;
  static bool skip_;
};

std::unique_ptr<cThreeHostLab> ThreeHostsTest::lab_;
std::string ThreeHostsTest::problem_;
bool ThreeHostsTest::skip_ = false;

TEST_F(ThreeHostsTest, MessagesAddressedByHostNameReachEveryOtherHost) {
  // Around the ring, so that every service dials one peer and is dialled by
  // another.
  for (int from = 0; from < kHosts; ++from) {
    const int to = (from + 1) % kHosts;
    const std::string sender = "sender" + std::to_string(from + 1), receiver = "receiver" + std::to_string(to + 1);
    const std::string text = "hello from " + HostName(from) + " to " + HostName(to);
    SCOPED_TRACE(text);
    RQPRunResult received;
    std::thread waiter([&] { received = lab_->Cli(to, receiver, {"wait", "--from", "--timeout", "15000"}); });
    // The service logs the new client before it answers the greeting; only
    // then can the message find it.
    if (lab_->WaitLog(to, "VantrelClientInstance::VantrelClientInstance(" + receiver + ")", std::chrono::seconds(15)))
      EXPECT_EQ(lab_->Cli(from, sender, {"send", receiver + "@" + HostName(to), text}).exitCode, 0)
          << ReadFile(lab_->LogFile(from));
    else
      ADD_FAILURE() << "the receiver did not register";
    waiter.join();
    EXPECT_EQ(received.exitCode, 0);
    EXPECT_EQ(LastLine(received.output), sender + "@" + HostName(from) + "\t" + text + "\n");
    // The link was opened by name, on the default net port of the peer.
    EXPECT_TRUE(lab_->WaitLog(from, "Connecting to " + HostName(to) + ":9011", std::chrono::seconds(5)))
        << ReadFile(lab_->LogFile(from));
  }
}

TEST_F(ThreeHostsTest, FilesCopiedBetweenHostsArriveWhole) {
  // Several chunks and a short last one, both ways over one pair of hosts.
  std::string content(3 * 51200 + 777, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>((i * 131) ^ (i >> 9));
  TempDir files;
  const std::string source = files.write("source.bin", content);
  for (const auto& [from, to] : {std::pair{0, 1}, std::pair{1, 0}}) {
    const std::string destination = files.file("from-" + HostName(from) + ".bin");
    const RQPRunResult copied =
        lab_->Cli(from, "copier" + std::to_string(from + 1), {"copy", source, HostName(to), destination});
    EXPECT_EQ(copied.exitCode, 0) << HostName(from) << " -> " << HostName(to) << ": " << copied.output << "\n"
                                  << ReadFile(lab_->LogFile(from));
    EXPECT_EQ(ReadFile(destination), content) << HostName(from) << " -> " << HostName(to);
  }
}

}  // namespace
}  // namespace vantrel::test
