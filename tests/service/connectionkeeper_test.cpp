#include "vantrel/service/vantrelconnectionkeeper.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>

#include "tests/support/testutil.h"
#include "vantrel/net/vantrelclientconnection.h"

namespace vantrel::test {
namespace {

// Counts how it is ended and destroyed.
class CountedConnection : public iVantrelConnection {
 public:
  explicit CountedConnection(std::atomic<int>* deleted) : deleted_(deleted) {}
  ~CountedConnection() override { ++*deleted_; }
  void Terminate(bool wait) override {
    ++terminations;
    if (wait) ++joins;
    if (onTerminate) onTerminate();
  }
  std::atomic<int> terminations{0};
  std::atomic<int> joins{0};
  std::function<void()> onTerminate;

 private:
  std::atomic<int>* deleted_;
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

TEST(ClientConnectionTest, TerminateBeforeTheGreetingEndsTheReaderQuietlyAndOnlyOnce) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  LogCapture log;
  {
    CVantrelClientConnection connection(nCommunication::nSocket::nImplementation_sho::cSocketHandle(fds[0], {}),
                                        std::make_shared<cVantrelConnectionContext>());
    connection.Start();
    // The reader waits for a greeting; closing from here must not look like a
    // client that never greeted (which restarts the whole process).
    connection.Terminate(true);
    connection.Terminate(true);
    EXPECT_TRUE(connection.eventQueue().isTerminated());
  }
  ::close(fds[1]);
  EXPECT_EQ(log.count("CVantrelClientConnection::Terminate"), 1u);
  EXPECT_EQ(log.count("Message was not read"), 0u);
}

}  // namespace
}  // namespace vantrel::test
