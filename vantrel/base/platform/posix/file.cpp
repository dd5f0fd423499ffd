#include "vantrel/base/platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace vantrel::platform {

namespace {

tFileKind KindOf(mode_t mode) {
  if (S_ISREG(mode)) return tFileKind::eRegular;
  if (S_ISDIR(mode)) return tFileKind::eDirectory;
  return tFileKind::eOther;
}

cFileStatus StatusOf(const struct stat& st) {
  cFileStatus status;
  status.kind = KindOf(st.st_mode);
  status.device = static_cast<std::uint64_t>(st.st_dev);
  status.inode = static_cast<std::uint64_t>(st.st_ino);
  status.size = static_cast<std::uint64_t>(st.st_size);
  status.modifiedNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  status.mode = static_cast<std::uint32_t>(st.st_mode & 0777);
  status.owner = st.st_uid;
  status.group = st.st_gid;
  return status;
}

}  // namespace

tFileKind gFileKind(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return tFileKind::eMissing;
  return KindOf(st.st_mode);
}

std::optional<cFileStatus> gFileStatus(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return StatusOf(st);
}

int gLastFileError() { return errno; }

std::string gFileErrorText(int code) { return std::strerror(code); }

bool gIsAccessDenied(int code) { return code == EACCES || code == EPERM; }

cFile cFile::OpenRegularForReading(const std::string& path) {
  cFile file;
  // Non-blocking, so that opening a pipe without a writer returns at once; the
  // kind is checked on what was opened, not on the path, which may change.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    file.error_ = errno;
    file.why_ = std::strerror(file.error_);
    return file;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    file.why_ = S_ISDIR(st.st_mode) ? "is a folder" : "not a regular file";
    ::close(fd);
    return file;
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
    file.why_ = std::strerror(errno);
    ::close(fd);
    return file;
  }
  file.handle_ = fd;
  return file;
}

cFile cFile::CreateNew(const std::string& path) {
  cFile file;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0666);
  if (fd < 0) {
    file.error_ = errno;
    file.why_ = std::strerror(file.error_);
    return file;
  }
  file.handle_ = fd;
  return file;
}

std::optional<std::size_t> cFile::ReadFull(char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(handle_, buffer + done, size - done);
    if (got < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

bool cFile::WriteAll(const char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t put = ::write(handle_, data + done, size - done);
    if (put < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<std::size_t>(put);
  }
  return true;
}

std::optional<cFileStatus> cFile::Status() const {
  struct stat st {};
  if (handle_ < 0 || ::fstat(handle_, &st) != 0) return std::nullopt;
  return StatusOf(st);
}

bool cFile::Close() {
  if (handle_ < 0) return true;
  const int fd = handle_;
  handle_ = -1;
  // The descriptor is gone whatever close reports; EINTR is not retried.
  return ::close(fd) == 0;
}

bool gRenameFile(const std::string& from, const std::string& to) { return std::rename(from.c_str(), to.c_str()) == 0; }

bool gRemoveFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

std::optional<std::string> gResolvePath(const std::string& path) {
  std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  if (!resolved) return std::nullopt;
  return std::string(resolved.get());
}

}  // namespace vantrel::platform
