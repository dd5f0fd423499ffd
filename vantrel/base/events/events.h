#pragma once
// The event framework: client objects register events (keys) with a server
// object; the server dispatches a posted event to the client object whose
// registered event is equal to it.
//
//   BaseEvent  a collectable that names the client object that registered it
//              and an integer: the handler id that client object gave out in
//              signOn. The same classes serve as registration keys and as the
//              posted events; equality and hash come from the derived class.
//   ClientObj  something that receives events: it signs on handlers (each gets
//              an id) and owns an event queue, which receives every event
//              dispatched with handler id 0 (kQueueHandler).
//   ServerObj  the registry: a hash table of registered events, sized at
//              construction.
//
// Registrations. Equal keys may be registered more than once: a dispatch goes
// to the newest registration of an equal key; removal goes by the identity of
// the registered object, never by its key, so removing a stale registration
// can never take away a newer one made under the same name.
//
// Ownership.
//  - registerEvent takes ownership of the key event; unRegisterEvent and
//    unRegisterClient delete the events they remove; the server deletes
//    whatever is still registered when it is destroyed.
//  - A dispatch that finds a registration hands the posted event over: from
//    that moment the receiving side (the handler, or the client object's
//    queue) owns it, whatever status the handler reports. A dispatch that finds
//    nothing leaves the event with the caller.
//
// Threads. Nothing here takes a lock. A ServerObj's registry must be used under
// one lock held by its owner (the service's event server wraps every registry
// operation in its one re-entrant lock); handlers run on the dispatching thread
// under that lock and must therefore only queue what they receive. A
// ClientObj's signOn is called while it is being set up, before its handlers
// can be reached by a dispatch. Its event queue is thread-safe by itself.
#include <cstdint>
#include <functional>
#include <vector>

#include "vantrel/base/platform/collectable.h"
#include "vantrel/base/platform/eventqueue.h"

class ClientObj;
class ServerObj;

class BaseEvent : public RWCollectable {
 public:
  BaseEvent() = default;
  BaseEvent(ClientObj* client, int value) : client_(client), value_(value) {}
  BaseEvent(const BaseEvent&) = default;
  BaseEvent& operator=(const BaseEvent&) = default;
  ~BaseEvent() override;

  const char* nameOf() const override;

  // Called on a registered (found) event: delivers `event` to the client
  // object that registered this one, through the handler this one names.
  // Ownership of `event` passes to the receiving side (see above). Returns the
  // handler's status; 0 when the event could not be delivered (no client
  // object, an unknown handler id, a terminated queue) and has been discarded.
  int dispatchEvent(BaseEvent* event) const;

  ClientObj* client() const { return client_; }
  int value() const { return value_; }

 private:
  ClientObj* client_ = nullptr;
  int value_ = 0;
};

class ClientObj : public RWCollectable {
 public:
  // A handler receives an event it now owns and returns a status (by
  // convention 1 for "accepted").
  using tEventHandler = std::function<int(BaseEvent* event)>;
  // The handler id that delivers to the object's own event queue.
  static constexpr int kQueueHandler = 0;

  ClientObj();
  ~ClientObj() override;
  ClientObj(const ClientObj&) = delete;
  ClientObj& operator=(const ClientObj&) = delete;

  // Adds a handler and returns its id (1, 2, ...), the value to give the key
  // events that should reach it. An empty handler is refused with -1.
  int signOn(tEventHandler handler);

  // Asks `server` to add or remove `event` for this object (see
  // ServerObj::applyRegistration). Registering hands `event` to the server.
  bool pleaseRegister(ServerObj* server, BaseEvent* event);
  bool pleaseUnRegister(ServerObj* server, BaseEvent* event);
  // Removes every event this object registered with `server`; returns how many.
  int pleaseUnRegisterAll(ServerObj* server);

  // Delivers an event (which this object now owns) to the handler `handlerId`:
  // kQueueHandler puts it on the event queue (status 1, or 0 when the queue is
  // terminated and the event was deleted); a signed-on id calls that handler
  // and returns its status; any other id is logged, the event deleted, and 0
  // returned.
  virtual int dispatch(BaseEvent* event, int handlerId);

  // Events dispatched with kQueueHandler arrive here.
  RQPEventQueue& eventQueue() { return queue_; }

 private:
  std::vector<tEventHandler> handlers_;
  RQPEventQueue queue_;
};

class ServerObj : public ClientObj {
 public:
  // `registrySize` is the number of hash buckets (at least 1 is used).
  explicit ServerObj(std::size_t registrySize);
  ~ServerObj() override;

  // Finds the newest registration equal to `event` and hands the event to it.
  // True: delivered, the event now belongs to the receiver. False: nothing is
  // registered under that key and the caller still owns the event.
  virtual bool dispatchEvent(BaseEvent* event);
  // Registers `event` (which names its client object) under its key and takes
  // ownership. False, and the caller keeps the event, when it is null or names
  // no client object.
  virtual bool registerEvent(BaseEvent* event);
  // Removes and deletes this very event object; false (nothing deleted) when it
  // is not registered. An event equal to a registered one is not enough.
  virtual bool unRegisterEvent(BaseEvent* event);
  // Removes and deletes every event registered for `client`; returns how many.
  virtual int unRegisterClient(ClientObj* client);
  // A client object's request to add (`add` true) or remove one of its events.
  // The event must name `requester` as its client object; a request that does
  // not is logged and refused (a refused registration leaves the event with
  // the requester).
  virtual bool applyRegistration(ClientObj* requester, BaseEvent* event, bool add);

  // The newest registered event equal to `key`, or null. The result stays
  // owned by the registry.
  BaseEvent* findEvent(const BaseEvent& key) const;

  // The newest registered event of the bucket of `hash` that `match` accepts,
  // or null: a look-up by key text that needs no key event built for it.
  template <class Match>
  BaseEvent* findEventWith(unsigned hash, Match&& match) const {
    const auto& bucket = buckets_[hash % buckets_.size()];
    for (auto it = bucket.rbegin(); it != bucket.rend(); ++it)
      if (match(**it)) return *it;
    return nullptr;
  }

  std::size_t registrationCount() const { return count_; }
  std::size_t registrySize() const { return buckets_.size(); }

 private:
  std::vector<BaseEvent*>& bucketFor(const BaseEvent& event);
  const std::vector<BaseEvent*>& bucketFor(const BaseEvent& event) const;

  // Each bucket holds its registrations oldest first.
  std::vector<std::vector<BaseEvent*>> buckets_;
  std::size_t count_ = 0;
};
