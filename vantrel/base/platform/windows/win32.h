#pragma once
// What the Windows implementations of the platform headers share: the system
// headers in the one order that compiles, UTF-8 <-> UTF-16 conversion for the
// wide calls, the system's error texts, and starting Winsock.
//
// Stateless apart from Winsock's start, which happens once per process; any
// thread may call.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
// clang-format on

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vantrel::platform::win32 {

// UTF-8 text as UTF-16 for the wide calls, and back. Invalid sequences become
// U+FFFD rather than failing the call.
std::wstring Wide(const std::string& utf8);
std::string Utf8(const std::wstring& wide);
std::string Utf8(const wchar_t* wide, std::size_t length);

// The system's text for an error code (GetLastError, WSAGetLastError), without
// the trailing line break; "error <code>" when the system has none.
std::string ErrorText(unsigned long code);

// Starts Winsock 2.2 for the whole process the first time it is called; later
// calls return at once. Every call that may be a process's first socket call
// makes it. Winsock stays started until the process ends.
void StartWinsock();

// Users are SIDs here, but the platform headers speak of user numbers. Each SID
// this process meets gets a number (from 1000 up) for the process's lifetime:
// equal numbers, equal SIDs. The numbers mean nothing to other processes.
std::uint32_t UserNumber(PSID sid);
// The SID behind a number; empty when the number was never given out.
std::vector<unsigned char> UserSid(std::uint32_t number);
// The number of the user a process runs as, and whether its token is elevated
// (an administrator's full rights); nothing when the token cannot be read.
std::optional<std::uint32_t> ProcessUser(HANDLE process, bool* elevated = nullptr);

// Queues a stop request for WaitForStopRequest (stoprequest.h), as the console
// control handler does; the service control manager's stop arrives this way.
void PostStopRequest(int type);

}  // namespace vantrel::platform::win32
