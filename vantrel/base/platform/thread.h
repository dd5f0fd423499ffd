#pragma once
// Thread handle with a name, a long name and attributes.
//
// Ownership: the object that holds a cThread owns the thread it runs and must
// Join (or Detach) it before the thread's body can touch a destroyed object.
// Start, Join, Detach and Reset are called by the owner; Join may also be called
// from any other thread. A handle runs at most once: a second Start throws
// std::logic_error("this object doesn't support thread re-start."); Reset makes
// a finished handle startable again.
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "vantrel/base/platform/time.h"

namespace nParallel::nImplementation_sho {

// Attributes a thread is started with: an optional stack size in bytes. No stack
// size means the system's default.
class cThreadAttributes {
 public:
  cThreadAttributes() = default;
  explicit cThreadAttributes(std::size_t stackSize) : stackSize_(stackSize) {}
  bool HasStackSize() const { return stackSize_.has_value(); }
  std::size_t StackSize() const { return stackSize_.value_or(0); }
  void SetStackSize(std::size_t bytes) { stackSize_ = bytes; }
  void ClearStackSize() { stackSize_.reset(); }

 private:
  std::optional<std::size_t> stackSize_;
};

}  // namespace nParallel::nImplementation_sho

namespace vantrel::platform {

class cThread {
 public:
  cThread();
  // Joins a thread that is still running (detaches when called on the thread
  // itself, which must never happen in orderly code and is logged).
  ~cThread();
  cThread(const cThread&) = delete;
  cThread& operator=(const cThread&) = delete;

  // Runs body on a new thread named `name` (visible to ps/top/gdb, at most 15
  // characters kept there; the whole name appears in log lines). An exception
  // that leaves body is caught and logged ("Exception: %s" / "catch(...)").
  // A requested stack below the platform's minimum is raised to it (one log line).
  // Throws std::logic_error on a second start and std::system_error when the
  // system cannot create the thread.
  void Start(std::function<void()> body, const std::string& name, const std::string& longName,
             const nParallel::nImplementation_sho::cThreadAttributes& attributes = {});

  // Waits for the thread to end. Returns at once (true) when it never started or
  // was joined already, and returns false at once when called on the thread itself
  // or after Detach. Waits in steps: each time `blockLimit` passes, a warning is
  // logged and the limit is multiplied by `growth`; there is no upper bound.
  bool Join(nTime::cDiff blockLimit = nTime::cDiff::FromSeconds(10), double growth = 2.0);

  // Waits at most `timeout` for the thread to end; joins and returns true when it
  // did. For callers that must not block for ever (the service's busy check).
  bool JoinFor(nTime::cDiff timeout);

  // Abandons the thread: it runs on and ends by itself; this handle forgets it.
  void Detach();

  // Joins if needed and makes the handle startable again.
  void Reset();

  bool Started() const;
  // True once the body has returned (or thrown).
  bool Finished() const;
  bool IsCurrentThread() const;
  const std::string& Name() const;

  // The calling thread's name as shown in log lines ("main" by default).
  static std::string CurrentName();
  static void SetCurrentName(const std::string& name);
  // Raises the calling thread's priority to the highest the process may use;
  // silently leaves it as it is when not permitted.
  static void RaiseCurrentPriority();

  // Shared by the handle and its running thread (defined in the implementation).
  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace vantrel::platform
