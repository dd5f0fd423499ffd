#include "vantrel/base/platform/stoprequest.h"

#include <pthread.h>
#include <signal.h>

namespace vantrel::platform {
namespace {

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGHUP);
  return set;
}

}  // namespace

void BlockStopRequests() {
  signal(SIGPIPE, SIG_IGN);
  const sigset_t set = StopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int WaitForStopRequest() {
  const sigset_t set = StopSignals();
  int number = 0;
  while (sigwait(&set, &number) != 0) {
  }
  return number == SIGHUP ? kReopenRequest : number;
}

}  // namespace vantrel::platform
