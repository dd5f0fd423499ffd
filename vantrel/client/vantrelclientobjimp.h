#pragma once
// cVantrelClientObjectImp: the work behind every operation of the client API,
// and CVantrelClientQueue, its receive queues.
//
// The implementation registers the process with the local service, builds
// message records and sends them through its communicator, waits for
// acknowledgements and incoming messages on three queues and keeps the last
// status code:
//   queue 0  incoming messages
//   queue 1  the greeting reply and acknowledgements (never offered to the hook)
//   queue 2  second-channel messages that the application's hook accepted
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>

#include "vantrel/base/platform/eventqueue.h"
#include "vantrel/client/vantrelclientcommunicator.h"
#include "vantrel/message/packmsg.h"
#include "vantrel/message/typedmsg.h"
#include "vantrel/message/wire.h"

class cVantrelClientObject;

// One receive queue: a platform event queue of cTypedMessageObject.
// Ownership: owned by one cVantrelClientObjectImp; owns what it holds until it
// is taken. Threads: the reader thread puts, application threads take; the
// event queue underneath does the locking.
class CVantrelClientQueue : public RQPEventQueue {
 public:
  // `capacity` 0 means unbounded; otherwise only the newest `capacity` entries
  // are kept and the oldest is dropped (and logged) to make room.
  explicit CVantrelClientQueue(int index, std::size_t capacity = 0) : index_(index), capacity_(capacity) {}

  // Queues `message` (owned by the queue from now on; deleted when the queue is
  // turned off).
  void putMessage(cTypedMessageObject* message);
  // Waits up to `milliseconds` (-1: no limit) for the next message. Null on a
  // time-out (logged; `timedOut` set when given), or when the queue is released
  // or turned off.
  cTypedMessageObject* waitMessage(long milliseconds, bool* timedOut = nullptr);
  // Takes the next message without ever blocking; null when there is none.
  cTypedMessageObject* fetchMessage();

 private:
  static cTypedMessageObject* AsFrame(RWCollectable* event);

  const int index_;
  const std::size_t capacity_;
};

// Ownership: owned by the cVantrelClientObject that created it in NETInitZ641
// (its owner, not owned), which ends it with Dispose. Owns its communicator, its
// three queues and the current message. Disposed of on its own reader (the
// application's hook re-registers or deletes its client object), it outlives
// its owner until the reader's last callback, then deletes itself.
// Threads: application threads call the NET operations; the communicator's
// reader calls OnNewFrame, NETTerminate and OnReaderEnded. Shared between them
// are the queues (thread-safe), the valid flag and the status (atomic). The
// greeting block, local host name and who-am-I text are written by NETInit
// before the object becomes valid and only read afterwards, so the sends that
// need no acknowledgement may run on several threads. The owner pointer and the
// dispose flag are read and written by the reader thread only (or by the
// destroying thread once the reader has been joined). The current message and
// the acknowledgement queue are for one application thread at a time: a record
// returned by a wait stays valid until that thread's next wait or fetch.
class cVantrelClientObjectImp : public RWCollectable, public iVantrelClientCommunicatorOwner {
 public:
  static constexpr unsigned short kDefaultClientPort = 9010;
  static constexpr long kDefaultAckWaitMilliseconds = 60000;
  // Queue 1 keeps no more than this many entries: acknowledgements of sends
  // nobody waits for would otherwise pile up there.
  static constexpr std::size_t kAckQueueCapacity = 1024;

  cVantrelClientObjectImp(const char* clientName, cVantrelClientObject* owner);
  // Ends the session, joins the reader, then releases queues, communicator and
  // the current message.
  ~cVantrelClientObjectImp() override;
  // How the owner ends `imp`: ends the session and destroys it now or, when
  // called on its reader (from the hook), as soon as the hook has returned and
  // the reader has ended; from then on `imp` never calls its owner again.
  static void Dispose(cVantrelClientObjectImp* imp);
  cVantrelClientObjectImp(const cVantrelClientObjectImp&) = delete;
  cVantrelClientObjectImp& operator=(const cVantrelClientObjectImp&) = delete;

  bool NETInit(const char* clientName, unsigned short port);
  bool NETSendMessage(const char* data, unsigned length, const char* address);
  bool NETSendMessageNoresponseZ1(const char* data, unsigned length, const char* address);
  bool NETSendMessageNowait(std::int32_t messageId, const char* data, unsigned length, const char* address);
  bool NETSendMultiMessageZ1(const char* data, unsigned length, const char* addressList);
  bool NETCopyFile(std::int32_t messageId, const char* data, unsigned length, const char* host);
  const cVantrelMessage* NETWaitMessage();
  // The same wait bounded by `milliseconds` (-1: no limit). A time-out returns
  // null with `timedOut` set and kStatusOk, and the object stays valid; the
  // session's end returns null as NETWaitMessage does.
  const cVantrelMessage* NETWaitMessageFor(long milliseconds, bool& timedOut);
  // NETFetchMessage's record: null when none waits or the object is not valid.
  const cVantrelMessage* NETFetchRecord();
  const char* NETWaitMessageX2();
  const char* NETFetchMessage();
  const char* NETWhoAmI();
  const char* NETLocalHostName();
  int NETGetLastStatus() const { return lastStatus_.load(std::memory_order_relaxed); }
  // Why the last NETInit failed before it reached the service (a bad client
  // name or VANTREL_CLIENT_PORT); empty otherwise.
  const char* NETGetLastErrorMessage() const { return lastErrorMessage_.c_str(); }
  // The text of the answer that refused the last acknowledged send (empty when
  // that send was delivered, timed out or never reached the service). For the
  // thread that made the send, as the acknowledgement queue is.
  const std::string& LastRefusal() const { return lastRefusal_; }
  bool NETTurnOn();
  bool NETTurnOff();
  // Ends the session: farewell frame, queues released, connection closed and
  // its reader joined. Never throws.
  void NETTerminate() override;

  bool IsValid() const { return valid_.load(std::memory_order_acquire); }
  unsigned short Port() const { return clientPort_; }
  long AckWaitTimeout() const { return ackWaitTimeout_; }
  CVantrelClientCommunicatorZ1& Communicator() { return *communicator_; }

  // iVantrelClientCommunicatorOwner
  unsigned short ClientPort() const override { return clientPort_; }
  std::string_view GreetingFrame() const override { return greetingFrame_; }
  std::string ClientName() const override;
  void OnNewFrame(cTypedMessageObject* frame, short subtype) override;
  void OnReaderEnded() override;
  void OnReaderExit() override;

  const char* nameOf() const override { return "cVantrelClientObjectImp"; }

 private:
  bool sendMessage(const char* data, unsigned length, const std::string& toClient, const std::string& toHost,
                   QType qtype, long timeout);
  bool sendMessageToVantrel(const cVantrelMessage& record);
  const cVantrelMessage* waitMessage(int queue, long milliseconds, bool* timedOut);
  // NETInit refused to start: the status and the error text say why.
  bool RefuseInit(std::string why);
  // Greeting block fields; names may fill their field without a terminator.
  const std::string& GreetingClientName() const { return registeredName_; }
  std::string GreetingHostName() const;
  unsigned short GreetingNetPort() const;
  bool IsLocalHost(const std::string& host) const;
  void SetStatus(int status) { lastStatus_.store(status, std::memory_order_relaxed); }
  bool NotValid();
  const std::string& WhoAmIText() const;
  void DiscardCurrent();

  cVantrelClientObject* owner_;
  bool disposeOnReaderExit_ = false;
  std::unique_ptr<CVantrelClientCommunicatorZ1> communicator_;
  std::atomic<bool> valid_{false};
  // The name this object registers with; set before the reader starts and
  // never changed, so the reader may read it for its log lines.
  const std::string clientName_;
  std::string lastErrorMessage_;
  // The reply's block; the name the service registered us under.
  char greeting_[vantrel::wire::kGreetingSize] = {};
  std::string registeredName_;
  // What Start sends; written by NETInit before the reader starts.
  std::string greetingFrame_;
  // Written once by NETInit before the reader starts; read-only afterwards.
  std::string localHostName_;
  std::atomic<int> lastStatus_{0};
  std::unique_ptr<CVantrelClientQueue> queues_[vantrel::wire::kChannelCount];
  cVantrelMessage* currentMessage_ = nullptr;
  // Written and read by the thread of the acknowledged sends only.
  std::string lastRefusal_;
  // Written once by NETInit before the object becomes valid; read-only afterwards.
  // The service's full host text (its net port included) is what it writes as
  // the sender's host, so the records we write carry the same and pass unchanged.
  std::string fromHost_;
  std::string whoAmI_;
  unsigned short clientPort_ = 0;
  long ackWaitTimeout_ = kDefaultAckWaitMilliseconds;
};

// The process-wide clients collection: a set of collectables destroyed by
// VantrelClientTerminate. It lives from the library's load to its unload.
// Threads: any; an internal lock guards the set.
class CClientsCollection {
 public:
  static CClientsCollection& Instance();
  ~CClientsCollection();
  // Takes ownership of `entry`.
  void Insert(RWCollectable* entry);
  // Destroys every entry.
  void Clear();
  std::size_t Size() const;

 private:
  mutable std::mutex mutex_;
  std::unordered_set<RWCollectable*> entries_;
};
