#include "vantrel/base/platform/thread.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/threadnative.h"

namespace vantrel::platform {

namespace nThreadNative {
namespace {
static_assert(sizeof(pthread_t) <= sizeof(tHandle), "a thread handle cannot hold pthread_t");

pthread_t Native(tHandle handle) {
  pthread_t thread{};
  std::memcpy(&thread, &handle, sizeof thread);
  return thread;
}

void* Main(void* arg) {
  RunThread(arg);
  return nullptr;
}
}  // namespace

std::size_t MinimumStack() { return PTHREAD_STACK_MIN; }

int Start(void* arg, std::size_t stack, tHandle& handle) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (stack > 0) {
    if (int rc = pthread_attr_setstacksize(&attr, stack); rc != 0)
      VLOG_WARN("cThread::Start - stack size %zu refused: %s", stack, std::strerror(rc));
  }
  pthread_t thread{};
  const int rc = pthread_create(&thread, &attr, &Main, arg);
  pthread_attr_destroy(&attr);
  if (rc == 0) {
    handle = 0;
    std::memcpy(&handle, &thread, sizeof thread);
  }
  return rc;
}

void Join(tHandle handle) { pthread_join(Native(handle), nullptr); }

void Detach(tHandle handle) { pthread_detach(Native(handle)); }

void NameCurrent(const std::string& name) { pthread_setname_np(pthread_self(), name.substr(0, 15).c_str()); }

}  // namespace nThreadNative

void cThread::RaiseCurrentPriority() {
  // A per-thread nice value: effective for privileged processes, refused
  // (and ignored) otherwise. Real-time scheduling is deliberately not used.
  const auto tid = static_cast<id_t>(::syscall(SYS_gettid));
  (void)::setpriority(PRIO_PROCESS, tid, -20);
}

}  // namespace vantrel::platform
