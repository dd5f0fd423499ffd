#include "vantrel/base/platform/stoprequest.h"

#include <condition_variable>
#include <deque>
#include <mutex>

#include "vantrel/base/platform/windows/win32.h"

namespace vantrel::platform {
namespace {

// The console control handler runs on a thread the system starts for it; it
// only records the request, and the thread in WaitForStopRequest acts on it.
struct cStopRequests {
  std::mutex mutex;
  std::condition_variable cond;
  std::deque<int> pending;
};

cStopRequests& Requests() {
  // Never destroyed: the system may call the handler while the process exits.
  static auto* requests = new cStopRequests;
  return *requests;
}

BOOL WINAPI OnConsoleControl(DWORD type) {
  switch (type) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT: {
      win32::PostStopRequest(static_cast<int>(type));
      // Handled: the process is not ended by the default handler. (For close
      // and shutdown the system ends it anyway once the handler returns or a
      // few seconds pass, whichever comes first.)
      return TRUE;
    }
    default:
      return FALSE;
  }
}

}  // namespace

void win32::PostStopRequest(int type) {
  auto& requests = Requests();
  {
    std::lock_guard<std::mutex> lock(requests.mutex);
    requests.pending.push_back(type);
  }
  requests.cond.notify_all();
}

void BlockStopRequests() {
  Requests();
  ::SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
}

int WaitForStopRequest() {
  auto& requests = Requests();
  std::unique_lock<std::mutex> lock(requests.mutex);
  requests.cond.wait(lock, [&] { return !requests.pending.empty(); });
  const int type = requests.pending.front();
  requests.pending.pop_front();
  return type;
}

}  // namespace vantrel::platform
