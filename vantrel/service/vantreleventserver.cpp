#include "vantrel/service/vantreleventserver.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/address.h"
#include "vantrel/net/linkkey.h"

using nCommunication::nSocket::nImplementation_sho::gSplitHostPort;

CVantrelEventServer::CVantrelEventServer() : ServerObj(37) {}

CVantrelEventServer::~CVantrelEventServer() = default;

void CVantrelEventServer::setLinkFactory(tLinkFactory factory) {
  RQPMutexGuard guard(lock_);
  linkFactory_ = std::move(factory);
}

void CVantrelEventServer::setLocalHost(cLocalIdentity identity) {
  RQPMutexGuard guard(lock_);
  local_ = std::move(identity);
  // Peers key this service by the host text it sends them when it opens a link.
  ownKey_ = linkKey(local_.addressHostText);
}

std::string CVantrelEventServer::linkKey(std::string_view hostText) const {
  return gLinkKey(hostText, local_.delimiter, local_.netPort);
}

BaseEvent* CVantrelEventServer::findLink(const std::string& key) const {
  // Compared as VantrelHostEvent::isEqual compares, without a probe record.
  return findEventWith(gVantrelKeyHash(key.c_str()), [&key](const BaseEvent& registered) {
    if (registered.isA() != VantrelHostEvent::kClassId) return false;
    const auto* link = dynamic_cast<const VantrelHostEvent*>(&registered);
    return link != nullptr && key == link->getToHost();
  });
}

void CVantrelEventServer::registerClientEvent(const char* name, iVantrelClientSession* session, int handler) {
  VLOG_DEBUG("CVantrelEventServer::registerClientEvent");
  RQPMutexGuard guard(lock_);
  // The newest registration takes the name's messages; the earlier client
  // would never learn why its messages stopped, so the operator is told.
  const auto earlier = std::count_if(clients_.begin(), clients_.end(), [name](iVantrelClientSession* other) {
    return other->name() == std::string_view(name);
  });
  if (earlier > 0)
    VLOG_WARN(
        "CVantrelEventServer::registerClientEvent - client %s registered again: its messages now go to the new "
        "client %s, no longer to the %ld earlier one(s)",
        vantrel::log::Escaped(name), vantrel::log::Escaped(name), static_cast<long>(earlier));
  clients_.push_back(session);
  auto* key = new VantrelClientEvent(name, session, handler);
  if (!registerEvent(key)) {
    VLOG_ERROR("CVantrelEventServer::registerClientEvent - registration of client %s refused",
               vantrel::log::Escaped(name));
    delete key;
  }
}

void CVantrelEventServer::registerHostEvent(const char* name, iVantrelHostLink* link, int handler) {
  VLOG_DEBUG("CVantrelEventServer::registerHostEvent");
  const std::string keyText = linkKey(name);
  RQPMutexGuard guard(lock_);
  hosts_.push_back(link);
  const BaseEvent* existing = findLink(keyText);
  auto* current = existing != nullptr ? dynamic_cast<iVantrelHostLink*>(existing->client()) : nullptr;
  if (current != nullptr && current != link && !settleSecondLink(keyText, link, current)) return;
  auto* key = new VantrelHostEvent(keyText.c_str(), link, handler);
  if (!registerEvent(key)) {
    VLOG_ERROR("CVantrelEventServer::registerHostEvent - registration of host %s refused", vantrel::log::Escaped(name));
    delete key;
    return;
  }
  if (current == nullptr || current == link) return;
  // The one that gave way hands over what it had not begun to send; the lock
  // keeps every other message for this host behind these.
  auto handover = current->GiveWay();
  link->FollowAfter(std::move(handover.ended));
  for (auto& event : handover.queued) key->dispatchEvent(event.release());
}

bool CVantrelEventServer::settleSecondLink(const std::string& key, iVantrelHostLink* link, iVantrelHostLink* current) {
  // Both sides must keep the same link without a word to each other: of a link
  // each host opened, the one opened by the host whose key sorts first stays.
  // Two links the peer opened mean it came back (a restart) or that something
  // else claims its name: the newer one is taken, as the older is likely dead;
  // admission by certificate keeps the name from anyone but the named host.
  bool newer = true;
  const char* why = "it is the newer link the host opened";
  if (link->OpenedHere() != current->OpenedHere()) {
    const bool oursStays = ownKey_ < key;
    newer = link->OpenedHere() == oursStays;
    why = oursStays ? "the link this host opened stays (its key sorts first)"
                    : "the link the peer opened stays (its key sorts first)";
  }
  VLOG_WARN("CVantrelEventServer::registerHostEvent - host %s has two links; %s, so the %s one carries its messages",
            vantrel::log::Escaped(key), why, newer ? "new" : "existing");
  if (!newer) {
    // It stays up for what the peer sends over it until the peer closes it;
    // nothing is routed to it.
    return false;
  }
  unRegisterClient(current);
  return true;
}

void CVantrelEventServer::removeClient(iVantrelClientSession* session) {
  RQPMutexGuard guard(lock_);
  unRegisterClient(session);
  auto it = std::find(clients_.begin(), clients_.end(), session);
  if (it != clients_.end()) {
    VLOG_INFO("CVantrelEventServer::removeClient - Removing client %s", vantrel::log::Escaped(session->name()));
    clients_.erase(it);
  }
}

void CVantrelEventServer::removeHost(iVantrelHostLink* link) {
  RQPMutexGuard guard(lock_);
  unRegisterClient(link);
  auto it = std::find(hosts_.begin(), hosts_.end(), link);
  if (it != hosts_.end()) {
    VLOG_INFO("CVantrelEventServer::removeHost - Removing host %s", vantrel::log::Escaped(link->HostText()));
    hosts_.erase(it);
  }
}

bool CVantrelEventServer::dispatchClientEvent(VantrelClientEvent* event) {
  if (event == nullptr) return false;
  RQPMutexGuard guard(lock_);
  return dispatchEvent(event);
}

bool CVantrelEventServer::dispatchHostEvent(VantrelHostEvent* event) {
  if (event == nullptr) return false;
  const char* const host = event->getToHost();
  // Every message is keyed: each routing thread keeps its buffer for it.
  thread_local std::string key;
  gLinkKey(key, host, local_.delimiter, local_.netPort);
  RQPMutexGuard guard(lock_);
  if (const BaseEvent* link = findLink(key)) {
    link->dispatchEvent(event);
    return true;
  }
  VLOG_DEBUG("CVantrelEventServer::dispatchHostEvent, Creating new CVantrelHostConnection(%s)",
             vantrel::log::Escaped(host));
  if (!linkFactory_) {
    VLOG_ERROR("CVantrelEventServer::dispatchHostEvent - no way to open a link to %s", vantrel::log::Escaped(host));
    return false;
  }
  // The new link registers itself under the host text on this thread, while the
  // lock is held, so the second look-up finds it.
  if (linkFactory_(host) == nullptr) return false;
  if (const BaseEvent* link = findLink(key)) {
    link->dispatchEvent(event);
    return true;
  }
  VLOG_ERROR("CVantrelEventServer::dispatchHostEvent - new link to %s did not register", vantrel::log::Escaped(host));
  return false;
}

void CVantrelEventServer::cleanUp() {
  std::vector<iVantrelHostLink*> hosts;
  std::vector<iVantrelClientSession*> clients;
  {
    RQPMutexGuard guard(lock_);
    hosts.swap(hosts_);
    clients.swap(clients_);
    for (auto* link : hosts) unRegisterClient(link);
    for (auto* session : clients) unRegisterClient(session);
  }
  // Terminating joins the objects' threads, which may be waiting for this very
  // lock (a reader dispatching), so it runs outside it.
  for (auto* link : hosts) {
    VLOG_INFO("CVantrelEventServer::cleanUp - Removing host %s", vantrel::log::Escaped(link->HostText()));
    link->Terminate(true);
  }
  for (auto* session : clients) {
    VLOG_INFO("CVantrelEventServer::cleanUp - Removing client %s", vantrel::log::Escaped(session->name()));
    session->detach();
  }
}

namespace {
bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}
}  // namespace

bool CVantrelEventServer::isLocalHost(const char* host) const {
  if (host == nullptr || local_.hostName.empty()) return false;
  if (local_.addressHostText == host || local_.hostName == host) return true;
  const auto split = gSplitHostPort(host, local_.delimiter);
  // A host text without a port is reached on this service's own net port.
  if (split.hasDelimiter && split.port != local_.netPort) return false;
  return isOwnHostPart(split.host);
}

bool CVantrelEventServer::isOwnHostPart(const std::string& host) const {
  namespace platform = vantrel::platform;
  if (SameName(host, local_.hostName) || SameName(host, "localhost")) return true;
  // Names other than these would need the resolver, which must not run here
  // (callers may hold the router's lock); a link that still leads back to this
  // service is refused when it connects.
  // Every numeric form a connect accepts starts with a digit or holds a colon;
  // other names skip the parse on this per-message path.
  if (host.empty() || (!std::isdigit(static_cast<unsigned char>(host[0])) && host.find(':') == std::string::npos))
    return false;
  const auto address = platform::gParseNumericAddress(host);
  if (!address) return false;
  if (local_.listenAddress) return *address == *local_.listenAddress;
  return platform::gIsLoopback(*address) || platform::gIsUnspecified(*address) ||
         std::find(local_.interfaceAddresses.begin(), local_.interfaceAddresses.end(), *address) !=
             local_.interfaceAddresses.end();
}

std::size_t CVantrelEventServer::clientCount() {
  RQPMutexGuard guard(lock_);
  return clients_.size();
}

std::size_t CVantrelEventServer::hostCount() {
  RQPMutexGuard guard(lock_);
  return hosts_.size();
}
