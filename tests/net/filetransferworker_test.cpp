// The file threads of a link against a link and a router played by the test:
// a fault on a file thread ends only the copy it met.
#include "vantrel/net/filetransferworker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>

#include "tests/support/testutil.h"
#include "vantrel/net/vantrellinks.h"

namespace {

using namespace vantrel::wire;

// Throws once, at the step named by `fault`; the peer never answers.
class FaultyLink : public iFileTransferWorkerLink {
 public:
  explicit FaultyLink(std::string fault) : fault_(std::move(fault)) {}
  void PostFileEvent(std::unique_ptr<VantrelHostEvent>) override { failOnce("post"); }
  bool IsConnected() const override { return failOnce("connect"); }
  bool AwaitConnection() override { return true; }
  std::string HostText() const override { return "peer~1"; }

 private:
  bool failOnce(const std::string& step) const {
    if (step == fault_ && !failed_.exchange(true)) throw std::runtime_error("injected at " + step);
    return true;
  }
  std::string fault_;
  mutable std::atomic<bool> failed_{false};
};

// Keeps the answers meant for local clients as "type:data".
class AnswerRouter : public iVantrelRouter {
 public:
  void registerClientEvent(const char*, iVantrelClientSession*, int) override {}
  void registerHostEvent(const char*, iVantrelHostLink*, int) override {}
  void removeClient(iVantrelClientSession*) override {}
  void removeHost(iVantrelHostLink*) override {}
  bool dispatchClientEvent(VantrelClientEvent* event) override {
    std::unique_ptr<VantrelClientEvent> owned(event);
    std::lock_guard<std::mutex> lock(mutex_);
    answers_.push_back(std::to_string(event->getType()) + ":" + std::string(event->getData(), event->getDatalen()));
    return true;
  }
  bool dispatchHostEvent(VantrelHostEvent*) override { return false; }
  bool isLocalHost(const char*) const override { return false; }
  std::vector<std::string> answers() {
    std::lock_guard<std::mutex> lock(mutex_);
    return answers_;
  }
  std::mutex mutex_;
  std::vector<std::string> answers_;
};

std::unique_ptr<VantrelHostEvent> CopyRequest(const std::string& local) {
  const std::string text = vantrel::test::ParameterText({{kCopyLocalFile, local}, {kCopyRemoteFile, "/remote"}});
  const cVantrelMessage record(1, "peer~1", "NoClient", "me~2", "requester", QTYPE_CLIENT, kFileCopy, 0, text.data(),
                               static_cast<std::uint32_t>(text.size()));
  return std::make_unique<cFileCopyRequest>(record.getPackedBuf(), record.getPackedBufLen(), kFileCopy, 0,
                                            cCopyRequester());
}

TEST(FileTransferWorker, AFaultOnTheFileWriterEndsOnlyItsCopy) {
  vantrel::test::TempDir dir;
  const std::string source = dir.write("src", "abc");
  for (const std::string fault : {"connect", "post"}) {
    SCOPED_TRACE(fault);
    FaultyLink link(fault);
    AnswerRouter router;
    cFileTransferWorker worker(&link, &router, {});
    // The first copy meets the fault and is answered as broken; the writer
    // must not stay marked as running, or the next copy would wait for ever.
    worker.PostRequest(CopyRequest(source));
    ASSERT_TRUE(vantrel::test::WaitUntil([&] { return router.answers().size() == 1; }));
    EXPECT_EQ(router.answers()[0].substr(0, 4), std::to_string(kNotDelivered) + ":");
    worker.PostRequest(CopyRequest(dir.file("missing")));
    ASSERT_TRUE(vantrel::test::WaitUntil([&] { return router.answers().size() == 2; }));
    EXPECT_NE(router.answers()[1].find(dir.file("missing")), std::string::npos) << router.answers()[1];
    EXPECT_EQ(router.answers()[1].substr(0, 4), std::to_string(kDelivered) + ":");
  }
}

}  // namespace
