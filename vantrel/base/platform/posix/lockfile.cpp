#include "vantrel/base/platform/lockfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

int RQPLockFileExclusive(const std::string& path, std::string* error, bool* lockedElsewhere) {
  if (lockedElsewhere) *lockedElsewhere = false;
  // A lock needs no write access, so a file that another user created stays
  // usable; it is opened without O_CREAT first because sticky shared folders
  // refuse O_CREAT on other users' files.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (error) *error = std::string("cannot open ") + path + ": " + std::strerror(errno);
    return -1;
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (lockedElsewhere) *lockedElsewhere = errno == EWOULDBLOCK;
    if (error)
      *error = errno == EWOULDBLOCK ? path + " is locked by another process"
                                    : std::string("cannot lock ") + path + ": " + std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

void RQPUnlockFile(int handle) {
  if (handle >= 0) ::close(handle);
}

std::string RQPRuntimeFolder(bool systemWide) {
  if (systemWide) return ::access("/run/lock", W_OK) == 0 ? "/run/lock" : "/tmp";
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return runtime != nullptr && *runtime != '\0' ? runtime : "/tmp";
}
