#include "vantrel/service/vantrellistensockets.h"

#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/shortage.h"
#include "vantrel/base/socket/socketerror.h"

using nCommunication::nSocket::nImplementation_sho::cAlreadyInUse;
using nCommunication::nSocket::nImplementation_sho::cOutOfDescriptors;
using nCommunication::nSocket::nImplementation_sho::gReportDescriptorShortage;
using nCommunication::nSocket::nImplementation_sho::gSocketStatusText;
using nCommunication::nSocket::nImplementation_sho::gValidate;
using nCommunication::nSocket::nImplementation_sho::tSocketStatus;

CVantrelListenerSocket::CVantrelListenerSocket(bool useTls, const char* name, c_Socket::tBindScope scope,
                                               cSocketOptions options, cThreadAttributes threadAttributes,
                                               tAcceptHandler onAccept)
    : socket_(useTls, name),
      scope_(scope),
      options_(std::move(options)),
      threadAttributes_(std::move(threadAttributes)),
      onAccept_(std::move(onAccept)) {}

CVantrelListenerSocket::~CVantrelListenerSocket() {
  Terminate();
  // The accept thread uses every member (the socket, the lock, the handler it
  // may be running): it must have ended before the first of them is destroyed.
  if (!acceptThread_.Started()) return;
  VLOG_DEBUG("CVantrelListenerSocket::~CVantrelListenerSocket(%d) - waiting for the accept thread", socket_.Handle());
  JoinThread();
}

bool CVantrelListenerSocket::Listen() {
  try {
    socket_.CreateListenerSocket(port_, scope_);
  } catch (const cAlreadyInUse&) {
    return false;
  }
  if (port_ == 0) port_ = socket_.LocalPort();
  return true;
}

void CVantrelListenerSocket::StartAccepting() {
  acceptThread_.Start([this] { ListenProc(); }, "VTLsnr", "CVantrelListenerSocket:ListenThread", threadAttributes_);
}

void CVantrelListenerSocket::ListenProc() {
  vantrel::platform::cThread::RaiseCurrentPriority();
  VLOG_DEBUG("CVantrelListenerSocket::ListenProc(%d)", socket_.Handle());
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (stopped_) break;
    }
    auto accepted = socket_.Accept(options_);
    if (!accepted.handle.has_value() || !accepted.handle->fIsValid()) {
      VLOG_DEBUG("CVantrelListenerSocket::ListenProc(%d) - accept ended: %s", socket_.Handle(),
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
      onAccept_(std::move(validated.handle), std::move(accepted.tls));
    } catch (const cOutOfDescriptors&) {
      // The connection is closed as the handle goes: its peer learns at once.
      gReportDescriptorShortage("CVantrelListenerSocket::ListenProc", "connection refused");
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
  VLOG_DEBUG("CVantrelListenerSocket::Terminate(%d)", socket_.Handle());
  socket_.CloseSocket();
  stopped_ = true;
}

void CVantrelListenerSocket::JoinThread() { acceptThread_.Join(); }
