#include "vantrel/client/vantrelclientobj.h"

#include <exception>
#include <utility>

#include "vantrel/base/log/log.h"
#include "vantrel/client/vantrelclientobjimp.h"

namespace {

// Runs one exported operation; an exception is logged and turned into the
// operation's neutral result, so that none reaches the application.
template <typename Result, typename Body>
Result Guarded(const char* operation, Result fallback, Body&& body) {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& e) {
    VLOG_ERROR("cVantrelClientObject::%s - Exception: %s", operation, e.what());
  } catch (...) {
    VLOG_ERROR("cVantrelClientObject::%s - catch(...)", operation);
  }
  return fallback;
}

}  // namespace

cVantrelClientObject::cVantrelClientObject() : implementation_(nullptr), valid_(false) {}

cVantrelClientObject::cVantrelClientObject(const cVantrelClientObject& other)
    : implementation_(other.implementation_), valid_(other.valid_) {}

cVantrelClientObject& cVantrelClientObject::operator=(const cVantrelClientObject& other) {
  implementation_ = other.implementation_;
  valid_ = other.valid_;
  return *this;
}

cVantrelClientObject::~cVantrelClientObject() {
  try {
    cVantrelClientObjectImp::Dispose(implementation_);
  } catch (const std::exception& e) {
    VLOG_ERROR("cVantrelClientObject::~cVantrelClientObject - Exception: %s", e.what());
  } catch (...) {
    VLOG_ERROR("cVantrelClientObject::~cVantrelClientObject - catch(...)");
  }
  implementation_ = nullptr;
}

bool cVantrelClientObject::NETInitZ641(const char* clientName, unsigned short port) {
  valid_ = Guarded("NETInitZ641", false, [&] {
    if (implementation_ != nullptr) {
      cVantrelClientObjectImp* previous = implementation_;
      implementation_ = nullptr;
      cVantrelClientObjectImp::Dispose(previous);
    }
    implementation_ = new cVantrelClientObjectImp(clientName, this);
    return implementation_->NETInit(clientName, port);
  });
  return valid_;
}

bool cVantrelClientObject::NETSendMessageZ1(const char* data, unsigned int length, const char* address) {
  if (implementation_ == nullptr) return false;
  return Guarded("NETSendMessageZ1", false, [&] { return implementation_->NETSendMessage(data, length, address); });
}

bool cVantrelClientObject::NETSendMessageNoresponseZ1(const char* data, unsigned int length, const char* address) {
  if (implementation_ == nullptr) return false;
  return Guarded("NETSendMessageNoresponseZ1", false,
                 [&] { return implementation_->NETSendMessageNoresponseZ1(data, length, address); });
}

bool cVantrelClientObject::NETSendMessageNowaitZ1(long messageId, const char* data, unsigned int length,
                                                  const char* address) {
  if (implementation_ == nullptr) return false;
  return Guarded("NETSendMessageNowaitZ1", false, [&] {
    return implementation_->NETSendMessageNowait(static_cast<std::int32_t>(messageId), data, length, address);
  });
}

bool cVantrelClientObject::NETSendMultiMessageZ1(const char* data, unsigned int length, const char* addressList) {
  if (implementation_ == nullptr) return false;
  return Guarded("NETSendMultiMessageZ1", false,
                 [&] { return implementation_->NETSendMultiMessageZ1(data, length, addressList); });
}

bool cVantrelClientObject::NETCopyFileZ1(long messageId, const char* data, unsigned int length, const char* host) {
  if (implementation_ == nullptr) return false;
  return Guarded("NETCopyFileZ1", false, [&] {
    return implementation_->NETCopyFile(static_cast<std::int32_t>(messageId), data, length, host);
  });
}

const cVantrelMessage* cVantrelClientObject::NETWaitMessageX1() {
  if (implementation_ == nullptr) return nullptr;
  return Guarded<const cVantrelMessage*>("NETWaitMessageX1", nullptr,
                                         [&] { return implementation_->NETWaitMessage(); });
}

const char* cVantrelClientObject::NETWaitMessageX2() {
  if (implementation_ == nullptr) return nullptr;
  return Guarded<const char*>("NETWaitMessageX2", nullptr, [&] { return implementation_->NETWaitMessageX2(); });
}

const char* cVantrelClientObject::NETFetchMessage() {
  if (implementation_ == nullptr) return nullptr;
  return Guarded<const char*>("NETFetchMessage", nullptr, [&] { return implementation_->NETFetchMessage(); });
}

const char* cVantrelClientObject::NETWhoAmI() {
  if (implementation_ == nullptr) return "";
  return Guarded<const char*>("NETWhoAmI", "", [&] { return implementation_->NETWhoAmI(); });
}

const char* cVantrelClientObject::NETLocalHostName() {
  if (implementation_ == nullptr) return "";
  return Guarded<const char*>("NETLocalHostName", "", [&] { return implementation_->NETLocalHostName(); });
}

int cVantrelClientObject::NETGetLastStatus() {
  if (implementation_ == nullptr) return -1;
  return implementation_->NETGetLastStatus();
}

const char* cVantrelClientObject::NETGetLastErrorMessage() {
  if (implementation_ == nullptr) return nullptr;
  return implementation_->NETGetLastErrorMessage();
}

bool cVantrelClientObject::NETTurnOn() {
  if (implementation_ == nullptr) return false;
  return Guarded("NETTurnOn", false, [&] { return implementation_->NETTurnOn(); });
}

bool cVantrelClientObject::NETTurnOff() {
  if (implementation_ == nullptr) return false;
  return Guarded("NETTurnOff", false, [&] { return implementation_->NETTurnOff(); });
}

void cVantrelClientObject::NETTerminate() {
  if (implementation_ == nullptr) return;
  Guarded("NETTerminate", 0, [&] {
    implementation_->NETTerminate();
    return 0;
  });
}

bool cVantrelClientObject::Valid() { return valid_; }

bool cVantrelClientObject::NewMessageEvent(cTypedMessageObject* message, short channel) {
  if (channel >= vantrel::wire::kChannelMessages && channel <= vantrel::wire::kChannelAnswers) return true;
  // Refused by default: nobody else will take the message, so it ends here.
  delete message;
  return false;
}

void VantrelClientTerminate() {
  try {
    CClientsCollection::Instance().Clear();
  } catch (...) {
    VLOG_ERROR("VantrelClientTerminate - catch(...)");
  }
}
