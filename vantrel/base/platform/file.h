#pragma once
// Files as the copy code uses them: what a path names, regular files opened
// without ever blocking on a pipe or a device, exclusive creation, rename and
// removal, and path resolution. Paths are UTF-8 text.
//
// Stateless apart from cFile, which owns one open file. Any thread may call;
// one cFile is used by one thread at a time.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vantrel::platform {

enum class tFileKind { eMissing, eRegular, eDirectory, eOther };

// eMissing also when the path cannot be examined (no permission on a folder).
// Symbolic links are followed.
tFileKind gFileKind(const std::string& path);

// What the copy code needs to know about a file.
struct cFileStatus {
  tFileKind kind = tFileKind::eMissing;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t modifiedNs = 0;  // last modification, nanoseconds since the epoch
  std::uint32_t mode = 0;       // permission bits (rwx for owner, group, others; 0777 at most)
  std::uint32_t owner = 0;
  std::uint32_t group = 0;

  bool SameFileAs(const cFileStatus& other) const { return device == other.device && inode == other.inode; }
};

// The status of what `path` names, following symbolic links; nothing when it
// cannot be examined (the system's error is then in gLastFileError).
std::optional<cFileStatus> gFileStatus(const std::string& path);

// The calling thread's last file error number and its text.
int gLastFileError();
std::string gFileErrorText(int code);
// True when `code` says the caller's rights do not allow the operation.
bool gIsAccessDenied(int code);

// One open file. Move-only; closed by Close or the destructor.
class cFile {
 public:
  cFile() = default;
  ~cFile();
  cFile(cFile&& other) noexcept;
  cFile& operator=(cFile&& other) noexcept;
  cFile(const cFile&) = delete;
  cFile& operator=(const cFile&) = delete;

  // Opens an existing regular file for reading. A pipe, device, socket or
  // folder is refused without waiting for a writer or a device (the open
  // itself does not block); symbolic links are followed. Check IsOpen; Why
  // says what failed.
  static cFile OpenRegularForReading(const std::string& path);
  // Creates `path`, which must not exist yet (never follows a link there),
  // for writing, readable and writable as the creation mask allows.
  static cFile CreateNew(const std::string& path);

  bool IsOpen() const { return handle_ >= 0; }
  // Why the open failed: the system's text, or "not a regular file".
  const std::string& Why() const { return why_; }
  // The system's error number of a failed open (0 for a file of the wrong kind).
  int Error() const { return error_; }

  // Reads until `size` bytes or the end of the file; the bytes read, or
  // nothing on a read error. Fewer than `size` means the end was reached.
  std::optional<std::size_t> ReadFull(char* buffer, std::size_t size);
  // Writes all `size` bytes; false on an error (the file is then partial).
  bool WriteAll(const char* data, std::size_t size);
  std::optional<cFileStatus> Status() const;
  // Closes; false when the system reported an error (written data may be lost).
  bool Close();

 private:
  int handle_ = -1;
  int error_ = 0;
  std::string why_;
};

// Renames `from` over `to` in one step (both in the same file system); an
// existing `to` is replaced. False with the system's error otherwise.
bool gRenameFile(const std::string& from, const std::string& to);
// Removes the directory entry `path` (never a folder). False when it failed.
bool gRemoveFile(const std::string& path);
// The absolute path with every `.`, `..` and symbolic link resolved, its parts
// separated by '/' on every system ("C:/data/in.bin"); nothing when some part
// of it does not exist or cannot be examined.
std::optional<std::string> gResolvePath(const std::string& path);

}  // namespace vantrel::platform
