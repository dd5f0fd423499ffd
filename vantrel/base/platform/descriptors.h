#pragma once
// How many descriptors (files, sockets) the process may have open, and a
// spare one kept for the moment it has none left. Every connection of a
// service costs one, so a service that serves many hosts needs a limit above
// the usual default, and a way to refuse a connection cleanly at the limit.
//
// Stateless calls; any thread. cSpareDescriptor: owned by whoever made it,
// used by one thread at a time.
#include <cstdint>
#include <optional>
#include <string>

namespace vantrel::platform {

// kNoDescriptorLimit stands for "no limit" in either field.
inline constexpr std::uint64_t kNoDescriptorLimit = UINT64_MAX;
struct cDescriptorLimit {
  std::uint64_t soft = 0;  // what is enforced now
  std::uint64_t hard = 0;  // how far the process may raise `soft` by itself
};

// The process's limit; nothing (and `error` set) when it cannot be read.
std::optional<cDescriptorLimit> gDescriptorLimit(std::string* error = nullptr);

// Raises the soft limit to the hard one. Returns the limit in force afterwards
// (unchanged when it could not be raised, with `error` set; nothing when the
// limit cannot even be read). A hard limit without bound is taken as the
// largest number the system accepts.
std::optional<cDescriptorLimit> gRaiseDescriptorLimit(std::string* error = nullptr);

// How many descriptors the process has open now; nothing when that cannot be
// found out (looking needs a descriptor itself).
std::optional<std::uint64_t> gOpenDescriptorCount();

// One descriptor held in reserve. At the limit, Release hands it back to the
// system so that one more can be opened (an accepted connection, to be closed
// again at once); Retake takes it back. Neither blocks.
class cSpareDescriptor {
 public:
  cSpareDescriptor();  // takes the spare; Held() tells whether it could
  ~cSpareDescriptor();
  cSpareDescriptor(const cSpareDescriptor&) = delete;
  cSpareDescriptor& operator=(const cSpareDescriptor&) = delete;

  bool Held() const { return handle_ >= 0; }
  // False when none was held.
  bool Release();
  // False when the system had none to give.
  bool Retake();

 private:
  std::intptr_t handle_ = -1;
};

}  // namespace vantrel::platform
