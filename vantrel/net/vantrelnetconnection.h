#pragma once
// The service's connections.
//
//   CVantrelClientConnection  the service end of one local client's socket: a
//       reader ("VTClntRdr") that answers the greeting, creates the client's
//       VantrelClientInstance and hands it every later message, and a writer
//       ("VTClnWrtr") that sends what is queued for the client.
//   CVantrelHostConnection    a link to another host's service, outgoing (made
//       by the event server for a host text) or incoming (accepted on the net
//       port). Reader "VTHstRdr", writer "VTHstWrtr", and on demand a file
//       writer "VTHstFlWr" (local clients' copy requests for the peer) and a
//       file reader "VTHstFlRd" (the peer's copy requests). Frames on a link carry
//       the protocol version marker as their subtype; a record's own subtype
//       travels inside its packed buffer.
//
// Ownership: every connection belongs to the service's connection keeper, which
// joins and deletes it after it has terminated. A client connection owns its
// client instance. Both own their socket; terminating a connection only shuts
// the socket down, and the descriptor is closed by the destructor after every
// thread that used it has been joined.
// Threads: the connection's own threads, plus any thread that calls Terminate
// (the event server's cleanUp, the keeper, a client instance) or posts an event
// (any dispatching thread, under the event server's lock). Terminate takes the
// termination lock only for its first part and calls the event server and the
// keeper after releasing it.
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "vantrel/base/platform/eventqueue.h"
#include "vantrel/base/platform/manualevent.h"
#include "vantrel/base/platform/thread.h"
#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/net/FileTransferHandler.h"
#include "vantrel/service/vantrellinks.h"
#include "vantrel/support/sync.h"

class CVantrelClass;
class VantrelClientInstance;

namespace nVantrelLink {
// Subtype of every frame on a host link.
inline constexpr short kVersionMarker = 0x7F04;
inline constexpr short kHostName = 203;
inline constexpr short kPing = 104;
inline constexpr short kFileRequest = 6;
inline constexpr short kFileTraffic = 7;
inline constexpr short kGreeting = 1029;
inline constexpr std::uint32_t kGreetingSize = 258;
inline constexpr std::uint32_t kGreetingNameOffset = 2;
inline constexpr std::uint32_t kGreetingHostOffset = 130;
inline constexpr std::uint32_t kGreetingFieldSize = 128;
inline constexpr const char* kLinkBrokeText = "Connection to host broke.";
}  // namespace nVantrelLink

class CVantrelClientConnection : public iVantrelClientLink {
 public:
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;

  // Takes over an accepted socket. Start runs the reader.
  CVantrelClientConnection(cSocketHandle&& accepted, CVantrelClass* service);
  // Deletes the client instance; the threads must have been joined (Terminate(true)).
  ~CVantrelClientConnection() override;
  CVantrelClientConnection(const CVantrelClientConnection&) = delete;
  CVantrelClientConnection& operator=(const CVantrelClientConnection&) = delete;

  const char* nameOf() const override { return "CVantrelClientConnection"; }

  void Start();
  void Terminate(bool wait) override;
  bool Post(RWCollectable* event) override;
  // Called on the reader thread (the client instance's answers). Sent at once
  // when the writer has nothing queued or in hand, which saves the answer a
  // thread hand-over; queued otherwise, so nothing is overtaken.
  void SendAnswer(RWCollectable* answer) override;

 private:
  void StartReader();
  void StartWriter();
  void doReading();
  void doWriting();
  // Takes ownership of a queued item; the event to send, or null when the item
  // cannot go to a client (logged and deleted).
  static std::unique_ptr<VantrelClientEvent> sendable(RWCollectable* item);
  // Answers the greeting and creates the client instance. False ends the reader.
  bool greet(char* data, unsigned length, short type);
  std::string clientName();

  vantrel::platform::cThread reader_;
  vantrel::platform::cThread writer_;
  RQPMutex lock_;
  StreamSocket socket_;
  bool registered_ = false;
  bool terminated_ = false;
  CVantrelClass* service_;
  std::string clientName_;  // guarded by lock_
  VantrelClientInstance* instance_ = nullptr;  // guarded by lock_; owned
  const int port_;  // the socket's peer port, for log lines
  // Events posted and not yet sent (or dropped) by the writer, plus an answer
  // being sent directly by the reader. Zero means the socket is free for a
  // direct send without overtaking anything.
  std::atomic<int> unsent_{0};
};

class CVantrelHostConnection : public iVantrelHostLink, public iFileTransferLink {
 public:
  using cSocketHandle = nCommunication::nSocket::nImplementation_sho::cSocketHandle;
  using cTlsConnectionState = nCommunication::nSocket::nImplementation_sho::cTlsConnectionState;

  // What a link needs to know about TLS.
  struct cTlsChoice {
    bool useOpenSsl = false;
    bool verifyServerCertificate = false;
    bool verifyClientCertificate = false;
    std::string certificatesPath;
  };

  // Outgoing: registers itself with the event server under `hostText` (the
  // caller may hold the server's lock). Start runs the writer, which connects.
  CVantrelHostConnection(const std::string& hostText, CVantrelClass* service, const cTlsChoice& tls);
  // Incoming: takes over an accepted socket. Start runs the reader, which runs
  // the TLS handshake when there is one and waits for the host-name message.
  CVantrelHostConnection(cSocketHandle&& accepted, cTlsConnectionState tlsState, CVantrelClass* service,
                         const cTlsChoice& tls);
  ~CVantrelHostConnection() override;
  CVantrelHostConnection(const CVantrelHostConnection&) = delete;
  CVantrelHostConnection& operator=(const CVantrelHostConnection&) = delete;

  const char* nameOf() const override { return "CVantrelHostConnection"; }
  std::string HostText() const override;

  void Start();
  void Terminate(bool wait) override;

  // Seconds of silence after which the writer sends a ping: the value of
  // VANTREL_INTERNAL_PING_TIMEOUT_SECONDS when set (at least 1), else 120.
  static long PingTimeoutSeconds();

  // File messages of the transfer handler. Sent at once on the calling file
  // thread when the writer has nothing queued or in hand, which saves every
  // chunk and acknowledgement a thread hand-over; queued otherwise, so nothing
  // is overtaken.
  void PostFileEvent(VantrelHostEvent* event) override;

 private:
  // A request sent on the link whose answer has not come back yet.
  struct cPending {
    std::uint32_t messageId;
    short type;
    std::string toHost, toClient, fromHost, fromClient;
  };

  void StartReader();
  void StartWriter();
  void doReading();
  void doWriting();
  bool connectToPeer();
  bool receiveHandshake();
  using tFrameData = StreamSocket::tFrameData;
  void dispatchReceived(short type, tFrameData data, unsigned length);
  void deliverForward(short type, tFrameData data, unsigned length);
  void deliverAnswer(short type, short subtype, tFrameData data, unsigned length);
  int post(BaseEvent* event);
  void queueOwn(VantrelHostEvent* event);
  // Puts an event on the outgoing queue and counts it as unsent; the caller
  // holds the termination lock and has checked that the link is not terminated.
  void enqueueLocked(VantrelHostEvent* event);
  bool sendEvent(VantrelHostEvent* event);
  // "Connection to host broke." for a type 2 or 4 request that will never be answered.
  void answerBroken(std::uint32_t messageId, short type, const char* toHost, const char* toClient,
                    const char* fromHost, const char* fromClient);
  void breakLink();
  [[noreturn]] void restartProcess(const char* what);

  // Copy requests of local clients for the peer (type 5).
  void postFileRequest(VantrelHostEvent* event);
  // The peer's copy request (type 6) and its chunk traffic (type 7).
  void onFileRequest(tFrameData data, unsigned length);
  void onFileTraffic(tFrameData data, unsigned length);
  void StartFileWriter();
  void StartFileReader();
  void doFileWriting();
  void doFileReading();
  // Copies one local client's request and answers it with the copy result.
  void sendOneFile(VantrelHostEvent* request);
  // "Connection to host broke." for a copy request that will never be served.
  void answerFileRequestBroken(VantrelHostEvent* request);
  // Ends both file queues and joins the file threads (any number of calls).
  void stopFileThreads();

  const bool outgoing_;
  mutable std::mutex hostMutex_;
  std::string host_;  // guarded by hostMutex_
  vantrel::platform::cThread reader_;
  vantrel::platform::cThread writer_;
  RQPEventQueue outgoing_queue_;
  // Events queued and not yet sent (or dropped) by the writer, plus a file
  // message being sent directly by a file thread. Zero means the socket is
  // free for a direct send without overtaking anything.
  std::atomic<int> unsent_{0};
  RQPMutex lock_;  // termination lock
  StreamSocket socket_;
  RQPManualEvent connectedEvent_;
  std::atomic<bool> connected_{false};
  bool terminated_ = false;  // guarded by lock_
  CVantrelClass* service_;
  cTlsChoice tls_;
  std::atomic<double> lastActivity_;
  int postHandler_ = 0;
  std::mutex pendingMutex_;
  std::list<cPending> pending_;  // guarded by pendingMutex_

  // File transfer. The handler outlives the file threads (they are joined in
  // Terminate, before the members go).
  CFileTransferHandler fileHandler_{this};
  RQPEventQueue outgoingFileQueue_;  // type 5 requests of local clients
  RQPEventQueue incomingFileQueue_;  // type 6 requests of the peer
  // Guards fileWriterRunning_, fileWriterClosed_ and the start of the file writer.
  RQPMutex fileQueueLock_;
  bool fileWriterRunning_ = false;
  bool fileWriterClosed_ = false;
  // Guards fileReaderClosed_ and every stop, join and start of the file reader.
  std::mutex fileReaderLock_;
  bool fileReaderClosed_ = false;
  std::atomic<bool> fileReaderRunning_{false};
  vantrel::platform::cThread fileReader_;
  vantrel::platform::cThread fileWriter_;
};
