// Three hosts, each a network namespace with its own name and address, each
// running the real `vantrel` on the default ports; clients address each other
// by host name only. The hosts hang off a bridge in a fourth namespace, so the
// machine's own network is untouched; names resolve through a per-namespace
// hosts file and `unshare --uts` gives each program its namespace's host name.
// Needs root, `ip` and `unshare`; otherwise skipped with the reason.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/servicehelper.h"

namespace vantrel::test {
namespace {

constexpr int kHosts = 3;
constexpr nTime::cDiff kCommandTimeout = nTime::cDiff::FromSeconds(20);
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
  ~cThreeHostLab() {
    for (ServiceProcess& service : services_) service.kill();
    if (!built_) return;
    // Removing a namespace removes its end of the veth pairs, and with it the
    // other end; the bridge goes with its namespace.
    std::string script = "ip netns del " + Switch();
    for (int i = 0; i < kHosts; ++i) script += "; ip netns del " + Namespace(i) + "; rm -rf /etc/netns/" + Namespace(i);
    Shell(script);
  }
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
    if (!std::filesystem::exists(kCli)) return "the vantrel and vantrel-cli programs are not built";
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

    for (int i = 0; i < kHosts; ++i) {
      services_[i].setPorts(0, 0);
      services_[i].setLauncher(InHost(i));
      if (!services_[i].launch()) return "the service of " + HostName(i) + " did not start:\n" + services_[i].log();
    }
    return std::string();
  }

  ServiceProcess& Service(int index) { return services_[index]; }

  // Runs vantrel-cli on host `index` as client `name`; its exit code and
  // standard output.
  RQPRunResult Cli(int index, const std::string& name, const std::vector<std::string>& command) const {
    std::vector<std::string> args = InHost(index);
    args.insert(args.end(),
                {"/usr/bin/env", "VANTREL_INI=" + services_[index].iniFile(), kAckTimeout, kCli, "--name", name});
    args.insert(args.end(), command.begin(), command.end());
    return RQPRunAndCapture(args.front(), {args.begin() + 1, args.end()}, kCommandTimeout);
  }

 private:
  static constexpr const char* kCli = VANTREL_BINARY_DIR "/programs/vantrel-cli";
  std::string Switch() const { return prefix_ + "sw"; }
  std::string Namespace(int index) const { return prefix_ + HostName(index); }

  // A command line that runs what follows it in host `index`'s namespace under
  // its own host name; each program replaces the one before it.
  std::vector<std::string> InHost(int index) const {
    return {ip_,      "netns",
            "exec",   Namespace(index),
            unshare_, "--uts",
            "--",     "/bin/sh",
            "-c",     "hostname " + HostName(index) + " && exec \"$@\"",
            "sh"};
  }

  // Runs `script` with the shell, stopping at the first failing command.
  bool Shell(const std::string& script) {
    const RQPRunResult result = RQPRunAndCapture("/bin/sh", {"-ec", "exec 2>&1\n" + script}, kCommandTimeout);
    lastOutput_ = result.started ? "exit " + std::to_string(result.exitCode) + " " + result.output : result.errorText;
    return result.started && !result.timedOut && result.exitCode == 0;
  }

  const std::string prefix_;
  std::string ip_;
  std::string unshare_;
  std::string lastOutput_;
  bool built_ = false;
  std::array<ServiceProcess, kHosts> services_;
};

class ThreeHostsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    lab_ = std::make_unique<cThreeHostLab>();
    problem_ = lab_->Build(skip_);
  }
  static void TearDownTestSuite() {
    // A crash on the way out fails the suite too (a sanitizer report fails it
    // anyway, when the service is destroyed).
    for (int i = 0; lab_ && problem_.empty() && i < kHosts; ++i)
      EXPECT_EQ(lab_->Service(i).stop(), 0) << HostName(i) << "\n" << lab_->Service(i).log();
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
    if (lab_->Service(to).waitLog("VantrelClientInstance::VantrelClientInstance(" + receiver + ")",
                                  std::chrono::seconds(15)))
      EXPECT_EQ(lab_->Cli(from, sender, {"send", receiver + "@" + HostName(to), text}).exitCode, 0)
          << lab_->Service(from).log();
    else
      ADD_FAILURE() << "the receiver did not register";
    waiter.join();
    EXPECT_EQ(received.exitCode, 0);
    EXPECT_EQ(LastLine(received.output), sender + "@" + HostName(from) + "~9011\t" + text + "\n");
    // The link was opened by name, on the default net port of the peer.
    EXPECT_TRUE(lab_->Service(from).waitLog("Connecting to " + HostName(to) + ":9011", std::chrono::seconds(5)))
        << lab_->Service(from).log();
  }
}

TEST_F(ThreeHostsTest, FilesCopiedBetweenHostsArriveWhole) {
  // Several chunks and a short last one, both ways over one pair of hosts.
  const std::string content = Pattern(3 * wire::kFileChunkSize + 777);
  TempDir files;
  const std::string source = files.write("source.bin", content);
  for (const auto& [from, to] : {std::pair{0, 1}, std::pair{1, 0}}) {
    const std::string destination = files.file("from-" + HostName(from) + ".bin");
    const RQPRunResult copied =
        lab_->Cli(from, "copier" + std::to_string(from + 1), {"copy", source, HostName(to), destination});
    EXPECT_EQ(copied.exitCode, 0) << HostName(from) << " -> " << HostName(to) << ": " << copied.output << "\n"
                                  << lab_->Service(from).log();
    EXPECT_EQ(ReadFile(destination), content) << HostName(from) << " -> " << HostName(to);
  }
}

}  // namespace
}  // namespace vantrel::test
