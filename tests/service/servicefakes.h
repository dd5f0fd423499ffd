#pragma once
// Stand-ins for the connections, so that routing can be tested without sockets.
#include <memory>
#include <string>
#include <vector>

#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/vantrellinks.h"

namespace vantrel::test {

// The order in which fakes are terminated (by one thread: the clean-up's).
using TerminationLog = std::vector<std::string>;

// A client connection: what is queued for the client stays on its event queue.
class FakeClientLink : public iVantrelClientLink {
 public:
  explicit FakeClientLink(std::string name, TerminationLog* log = nullptr) : name_(std::move(name)), log_(log) {}
  void Terminate(bool wait) override {
    ++terminations;
    lastWait = wait;
    if (log_ != nullptr) log_->push_back("client:" + name_);
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

// A link to another host that registers itself on construction and leaves the
// router when it is terminated, as real links do.
class FakeHostLink : public iVantrelHostLink {
 public:
  FakeHostLink(iVantrelRouter* router, std::string host, TerminationLog* log)
      : router_(router), host_(std::move(host)), log_(log) {
    router_->registerHostEvent(host_.c_str(), this, kQueueHandler);
  }
  std::string HostText() const override { return host_; }
  void Terminate(bool) override {
    log_->push_back("host:" + host_);
    router_->removeHost(this);
  }

 private:
  iVantrelRouter* router_;
  std::string host_;
  TerminationLog* log_;
};

}  // namespace vantrel::test
