#pragma once
// CVantrelHostConnection: a link to another host's service, outgoing (opened by
// the router for a host text) or incoming (accepted on the net port). Its writer
// "VTHstWrtr" connects (outgoing), sends what is queued for the peer and pings
// a silent link; its reader "VTHstRdr" runs the handshake (incoming) and hands
// every frame from the peer on: messages and answers to the router, file traffic
// to the link's file-transfer worker. Frames on a link carry the protocol
// version marker as their subtype; a record's own subtype travels inside its
// packed buffer.
//
// Answers from the peer are passed on only when the ledger says a request waits
// for them; others are dropped and counted. A message from the peer is answered
// once the local client's writer has written it (or it was dropped). Messages
// waiting to be sent are bounded in bytes (maxLinkQueueBytes). A link that hears
// nothing, not even a ping, for the silence limit while requests wait is broken;
// a request unanswered for answerTimeoutSeconds is answered "not delivered".
//
// Owner: the service's connection owner, which joins and deletes it after it has
// terminated. Owns its socket, its outgoing queue, the ledger of requests
// waiting for an answer and the file-transfer worker; terminating only shuts the
// socket down, and the descriptor is closed by the destructor after every
// thread that used it has been joined.
// Threads: the reader, the writer and the worker's file threads, plus any thread
// that calls Terminate (the router's clean-up, the owner) or posts an event (any
// dispatching thread, under the router's lock). lock_ guards the termination
// mark and the start of the reader and writer; hostMutex_ the peer's host text.
// Terminate takes lock_ only for its first part and calls the router, the
// worker and the owner after releasing it.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vantrel/base/platform/eventqueue.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/answerpath.h"
#include "vantrel/net/filetransferworker.h"
#include "vantrel/net/pendinganswers.h"
#include "vantrel/net/servicestats.h"
#include "vantrel/net/vantrelconnectioncontext.h"
#include "vantrel/net/vantrellinks.h"
#include "vantrel/support/sync.h"

class CVantrelHostConnection : public iVantrelHostLink, public iFileTransferWorkerLink {
 public:
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;
  using cTlsConnectionState = nCommunication::nSocket::nImplementation_sho::cTlsConnectionState;

  // Outgoing: registers itself with the router under `hostText` (the caller may
  // hold the router's lock). Start runs the writer, which connects.
  CVantrelHostConnection(const std::string& hostText, std::shared_ptr<const cVantrelConnectionContext> context);
  // Incoming: takes over an accepted socket. Start runs the reader, which runs
  // the TLS handshake when there is one and waits for the host-name message.
  CVantrelHostConnection(cSocketHandle&& accepted, cTlsConnectionState tlsState,
                         std::shared_ptr<const cVantrelConnectionContext> context);
  // Terminates and joins every thread.
  ~CVantrelHostConnection() override;
  CVantrelHostConnection(const CVantrelHostConnection&) = delete;
  CVantrelHostConnection& operator=(const CVantrelHostConnection&) = delete;

  const char* nameOf() const override { return "CVantrelHostConnection"; }
  std::string HostText() const override;

  // Starts the writer (outgoing) or the reader (incoming); nothing once terminated.
  void Start();
  void Terminate(bool wait) override;

  // Seconds of silence after which the writer sends a ping: the value of
  // VANTREL_INTERNAL_PING_TIMEOUT_SECONDS when set (at least 1), else 120.
  static long PingTimeoutSeconds();

  // File messages of the transfer handler. Sent at once on the calling file
  // thread when the writer has nothing queued or in hand, which saves every
  // chunk and acknowledgement a thread hand-over; queued otherwise, so nothing
  // is overtaken.
  void PostFileEvent(std::unique_ptr<VantrelHostEvent> event) override;
  // Answers from the peer that no request was waiting for, dropped so far.
  std::uint64_t UnmatchedAnswers() const { return unmatched_.Total(); }
  // Messages refused at the queue bound so far.
  std::uint64_t RefusedMessages() const { return refused_.Total(); }
  bool IsConnected() const override { return pending_.IsOpen(); }
  bool AwaitConnection() override;
  bool OpenedHere() const override { return outgoing_; }
  cHandover GiveWay() override;
  void FollowAfter(std::shared_ptr<RQPManualEvent> predecessor) override;

 private:
  void runReader();
  void runWriter();
  void doReading();
  void doWriting();
  bool connectToPeer();
  bool receiveHandshake();
  // Whether a peer that named itself `peer` in its handshake may have a link:
  // not under this service's own name, and with client-certificate
  // verification only under a name its certificate proves. Logs a refusal.
  bool admitPeer(const std::string& peer);
  // After a successful connect or handshake: open for requests, wake the file threads.
  void connected();
  void connectFailed();
  using tFrameData = StreamSocket::tFrameData;
  void dispatchReceived(short type, tFrameData data, unsigned length);
  void deliverForward(short type, tFrameData data, unsigned length);
  void deliverAnswer(short type, short subtype, tFrameData data, unsigned length);
  void onFileRequest(tFrameData data, unsigned length);
  // The router's delivery handler: takes ownership of `event`.
  int post(BaseEvent* event);
  void queueOwn(std::unique_ptr<VantrelHostEvent> event);
  // Puts an event on the outgoing queue and counts it as unsent; the caller
  // holds the termination lock and has checked that the link is not terminated.
  void enqueueLocked(std::unique_ptr<VantrelHostEvent> event);
  // Records the batch's waited requests and writes its frames in one go. False
  // when the link is ending (its requests are answered) or the write failed.
  bool sendBatch(std::vector<std::unique_ptr<VantrelHostEvent>>& batch);
  // "Connection to host broke." for a type 2 or 4 request that will never be
  // answered; with that text, an acknowledged send also gets the link's failure.
  void answerBroken(std::uint32_t messageId, short type, const char* toHost, const char* toClient, const char* fromHost,
                    const char* fromClient, const char* text = nVantrelLink::kLinkBrokeText);
  // The local client's writer wrote (or dropped) a message from the peer.
  void answerPeer(const cVantrelMessage& request, bool delivered);
  // Pings, expires unanswered requests and watches the peer's silence. False:
  // the link is to be broken.
  bool keepAlive(double now);
  long silenceLimitSeconds() const;
  // Records (the first) why the link failed, and logs it with the host.
  // Reader or writer thread; not for an end the service asked for.
  void fail(const std::string& reason);
  std::string failure() const;
  void breakLink();
  // Once given way: true when nothing is left to send or to wait for.
  bool retired() const;
  // Waits, within a bound, for the link this one follows to end.
  void awaitPredecessor();
  // Once retired: ends sending and waits, within the same bound, until the
  // peer has read everything and closed, so that what the successor sends
  // cannot be read before it, even where no answer confirms it.
  void closeAfterPeerHasRead();
  // How long a link that gave way may take to end, and its successor waits.
  long handoverLimitMs() const;
  void restartProcess(const char* what);

  // Counts a frame written to the peer; any thread that writes.
  void countWritten(short type, std::size_t bytes);

  const std::shared_ptr<const cVantrelConnectionContext> context_;
  const bool outgoing_;
  // This link's counters, shared with the service's registry.
  const std::shared_ptr<vantrel::stats::cConnectionStats> stats_;
  mutable std::mutex hostMutex_;
  std::string host_;     // guarded by hostMutex_
  std::string failure_;  // guarded by hostMutex_; set once
  vantrel::platform::cThread reader_;
  vantrel::platform::cThread writer_;
  RQPEventQueue outgoing_queue_;
  // Events queued and not yet sent (or dropped) by the writer, plus a file
  // message being sent directly by a file thread. Zero means the socket is
  // free for a direct send without overtaking anything.
  std::atomic<int> unsent_{0};
  RQPMutex lock_;  // termination lock
  StreamSocket socket_;
  // Set once the connect or handshake has succeeded or failed, or the link ended.
  RQPManualEvent connectedEvent_;
  bool terminated_ = false;           // guarded by lock_
  std::atomic<double> lastActivity_;  // last frame sent: drives the ping
  std::atomic<double> lastReceived_;  // last frame from the peer: its silence
  double nextKeepAlive_ = 0;          // writer only
  // Bytes of messages (sends of types 2 to 4) queued and not yet taken by the writer.
  // Kept with the counters, so the endpoint sees the queue without asking the link.
  std::atomic<std::uint64_t>& queuedBytes_;
  cDropCounter refused_;
  cDropCounter unmatched_;
  int postHandler_ = 0;
  // Set by GiveWay: the router sends nothing more here; the writer ends the
  // link once what was sent has been answered and the peer has read it all.
  std::atomic<bool> givenWay_{false};

  // Set when the link has terminated, for a successor that waits for it.
  const std::shared_ptr<RQPManualEvent> ended_ = std::make_shared<RQPManualEvent>();
  // The link this one follows (FollowAfter); guarded by lock_, taken by the writer.
  std::shared_ptr<RQPManualEvent> predecessor_;
  std::atomic<bool> following_{false};
  // Open while connected: from then on the writer records every waited request.
  cPendingAnswers pending_;
  // Settled by local clients' writers for messages from the peer; closed at Terminate.
  const std::shared_ptr<cAnswerPath> answers_;
  // Last member: its threads are joined before anything they use goes.
  cFileTransferWorker files_;
};

// What the first frame of an incoming link says. eOk: a host-name message of
// this protocol version naming a host, whose text is then in `peer`;
// eObsolete: a frame of another protocol version; eNotHostName: anything else.
// `peer` holds the text up to the first zero in every case, for the log. Pure:
// reads only the `length` bytes of `data`; any thread.
enum class tLinkHandshake { eOk, eObsolete, eNotHostName };
tLinkHandshake gReadLinkHandshake(short type, short subtype, const char* data, unsigned length, std::string& peer);
