#include "vantrel/base/platform/thread.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "vantrel/base/log/log.h"

namespace vantrel::platform {
// Shared between the handle and the running thread, so that a detached thread
// (or one whose handle was reset) never touches freed memory.
struct cThread::State {
  std::mutex mutex;
  std::condition_variable cond;
  bool started = false;
  bool finished = false;
  bool joining = false;
  bool joined = false;
  bool detached = false;
  bool selfKnown = false;
  pthread_t handle{};  // from pthread_create; written under mutex
  pthread_t self{};    // written by the thread itself under mutex
  std::string name;
  std::string longName;
  std::function<void()> body;
};

namespace {

void* ThreadMain(void* arg) {
  auto* holder = static_cast<std::shared_ptr<cThread::State>*>(arg);
  std::shared_ptr<cThread::State> state = std::move(*holder);
  delete holder;

  std::function<void()> body;
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->self = pthread_self();
    state->selfKnown = true;
    body = std::move(state->body);
  }
  log::SetThreadName(state->name);
  pthread_setname_np(pthread_self(), state->name.substr(0, 15).c_str());

  try {
    body();
  } catch (const std::exception& e) {
    VLOG_ERROR("Exception: %s (thread %s)", e.what(), state->longName);
  } catch (...) {
    VLOG_ERROR("catch(...) in thread %s", state->longName);
  }
  body = nullptr;  // release captures on this thread, before the owner is told

  {
    std::lock_guard<std::mutex> lock(state->mutex);
    state->finished = true;
  }
  state->cond.notify_all();
  return nullptr;
}

}  // namespace

cThread::cThread() : state_(std::make_shared<State>()) {}

cThread::~cThread() {
  bool mustJoin;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    mustJoin = state_->started && !state_->joined && !state_->detached;
  }
  if (!mustJoin) return;
  if (IsCurrentThread()) {
    VLOG_ERROR("cThread::~cThread - thread %s destroys its own handle; detaching", state_->name);
    Detach();
    return;
  }
  Join();
}

void cThread::Start(std::function<void()> body, const std::string& name, const std::string& longName,
                    const nParallel::nImplementation_sho::cThreadAttributes& attributes) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (state_->started) throw std::logic_error("this object doesn't support thread re-start.");
  state_->name = name;
  state_->longName = longName;
  state_->body = std::move(body);

  pthread_attr_t attr;
  pthread_attr_init(&attr);
  if (attributes.HasStackSize()) {
    std::size_t stack = attributes.StackSize();
    const std::size_t minimum = PTHREAD_STACK_MIN;
    if (stack < minimum) {
      VLOG_INFO("cThread::Start(%s) - stack size %zu below the platform's minimum, raised to %zu", name, stack,
                minimum);
      stack = minimum;
    }
    if (int rc = pthread_attr_setstacksize(&attr, stack); rc != 0)
      VLOG_WARN("cThread::Start(%s) - stack size %zu refused: %s", name, stack, std::strerror(rc));
  }
  auto* holder = new std::shared_ptr<State>(state_);
  const int rc = pthread_create(&state_->handle, &attr, &ThreadMain, holder);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete holder;
    state_->body = nullptr;
    throw std::system_error(rc, std::generic_category(), "cannot start thread " + name);
  }
  state_->started = true;
}

bool cThread::Join(nTime::cDiff blockLimit, double growth) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  if (!state_->started || state_->joined) return true;
  if (state_->detached) return false;
  if (state_->selfKnown && pthread_equal(state_->self, pthread_self())) return false;

  auto limit = blockLimit.Chrono();
  if (limit <= std::chrono::microseconds::zero()) limit = std::chrono::seconds(10);
  double waited = 0;
  while (!state_->finished) {
    if (!state_->cond.wait_for(lock, limit, [&] { return state_->finished; })) {
      waited += std::chrono::duration<double>(limit).count();
      VLOG_WARN("cThread::Join - thread %s still running after %.1f s", state_->longName, waited);
      limit = std::chrono::duration_cast<std::chrono::microseconds>(limit * (growth > 1.0 ? growth : 1.0));
    }
  }
  // Another joiner may be inside pthread_join; wait for it instead of joining twice.
  if (state_->joining) {
    state_->cond.wait(lock, [&] { return state_->joined; });
    return true;
  }
  state_->joining = true;
  const pthread_t handle = state_->handle;
  lock.unlock();
  pthread_join(handle, nullptr);
  lock.lock();
  state_->joined = true;
  state_->joining = false;
  lock.unlock();
  state_->cond.notify_all();
  return true;
}

bool cThread::JoinFor(nTime::cDiff timeout) {
  {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->started || state_->joined) return true;
    if (state_->detached) return false;
    if (!state_->cond.wait_for(lock, timeout.Chrono(), [&] { return state_->finished; })) return false;
  }
  return Join();
}

void cThread::Detach() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  if (!state_->started || state_->joined || state_->detached || state_->joining) return;
  pthread_detach(state_->handle);
  state_->detached = true;
}

void cThread::Reset() {
  bool detached;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    detached = state_->detached;
  }
  if (!detached) Join();
  state_ = std::make_shared<State>();
}

bool cThread::Started() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->started;
}

bool cThread::Finished() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->finished;
}

bool cThread::IsCurrentThread() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->selfKnown && pthread_equal(state_->self, pthread_self());
}

const std::string& cThread::Name() const { return state_->name; }

std::string cThread::CurrentName() { return log::ThreadName(); }

void cThread::SetCurrentName(const std::string& name) {
  log::SetThreadName(name);
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

void cThread::RaiseCurrentPriority() {
  // A per-thread nice value: effective for privileged processes, refused
  // (and ignored) otherwise. Real-time scheduling is deliberately not used.
  const auto tid = static_cast<id_t>(::syscall(SYS_gettid));
  (void)::setpriority(PRIO_PROCESS, tid, -20);
}

}  // namespace vantrel::platform
