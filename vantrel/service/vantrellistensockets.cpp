#include "vantrel/service/vantrellistensockets.h"

#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/net/vantrelnetconnection.h"
#include "vantrel/service/vantrelclass.h"

using nCommunication::nSocket::nImplementation_sho::cAlreadyInUse;
using nCommunication::nSocket::nImplementation_sho::gSocketStatusText;
using nCommunication::nSocket::nImplementation_sho::gValidate;
using nCommunication::nSocket::nImplementation_sho::tSocketStatus;

CVantrelListenerSocket::CVantrelListenerSocket(CVantrelClass* owner, bool useTls)
    : socket_(useTls, useTls ? "net listener" : "clients listener"), owner_(owner) {}

CVantrelListenerSocket::~CVantrelListenerSocket() { Terminate(); }

bool CVantrelListenerSocket::Start() {
  try {
    socket_.CreateListenerSocket(port_, BindScope());
  } catch (const cAlreadyInUse&) {
    return false;
  }
  if (port_ == 0) port_ = socket_.LocalPort();
  acceptThread_.Start([this] { ListenProc(); }, "VTLsnr", "CVantrelListenerSocket:ListenThread",
                      gCommunicationThreadAttributes());
  return true;
}

void CVantrelListenerSocket::ListenProc() {
  vantrel::platform::cThread::RaiseCurrentPriority();
  VLOG_INFO("CVantrelListenerSocket::ListenProc(%d)", socket_.Handle());
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (stopped_) break;
    }
    auto accepted = socket_.Accept(SocketOptions());
    if (!accepted.handle.has_value() || !accepted.handle->fIsValid()) {
      VLOG_INFO("CVantrelListenerSocket::ListenProc(%d) - accept ended: %s", socket_.Handle(),
                gSocketStatusText(accepted.status));
      break;
    }
    auto validated = gValidate(std::move(accepted.handle));
    if (validated.status != tSocketStatus::eGood) {
      VLOG_ERROR("CVantrelListenerSocket::ListenProc(%d) - invalid connection: %s", socket_.Handle(),
                 gSocketStatusText(validated.status));
      break;
    }
    try {
      CreateConnection(std::move(validated.handle), std::move(accepted.tls));
    } catch (const std::exception& e) {
      // A connection that cannot get its threads is dropped; the listener goes on.
      VLOG_ERROR("CVantrelListenerSocket::ListenProc - cannot create a connection: %s", e.what());
    }
  }
  Terminate();
}

void CVantrelListenerSocket::Terminate() {
  std::lock_guard<std::mutex> guard(lock_);
  if (stopped_) return;
  VLOG_INFO("CVantrelListenerSocket::Terminate(%d)", socket_.Handle());
  socket_.CloseSocket();
  stopped_ = true;
}

void CVantrelListenerSocket::JoinThread() { acceptThread_.Join(); }

CVantrelNetListener::CVantrelNetListener(CVantrelClass* owner) : CVantrelListenerSocket(owner, gVantrelUseOpenSsl()) {}

CVantrelListenerSocket::cSocketOptions CVantrelNetListener::SocketOptions() const { return gSocketOptionsNet(); }

iVantrelConnection* CVantrelNetListener::CreateConnection(cSocketHandle&& handle, cTlsConnectionState tls) {
  return owner()->CreateIncomingHostLink(std::move(handle), std::move(tls));
}

CVantrelClientListener::CVantrelClientListener(CVantrelClass* owner) : CVantrelListenerSocket(owner, false) {}

CVantrelListenerSocket::cSocketOptions CVantrelClientListener::SocketOptions() const { return gSocketOptionsLocal(); }

iVantrelConnection* CVantrelClientListener::CreateConnection(cSocketHandle&& handle, cTlsConnectionState tls) {
  return owner()->CreateClientConnection(std::move(handle));
}
