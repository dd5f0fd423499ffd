#pragma once
// The bytes of one connected stream socket, plain or through TLS.
#include <atomic>
#include <memory>
#include <string>

#include "vantrel/base/platform/socket.h"
#include "vantrel/base/socket/closesignal.h"
#include "vantrel/base/socket/framereader.h"
#include "vantrel/base/socket/framewriter.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/base/socket/tlssession.h"

class c_Socket;

namespace nCommunication::nSocket::nImplementation_sho {

// Moves the bytes of one connected socket for its frame reader and writer,
// plainly or through the connection's TLS session, and waits when the socket
// is not ready: without limit between frames, bounded by the communication
// time-out within a frame or a send, and always ended by a close.
// Between frames a plain socket that was made blocking waits inside the
// receive itself (a close shuts the socket down, which ends it), so a burst
// costs one system call instead of a failed read, a poll and a read.
// Ownership: owned by its stream socket, which owns the socket itself; owns
// the TLS session; borrows the socket's close signal, name and options.
// Threads: the connecting thread (or the accepted connection's reader, for the
// handshake) attaches the socket and the session before other threads use it;
// then one reader and any number of writers, which the frame writer serialises.
class cTransport final : public iByteSource, public iByteSink {
 public:
  // `owner` closes the connection and names its peer in log lines.
  cTransport(c_Socket& owner, const cCloseSignal& closing, const std::string& name, const cSocketOptions& options,
             bool encrypted);

  // The connected socket to move bytes on. `blockingReads`: the socket was
  // made blocking, so an idle read may wait inside the receive.
  void Attach(vantrel::platform::tSocket socket, bool blockingReads);
  // Runs the handshake of `session` (bounded by `deadlineUs`; `what` names it
  // in log lines) and carries the connection through it from then on. False
  // (logged) when it failed or timed out; the caller then closes.
  // `failure` (may be null) receives why a handshake failed.
  bool Handshake(std::unique_ptr<cTlsSession> session, std::int64_t deadlineUs, const char* what,
                 std::string* failure = nullptr);
  // Whether the TLS handshake has completed.
  bool SessionReady() const { return sessionReady_.load(std::memory_order_acquire); }
  // After the handshake: the peer's verified certificate names `host`
  // (cTlsSession::PeerCertificateNames); false without TLS.
  bool PeerCertificateNames(const std::string& host) const {
    return SessionReady() && session_->PeerCertificateNames(host);
  }

  std::size_t Read(char* buffer, std::size_t size, bool inFrame, cFrameDeadline& deadline) override;
  // True once the peer has closed its side in order without ever sending a byte
  // (a port check). Reader thread only.
  bool EndedBeforeAnyByte() const { return endedBeforeAnyByte_; }
  bool Writable() const override;
  bool Gathers() const override { return !encrypted_; }
  bool WriteAll(vantrel::platform::cSendBuffer* parts, std::size_t count, bool& started) override;
  bool Pause(std::int64_t us) override { return !closing_.WaitFor(us); }
  void Abandon() override;

 private:
  using tIo = cTlsSession::tIo;
  tIo ReadSome(vantrel::platform::tSocket socket, char* buffer, std::size_t size, std::size_t& got, bool mayBlock);
  // Waits until a read can go on. False on end, failure, close or time-out.
  bool WaitToRead(vantrel::platform::tSocket socket, tIo io, bool inFrame, cFrameDeadline& deadline);
  // Waits until a blocked write can go on; the communication time-out runs from
  // the first wait of the write. False (time-out logged) on close or time-out.
  bool WaitToWrite(vantrel::platform::tSocket socket, vantrel::platform::tReadiness readiness,
                   cFrameDeadline& deadline);
  bool WritePlain(vantrel::platform::tSocket socket, vantrel::platform::cSendBuffer* parts, std::size_t count,
                  bool& started);
  bool WriteEncrypted(vantrel::platform::tSocket socket, const vantrel::platform::cSendBuffer* parts, std::size_t count,
                      bool& started);

  c_Socket& owner_;
  const cCloseSignal& closing_;
  const std::string& name_;
  const cSocketOptions& options_;
  const bool encrypted_;
  std::atomic<vantrel::platform::tSocket> socket_{vantrel::platform::kNoSocket};
  std::atomic<bool> blockingReads_{false};
  std::unique_ptr<cTlsSession> session_;  // fixed once sessionReady_ is set
  std::atomic<bool> sessionReady_{false};
  bool receivedAny_ = false;         // reader thread only
  bool endedBeforeAnyByte_ = false;  // reader thread only
};

}  // namespace nCommunication::nSocket::nImplementation_sho
