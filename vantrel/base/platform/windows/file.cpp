#include "vantrel/base/platform/file.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>

#include "vantrel/base/platform/windows/win32.h"

namespace vantrel::platform {

// cFile keeps the C runtime's descriptor of its handle (_open_osfhandle), so
// that the shared header stays free of system types; _close closes both.
namespace {

// 100-nanosecond steps from 1601-01-01 to 1970-01-01.
constexpr std::int64_t kEpochDifference = 116444736000000000LL;

HANDLE HandleOf(int fd) { return reinterpret_cast<HANDLE>(::_get_osfhandle(fd)); }

// Opens `path` only to look at it: no read or write rights needed, folders
// included, links followed.
HANDLE OpenForQuery(const std::string& path) {
  return ::CreateFileW(win32::Wide(path).c_str(), FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

std::optional<cFileStatus> StatusOf(HANDLE handle) {
  BY_HANDLE_FILE_INFORMATION info{};
  if (!::GetFileInformationByHandle(handle, &info)) return std::nullopt;
  cFileStatus status;
  if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
    status.kind = tFileKind::eDirectory;
  else
    status.kind = ::GetFileType(handle) == FILE_TYPE_DISK ? tFileKind::eRegular : tFileKind::eOther;
  status.device = info.dwVolumeSerialNumber;
  status.inode = (static_cast<std::uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  status.size = (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  const std::int64_t ticks = static_cast<std::int64_t>(
      (static_cast<std::uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32) | info.ftLastWriteTime.dwLowDateTime);
  status.modifiedNs = (ticks - kEpochDifference) * 100;
  // Windows has no permission bits: the read-only attribute is the closest.
  const bool readOnly = (info.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
  status.mode = status.kind == tFileKind::eDirectory ? 0777 : (readOnly ? 0444 : 0666);
  return status;
}

int Adopt(HANDLE handle, int flags) {
  const int fd = ::_open_osfhandle(reinterpret_cast<intptr_t>(handle), flags);
  if (fd < 0) ::CloseHandle(handle);
  return fd;
}

}  // namespace

tFileKind gFileKind(const std::string& path) {
  const auto status = gFileStatus(path);
  return status ? status->kind : tFileKind::eMissing;
}

std::optional<cFileStatus> gFileStatus(const std::string& path) {
  const HANDLE handle = OpenForQuery(path);
  if (handle == INVALID_HANDLE_VALUE) return std::nullopt;
  auto status = StatusOf(handle);
  const DWORD error = ::GetLastError();
  ::CloseHandle(handle);
  ::SetLastError(error);
  return status;
}

int gLastFileError() { return static_cast<int>(::GetLastError()); }

std::string gFileErrorText(int code) { return win32::ErrorText(static_cast<unsigned long>(code)); }

bool gIsAccessDenied(int code) { return code == ERROR_ACCESS_DENIED || code == ERROR_PRIVILEGE_NOT_HELD; }

cFile cFile::OpenRegularForReading(const std::string& path) {
  cFile file;
  // Folders open too (so that the answer can say "is a folder"); the kind is
  // checked on what was opened, not on the path, which may change. Opening a
  // pipe that has no server fails at once rather than waiting.
  const HANDLE handle =
      ::CreateFileW(win32::Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    file.error_ = static_cast<int>(::GetLastError());
    file.why_ = win32::ErrorText(static_cast<unsigned long>(file.error_));
    return file;
  }
  const auto status = StatusOf(handle);
  if (!status || status->kind != tFileKind::eRegular) {
    file.why_ = status && status->kind == tFileKind::eDirectory ? "is a folder" : "not a regular file";
    ::CloseHandle(handle);
    return file;
  }
  file.handle_ = Adopt(handle, _O_RDONLY | _O_BINARY);
  if (file.handle_ < 0) file.why_ = "no C runtime descriptor left";
  return file;
}

cFile cFile::CreateNew(const std::string& path) {
  cFile file;
  // CREATE_NEW fails on anything already there, a link included, so it never
  // writes through one.
  const HANDLE handle = ::CreateFileW(win32::Wide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                      nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    file.error_ = static_cast<int>(::GetLastError());
    file.why_ = win32::ErrorText(static_cast<unsigned long>(file.error_));
    return file;
  }
  file.handle_ = Adopt(handle, _O_WRONLY | _O_BINARY);
  if (file.handle_ < 0) file.why_ = "no C runtime descriptor left";
  return file;
}

std::optional<std::size_t> cFile::ReadFull(char* buffer, std::size_t size) {
  const HANDLE handle = HandleOf(handle_);
  std::size_t done = 0;
  while (done < size) {
    const DWORD want = static_cast<DWORD>(std::min<std::size_t>(size - done, 1u << 30));
    DWORD got = 0;
    if (!::ReadFile(handle, buffer + done, want, &got, nullptr)) return std::nullopt;
    if (got == 0) break;
    done += got;
  }
  return done;
}

bool cFile::WriteAll(const char* data, std::size_t size) {
  const HANDLE handle = HandleOf(handle_);
  std::size_t done = 0;
  while (done < size) {
    const DWORD want = static_cast<DWORD>(std::min<std::size_t>(size - done, 1u << 30));
    DWORD put = 0;
    if (!::WriteFile(handle, data + done, want, &put, nullptr)) return false;
    done += put;
  }
  return true;
}

std::optional<cFileStatus> cFile::Status() const {
  if (handle_ < 0) return std::nullopt;
  return StatusOf(HandleOf(handle_));
}

bool cFile::Close() {
  if (handle_ < 0) return true;
  const int fd = handle_;
  handle_ = -1;
  return ::_close(fd) == 0;
}

bool gRenameFile(const std::string& from, const std::string& to) {
  return ::MoveFileExW(win32::Wide(from).c_str(), win32::Wide(to).c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
}

bool gRemoveFile(const std::string& path) { return ::DeleteFileW(win32::Wide(path).c_str()) != 0; }

std::optional<std::string> gResolvePath(const std::string& path) {
  const HANDLE handle = OpenForQuery(path);
  if (handle == INVALID_HANDLE_VALUE) return std::nullopt;
  std::wstring resolved(MAX_PATH, L'\0');
  DWORD length = ::GetFinalPathNameByHandleW(handle, resolved.data(), static_cast<DWORD>(resolved.size()),
                                             FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  if (length >= resolved.size()) {
    resolved.resize(length + 1);
    length = ::GetFinalPathNameByHandleW(handle, resolved.data(), static_cast<DWORD>(resolved.size()),
                                         FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  }
  ::CloseHandle(handle);
  if (length == 0 || length >= resolved.size()) return std::nullopt;
  resolved.resize(length);
  // The system answers in its long form ("\\?\C:\..."); callers compare
  // against ordinary paths, split at '/', which every file call takes too.
  if (resolved.rfind(L"\\\\?\\UNC\\", 0) == 0)
    resolved = L"\\\\" + resolved.substr(8);
  else if (resolved.rfind(L"\\\\?\\", 0) == 0)
    resolved = resolved.substr(4);
  std::replace(resolved.begin(), resolved.end(), L'\\', L'/');
  return win32::Utf8(resolved);
}

}  // namespace vantrel::platform
