#pragma once
// cPendingAnswers: the ledger of a host link's requests that wait for the peer's
// answer (sends of type 2 and 4), so that the link can answer each of them as
// broken when it goes down before the peer did, or as unanswered when the peer
// takes too long; and the one place that decides whether an answer from the
// peer is owed at all (an answer nothing waits for is a forgery or too late).
//
// The ledger is closed until the link connects (Open) and closed for good when
// the link breaks (Close): a request that finds it closed is the caller's to
// answer. Owner: the host link (one ledger per link). Threads: the link's writer
// records, its reader settles, whichever thread terminates the link closes it,
// and the link's file threads ask whether it is open; one mutex guards the
// entries and the state.
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "vantrel/message/packmsg.h"
#include "vantrel/message/vantrelevents.h"

namespace nVantrelLink {
inline constexpr const char* kLinkBrokeText = "Connection to host broke.";
inline constexpr const char* kNoAnswerText = "No answer from host in time.";
inline constexpr const char* kLinkFullText = "Link to host is full.";
}  // namespace nVantrelLink

class cPendingAnswers {
 public:
  // A request sent on the link, as much of it as an answer needs.
  struct cEntry {
    std::uint32_t messageId;
    short type;
    std::string toHost, toClient, fromHost, fromClient;
    double sentAt;  // RQPSysTime seconds
  };

  // The link is connected: requests are recorded from now on. Does nothing
  // once the ledger has been closed.
  void Open();
  bool IsOpen() const;
  // Records a request about to be sent. False when the ledger is not open; the
  // caller then answers the request itself.
  bool Record(const cVantrelMessage& request, double sentAt);
  // An answer to `requester`'s message `messageId` came back: forgets the
  // oldest matching entry and returns true. False when no such request waits:
  // the answer is not owed and must not be passed on.
  bool Settle(std::uint32_t messageId, const char* requester);
  // Takes out, oldest first, every request sent before `sentBefore`.
  std::list<cEntry> Expire(double sentBefore);
  // Keeps `gauge` (which must outlive the ledger) at the number of requests
  // waiting; set before the ledger opens.
  void SetGauge(std::atomic<std::uint64_t>* gauge) { gauge_ = gauge; }
  // True while any request waits for an answer.
  bool Waiting() const;
  // The link broke: closes the ledger for good and hands back every entry still
  // waiting, oldest first.
  std::list<cEntry> Close();

  // The answer to a request (given by its own addresses) that the peer will
  // never answer: not delivered with `text` (by default "Connection to host
  // broke."), travelling back to the requester with the request's message id,
  // on `subtype` (gAnswerChannel). An acknowledged send (QTYPE_SYNC) gets
  // `detail`, when there is one, after the text's terminating zero: the client
  // library reads it as the reason, and whoever reads the text up to its zero
  // reads the same text as before.
  static std::unique_ptr<VantrelClientEvent> BrokenAnswer(std::uint32_t messageId, const char* toHost,
                                                          const char* toClient, const char* fromHost,
                                                          const char* fromClient, QType qtype,
                                                          const char* text = nVantrelLink::kLinkBrokeText,
                                                          short subtype = vantrel::wire::kChannelMessages,
                                                          const std::string& detail = std::string());

 private:
  mutable std::mutex mutex_;
  // Written under the mutex; read without it where a stale answer only costs a
  // detour (IsOpen).
  std::atomic<bool> open_{false};
  bool closed_ = false;
  std::list<cEntry> entries_;
  std::atomic<std::uint64_t>* gauge_ = nullptr;
  // Under the mutex, after each change of the entries.
  void publish() {
    if (gauge_ != nullptr) gauge_->store(entries_.size(), std::memory_order_relaxed);
  }
};
