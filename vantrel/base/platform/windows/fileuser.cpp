#include "vantrel/base/platform/fileuser.h"

#include <cstring>
#include <memory>

#include "vantrel/base/platform/localaddress.h"
#include "vantrel/base/platform/windows/win32.h"
// iphlpapi.h needs the socket headers of win32.h before it.
#include <iphlpapi.h>

// Windows rights are access lists, not the owner, group and mode bits that the
// copy code reasons with, and a thread can only take on a user whose token it
// holds, which a TCP connection does not give. So the service acts for a local
// client of its own user with its own rights, and for any other user it refuses
// copies (the copy code logs the refusal): it never reads or writes a file with
// rights that the client might not have.
namespace vantrel::platform {
namespace {

// The owning process of the TCP connection whose local end is `local` and
// remote end `remote`, from the system's connection table.
template <typename tTable, typename tRow, typename tMatch>
std::optional<DWORD> FindOwner(ULONG family, tMatch matches) {
  ULONG size = 0;
  std::unique_ptr<unsigned char[]> buffer;
  DWORD rc = ERROR_INSUFFICIENT_BUFFER;
  for (int round = 0; round < 4 && rc == ERROR_INSUFFICIENT_BUFFER; ++round) {
    buffer = std::make_unique<unsigned char[]>(size ? size : 1);
    rc = ::GetExtendedTcpTable(buffer.get(), &size, FALSE, family, TCP_TABLE_OWNER_PID_CONNECTIONS, 0);
  }
  if (rc != NO_ERROR) return std::nullopt;
  const auto* table = reinterpret_cast<const tTable*>(buffer.get());
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const tRow& row = table->table[i];
    if (matches(row)) return row.dwOwningPid;
  }
  return std::nullopt;
}

unsigned short Port(DWORD networkOrder) { return ntohs(static_cast<u_short>(networkOrder)); }

}  // namespace

std::optional<std::uint32_t> gLoopbackPeerUser(tSocket socket) {
  const cEndpoint ours = gLocalEndpoint(socket);
  const cEndpoint peer = gPeerEndpoint(socket);
  const auto ourAddress = gParseNumericAddress(ours.address);
  const auto peerAddress = gParseNumericAddress(peer.address);
  if (!ourAddress || !peerAddress || ourAddress->family != peerAddress->family) return std::nullopt;

  // The client's socket: its local end is our peer, its remote end is us.
  std::optional<DWORD> owner;
  if (peerAddress->family == tAddressFamily::eIPv4) {
    owner = FindOwner<MIB_TCPTABLE_OWNER_PID, MIB_TCPROW_OWNER_PID>(AF_INET, [&](const MIB_TCPROW_OWNER_PID& row) {
      return Port(row.dwLocalPort) == peer.port && Port(row.dwRemotePort) == ours.port &&
             std::memcmp(&row.dwLocalAddr, peerAddress->bytes.data(), 4) == 0 &&
             std::memcmp(&row.dwRemoteAddr, ourAddress->bytes.data(), 4) == 0;
    });
  } else {
    owner = FindOwner<MIB_TCP6TABLE_OWNER_PID, MIB_TCP6ROW_OWNER_PID>(AF_INET6, [&](const MIB_TCP6ROW_OWNER_PID& row) {
      return Port(row.dwLocalPort) == peer.port && Port(row.dwRemotePort) == ours.port &&
             std::memcmp(row.ucLocalAddr, peerAddress->bytes.data(), 16) == 0 &&
             std::memcmp(row.ucRemoteAddr, ourAddress->bytes.data(), 16) == 0;
    });
  }
  if (!owner || *owner == 0) return std::nullopt;
  const HANDLE process = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, *owner);
  if (process == nullptr) return std::nullopt;
  const auto user = win32::ProcessUser(process);
  ::CloseHandle(process);
  return user;
}

std::uint32_t gProcessUser() {
  // The token of this process always reads; the fallback number names nobody.
  return win32::ProcessUser(::GetCurrentProcess()).value_or(0);
}

std::optional<cUserAccount> gLookUpUser(std::uint32_t user) {
  auto sid = win32::UserSid(user);
  if (sid.empty()) return std::nullopt;
  wchar_t name[256];
  wchar_t domain[256];
  DWORD nameSize = 256;
  DWORD domainSize = 256;
  SID_NAME_USE use;
  if (!::LookupAccountSidW(nullptr, sid.data(), name, &nameSize, domain, &domainSize, &use)) return std::nullopt;
  cUserAccount account;
  account.user = user;
  account.group = user;
  account.groups = {user};
  account.name = win32::Utf8(name, nameSize);
  return account;
}

bool gConnectionOwnersKnown() {
  // wine fills the table's owner with 0 for every connection; it is told apart
  // by the version call its ntdll adds.
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  return ntdll == nullptr || ::GetProcAddress(ntdll, "wine_get_version") == nullptr;
}

bool gRightsFollowModeBits() { return false; }

bool gCanSwitchFileUser() { return false; }

cFileUserScope::cFileUserScope(const cUserAccount&) {
  // Never switched (see above): Active stays false and the caller refuses.
}

cFileUserScope::~cFileUserScope() = default;

bool gUserMay(const cUserAccount&, const cFileStatus&, tAccess) { return false; }

bool gUserMayReach(const cUserAccount&, const std::string&, tAccess) { return false; }

}  // namespace vantrel::platform
