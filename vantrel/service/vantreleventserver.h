#pragma once
// CVantrelEventServer: the service's router. It knows every local client (its
// session) and every link to another host's service, and hands each event to
// the one registered under the event's key. An event for a host without a link
// makes it open one through its link factory.
//
// Owner: the service (CVantrelClass). Owns: the registry's key events. It does
// not own the sessions and links it lists: sessions belong to their client
// connections and every connection to the service's connection keeper; cleanUp
// terminates them and the keeper deletes them.
// Threads: client connection readers, host link readers, the listeners' accept
// threads (through new links) and the main thread (cleanUp). One re-entrant lock
// covers every operation; the same thread takes it again when a new link
// registers itself from dispatchHostEvent, and when a terminating link or
// detaching session removes itself.
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vantrel/base/events/events.h"
#include "vantrel/base/platform/localaddress.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/vantrellinks.h"
#include "vantrel/support/sync.h"

// The names and addresses under which a service is reached. An address names
// the service when its port (after the delimiter; none means the net port) is
// the net port and its host is the host name, "localhost", the host text, or a
// numeric address of this machine: a loopback or unspecified address or one of
// the interface addresses - or, when the net port listens on one address only,
// that address alone.
struct cLocalIdentity {
  std::string hostName;
  std::string addressHostText;
  std::string delimiter = "~";
  unsigned short netPort = 0;
  std::optional<vantrel::platform::cIpAddress> listenAddress;
  std::vector<vantrel::platform::cIpAddress> interfaceAddresses;
};

class CVantrelEventServer : public ServerObj, public iVantrelRouter {
 public:
  // Makes the outgoing link for a host text; the link registers itself with
  // registerHostEvent before it returns. Null when no link can be made.
  using tLinkFactory = std::function<iVantrelHostLink*(const std::string& hostText)>;

  // Without a link factory no link is ever opened; without a local host, no host
  // text is this service's own.
  CVantrelEventServer();
  ~CVantrelEventServer() override;
  CVantrelEventServer(const CVantrelEventServer&) = delete;
  CVantrelEventServer& operator=(const CVantrelEventServer&) = delete;

  const char* nameOf() const override { return "CVantrelEventServer"; }

  void setLinkFactory(tLinkFactory factory);
  // The key of a link to `hostText` (see gLinkKey), with this service's
  // delimiter and net port.
  std::string linkKey(std::string_view hostText) const;
  // The names under which this service is addressed; set before the listeners
  // start, read without the lock afterwards.
  void setLocalHost(cLocalIdentity identity);

  void registerClientEvent(const char* name, iVantrelClientSession* session, int handler) override;
  void registerHostEvent(const char* name, iVantrelHostLink* link, int handler) override;
  void removeClient(iVantrelClientSession* session) override;
  void removeHost(iVantrelHostLink* link) override;
  bool dispatchClientEvent(VantrelClientEvent* event) override;
  bool dispatchHostEvent(VantrelHostEvent* event) override;
  bool isLocalHost(const char* host) const override;

  // Stops every link, then every client: both tables are taken out and
  // unregistered under the lock, then each link is terminated and each session
  // detached (joining their threads) outside it.
  void cleanUp();

  // Numbers of registered objects (diagnostics and tests).
  std::size_t clientCount();
  std::size_t hostCount();

 private:
  RQPMutex lock_;
  std::vector<iVantrelClientSession*> clients_;
  std::vector<iVantrelHostLink*> hosts_;
  bool isOwnHostPart(const std::string& host) const;
  // The registration of the link that carries messages for `key`, or null.
  BaseEvent* findLink(const std::string& key) const;
  // Two links of one host: settles which one carries its messages (the other
  // gives way) and returns whether `link` is the one. Caller holds the lock.
  bool settleSecondLink(const std::string& key, iVantrelHostLink* link, iVantrelHostLink* current);

  tLinkFactory linkFactory_;
  cLocalIdentity local_;
  std::string ownKey_;  // this service's own link key, as peers key it
};
