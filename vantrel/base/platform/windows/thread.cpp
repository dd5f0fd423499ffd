#include "vantrel/base/platform/thread.h"

#include <process.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/windows/win32.h"

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
  HANDLE handle = nullptr;  // from _beginthreadex; written under mutex
  DWORD id = 0;             // the thread's id; written under mutex
  std::string name;
  std::string longName;
  std::function<void()> body;
};

namespace {

// SetThreadDescription exists from Windows 10 1607 on; older systems (and
// emulators without it) simply keep unnamed threads.
void NameCurrentThread(const std::string& name) {
  using tSetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  static const auto setDescription = [] {
    const HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
    return kernel ? reinterpret_cast<tSetDescription>(
                        reinterpret_cast<void (*)()>(::GetProcAddress(kernel, "SetThreadDescription")))
                  : nullptr;
  }();
  if (setDescription) setDescription(::GetCurrentThread(), win32::Wide(name).c_str());
}

unsigned __stdcall ThreadMain(void* arg) {
  auto* holder = static_cast<std::shared_ptr<cThread::State>*>(arg);
  std::shared_ptr<cThread::State> state = std::move(*holder);
  delete holder;

  std::function<void()> body;
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    body = std::move(state->body);
  }
  log::SetThreadName(state->name);
  NameCurrentThread(state->name);

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
  return 0;
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

  unsigned stack = 0;
  if (attributes.HasStackSize()) {
    // The system rounds a stack up to its allocation granularity (64 KiB);
    // below that it would silently take the program's default.
    constexpr std::size_t kMinimum = 64 * 1024;
    std::size_t requested = attributes.StackSize();
    if (requested < kMinimum) {
      VLOG_INFO("cThread::Start(%s) - stack size %zu below the platform's minimum, raised to %zu", name, requested,
                kMinimum);
      requested = kMinimum;
    }
    stack = static_cast<unsigned>(std::min<std::size_t>(requested, 1u << 30));
  }
  auto* holder = new std::shared_ptr<State>(state_);
  unsigned id = 0;
  // The thread starts suspended so that its handle and id are recorded before
  // it can look at them.
  const auto handle = ::_beginthreadex(nullptr, stack, &ThreadMain, holder,
                                       CREATE_SUSPENDED | (stack ? STACK_SIZE_PARAM_IS_A_RESERVATION : 0), &id);
  if (handle == 0) {
    const int code = errno;
    delete holder;
    state_->body = nullptr;
    throw std::system_error(code, std::generic_category(), "cannot start thread " + name);
  }
  state_->handle = reinterpret_cast<HANDLE>(handle);
  state_->id = id;
  state_->started = true;
  ::ResumeThread(state_->handle);
}

bool cThread::Join(nTime::cDiff blockLimit, double growth) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  if (!state_->started || state_->joined) return true;
  if (state_->detached) return false;
  if (state_->id == ::GetCurrentThreadId()) return false;

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
  // Another joiner may be waiting on the handle; wait for it instead of
  // closing the handle under it.
  if (state_->joining) {
    state_->cond.wait(lock, [&] { return state_->joined; });
    return true;
  }
  state_->joining = true;
  const HANDLE handle = state_->handle;
  lock.unlock();
  ::WaitForSingleObject(handle, INFINITE);
  ::CloseHandle(handle);
  lock.lock();
  state_->handle = nullptr;
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
  ::CloseHandle(state_->handle);
  state_->handle = nullptr;
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
  return state_->started && state_->id == ::GetCurrentThreadId();
}

const std::string& cThread::Name() const { return state_->name; }

std::string cThread::CurrentName() { return log::ThreadName(); }

void cThread::SetCurrentName(const std::string& name) {
  log::SetThreadName(name);
  NameCurrentThread(name);
}

void cThread::RaiseCurrentPriority() {
  // The highest priority short of the time-critical one that would starve the
  // system's own threads; ignored when refused.
  (void)::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
}

}  // namespace vantrel::platform
