#pragma once
// VantrelClientInstance: one local client process inside the service (its
// session). Routes every message its client sends (as a client event for a local
// destination, as a host event for another host), answers the client where the
// protocol wants an answer, and receives for its client every event the router
// delivers under the client's name.
//
// Owner: the client connection that had it made after the greeting (deleted with
// that connection). Refers to, without owning, its connection and the router.
// Threads: handleMessage runs on the connection's reader; the delivery handler
// runs on any dispatching thread under the router's lock and only queues;
// detach runs on the reader (farewell) or the main thread (cleanUp).
#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "vantrel/base/events/events.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/filecopy.h"
#include "vantrel/net/vantrellinks.h"

class VantrelClientInstance : public iVantrelClientSession {
 public:
  // Registers itself with `router` (may be null: nothing is routed) under `name`.
  // `copies` limits the client's file copies (null: its user's rights only).
  VantrelClientInstance(const std::string& name, iVantrelClientLink* connection, iVantrelRouter* router,
                        std::shared_ptr<const cCopyPolicy> copies = nullptr);
  ~VantrelClientInstance() override;
  VantrelClientInstance(const VantrelClientInstance&) = delete;
  VantrelClientInstance& operator=(const VantrelClientInstance&) = delete;

  const char* nameOf() const override { return "VantrelClientInstance"; }
  const std::string& name() const override { return name_; }
  bool handleMessage(const char* data, std::uint32_t length, short type, short subtype) override;
  void detach() override;

  void print(std::ostream& out) const;

 private:
  int deliver(BaseEvent* event);
  void routeToHost(const char* data, std::uint32_t length, short type, short subtype);
  void routeToClient(const char* data, std::uint32_t length, short type, short subtype, short kind);
  // The client asked for a file copy on this host; answered with a copy result.
  // `echo` repeats the request's parameters in the result, as a copy between
  // hosts does.
  void localFileCopy(const char* data, std::uint32_t length, short type, short subtype, bool echo);
  cCopyRequester requester() const;
  void reply(std::uint32_t messageId, QType qtype, short type, short subtype, const char* text);

  const std::string name_;
  // Cleared by the farewell so that nothing is queued on a departing connection.
  std::atomic<iVantrelClientLink*> connection_;
  iVantrelRouter* const router_;
  const std::shared_ptr<const cCopyPolicy> copies_;
  std::atomic<bool> detached_{false};
};

std::ostream& operator<<(std::ostream& out, const VantrelClientInstance& instance);
