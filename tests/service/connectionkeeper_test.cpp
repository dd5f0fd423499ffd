#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/service/vantrelconnectionkeeper.h"

namespace vantrel::test {
namespace {

// Counts its deletion only when its threads were joined first.
class CountedConnection : public iVantrelConnection {
 public:
  explicit CountedConnection(std::atomic<int>* deleted) : deleted_(deleted) {}
  ~CountedConnection() override {
    if (joined_) ++*deleted_;
  }
  void Terminate(bool wait) override {
    joined_ = joined_ || wait;
    if (onTerminate) onTerminate();
  }
  std::function<void()> onTerminate;

 private:
  std::atomic<int>* deleted_;
  bool joined_ = false;
};

TEST(ConnectionKeeperTest, ReaperJoinsAndDeletesWhatEndedAndShutdownTheRest) {
  std::atomic<int> deleted{0};
  cVantrelConnectionKeeper keeper;
  keeper.Start();
  auto* ended = new CountedConnection(&deleted);
  auto* running = new CountedConnection(&deleted);
  keeper.Adopt(std::unique_ptr<iVantrelConnection>(ended));
  keeper.Adopt(std::unique_ptr<iVantrelConnection>(running));

  keeper.Ended(ended);
  keeper.Ended(ended);  // a second report changes nothing
  ASSERT_TRUE(WaitUntil([&] { return deleted.load() == 1; }));
  EXPECT_EQ(keeper.Count(), 1u);
  // Unknown objects are ignored rather than deleted.
  CountedConnection stranger(&deleted);
  keeper.Ended(&stranger);

  // A connection made while shutting down (a link opened by a reader that is
  // still running) is terminated and deleted as well.
  running->onTerminate = [&keeper, &deleted] { keeper.Adopt(std::make_unique<CountedConnection>(&deleted)); };
  keeper.Shutdown();
  EXPECT_EQ(deleted.load(), 3);
  EXPECT_EQ(keeper.Count(), 0u);
}

// Accepted connections that end themselves when closed, as real ones do; the
// names of those the keeper closed are recorded (on the reaper's thread).
class AdmissionTest : public ::testing::Test {
 protected:
  using tPort = cVantrelConnectionKeeper::tPort;
  ~AdmissionTest() override { keeper.Shutdown(); }

  // Adopts `name` as pending (and starts it); false when refused.
  bool Accept(const std::string& name, tPort port, bool start = true) {
    auto* connection = new CountedConnection(&deleted);
    connection->onTerminate = [this, connection, name] {
      std::unique_lock<std::mutex> guard(mutex);
      // The reaper's join before deleting terminates it once more.
      if (std::find(closed.begin(), closed.end(), name) != closed.end()) return;
      closed.push_back(name);
      guard.unlock();
      keeper.Ended(connection);
    };
    if (!keeper.AdoptPending(std::unique_ptr<iVantrelConnection>(connection), port, name)) return false;
    if (start) keeper.Started(connection);
    named[name] = connection;
    return true;
  }
  bool ClosedAre(const std::vector<std::string>& expected) {
    return WaitUntil([&] {
      std::lock_guard<std::mutex> guard(mutex);
      return closed == expected;
    });
  }

  std::atomic<int> deleted{0};
  cVantrelConnectionKeeper keeper;
  std::mutex mutex;
  std::vector<std::string> closed;
  std::map<std::string, iVantrelConnection*> named;
};

TEST_F(AdmissionTest, SilentConnectionsGiveWayOldestNetFirstAndAreClosedAtTheirDeadline) {
  keeper.SetAdmissionLimits({3, std::chrono::seconds(4)});
  keeper.Start();
  LogCapture log;
  ASSERT_TRUE(Accept("net1", tPort::eNet));
  ASSERT_TRUE(Accept("net2", tPort::eNet));
  ASSERT_TRUE(Accept("local1", tPort::eClients));
  ASSERT_TRUE(Accept("net3", tPort::eNet));  // net1 gives way
  EXPECT_TRUE(ClosedAre({"net1"}));
  EXPECT_TRUE(log.contains("the oldest, from net1, is closed for one from net3"));
  keeper.Admitted(named["net2"]);  // handshake done: no longer pending, never displaced
  ASSERT_TRUE(Accept("local2", tPort::eClients));
  ASSERT_TRUE(Accept("local3", tPort::eClients));            // net3 gives way to a client
  ASSERT_TRUE(Accept("unstarted", tPort::eClients, false));  // local1 gives way, not net2
  EXPECT_TRUE(ClosedAre({"net1", "net3", "local1"}));
  // Only clients wait, one of them not yet started: a net connection is refused
  // and deleted at once; a client displaces the oldest started client.
  EXPECT_FALSE(Accept("net4", tPort::eNet));
  ASSERT_TRUE(Accept("local4", tPort::eClients));
  EXPECT_TRUE(ClosedAre({"net1", "net3", "local1", "local2"}));
  EXPECT_EQ(keeper.PendingCount(), 3u);

  // At their deadline the started ones are closed; one still being started is
  // given its time once it runs.
  EXPECT_TRUE(ClosedAre({"net1", "net3", "local1", "local2", "local3", "local4"}));
  EXPECT_TRUE(log.contains("connection from local3 has not completed its handshake or greeting within 4000 ms"));
  keeper.Started(named["unstarted"]);
  EXPECT_TRUE(ClosedAre({"net1", "net3", "local1", "local2", "local3", "local4", "unstarted"}));
  EXPECT_EQ(keeper.PendingCount(), 0u);
  EXPECT_TRUE(WaitUntil([&] { return deleted.load() == 7 && keeper.Count() == 1u; }));  // net2 stays
}

}  // namespace
}  // namespace vantrel::test
