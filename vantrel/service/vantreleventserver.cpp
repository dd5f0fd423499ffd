#include "vantrel/service/vantreleventserver.h"

#include <algorithm>
#include <utility>

#include "vantrel/base/log/log.h"

CVantrelEventServer::CVantrelEventServer() : ServerObj(37) {}

CVantrelEventServer::~CVantrelEventServer() = default;

void CVantrelEventServer::setLinkFactory(tLinkFactory factory) {
  RQPMutexGuard guard(lock_);
  linkFactory_ = std::move(factory);
}

void CVantrelEventServer::setLocalHost(const std::string& hostName, const std::string& addressHostText) {
  RQPMutexGuard guard(lock_);
  hostName_ = hostName;
  addressHostText_ = addressHostText;
}

void CVantrelEventServer::registerClientEvent(const char* name, iVantrelClientSession* session, int handler) {
  VLOG_INFO("CVantrelEventServer::registerClientEvent");
  RQPMutexGuard guard(lock_);
  clients_.push_back(session);
  auto* key = new VantrelClientEvent(name, session, handler);
  if (!registerEvent(key)) {
    VLOG_ERROR("CVantrelEventServer::registerClientEvent - registration of client %s refused",
               vantrel::log::Escaped(name));
    delete key;
  }
}

void CVantrelEventServer::registerHostEvent(const char* name, iVantrelHostLink* link, int handler) {
  VLOG_INFO("CVantrelEventServer::registerHostEvent");
  RQPMutexGuard guard(lock_);
  hosts_.push_back(link);
  auto* key = new VantrelHostEvent(name, link, handler);
  if (!registerEvent(key)) {
    VLOG_ERROR("CVantrelEventServer::registerHostEvent - registration of host %s refused", vantrel::log::Escaped(name));
    delete key;
  }
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
  RQPMutexGuard guard(lock_);
  if (dispatchEvent(event)) return true;
  const std::string host = event->getToHost();
  VLOG_INFO("CVantrelEventServer::dispatchHostEvent, Creating new CVantrelHostConnection(%s)",
            vantrel::log::Escaped(host));
  if (!linkFactory_) {
    VLOG_ERROR("CVantrelEventServer::dispatchHostEvent - no way to open a link to %s", vantrel::log::Escaped(host));
    return false;
  }
  // The new link registers itself under the host text on this thread, while the
  // lock is held, so the second look-up finds it.
  iVantrelHostLink* link = linkFactory_(host);
  if (link == nullptr) return false;
  if (dispatchEvent(event)) return true;
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

bool CVantrelEventServer::isLocalHost(const char* host) const {
  if (host == nullptr || hostName_.empty()) return false;
  return hostName_ == host || addressHostText_ == host;
}

std::size_t CVantrelEventServer::clientCount() {
  RQPMutexGuard guard(lock_);
  return clients_.size();
}

std::size_t CVantrelEventServer::hostCount() {
  RQPMutexGuard guard(lock_);
  return hosts_.size();
}
