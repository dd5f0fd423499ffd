#include "vantrel/base/events/events.h"

#include <algorithm>
#include <utility>

#include "vantrel/base/log/log.h"

// ---- BaseEvent -------------------------------------------------------------------

BaseEvent::~BaseEvent() = default;

const char* BaseEvent::nameOf() const { return "BaseEvent"; }

int BaseEvent::dispatchEvent(BaseEvent* event) const {
  if (event == nullptr) return 0;
  if (client_ == nullptr) {
    VLOG_ERROR("BaseEvent::dispatchEvent - registration %s names no client object, event %s dropped", nameOf(),
               event->nameOf());
    delete event;
    return 0;
  }
  return client_->dispatch(event, value_);
}

// ---- ClientObj -------------------------------------------------------------------

ClientObj::ClientObj() = default;

ClientObj::~ClientObj() = default;

int ClientObj::signOn(tEventHandler handler) {
  if (!handler) {
    VLOG_ERROR("ClientObj::signOn - empty handler refused");
    return -1;
  }
  handlers_.push_back(std::move(handler));
  return static_cast<int>(handlers_.size());
}

bool ClientObj::pleaseRegister(ServerObj* server, BaseEvent* event) {
  return server != nullptr && server->applyRegistration(this, event, true);
}

bool ClientObj::pleaseUnRegister(ServerObj* server, BaseEvent* event) {
  return server != nullptr && server->applyRegistration(this, event, false);
}

int ClientObj::pleaseUnRegisterAll(ServerObj* server) { return server != nullptr ? server->unRegisterClient(this) : 0; }

int ClientObj::dispatch(BaseEvent* event, int handlerId) {
  if (event == nullptr) return 0;
  if (handlerId == kQueueHandler) return queue_.putEvent(event) ? 1 : 0;
  if (handlerId < 1 || static_cast<std::size_t>(handlerId) > handlers_.size()) {
    VLOG_ERROR("ClientObj::dispatch - unknown handler %d for %s, event dropped", handlerId, event->nameOf());
    delete event;
    return 0;
  }
  return handlers_[static_cast<std::size_t>(handlerId) - 1](event);
}

// ---- ServerObj -------------------------------------------------------------------

ServerObj::ServerObj(std::size_t registrySize) : buckets_(std::max<std::size_t>(registrySize, 1)) {}

ServerObj::~ServerObj() {
  for (auto& bucket : buckets_)
    for (BaseEvent* event : bucket) delete event;
}

std::vector<BaseEvent*>& ServerObj::bucketFor(const BaseEvent& event) {
  return buckets_[event.hash() % buckets_.size()];
}

const std::vector<BaseEvent*>& ServerObj::bucketFor(const BaseEvent& event) const {
  return buckets_[event.hash() % buckets_.size()];
}

bool ServerObj::dispatchEvent(BaseEvent* event) {
  if (event == nullptr) return false;
  const BaseEvent* found = findEvent(*event);
  if (found == nullptr) return false;
  found->dispatchEvent(event);
  return true;
}

bool ServerObj::registerEvent(BaseEvent* event) {
  if (event == nullptr) return false;
  if (event->client() == nullptr) {
    VLOG_ERROR("ServerObj::registerEvent - %s names no client object, not registered", event->nameOf());
    return false;
  }
  bucketFor(*event).push_back(event);
  ++count_;
  return true;
}

bool ServerObj::unRegisterEvent(BaseEvent* event) {
  if (event == nullptr) return false;
  // Compared by address only, never dereferenced until found: the caller may
  // hold a pointer to an event that was already removed.
  for (auto& bucket : buckets_) {
    auto it = std::find(bucket.begin(), bucket.end(), event);
    if (it == bucket.end()) continue;
    bucket.erase(it);
    --count_;
    delete event;
    return true;
  }
  return false;
}

int ServerObj::unRegisterClient(ClientObj* client) {
  if (client == nullptr) return 0;
  int removed = 0;
  for (auto& bucket : buckets_) {
    auto it = std::remove_if(bucket.begin(), bucket.end(), [client, &removed](BaseEvent* event) {
      if (event->client() != client) return false;
      delete event;
      ++removed;
      return true;
    });
    bucket.erase(it, bucket.end());
  }
  count_ -= static_cast<std::size_t>(removed);
  return removed;
}

bool ServerObj::applyRegistration(ClientObj* requester, BaseEvent* event, bool add) {
  if (event == nullptr) return false;
  if (event->client() != requester) {
    VLOG_ERROR("ServerObj::applyRegistration - %s belongs to another client object, request refused", event->nameOf());
    return false;
  }
  return add ? registerEvent(event) : unRegisterEvent(event);
}

BaseEvent* ServerObj::findEvent(const BaseEvent& key) const {
  const auto& bucket = bucketFor(key);
  for (auto it = bucket.rbegin(); it != bucket.rend(); ++it)
    if ((*it)->isEqual(&key)) return *it;
  return nullptr;
}
