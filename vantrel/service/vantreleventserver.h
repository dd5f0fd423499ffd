#pragma once
// CVantrelEventServer: the service's routing registry. It knows every local
// client (its VantrelClientInstance) and every link to another host's service,
// and hands each event to the one registered under the event's key. An event
// for a host without a link makes it open one.
//
// Owner: CVantrelClass (created in its constructor, deleted in its destructor).
// Owns: the registry's key events. It does not own the instances and links it
// lists: client instances belong to their client connections and every
// connection belongs to the service's connection keeper; cleanUp terminates
// them and the keeper deletes them.
// Threads: client connection readers, host link readers, the listeners' accept
// threads (through new links) and the main thread (cleanUp). One re-entrant lock
// covers every operation; the same thread takes it again when a new link
// registers itself from dispatchHostEvent, and when a terminating link or
// detaching instance removes itself.
#include <functional>
#include <string>
#include <vector>

#include "vantrel/base/events/events.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/service/vantrellinks.h"
#include "vantrel/support/sync.h"

class CVantrelClass;
class VantrelClientInstance;

class CVantrelEventServer : public ServerObj {
 public:
  // Makes the outgoing link for a host text; the link registers itself with
  // registerHostEvent before it returns. Null when no link can be made.
  using tLinkFactory = std::function<iVantrelHostLink*(const std::string& hostText)>;

  // `owner` (may be null in tests) supplies the outgoing links and their TLS
  // settings.
  explicit CVantrelEventServer(CVantrelClass* owner);
  ~CVantrelEventServer() override;
  CVantrelEventServer(const CVantrelEventServer&) = delete;
  CVantrelEventServer& operator=(const CVantrelEventServer&) = delete;

  const char* nameOf() const override { return "CVantrelEventServer"; }

  // Replaces the way outgoing links are made (tests).
  void setLinkFactory(tLinkFactory factory);

  // The instance answers to `name` from now on; a newer registration of the same
  // name takes precedence over older ones.
  void registerClientEvent(const char* name, VantrelClientInstance* instance, int value);
  void registerHostEvent(const char* name, iVantrelHostLink* link, int value);

  // Take an object out by identity. Harmless for an object that is not (or no
  // longer) registered.
  void removeClient(VantrelClientInstance* instance);
  void removeHost(iVantrelHostLink* link);

  // Hands `event` to the local client named by its to-client. True: delivered
  // (the event now belongs to the receiver). False: no such client; the caller
  // still owns the event.
  bool dispatchClientEvent(VantrelClientEvent* event);

  // Hands `event` to the link of its to-host, opening a link first when there is
  // none. True: the event belongs to the link. False only when no link could be
  // made; the caller still owns the event.
  bool dispatchHostEvent(VantrelHostEvent* event);

  // Stops every link, then every client: both tables are taken out and
  // unregistered under the lock, then each link is terminated and each instance
  // detached (joining their threads) outside it.
  void cleanUp();

  // True when `host` names this service itself (its host name, or its host text
  // with the net port).
  bool isLocalHost(const char* host) const;

  // Numbers of registered objects (diagnostics and tests).
  std::size_t clientCount();
  std::size_t hostCount();

 private:
  RQPMutex lock_;
  std::vector<VantrelClientInstance*> clients_;
  std::vector<iVantrelHostLink*> hosts_;
  CVantrelClass* owner_;
  tLinkFactory linkFactory_;
};
