#include "vantrel/base/platform/descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vantrel::platform {
namespace {
std::uint64_t FromRlim(rlim_t value) {
  return value == RLIM_INFINITY ? kNoDescriptorLimit : static_cast<std::uint64_t>(value);
}

// The most descriptors one process can have (Linux's fs.nr_open); what an
// unbounded hard limit really means for RLIMIT_NOFILE.
std::optional<rlim_t> SystemCeiling() {
  std::FILE* file = std::fopen("/proc/sys/fs/nr_open", "re");
  if (file == nullptr) return std::nullopt;
  unsigned long long value = 0;
  const bool read = std::fscanf(file, "%llu", &value) == 1;
  std::fclose(file);
  if (!read || value == 0) return std::nullopt;
  return static_cast<rlim_t>(value);
}
}  // namespace

std::optional<cDescriptorLimit> gDescriptorLimit(std::string* error) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    if (error != nullptr) *error = std::strerror(errno);
    return std::nullopt;
  }
  return cDescriptorLimit{FromRlim(limit.rlim_cur), FromRlim(limit.rlim_max)};
}

std::optional<cDescriptorLimit> gRaiseDescriptorLimit(std::string* error) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    if (error != nullptr) *error = std::strerror(errno);
    return std::nullopt;
  }
  if (limit.rlim_cur != limit.rlim_max) {
    rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max;
    if (raised.rlim_cur == RLIM_INFINITY) {
      if (const auto ceiling = SystemCeiling()) raised.rlim_cur = *ceiling;
    }
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) {
      limit = raised;
    } else if (error != nullptr) {
      *error = std::strerror(errno);
    }
  }
  return cDescriptorLimit{FromRlim(limit.rlim_cur), FromRlim(limit.rlim_max)};
}

std::optional<std::uint64_t> gOpenDescriptorCount() {
  DIR* folder = ::opendir("/proc/self/fd");
  if (folder == nullptr) return std::nullopt;
  std::uint64_t count = 0;
  while (const dirent* entry = ::readdir(folder)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(folder);
  // The folder's own descriptor was counted too.
  return count > 0 ? count - 1 : 0;
}

cSpareDescriptor::cSpareDescriptor() { Retake(); }

cSpareDescriptor::~cSpareDescriptor() { Release(); }

bool cSpareDescriptor::Release() {
  if (handle_ < 0) return false;
  ::close(static_cast<int>(handle_));
  handle_ = -1;
  return true;
}

bool cSpareDescriptor::Retake() {
  if (handle_ >= 0) return true;
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  handle_ = fd;
  return true;
}

}  // namespace vantrel::platform
