#include "vantrel/base/platform/windows/win32.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace vantrel::platform::win32 {

std::wstring Wide(const std::string& utf8) {
  if (utf8.empty()) return std::wstring();
  const int size = static_cast<int>(utf8.size());
  const int length = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), length);
  return wide;
}

std::string Utf8(const wchar_t* wide, std::size_t length) {
  if (length == 0) return std::string();
  const int size = static_cast<int>(length);
  const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, wide, size, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(bytes), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, wide, size, utf8.data(), bytes, nullptr, nullptr);
  return utf8;
}

std::string Utf8(const std::wstring& wide) { return Utf8(wide.data(), wide.size()); }

std::string ErrorText(unsigned long code) {
  char* buffer = nullptr;
  const DWORD length = ::FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
      MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPSTR>(&buffer), 0, nullptr);
  std::string text;
  if (length != 0 && buffer != nullptr) text.assign(buffer, length);
  if (buffer != nullptr) ::LocalFree(buffer);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '.'))
    text.pop_back();
  if (text.empty()) text = "error " + std::to_string(code);
  return text;
}

void StartWinsock() {
  // A function-local static: started by whichever thread gets here first, and
  // every other caller waits until it has been.
  static const int started = [] {
    WSADATA data;
    const int rc = ::WSAStartup(MAKEWORD(2, 2), &data);
    if (rc != 0) std::fprintf(stderr, "WSAStartup failed: %s\n", ErrorText(static_cast<unsigned long>(rc)).c_str());
    return rc;
  }();
  (void)started;
}

namespace {

constexpr std::uint32_t kFirstUserNumber = 1000;

struct cUserNumbers {
  std::mutex mutex;
  std::vector<std::vector<unsigned char>> sids;  // number - kFirstUserNumber -> SID
};

cUserNumbers& UserNumbers() {
  static auto* numbers = new cUserNumbers;  // never destroyed: used until exit
  return *numbers;
}

}  // namespace

std::uint32_t UserNumber(PSID sid) {
  auto& numbers = UserNumbers();
  std::lock_guard<std::mutex> lock(numbers.mutex);
  for (std::size_t i = 0; i < numbers.sids.size(); ++i) {
    if (::EqualSid(sid, numbers.sids[i].data())) return kFirstUserNumber + static_cast<std::uint32_t>(i);
  }
  const DWORD length = ::GetLengthSid(sid);
  std::vector<unsigned char> copy(length);
  ::CopySid(length, copy.data(), sid);
  numbers.sids.push_back(std::move(copy));
  return kFirstUserNumber + static_cast<std::uint32_t>(numbers.sids.size() - 1);
}

std::vector<unsigned char> UserSid(std::uint32_t number) {
  auto& numbers = UserNumbers();
  std::lock_guard<std::mutex> lock(numbers.mutex);
  if (number < kFirstUserNumber || number - kFirstUserNumber >= numbers.sids.size()) return {};
  return numbers.sids[number - kFirstUserNumber];
}

std::optional<std::uint32_t> ProcessUser(HANDLE process, bool* elevated) {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(process, TOKEN_QUERY, &token)) return std::nullopt;
  std::optional<std::uint32_t> user;
  DWORD size = 0;
  ::GetTokenInformation(token, TokenUser, nullptr, 0, &size);
  if (size > 0) {
    auto buffer = std::make_unique<unsigned char[]>(size);
    if (::GetTokenInformation(token, TokenUser, buffer.get(), size, &size))
      user = UserNumber(reinterpret_cast<TOKEN_USER*>(buffer.get())->User.Sid);
  }
  if (elevated != nullptr) {
    TOKEN_ELEVATION elevation{};
    DWORD got = 0;
    *elevated = ::GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &got) &&
                elevation.TokenIsElevated != 0;
  }
  ::CloseHandle(token);
  return user;
}

}  // namespace vantrel::platform::win32
