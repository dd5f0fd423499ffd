#pragma once
// The environment container: a scope over the process environment and the
// product's path macros ("#(NAME)" in a text stands for the value of the
// environment variable NAME, e.g. "#(RQ_BIN)/vantrel").
//
// Ownership: created on the stack (or as a member) by whoever needs to read the
// environment; it owns copies of every value it has handed out, so a pointer
// returned by RQEGetEnv stays valid until the container is destroyed, even after
// reset() or a change of the variable.
// Threads: every member function may be called from any thread; an internal lock
// guards the cache.
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>

class RQEnvContainerClass {
 public:
  RQEnvContainerClass();
  ~RQEnvContainerClass();
  RQEnvContainerClass(const RQEnvContainerClass&) = delete;
  RQEnvContainerClass& operator=(const RQEnvContainerClass&) = delete;

  // The value of the environment variable `name`, or null when it is not set
  // (or `name` is null or empty). Values are cached: a later change of the
  // environment is seen only after reset().
  const char* RQEGetEnv(const char* name);

  // Forgets the cached values so that the next RQEGetEnv reads the environment
  // again. Pointers handed out earlier stay valid.
  void reset();

  // Expands every "#(NAME)" in `text` with the value of the variable NAME.
  // A macro whose variable is unset (or whose name is empty) is left in the text
  // as it stands, and logged once per name for this container, so that the caller
  // can still see what was meant. A "#(" without a closing ")" is copied
  // literally. Expanded values are not expanded again.
  std::string RQERuntimeResolve(const std::string& text);

 private:
  struct cEntry {
    const std::string* value = nullptr;  // null: the variable is unset
  };

  std::mutex mutex_;
  std::map<std::string, cEntry, std::less<>> current_;           // cleared by reset()
  std::map<std::string, const std::string*, std::less<>> last_;  // newest stored value per name
  std::deque<std::string> store_;                                // every value handed out
  std::set<std::string, std::less<>> reportedUnset_;
};
