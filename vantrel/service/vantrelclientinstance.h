#pragma once
// VantrelClientInstance: one local client process inside the service (its
// session). Routes every message its client sends (as a client event for a local
// destination, as a host event for another host), answers the client where the
// protocol wants an answer, and receives for its client every event the router
// delivers under the client's name.
//
// What a client writes is not trusted: a record of an answer type (or of another
// type than its frame) is refused, and the sender fields of every routed record
// are the session's own (its registered name and this service's host name), so
// one client can neither forge an answer nor pose as another.
//
// Owner: the client connection that had it made after the greeting (deleted with
// that connection). Refers to, without owning, its connection and the router;
// shares its answer path with the messages it routed.
// Threads: handleMessage runs on the connection's reader; the delivery handler
// runs on any dispatching thread under the router's lock and only queues; the
// answer path is settled by the writers of the addressees' connections;
// detach runs on the reader (farewell) or the main thread (cleanUp).
#include <atomic>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "vantrel/base/events/events.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/answerpath.h"
#include "vantrel/net/filecopy.h"
#include "vantrel/net/vantrellinks.h"

class VantrelClientInstance : public iVantrelClientSession {
 public:
  // Registers itself with `router` (may be null: nothing is routed) under `name`.
  // `hostName` is the service's full host text (host and net port, as the
  // client's who-am-I address gives it); it becomes the from host of everything
  // the client sends, so that the sender's address is itself a destination. `copies` limits the client's file
  // copies (null: its user's rights only).
  VantrelClientInstance(const std::string& name, iVantrelClientLink* connection, iVantrelRouter* router,
                        const std::string& hostName = "", std::shared_ptr<const cCopyPolicy> copies = nullptr);
  ~VantrelClientInstance() override;
  VantrelClientInstance(const VantrelClientInstance&) = delete;
  VantrelClientInstance& operator=(const VantrelClientInstance&) = delete;

  const char* nameOf() const override { return "VantrelClientInstance"; }
  const std::string& name() const override { return name_; }
  bool handleMessage(const char* data, std::uint32_t length, short type, short subtype) override;
  // Messages to route become their records by adopting the frame's buffer.
  bool handleFrame(std::unique_ptr<char[]> data, std::uint32_t length, short type, short subtype) override;
  void detach() override;

  void print(std::ostream& out) const;

 private:
  int deliver(BaseEvent* event);
  // The client's record as an event ready to route, or null when it is refused
  // (logged; a sender that waits is answered `refusal`). `data` is the packed
  // buffer, copied (const char*) or adopted (std::unique_ptr<char[]>).
  template <class Event, class Data>
  std::unique_ptr<Event> admit(Data data, std::uint32_t length, short type, short subtype, const char* refusal);
  template <class Data>
  void routeToHost(Data data, std::uint32_t length, short type, short subtype);
  void routeToClient(std::unique_ptr<VantrelClientEvent> event, short kind);
  // Answers the sender of a message that reached (or failed to reach) its client.
  void answerDelivery(const cVantrelMessage& message, bool delivered);
  // The client asked for a file copy on this host; answered with a copy result.
  // `echo` repeats the request's parameters in the result, as a copy between
  // hosts does.
  void localFileCopy(const char* data, std::uint32_t length, short type, short subtype, bool echo);
  cCopyRequester requester() const;
  void reply(std::uint32_t messageId, QType qtype, short type, short subtype, const char* text);

  const std::string name_;
  const std::string hostName_;
  // Cleared by the farewell so that nothing is queued on a departing connection.
  std::atomic<iVantrelClientLink*> connection_;
  iVantrelRouter* const router_;
  const std::shared_ptr<const cCopyPolicy> copies_;
  std::atomic<bool> detached_{false};
  // Settled by the writer of each addressee; closed when this session goes.
  const std::shared_ptr<cAnswerPath> answers_;
};

std::ostream& operator<<(std::ostream& out, const VantrelClientInstance& instance);
