#include "vantrel/net/pendinganswers.h"

#include <cstring>

#include "vantrel/message/wire.h"

void cPendingAnswers::Open() {
  std::lock_guard<std::mutex> guard(mutex_);
  // A link that broke while it was connecting stays broken.
  if (!closed_) open_ = true;
}

bool cPendingAnswers::IsOpen() const { return open_.load(std::memory_order_acquire); }

bool cPendingAnswers::Record(const cVantrelMessage& request, double sentAt) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!open_) return false;
  entries_.push_back(cEntry{request.getMessageId(), request.getType(), request.getToHost(), request.getToClient(),
                            request.getFromHost(), request.getFromClient(), sentAt});
  publish();
  return true;
}

bool cPendingAnswers::Settle(std::uint32_t messageId, const char* requester) {
  std::lock_guard<std::mutex> guard(mutex_);
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (it->messageId == messageId && it->fromClient == requester) {
      entries_.erase(it);
      publish();
      return true;
    }
  }
  return false;
}

std::list<cPendingAnswers::cEntry> cPendingAnswers::Expire(double sentBefore) {
  std::lock_guard<std::mutex> guard(mutex_);
  // Entries are recorded in sending order, so the expired ones lead.
  auto end = entries_.begin();
  while (end != entries_.end() && end->sentAt < sentBefore) ++end;
  std::list<cEntry> expired;
  expired.splice(expired.end(), entries_, entries_.begin(), end);
  publish();
  return expired;
}

bool cPendingAnswers::Waiting() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return !entries_.empty();
}

std::list<cPendingAnswers::cEntry> cPendingAnswers::Close() {
  std::lock_guard<std::mutex> guard(mutex_);
  open_ = false;
  closed_ = true;
  std::list<cEntry> waiting;
  waiting.swap(entries_);
  publish();
  return waiting;
}

std::unique_ptr<VantrelClientEvent> cPendingAnswers::BrokenAnswer(std::uint32_t messageId, const char* toHost,
                                                                  const char* toClient, const char* fromHost,
                                                                  const char* fromClient, QType qtype, const char* text,
                                                                  short subtype, const std::string& detail) {
  if (detail.empty() || qtype != QTYPE_SYNC)
    return std::make_unique<VantrelClientEvent>(static_cast<long>(messageId), fromHost, fromClient, toHost, toClient,
                                                qtype, vantrel::wire::kNotDelivered, subtype, text,
                                                static_cast<long>(std::strlen(text) + 1));
  std::string data(text);
  data.push_back('\0');
  data += detail;
  return std::make_unique<VantrelClientEvent>(static_cast<long>(messageId), fromHost, fromClient, toHost, toClient,
                                              qtype, vantrel::wire::kNotDelivered, subtype, data.c_str(),
                                              static_cast<long>(data.size() + 1));
}
