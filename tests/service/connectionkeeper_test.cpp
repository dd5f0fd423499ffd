#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>

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

}  // namespace
}  // namespace vantrel::test
