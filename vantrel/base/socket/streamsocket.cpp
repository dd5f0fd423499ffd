#include "vantrel/base/socket/streamsocket.h"

#include <string>

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/connector.h"
#include "vantrel/base/socket/framereader.h"
#include "vantrel/base/socket/framewriter.h"
#include "vantrel/base/socket/shortage.h"
#include "vantrel/base/socket/tls.h"
#include "vantrel/base/socket/transport.h"

using namespace nCommunication::nSocket::nImplementation_sho;
namespace platform = vantrel::platform;

StreamSocket::StreamSocket(bool useTls, std::string name)
    : useTls_(useTls),
      name_(std::move(name)),
      transport_(std::make_unique<cTransport>(*this, Closing(), name_, options_, useTls_)),
      reader_(std::make_unique<cFrameReader>(*transport_)),
      writer_(std::make_unique<cFrameWriter>(*transport_, name_, options_)) {}

StreamSocket::StreamSocket(cSocketHandle&& accepted, cTlsConnectionState tls, std::string name)
    : StreamSocket(tls != nullptr, std::move(name)) {
  options_ = accepted.Options();
  tlsContext_ = std::move(tls);
  if (accepted.fIsValid()) Adopt(accepted.Release());
  latencyLimiter_.SetCycle(options_.cycleLatencyThresholdLimit);
}

StreamSocket::~StreamSocket() = default;

void StreamSocket::SetTlsSettings(const cTlsSettings& settings) {
  tlsSettings_ = settings;
  tlsVerifyOverride_ = true;
}

void StreamSocket::SetCertificatesPath(const std::string& path) { tlsSettings_.certificatesPath = path; }

bool StreamSocket::Adopt(platform::tSocket socket) {
  if (!AdoptDescriptor(socket)) return false;
  // Sends stay non-blocking (they never wait in the kernel); reads between
  // frames of a plain connection wait inside the receive.
  transport_->Attach(socket, !useTls_ && platform::gAllowBlockingReceive(socket));
  return true;
}

bool StreamSocket::RunHandshake(std::unique_ptr<cTlsSession> session, std::int64_t deadlineUs, const char* what,
                                std::string* failure) {
  if (transport_->Handshake(std::move(session), deadlineUs, what, failure)) return true;
  CloseSocket();
  return false;
}

bool StreamSocket::ConnectLocal(unsigned short port, const cSocketOptions& options) {
  return Connect("127.0.0.1", port, options);
}

bool StreamSocket::Connect(const std::string& host, unsigned short port, const cSocketOptions& options,
                           std::string* failure) {
  options_ = options;
  latencyLimiter_.SetCycle(options_.cycleLatencyThresholdLimit);
  if (IsClosed()) return false;

  std::shared_ptr<cTlsContext> clientContext;
  if (useTls_) {
    try {
      clientContext = std::make_shared<cTlsContext>(cTlsContext::eClient, tlsSettings_);
    } catch (const cSocketError& e) {
      VLOG_ERROR("StreamSocket::Connect(%s) - %s", name_, e.what());
      if (failure != nullptr) *failure = e.what();
      return false;
    }
  }

  platform::cUniqueSocket connected = cConnector(Closing(), name_).Connect(host, port, options_, failure);
  if (!connected.Valid()) return false;
  gApplyConnectionOptions(connected.Get(), options_);
  const platform::tSocket socket = connected.Release();  // the socket's own from here on
  if (!Adopt(socket)) return false;
  if (!useTls_) return true;

  auto session = std::make_unique<cTlsSession>(*clientContext, socket, "StreamSocket::Connect");
  if (!session->ConnectTo(host, tlsSettings_.verifyServerCertificate)) {
    VLOG_ERROR("StreamSocket::Connect(%s) - cannot verify against host name %s", name_, vantrel::log::Escaped(host));
    if (failure != nullptr) *failure = "cannot verify against host name " + std::string(vantrel::log::Escaped(host));
    CloseSocket();
    return false;
  }
  return RunHandshake(std::move(session), gDeadlineAfter(options_.connectTimeout), "connect", failure);
}

void StreamSocket::CreateListenerSocket(unsigned short port, tBindScope scope) {
  if (useTls_) tlsContext_ = std::make_shared<cTlsContext>(cTlsContext::eServer, tlsSettings_);
  c_Socket::CreateListenerSocket(port, scope);
  spare_ = std::make_unique<platform::cSpareDescriptor>();
}

bool StreamSocket::RefuseAtLimit(platform::tSocket listener) {
  if (spare_ == nullptr || !spare_->Release()) return false;
  platform::cSocketResult failure;
  const platform::tSocket socket = platform::gAccept(listener, failure);
  if (socket != platform::kNoSocket) {
    platform::gCloseSocket(socket);
    // Reported while the spare is still free: counting needs a descriptor too.
    gReportDescriptorShortage(("StreamSocket::Accept(" + std::to_string(Handle()) + ")").c_str(), "connection refused");
  }
  spare_->Retake();
  return socket != platform::kNoSocket;
}

cAcceptResult StreamSocket::Accept(const cSocketOptions& options) {
  cAcceptResult result;
  const platform::tSocket listener = Native();
  if (listener == platform::kNoSocket) {
    result.status = IsClosed() ? tSocketStatus::eClosed : tSocketStatus::eFailed;
    return result;
  }
  for (;;) {
    const tWait wait = Closing().Wait(listener, platform::tReadiness::eReadable, -1);
    if (wait == tWait::eClosed) {
      result.status = tSocketStatus::eClosed;
      return result;
    }
    if (wait == tWait::eError) {
      VLOG_ERROR("StreamSocket::Accept(%d) - poll failed: %s", Handle(), platform::gLastSocketError().Text());
      result.status = tSocketStatus::eFailed;
      return result;
    }
    platform::cSocketResult failure;
    const platform::tSocket socket = platform::gAccept(listener, failure);
    if (socket != platform::kNoSocket) {
      gApplyConnectionOptions(socket, options);
      result.handle.emplace(socket, options);
      result.tls = tlsContext_;
      result.status = tSocketStatus::eGood;
      return result;
    }
    switch (failure.fault) {
      case platform::tSocketFault::eWouldBlock:
      case platform::tSocketFault::eInterrupted:
      case platform::tSocketFault::eConnectionGone:
        continue;  // that connection is gone; the listener is fine
      case platform::tSocketFault::eNoResources:
        if (RefuseAtLimit(listener)) continue;
        // Not even the spare helped (another thread took the freed slot, or
        // memory is short): wait a little rather than spin on the same error.
        VLOG_WARN("StreamSocket::Accept(%d) - %s; retrying", Handle(), failure.Text());
        if (Closing().WaitFor(100'000)) {
          result.status = tSocketStatus::eClosed;
          return result;
        }
        continue;
      default:
        result.status = IsClosed() ? tSocketStatus::eClosed : tSocketStatus::eFailed;
        if (result.status == tSocketStatus::eFailed)
          VLOG_ERROR("StreamSocket::Accept(%d) - accept failed: %s", Handle(), failure.Text());
        return result;
    }
  }
}

bool StreamSocket::CompleteAcceptHandshake(const cSocketOptions& options) {
  if (!useTls_ || !tlsContext_) return true;
  const platform::tSocket socket = Native();
  if (socket == platform::kNoSocket || IsClosed()) return false;
  auto session = std::make_unique<cTlsSession>(*tlsContext_, socket, "StreamSocket::CompleteAcceptHandshake");
  session->AcceptFrom(tlsVerifyOverride_ ? std::optional<bool>(tlsSettings_.verifyClientCertificate) : std::nullopt);
  return RunHandshake(std::move(session), gDeadlineAfter(options.communicationTimeout), "accept");
}

bool StreamSocket::PeerCertificateNames(const std::string& host) const {
  return useTls_ && transport_->PeerCertificateNames(host);
}

bool StreamSocket::WaitTypedMessageZ1(short& type, short& subtype, char*& data, unsigned& length,
                                      iLatencyConfiguration* latency) {
  data = nullptr;
  length = 0;
  const int fd = Handle();
  if (fd < 0 || IsClosed()) return false;
  if (useTls_ && !transport_->SessionReady()) {
    VLOG_ERROR("StreamSocket::WaitTypedMessageZ1(%s,%d) - TLS handshake has not completed", name_, fd);
    return false;
  }

  cFrameHeader header;
  switch (reader_->ReadHeader(options_.maxMessageSize, header)) {
    case cFrameReader::tHeader::eOk:
      break;
    case cFrameReader::tHeader::eFailed:
      return false;
    case cFrameReader::tHeader::eBadMarker:
      VLOG_ERROR("StreamSocket::WaitTypedMessageZ1(%s,%d) - bad frame marker 0x%08x from %s; closing", name_, fd,
                 header.words.marker, PeerAddress());
      CloseSocket();  // the stream cannot be resynchronised
      return false;
    case cFrameReader::tHeader::eTooLong:
      VLOG_ERROR(
          "StreamSocket::WaitTypedMessageZ1(%s,%d) - frame of %u bytes from %s exceeds the maximum of %u; closing",
          name_, fd, header.words.length, PeerAddress(), options_.maxMessageSize);
      CloseSocket();
      return false;
  }

  if (latency) {
    const nTime::cDiff measured =
        nTime::cPoint::Now() - nTime::cPoint::FromEpochMicroseconds(header.sendTimeMicroseconds);
    latency->Measure(measured, name_.empty() ? PeerAddress().c_str() : name_.c_str(), &latencyLimiter_);
  }

  tFrameData payload = reader_->ReadPayload(header.words.length);
  if (!payload) return false;
  type = header.type;
  subtype = header.subtype;
  length = header.words.length;
  data = payload.release();
  return true;
}

bool StreamSocket::PeerLeftSilently() const { return transport_ && transport_->EndedBeforeAnyByte(); }

bool StreamSocket::SendTypedMessageZ2(short type, short subtype, const char* data, unsigned length) {
  return writer_->Send(type, subtype, data, length);
}

bool StreamSocket::PostTypedMessage(short type, short subtype, const char* data, unsigned length) {
  return writer_->Post(type, subtype, data, length);
}

void StreamSocket::EnableWriteBehind(const nParallel::nImplementation_sho::cThreadAttributes& attributes) {
  writer_->EnableWriteBehind(attributes);
}

bool StreamSocket::PostBehindTypedMessage(short type, short subtype, const char* data, unsigned length) {
  return writer_->PostBehind(type, subtype, data, length);
}

bool StreamSocket::DrainWrites(std::chrono::milliseconds timeout) { return writer_->Drain(timeout); }

bool StreamSocket::SendTypedMessages(const cOutgoingFrame* frames, std::size_t count) {
  return writer_->Send(frames, count);
}
