#pragma once
// What the service core needs of the connections it routes to. The event server
// and the client instances talk to connections only through these interfaces, so
// that routing can be exercised without sockets.
//
// Every connection object is owned by the service's connection keeper
// (vantrelconnectionkeeper.h), which terminates, joins and deletes it.
#include <string>

#include "vantrel/base/events/events.h"

// Base of every connection the service creates (client connections, host links).
// Owner: the connection keeper. Terminate may be called from any thread, any
// number of times; with wait it joins every thread of the connection other than
// the caller's own.
class iVantrelConnection : public ClientObj {
 public:
  ~iVantrelConnection() override = default;
  virtual void Terminate(bool wait) = 0;
};

// A local client's connection as the client instance sees it: events put on its
// event queue are sent to the client by the connection's writer.
class iVantrelClientLink : public iVantrelConnection {
 public:
  // Hands an event to the writer; takes ownership. False when the connection
  // has ended (the event is then deleted). Called from any thread, possibly
  // under the event server's lock, so it only queues.
  virtual bool Post(RWCollectable* event) { return eventQueue().putEvent(event); }
  // An answer made on the connection's own reader thread; takes ownership. A
  // connection may send it at once when nothing queued earlier would be
  // overtaken; by default it is queued like any other event.
  virtual void SendAnswer(RWCollectable* answer) { Post(answer); }
};

// A link to another host's service as the event server sees it.
class iVantrelHostLink : public iVantrelConnection {
 public:
  // The peer's address text ("name" or "name~port"); empty until known.
  virtual std::string HostText() const = 0;
};
