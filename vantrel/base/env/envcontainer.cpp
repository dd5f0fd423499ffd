#include "vantrel/base/env/envcontainer.h"

#include <cstdlib>

#include "vantrel/base/log/log.h"

RQEnvContainerClass::RQEnvContainerClass() = default;
RQEnvContainerClass::~RQEnvContainerClass() = default;

const char* RQEnvContainerClass::RQEGetEnv(const char* name) {
  if (name == nullptr || *name == '\0') return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  if (auto it = current_.find(name); it != current_.end())
    return it->second.value ? it->second.value->c_str() : nullptr;

  const char* raw = std::getenv(name);
  cEntry entry;
  if (raw != nullptr) {
    // Reuse the stored copy when the value has not changed since the last read,
    // so that repeated reset()/RQEGetEnv cycles do not grow the store.
    auto last = last_.find(name);
    if (last != last_.end() && *last->second == raw) {
      entry.value = last->second;
    } else {
      store_.emplace_back(raw);
      entry.value = &store_.back();
      last_[name] = entry.value;
    }
  }
  current_.emplace(name, entry);
  return entry.value ? entry.value->c_str() : nullptr;
}

void RQEnvContainerClass::reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  current_.clear();
}

std::string RQEnvContainerClass::RQERuntimeResolve(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  std::size_t pos = 0;
  while (pos < text.size()) {
    const std::size_t open = text.find("#(", pos);
    if (open == std::string::npos) break;
    const std::size_t close = text.find(')', open + 2);
    if (close == std::string::npos) break;  // unterminated: the rest is copied as it stands
    out.append(text, pos, open - pos);
    const std::string name = text.substr(open + 2, close - open - 2);
    const char* value = RQEGetEnv(name.c_str());
    if (value != nullptr) {
      out.append(value);
    } else {
      out.append(text, open, close - open + 1);
      bool first;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        first = reportedUnset_.insert(name).second;
      }
      if (first) VLOG_WARN("RQEnvContainerClass::RQERuntimeResolve - macro #(%s) not resolved: variable not set", name);
    }
    pos = close + 1;
  }
  out.append(text, pos, std::string::npos);
  return out;
}
