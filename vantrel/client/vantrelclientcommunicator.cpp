#include "vantrel/client/vantrelclientcommunicator.h"

#include <chrono>
#include <climits>
#include <exception>

#include "vantrel/base/config/vantrelini.h"
#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/socketoptions.h"
#include "vantrel/message/typedmsg.h"
#include "vantrel/message/wire.h"

namespace {
// The longest a close waits for sends handed to the flusher; a healthy local
// service takes them in microseconds.
constexpr std::chrono::milliseconds kDrainLimit{10000};
}  // namespace

CVantrelClientCommunicatorZ1::CVantrelClientCommunicatorZ1(iVantrelClientCommunicatorOwner* owner)
    : owner_(owner), socket_(false, std::string()) {}

CVantrelClientCommunicatorZ1::~CVantrelClientCommunicatorZ1() {
  if (reader_.IsCurrentThread()) {
    // The owner's OnReaderExit: the reader returns straight from it and ends,
    // so it runs on detached without touching us again.
    reader_.Detach();
    return;
  }
  try {
    Terminate(true);
  } catch (const std::exception& e) {
    VLOG_ERROR("CVantrelClientCommunicatorZ1::~CVantrelClientCommunicatorZ1 - Exception: %s", e.what());
  } catch (...) {
    VLOG_ERROR("CVantrelClientCommunicatorZ1::~CVantrelClientCommunicatorZ1 - catch(...)");
  }
  reader_.Join();
}

bool CVantrelClientCommunicatorZ1::Start() {
  if (Terminated()) {
    VLOG_WARN("CVantrelClientCommunicatorZ1::Start - already terminated (%s)", owner_->ClientName());
    return false;
  }
  const auto options = gSocketOptionsLocal();
  socket_.EnableWriteBehind(gCommunicationThreadAttributes());
  if (!socket_.ConnectLocal(owner_->ClientPort(), options)) {
    VLOG_WARN("CVantrelClientCommunicatorZ1::Start - cannot connect to the service on port %d (%s)",
              static_cast<int>(owner_->ClientPort()), owner_->ClientName());
    return false;
  }
  const std::string_view greeting = owner_->GreetingFrame();
  if (!sendMessage(greeting.data(), static_cast<unsigned>(greeting.size()), vantrel::wire::kGreeting, 0)) {
    VLOG_ERROR("CVantrelClientCommunicatorZ1::Start - sendMessage failed.");
    return false;
  }
  reader_.Start([this] { StartReader(); }, "VTClntRdr", "CVantrelClientCommunicatorZ1:ReaderThread",
                gCommunicationThreadAttributes());
  started_.store(true, std::memory_order_release);
  return true;
}

bool CVantrelClientCommunicatorZ1::sendMessage(const char* data, unsigned length, short type, short subtype) {
  if (Terminated()) return false;
  // Application threads that send at once share writes: a frame sent while
  // another thread's write is under way goes out with that thread's next one.
  // Sends that wait for nothing go behind: a stream of them from one thread
  // gathers while the socket's flusher writes, instead of a write each.
  namespace wire = vantrel::wire;
  const bool behind = type == wire::kLocalSendNoResponse || type == wire::kLocalSendNoWait ||
                      type == wire::kSendNoResponse || type == wire::kSendNoWait;
  if (behind ? socket_.PostBehindTypedMessage(type, subtype, data, length)
             : socket_.PostTypedMessage(type, subtype, data, length))
    return true;
  VLOG_WARN("CVantrelClientCommunicatorZ1::sendMessage - Error sending message to socket, client (%s)",
            owner_->ClientName());
  return false;
}

void CVantrelClientCommunicatorZ1::Terminate(bool wait) {
  // What was handed to the flusher goes out before the close: bounded, as
  // every write is, and at once when the connection is already broken.
  if (!Terminated() && !socket_.DrainWrites(kDrainLimit))
    VLOG_WARN("CVantrelClientCommunicatorZ1::Terminate - sends still unwritten after %lld ms (%s)",
              static_cast<long long>(kDrainLimit.count()), owner_->ClientName());
  bool first = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!terminated_.load(std::memory_order_acquire)) {
      first = true;
      VLOG_INFO("CVantrelClientCommunicatorZ1::Terminate (%s,%d)", owner_->ClientName(), socket_.Handle());
      terminated_.store(true, std::memory_order_release);
      // Ends the reader's wait at once; the descriptor stays open until we are
      // destroyed, after the reader has been joined.
      socket_.CloseSocket();
    }
  }
  // The owner calls Terminate in turn; it must find the lock free.
  if (first) owner_->NETTerminate();
  if (wait && !reader_.IsCurrentThread()) reader_.Join();
}

void CVantrelClientCommunicatorZ1::StartReader() {
  readerRunning_.Set();
  vantrel::platform::cThread::RaiseCurrentPriority();
  try {
    ReadLoop();
  } catch (const std::exception& e) {
    VLOG_ERROR("Exception: %s", e.what());
  } catch (...) {
    VLOG_ERROR("CVantrelClientCommunicatorZ1::StartReader - catch(...)");
  }
  try {
    Terminate(false);
    owner_->NETTerminate();
    // Also before the greeting reply, so that a NETInit waiting for it returns.
    owner_->OnReaderEnded();
  } catch (const std::exception& e) {
    VLOG_ERROR("Exception: %s", e.what());
  } catch (...) {
    VLOG_ERROR("CVantrelClientCommunicatorZ1::StartReader - catch(...)");
  }
  VLOG_INFO("CVantrelClientCommunicatorZ1::StartReader - Done (%s,%d)", owner_->ClientName(), socket_.Handle());
  readerEnded_.Set();
  // May destroy the owner and this communicator: nothing may follow.
  owner_->OnReaderExit();
}

void CVantrelClientCommunicatorZ1::ReadLoop() {
  namespace sock = nCommunication::nSocket::nImplementation_sho;
  auto* latency = sock::gLatencyConfiguration(sock::tLatencyPath::local);
  for (;;) {
    short type = 0;
    short subtype = 0;
    char* data = nullptr;
    unsigned length = 0;
    if (!socket_.WaitTypedMessageZ1(type, subtype, data, length, latency)) break;
    if (length > static_cast<unsigned>(INT32_MAX)) {
      VLOG_ERROR("CVantrelClientCommunicatorZ1::ReadLoop - frame of %u bytes dropped (%s)", length,
                 owner_->ClientName());
      StreamSocket::FreeMessage(data);
      continue;
    }
    // The frame's buffer is adopted, not copied: the payload is copied once,
    // later, when the record is rebuilt from it.
    auto* frame = new cTypedMessageObject(cTypedMessageObject::AdoptBuffer{}, data, static_cast<std::int32_t>(length),
                                          type, subtype);
    owner_->OnNewFrame(frame, subtype);
  }
  Terminate(false);
}

bool CVantrelClientCommunicatorZ1::WaitReaderEnded(long milliseconds) {
  if (milliseconds < 0) return readerEnded_.Wait() == 1;
  return readerEnded_.Wait(milliseconds) == 1;
}
