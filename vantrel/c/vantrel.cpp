#include "vantrel/c/vantrel.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "vantrel/base/env/integer.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/address.h"
#include "vantrel/client/vantrelclientobj.h"
#include "vantrel/client/vantrelclientobjimp.h"
#include "vantrel/support/associativearray.h"
#include "vantrel/version.h"

namespace wire = vantrel::wire;

namespace {

// Fills `out` from `record`, pointing into the record's own buffer; a copy
// result also gets its state and path, the path kept in `path`.
void Describe(const cVantrelMessage& record, vantrel_message& out, std::string& path) {
  out.id = record.getMessageId();
  out.type = record.getType();
  out.subtype = record.getSubtype();
  // getQtype only reads; it lacks the const of its neighbours.
  out.queue_type = const_cast<cVantrelMessage&>(record).getQtype();
  out.from_host = record.getFromHost();
  out.from_client = record.getFromClient();
  out.to_host = record.getToHost();
  out.to_client = record.getToClient();
  out.data = record.getData() != nullptr ? record.getData() : "";
  out.length = record.getDatalen();
  out.copy_state = -1;
  out.copy_path = nullptr;
  // Copy results are the only delivered answers that reach the message channel
  // (acknowledgements have a channel of their own), so others are not parsed.
  if (out.type != wire::kDelivered) return;
  CAssociativeArray result;
  if (!result.FromString(out.data, static_cast<long>(out.length)) || !result.HasParameter(wire::kCopyState)) return;
  const auto state = vantrel::env::ParseInteger(result[wire::kCopyState], INT32_MIN, INT32_MAX, nullptr);
  if (!state) return;
  out.copy_state = static_cast<int>(*state);
  path = result.GetValueOfParameter(wire::kCopyFileName);
  out.copy_path = path.c_str();
}

// The hook object the implementation calls on its reader thread: it hands
// messages of the message channel to the handle's C callback.
// Ownership: a member of its vantrel_client; never registered itself.
// Threads: the reader calls NewMessageEvent; the callback pair is read under
// the handle's lock.
class cCallbackOwner final : public cVantrelClientObject {
 public:
  explicit cCallbackOwner(vantrel_client& client) : client_(client) {}
  bool NewMessageEvent(cTypedMessageObject* message, short channel) override;

 private:
  vantrel_client& client_;
};

}  // namespace

// The handle behind the C interface.
// Ownership: made by vantrel_client_new, owned by the caller, destroyed by
// vantrel_client_free. Owns its implementation (connection, reader, queues,
// the current record) and the description of the current message.
// Threads: the application threads as the header allows; the reader thread
// reads the callback pair (under callbackMutex) and writes nothing else. The
// status is atomic and the error text guarded by errorMutex because the
// any-thread calls set them too. `current` and `currentPath` belong to the
// thread that waits and fetches.
struct vantrel_client {
  vantrel_client() : owner(*this) {}
  ~vantrel_client() { cVantrelClientObjectImp::Dispose(std::exchange(imp, nullptr)); }

  // Records the result of a call; a failure without a reason of its own is
  // explained by its status.
  int Finish(int status, std::string why = std::string()) {
    lastStatus.store(status, std::memory_order_relaxed);
    if (status != VANTREL_OK) {
      if (why.empty()) why = vantrel_status_text(status);
      std::lock_guard<std::mutex> guard(errorMutex);
      errorText = std::move(why);
    }
    return status;
  }

  cCallbackOwner owner;
  cVantrelClientObjectImp* imp = nullptr;
  std::atomic<int> lastStatus{-1};
  std::mutex errorMutex;
  std::string errorText;
  std::mutex callbackMutex;
  vantrel_message_callback callback = nullptr;
  void* user = nullptr;
  vantrel_message current{};
  std::string currentPath;
};

namespace {

bool cCallbackOwner::NewMessageEvent(cTypedMessageObject* message, short channel) {
  vantrel_message_callback callback;
  void* user;
  {
    std::lock_guard<std::mutex> guard(client_.callbackMutex);
    callback = client_.callback;
    user = client_.user;
  }
  if (callback == nullptr || channel != wire::kChannelMessages)
    return cVantrelClientObject::NewMessageEvent(message, channel);
  const cVantrelMessage record(message->getData(), static_cast<std::uint32_t>(message->getLength()), message->getType(),
                               channel);
  vantrel_message described{};
  std::string path;
  Describe(record, described, path);
  if (callback(user, &described) != 0) return true;
  delete message;
  return false;
}

// Runs one call of the interface: a null handle is refused, an exception is
// logged and becomes VANTREL_INTERNAL_ERROR, the status is kept on the handle.
template <typename Body>
int Guarded(vantrel_client* client, const char* operation, Body&& body) {
  if (client == nullptr) return VANTREL_INVALID_ARGUMENT;
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& e) {
    VLOG_ERROR("vantrel_client::%s - Exception: %s", operation, e.what());
  } catch (...) {
    VLOG_ERROR("vantrel_client::%s - catch(...)", operation);
  }
  return client->Finish(VANTREL_INTERNAL_ERROR);
}

// The client API's status after a send that returned false.
int SendFailure(vantrel_client& client) {
  switch (client.imp->NETGetLastStatus()) {
    case wire::kStatusNotInitialised:
      return client.Finish(VANTREL_NOT_INITIALISED);
    case wire::kStatusAckError: {
      const std::string& refusal = client.imp->LastRefusal();
      return client.Finish(VANTREL_NOT_DELIVERED, refusal.empty() ? std::string() : "not delivered: " + refusal);
    }
    default:
      return client.Finish(VANTREL_SEND_FAILED);
  }
}

// The checks every send makes before anything reaches the implementation.
int CheckSend(vantrel_client& client, const char* address, const void* data, std::size_t length) {
  if (address == nullptr) return client.Finish(VANTREL_INVALID_ARGUMENT, "no address");
  if (data == nullptr && length != 0) return client.Finish(VANTREL_INVALID_ARGUMENT, "no data");
  if (length > UINT32_MAX) return client.Finish(VANTREL_INVALID_ARGUMENT, "data longer than 4 GiB");
  const CVantrelAddress parsed(address);
  if (parsed.ClientName().empty() || parsed.HostName().empty())
    return client.Finish(VANTREL_INVALID_ARGUMENT, "address \"" + std::string(vantrel::log::Escaped(address)) +
                                                       "\" is not of the form client@host");
  if (client.imp == nullptr) return client.Finish(VANTREL_NOT_INITIALISED);
  return VANTREL_OK;
}

const char* Data(const void* data) { return data != nullptr ? static_cast<const char*>(data) : ""; }

// A message id as the client API takes it; the same 32 bits travel.
std::int32_t WireId(std::uint32_t id) { return static_cast<std::int32_t>(id); }

}  // namespace

extern "C" {

const char* vantrel_version(void) { return VantrelVersion(); }

const char* vantrel_status_text(int status) {
  switch (status) {
    case VANTREL_OK:
      return "no error";
    case VANTREL_TIMEOUT:
      return "timed out";
    case VANTREL_NO_MESSAGE:
      return "no message waits";
    case VANTREL_INVALID_ARGUMENT:
      return "invalid argument";
    case VANTREL_INTERNAL_ERROR:
      return "internal error of the library (see its log)";
    case VANTREL_NOT_INITIALISED:
      return "not registered with the service, or the session ended";
    case VANTREL_SEND_FAILED:
      return "the message could not be sent to the service";
    case VANTREL_NOT_DELIVERED:
      return "the service could not deliver the message";
    default:
      return "unknown status";
  }
}

vantrel_client* vantrel_client_new(void) { return new (std::nothrow) vantrel_client(); }

void vantrel_client_free(vantrel_client* client) {
  try {
    delete client;
  } catch (...) {
    VLOG_ERROR("vantrel_client_free - catch(...)");
  }
}

int vantrel_client_init(vantrel_client* client, const char* name, unsigned short port) {
  return Guarded(client, "init", [&] {
    if (name == nullptr) return client->Finish(VANTREL_INVALID_ARGUMENT, "no client name");
    cVantrelClientObjectImp::Dispose(std::exchange(client->imp, nullptr));
    client->imp = new cVantrelClientObjectImp(name, &client->owner);
    if (client->imp->NETInit(name, port)) return client->Finish(VANTREL_OK);
    std::string why = client->imp->NETGetLastErrorMessage();
    if (why.empty())
      why = "the service on clients port " + std::to_string(client->imp->Port()) +
            " could not be reached or refused the client";
    return client->Finish(VANTREL_NOT_INITIALISED, std::move(why));
  });
}

int vantrel_client_set_callback(vantrel_client* client, vantrel_message_callback callback, void* user) {
  return Guarded(client, "set_callback", [&] {
    {
      std::lock_guard<std::mutex> guard(client->callbackMutex);
      client->callback = callback;
      client->user = user;
    }
    return client->Finish(VANTREL_OK);
  });
}

const char* vantrel_client_whoami(vantrel_client* client) {
  if (client == nullptr || client->imp == nullptr) return "";
  return client->imp->NETWhoAmI();
}

const char* vantrel_client_local_host(vantrel_client* client) {
  if (client == nullptr || client->imp == nullptr) return "";
  return client->imp->NETLocalHostName();
}

int vantrel_client_send(vantrel_client* client, const char* address, const void* data, size_t length) {
  return Guarded(client, "send", [&] {
    if (const int refused = CheckSend(*client, address, data, length)) return refused;
    if (client->imp->NETSendMessage(Data(data), static_cast<unsigned>(length), address))
      return client->Finish(VANTREL_OK);
    // With a well-formed address, a failure that leaves the status clear is
    // the acknowledgement's time-out.
    if (client->imp->NETGetLastStatus() == wire::kStatusOk)
      return client->Finish(VANTREL_TIMEOUT,
                            "no acknowledgement within " + std::to_string(client->imp->AckWaitTimeout()) + " ms");
    return SendFailure(*client);
  });
}

int vantrel_client_notify(vantrel_client* client, const char* address, const void* data, size_t length) {
  return Guarded(client, "notify", [&] {
    if (const int refused = CheckSend(*client, address, data, length)) return refused;
    if (client->imp->NETSendMessageNoresponseZ1(Data(data), static_cast<unsigned>(length), address))
      return client->Finish(VANTREL_OK);
    return SendFailure(*client);
  });
}

int vantrel_client_post(vantrel_client* client, uint32_t id, const char* address, const void* data, size_t length) {
  return Guarded(client, "post", [&] {
    if (const int refused = CheckSend(*client, address, data, length)) return refused;
    if (client->imp->NETSendMessageNowait(WireId(id), Data(data), static_cast<unsigned>(length), address))
      return client->Finish(VANTREL_OK);
    return SendFailure(*client);
  });
}

int vantrel_client_copy(vantrel_client* client, uint32_t id, const char* local_path, const char* host,
                        const char* remote_path) {
  return Guarded(client, "copy", [&] {
    if (local_path == nullptr || *local_path == '\0' || remote_path == nullptr || *remote_path == '\0')
      return client->Finish(VANTREL_INVALID_ARGUMENT, "a copy needs a local and a remote path");
    if (host == nullptr || *host == '\0') return client->Finish(VANTREL_INVALID_ARGUMENT, "a copy needs a host");
    if (client->imp == nullptr) return client->Finish(VANTREL_NOT_INITIALISED);
    // The service opens the file, and its working folder is not the caller's.
    std::error_code error;
    std::filesystem::path source = std::filesystem::absolute(local_path, error);
    if (error) source = local_path;
    CAssociativeArray request;
    request.AddCouple(wire::kCopyLocalFile, source.string());
    request.AddCouple(wire::kCopyRemoteFile, remote_path);
    std::string text;
    long length = 0;
    request.ToString(text, length, false, false);
    if (client->imp->NETCopyFile(WireId(id), text.data(), static_cast<unsigned>(length), host))
      return client->Finish(VANTREL_OK);
    return SendFailure(*client);
  });
}

int vantrel_client_wait(vantrel_client* client, long timeout_ms, const vantrel_message** message) {
  if (message != nullptr) *message = nullptr;
  return Guarded(client, "wait", [&] {
    if (message == nullptr) return client->Finish(VANTREL_INVALID_ARGUMENT, "no place for the message");
    if (client->imp == nullptr) return client->Finish(VANTREL_NOT_INITIALISED);
    bool timedOut = false;
    const cVantrelMessage* record = client->imp->NETWaitMessageFor(timeout_ms < 0 ? -1 : timeout_ms, timedOut);
    if (record == nullptr) return client->Finish(timedOut ? VANTREL_TIMEOUT : VANTREL_NOT_INITIALISED);
    Describe(*record, client->current, client->currentPath);
    *message = &client->current;
    return client->Finish(VANTREL_OK);
  });
}

int vantrel_client_fetch(vantrel_client* client, const vantrel_message** message) {
  if (message != nullptr) *message = nullptr;
  return Guarded(client, "fetch", [&] {
    if (message == nullptr) return client->Finish(VANTREL_INVALID_ARGUMENT, "no place for the message");
    if (client->imp == nullptr) return client->Finish(VANTREL_NOT_INITIALISED);
    const cVantrelMessage* record = client->imp->NETFetchRecord();
    if (record == nullptr)
      return client->Finish(client->imp->NETGetLastStatus() == wire::kStatusNotInitialised ? VANTREL_NOT_INITIALISED
                                                                                           : VANTREL_NO_MESSAGE);
    Describe(*record, client->current, client->currentPath);
    *message = &client->current;
    return client->Finish(VANTREL_OK);
  });
}

int vantrel_client_turn_off(vantrel_client* client) {
  return Guarded(client, "turn_off", [&] {
    if (client->imp == nullptr) return client->Finish(VANTREL_NOT_INITIALISED);
    client->imp->NETTurnOff();
    return client->Finish(VANTREL_OK);
  });
}

int vantrel_client_turn_on(vantrel_client* client) {
  return Guarded(client, "turn_on", [&] {
    if (client->imp == nullptr) return client->Finish(VANTREL_NOT_INITIALISED);
    client->imp->NETTurnOn();
    return client->Finish(VANTREL_OK);
  });
}

void vantrel_client_terminate(vantrel_client* client) {
  Guarded(client, "terminate", [&] {
    if (client->imp != nullptr) client->imp->NETTerminate();
    return VANTREL_OK;
  });
}

int vantrel_client_last_status(vantrel_client* client) {
  return client == nullptr ? -1 : client->lastStatus.load(std::memory_order_relaxed);
}

size_t vantrel_client_error_text(vantrel_client* client, char* buffer, size_t size) {
  if (client == nullptr) return 0;
  try {
    std::lock_guard<std::mutex> guard(client->errorMutex);
    const std::string& text = client->errorText;
    if (buffer != nullptr && size > 0) {
      const std::size_t copied = std::min(size - 1, text.size());
      std::memcpy(buffer, text.data(), copied);
      buffer[copied] = '\0';
    }
    return text.size();
  } catch (...) {
    return 0;
  }
}

}  // extern "C"
