#pragma once
// The interfaces between the service's connections and its core. The core (the
// event server, the connection keeper, the service object) implements the ones
// a connection calls, so that connections never depend on the core's classes,
// and routing can be exercised without sockets.
//
//   iVantrelConnection            any connection the service creates
//   iVantrelClientLink            a local client's connection, as its session sees it
//   iVantrelHostLink              a link to another host's service, as the router sees it
//   iVantrelClientSession         the service's side of one greeted client
//   iVantrelRouter                the registry that hands events to sessions and links
//   iVantrelConnectionOwner       who owns, reaps and deletes connections
//   iVantrelClientSessionFactory  makes the session for a greeted client connection
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vantrel/base/events/events.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/message/vantrelevents.h"

// Base of every connection the service creates (client connections, host links).
// Owner: the connection owner. Terminate may be called from any thread, any
// number of times; with wait it joins every thread of the connection other than
// the caller's own.
class iVantrelConnection : public ClientObj {
 public:
  ~iVantrelConnection() override = default;
  virtual void Terminate(bool wait) = 0;
};

// A local client's connection as its session sees it: events put on its event
// queue are sent to the client by the connection's writer.
class iVantrelClientLink : public iVantrelConnection {
 public:
  // Hands an event to the writer; takes ownership. False when the connection
  // has ended (the event is then deleted). Called from any thread, possibly
  // under the router's lock, so it only queues.
  virtual bool Post(RWCollectable* event) { return eventQueue().putEvent(event); }
  // An answer to the client, from any thread (the connection's reader, or the
  // writer of the client a message went to). A connection may send it at once
  // when nothing queued earlier would be overtaken and the socket has room; by
  // default it is queued like any other event.
  virtual void SendAnswer(std::unique_ptr<VantrelClientEvent> answer) { Post(answer.release()); }
  // The user the client process runs as, learned when its connection was
  // accepted; nothing when it could not be found. Files opened for the client
  // are opened with that user's rights.
  virtual std::optional<std::uint32_t> PeerUser() const { return std::nullopt; }
};

// A link to another host's service as the router sees it.
class iVantrelHostLink : public iVantrelConnection {
 public:
  // The peer's address text ("name" or "name~port"); empty until known.
  virtual std::string HostText() const = 0;
  // True for a link this service opened, false for one the peer opened.
  virtual bool OpenedHere() const { return false; }

  // What a link that gives way to another link of the same host hands over:
  // the messages it had not started to send, oldest first, and a signal set
  // once it has ended.
  struct cHandover {
    std::vector<std::unique_ptr<VantrelHostEvent>> queued;
    std::shared_ptr<RQPManualEvent> ended;
  };
  // Another link now carries this host's messages (the router no longer routes
  // to this one). Takes out the messages not yet being sent; the link finishes
  // the one in hand, waits for the answers of requests already sent, and ends.
  // Called under the router's lock: it only takes from its own queue.
  virtual cHandover GiveWay() { return {}; }
  // Sends nothing until `predecessor` is set (or a bounded wait has passed),
  // so that what the predecessor sent reaches the peer first. Called under the
  // router's lock before the predecessor's messages are handed over.
  virtual void FollowAfter(std::shared_ptr<RQPManualEvent> /*predecessor*/) {}
};

// One greeted local client inside the service: it routes what its client sends
// and receives, under the client's name, what the router delivers.
// Owner: the client connection that asked the factory for it. Threads:
// handleMessage on that connection's reader; detach on the reader or the thread
// that cleans the router up.
class iVantrelClientSession : public ClientObj {
 public:
  ~iVantrelClientSession() override = default;
  virtual const std::string& name() const = 0;
  // One typed message from the client (`data` is the record's packed buffer).
  // False when the client has said farewell: the connection stops reading.
  virtual bool handleMessage(const char* data, std::uint32_t length, short type, short subtype) = 0;
  // The same for a received frame whose buffer (new char[], as the socket made
  // it) the session takes over, so that a record kept for routing adopts it
  // rather than copying it.
  virtual bool handleFrame(std::unique_ptr<char[]> data, std::uint32_t length, short type, short subtype) {
    return handleMessage(data.get(), length, type, subtype);
  }
  // Leaves the router and terminates the connection, joining its threads
  // unless called on one of them. Idempotent.
  virtual void detach() = 0;
};

// The service's routing registry. Registrations are by name; a newer one of the
// same name takes precedence, and removal goes by identity, so removing a stale
// registration never takes a newer one away. Every operation is thread-safe and
// may be re-entered by the thread that holds the registry's lock (a new link
// registering itself while a dispatch opens it).
class iVantrelRouter {
 public:
  virtual ~iVantrelRouter() = default;
  // `handler` is the id the object's signOn gave for deliveries.
  virtual void registerClientEvent(const char* name, iVantrelClientSession* session, int handler) = 0;
  virtual void registerHostEvent(const char* name, iVantrelHostLink* link, int handler) = 0;
  // Harmless for an object that is not (or no longer) registered.
  virtual void removeClient(iVantrelClientSession* session) = 0;
  virtual void removeHost(iVantrelHostLink* link) = 0;
  // Hands `event` to the local client named by its to-client. True: the event
  // now belongs to the receiver. False: no such client; the caller still owns it.
  virtual bool dispatchClientEvent(VantrelClientEvent* event) = 0;
  // Hands `event` to the link of its to-host, opening a link first when there is
  // none. True: the event belongs to the link. False only when no link could be
  // made; the caller still owns the event.
  virtual bool dispatchHostEvent(VantrelHostEvent* event) = 0;
  // True when `host` names this service itself: its host name, "localhost" or
  // one of its own addresses, with its net port or none. Never asks a resolver
  // and takes no lock, so it may be called anywhere, also per message.
  virtual bool isLocalHost(const char* host) const = 0;
};

// Owns every connection of a service from its creation to its deletion.
// Thread-safe; it never calls a connection while holding its own lock.
class iVantrelConnectionOwner {
 public:
  virtual ~iVantrelConnectionOwner() = default;
  // Takes ownership of a new connection.
  virtual void Adopt(std::unique_ptr<iVantrelConnection> connection) = 0;
  // The connection has terminated by itself; the owner joins its threads and
  // deletes it later, on a thread of its own. Unknown connections are ignored.
  virtual void Ended(iVantrelConnection* connection) = 0;
  // An accepted connection has completed its handshake (a link) or greeting (a
  // client): from now on no admission deadline applies to it. Unknown or
  // already admitted connections are ignored.
  virtual void Admitted(iVantrelConnection* /*connection*/) {}
};

// Makes the session of a client connection once the client has greeted.
class iVantrelClientSessionFactory {
 public:
  virtual ~iVantrelClientSessionFactory() = default;
  // The session for client `name` on `link`, already registered with the router
  // under that name, so the client is reachable before its greeting is answered.
  // Called on the connection's reader thread; never null.
  virtual std::unique_ptr<iVantrelClientSession> CreateClientSession(const std::string& name,
                                                                     iVantrelClientLink* link) = 0;
};
