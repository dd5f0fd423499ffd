#include "vantrel/base/socket/socketbase.h"

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/localaddress.h"

namespace platform = vantrel::platform;

namespace nCommunication::nSocket::nImplementation_sho {

cSocketHandle::~cSocketHandle() = default;
cSocketHandle::cSocketHandle(cSocketHandle&& other) noexcept = default;
cSocketHandle& cSocketHandle::operator=(cSocketHandle&& other) noexcept = default;

const char* gSocketStatusText(tSocketStatus status) {
  switch (status) {
    case tSocketStatus::eGood:
      return "good";
    case tSocketStatus::eClosed:
      return "closed";
    case tSocketStatus::eFailed:
      return "failed";
    case tSocketStatus::eInvalidHandle:
      return "invalid handle";
  }
  return "unknown";
}

cValidatedHandle gValidate(std::optional<cSocketHandle>&& handle) {
  cValidatedHandle result;
  if (!handle || !handle->fIsValid() || !platform::gIsOpenSocket(handle->Native())) return result;
  result.handle = std::move(*handle);
  handle.reset();
  result.status = tSocketStatus::eGood;
  return result;
}

}  // namespace nCommunication::nSocket::nImplementation_sho

using nCommunication::nSocket::nImplementation_sho::cAlreadyInUse;
using nCommunication::nSocket::nImplementation_sho::cSocketError;

c_Socket::~c_Socket() { platform::gCloseSocket(fd_.exchange(platform::kNoSocket)); }

std::string c_Socket::PeerAddress() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return peerAddress_;
}

bool c_Socket::AdoptDescriptor(platform::tSocket descriptor) {
  const platform::cEndpoint local = platform::gLocalEndpoint(descriptor);
  platform::cEndpoint peer = platform::gPeerEndpoint(descriptor);

  std::lock_guard<std::mutex> lock(stateMutex_);
  platform::gCloseSocket(fd_.exchange(descriptor));
  localPort_.store(local.port, std::memory_order_release);
  peerPort_.store(peer.port, std::memory_order_release);
  peerAddress_ = std::move(peer.address);
  if (closing_.IsRaised()) {
    platform::gShutdownSocket(descriptor);
    return false;
  }
  return true;
}

void c_Socket::CloseSocket() {
  std::lock_guard<std::mutex> lock(stateMutex_);
  if (!closing_.Raise()) return;
  const platform::tSocket fd = fd_.load(std::memory_order_acquire);
  if (fd != platform::kNoSocket) platform::gShutdownSocket(fd);
}

void c_Socket::CloseSending() {
  std::lock_guard<std::mutex> lock(stateMutex_);
  const platform::tSocket fd = fd_.load(std::memory_order_acquire);
  if (fd != platform::kNoSocket && !closing_.IsRaised()) platform::gShutdownSending(fd);
}

void c_Socket::CreateListenerSocket(unsigned short port, tBindScope scope) {
  if (Handle() >= 0) throw cSocketError("c_Socket::CreateListenerSocket - socket is already in use");
  std::optional<platform::cIpAddress> address;
  if (!listenAddress_.empty()) {
    address = platform::gParseNumericAddress(listenAddress_);
    if (!address)
      throw cSocketError("c_Socket::CreateListenerSocket - listen address '" + listenAddress_ +
                         "' is not a numeric address");
  }
  platform::cSocketResult result;
  platform::cUniqueSocket listener(
      platform::gOpenStreamSocket(address ? address->family : platform::tAddressFamily::eIPv4, result));
  if (!listener.Valid()) throw cSocketError("c_Socket::CreateListenerSocket - socket failed: " + result.Text());
  platform::gSetReuseAddress(listener.Get());
  const auto fail = [port](const char* what, const platform::cSocketResult& failure) {
    if (failure.fault == platform::tSocketFault::eAddressInUse) throw cAlreadyInUse(port);
    throw cSocketError(
        fmt::sprintf("c_Socket::CreateListenerSocket - %s port %d failed: %s", what, port, failure.Text()));
  };
  if (address) {
    result = platform::gBindAddress(listener.Get(), *address, port);
  } else {
    result = platform::gBindIPv4(
        listener.Get(), scope == eLoopbackOnly ? platform::tListenAddress::eLoopback : platform::tListenAddress::eAny,
        port);
  }
  if (!result.Ok()) fail("bind to", result);
  result = platform::gListen(listener.Get());
  if (!result.Ok()) fail("listen on", result);
  AdoptDescriptor(listener.Release());
}
