#include "vantrel/base/socket/transport.h"

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/socketbase.h"
#include "vantrel/base/socket/tls.h"

namespace nCommunication::nSocket::nImplementation_sho {

namespace platform = vantrel::platform;

cTransport::cTransport(c_Socket& owner, const cCloseSignal& closing, const std::string& name,
                       const cSocketOptions& options, bool encrypted)
    : owner_(owner), closing_(closing), name_(name), options_(options), encrypted_(encrypted) {}

void cTransport::Attach(platform::tSocket socket, bool blockingReads) {
  blockingReads_.store(blockingReads, std::memory_order_relaxed);
  socket_.store(socket, std::memory_order_release);
}

bool cTransport::Handshake(std::unique_ptr<cTlsSession> session, std::int64_t deadlineUs, const char* what,
                           std::string* failure) {
  session_ = std::move(session);
  const platform::tSocket socket = socket_.load(std::memory_order_acquire);
  for (;;) {
    std::string reason;
    const tIo io = session_->Handshake(reason);
    if (io == tIo::eDone) break;
    if (io != tIo::eWantRead && io != tIo::eWantWrite) {
      VLOG_ERROR("StreamSocket::RunHandshake(%s,%d) - TLS %s handshake failed with %s: %s", name_, owner_.Handle(),
                 what, owner_.PeerAddress(), reason);
      if (failure != nullptr) *failure = "TLS handshake failed: " + reason;
      return false;
    }
    const tWait wait = closing_.Wait(
        socket, io == tIo::eWantRead ? platform::tReadiness::eReadable : platform::tReadiness::eWritable, deadlineUs);
    if (wait == tWait::eReady) continue;
    if (wait == tWait::eTimeout) {
      VLOG_ERROR("StreamSocket::RunHandshake(%s,%d) - TLS %s handshake with %s timed out", name_, owner_.Handle(), what,
                 owner_.PeerAddress());
      if (failure != nullptr) *failure = "TLS handshake timed out; is the peer a TLS service?";
    }
    return false;
  }
  sessionReady_.store(true, std::memory_order_release);
  return true;
}

// ---- reading --------------------------------------------------------------------

cTransport::tIo cTransport::ReadSome(platform::tSocket socket, char* buffer, std::size_t size, std::size_t& got,
                                     bool mayBlock) {
  got = 0;
  if (session_) {
    const tIo io = session_->Read(buffer, size, got);
    if (io == tIo::eFailed)
      VLOG_DEBUG("StreamSocket::RecvSome(%s,%d) - TLS read failed: %s", name_, owner_.Handle(), gTlsErrorText());
    return io;
  }
  const bool wait = mayBlock && blockingReads_.load(std::memory_order_relaxed);
  for (;;) {
    platform::cSocketResult result;
    got = platform::gReceive(socket, buffer, size, wait, result);
    if (got > 0) {
      receivedAny_ = true;
      return tIo::eDone;
    }
    switch (result.fault) {
      case platform::tSocketFault::eNone:
        endedBeforeAnyByte_ = !receivedAny_;
        return tIo::eEnd;
      case platform::tSocketFault::eWouldBlock:
        return tIo::eWantRead;
      case platform::tSocketFault::eInterrupted:
        if (closing_.IsRaised()) return tIo::eEnd;
        continue;
      default:
        return tIo::eFailed;
    }
  }
}

bool cTransport::WaitToRead(platform::tSocket socket, tIo io, bool inFrame, cFrameDeadline& deadline) {
  if (io == tIo::eEnd || io == tIo::eFailed || closing_.IsRaised()) return false;
  // The first byte of a frame starts the clock: the rest of it must follow
  // within the communication time-out. Silence between frames is fine. The
  // clock is only read when a frame really has to be waited for.
  if (inFrame && deadline.us == cFrameDeadline::kNotSet) deadline.us = gDeadlineAfter(options_.communicationTimeout);
  const tWait wait =
      closing_.Wait(socket, io == tIo::eWantWrite ? platform::tReadiness::eWritable : platform::tReadiness::eReadable,
                    inFrame ? deadline.us : -1);
  if (wait == tWait::eReady) return true;
  if (wait == tWait::eTimeout)
    VLOG_WARN("StreamSocket::WaitTypedMessageZ1(%s,%d) - frame from %s not completed within %lld ms", name_,
              owner_.Handle(), owner_.PeerAddress(),
              static_cast<long long>(options_.communicationTimeout.Milliseconds()));
  return false;
}

std::size_t cTransport::Read(char* buffer, std::size_t size, bool inFrame, cFrameDeadline& deadline) {
  const platform::tSocket socket = socket_.load(std::memory_order_acquire);
  for (;;) {
    std::size_t got = 0;
    const tIo io = ReadSome(socket, buffer, size, got, !inFrame);
    if (io == tIo::eDone) return got;
    if (!WaitToRead(socket, io, inFrame, deadline)) return 0;
  }
}

// ---- writing --------------------------------------------------------------------

bool cTransport::Writable() const {
  // Never let a plain frame out on a connection that should be encrypted.
  return socket_.load(std::memory_order_acquire) != platform::kNoSocket && !closing_.IsRaised() &&
         (!encrypted_ || SessionReady());
}

void cTransport::Abandon() { owner_.CloseSocket(); }

bool cTransport::WaitToWrite(platform::tSocket socket, platform::tReadiness readiness, cFrameDeadline& deadline) {
  if (deadline.us == cFrameDeadline::kNotSet) deadline.us = gDeadlineAfter(options_.communicationTimeout);
  const tWait wait = closing_.Wait(socket, readiness, deadline.us);
  if (wait == tWait::eTimeout)
    VLOG_WARN("StreamSocket::SendTypedMessageZ2(%s,%d) - send to %s not completed within %lld ms", name_,
              owner_.Handle(), owner_.PeerAddress(),
              static_cast<long long>(options_.communicationTimeout.Milliseconds()));
  return wait == tWait::eReady;
}

bool cTransport::WritePlain(platform::tSocket socket, platform::cSendBuffer* parts, std::size_t count, bool& started) {
  // The clock is read only when the socket pushes back.
  cFrameDeadline deadline;
  std::size_t first = 0;
  while (first < count && parts[first].size == 0) ++first;
  while (first < count) {
    platform::cSocketResult result;
    std::size_t left = platform::gSendGathered(socket, parts + first, count - first, result);
    if (result.Ok()) {
      started = started || left > 0;
      while (first < count && left >= parts[first].size) left -= parts[first++].size;
      if (first < count) {
        parts[first].data = static_cast<const char*>(parts[first].data) + left;
        parts[first].size -= left;
      }
      continue;
    }
    if (result.fault == platform::tSocketFault::eInterrupted) continue;
    if (result.fault != platform::tSocketFault::eWouldBlock) {
      VLOG_DEBUG("StreamSocket::SendTypedMessageZ2(%s,%d) - send failed: %s", name_, owner_.Handle(), result.Text());
      return false;
    }
    if (!WaitToWrite(socket, platform::tReadiness::eWritable, deadline)) return false;
  }
  return true;
}

bool cTransport::WriteEncrypted(platform::tSocket socket, const platform::cSendBuffer* parts, std::size_t count,
                                bool& started) {
  cFrameDeadline deadline;
  std::size_t first = 0;
  while (first < count) {
    // A retried write gets the same buffer and length, as OpenSSL requires.
    const tIo io = session_->Write(parts[first].data, parts[first].size);
    if (io == tIo::eDone) {
      started = true;
      ++first;
      continue;
    }
    if (io == tIo::eFailed) {
      VLOG_DEBUG("StreamSocket::SendTypedMessageZ2(%s,%d) - TLS write failed: %s", name_, owner_.Handle(),
                 gTlsErrorText());
      return false;
    }
    const auto readiness = io == tIo::eWantRead ? platform::tReadiness::eReadable : platform::tReadiness::eWritable;
    if (!WaitToWrite(socket, readiness, deadline)) return false;
  }
  return true;
}

bool cTransport::WriteAll(platform::cSendBuffer* parts, std::size_t count, bool& started) {
  started = false;
  const platform::tSocket socket = socket_.load(std::memory_order_acquire);
  return session_ ? WriteEncrypted(socket, parts, count, started) : WritePlain(socket, parts, count, started);
}

}  // namespace nCommunication::nSocket::nImplementation_sho
