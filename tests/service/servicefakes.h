#pragma once
// Stand-ins for the connections, so that routing can be tested without sockets.
#include <mutex>
#include <string>
#include <vector>

#include "vantrel/message/vantrelevents.h"
#include "vantrel/service/vantreleventserver.h"
#include "vantrel/net/vantrellinks.h"

namespace vantrel::test {

// Records the order in which fakes are terminated.
struct TerminationLog {
  std::mutex mutex;
  std::vector<std::string> entries;
  void add(const std::string& entry) {
    std::lock_guard<std::mutex> guard(mutex);
    entries.push_back(entry);
  }
};

// A client connection: what is queued for the client stays on its event queue.
class FakeClientLink : public iVantrelClientLink {
 public:
  explicit FakeClientLink(std::string name, TerminationLog* log = nullptr) : name_(std::move(name)), log_(log) {}
  void Terminate(bool wait) override {
    ++terminations;
    lastWait = wait;
    if (log_ != nullptr) log_->add("client:" + name_);
  }
  // Takes the next queued event (null when none).
  std::unique_ptr<VantrelClientEvent> take() {
    RWCollectable* item = eventQueue().get();
    return std::unique_ptr<VantrelClientEvent>(dynamic_cast<VantrelClientEvent*>(item));
  }
  int terminations = 0;
  bool lastWait = false;

 private:
  std::string name_;
  TerminationLog* log_;
};

// A link to another host that registers itself on construction, as real links do.
class FakeHostLink : public iVantrelHostLink {
 public:
  FakeHostLink(CVantrelEventServer* server, std::string host, TerminationLog* log = nullptr)
      : server_(server), host_(std::move(host)), log_(log) {
    server_->registerHostEvent(host_.c_str(), this, kQueueHandler);
  }
  std::string HostText() const override { return host_; }
  void Terminate(bool wait) override {
    ++terminations;
    if (log_ != nullptr) log_->add("host:" + host_);
    // Real links leave the registry from their termination.
    server_->removeHost(this);
  }
  int terminations = 0;

 private:
  CVantrelEventServer* server_;
  std::string host_;
  TerminationLog* log_;
};

}  // namespace vantrel::test
