#include "vantrel/base/platform/fileuser.h"

#include <arpa/inet.h>
#include <grp.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace vantrel::platform {

namespace {

// An address of the kernel's socket tables ("0100007F:1F90") as text and port.
bool ParseTableAddress(const std::string& field, bool v6, cEndpoint& endpoint) {
  const auto colon = field.find(':');
  if (colon == std::string::npos) return false;
  const std::string hex = field.substr(0, colon);
  char text[INET6_ADDRSTRLEN] = {};
  if (!v6) {
    if (hex.size() != 8) return false;
    in_addr address{};
    address.s_addr = static_cast<std::uint32_t>(std::strtoul(hex.c_str(), nullptr, 16));
    if (::inet_ntop(AF_INET, &address, text, sizeof text) == nullptr) return false;
  } else {
    if (hex.size() != 32) return false;
    in6_addr address{};
    // Four words, each printed in the host's byte order.
    for (int i = 0; i < 4; ++i) {
      const auto word = static_cast<std::uint32_t>(std::strtoul(hex.substr(i * 8, 8).c_str(), nullptr, 16));
      std::memcpy(address.s6_addr + i * 4, &word, sizeof word);
    }
    if (::inet_ntop(AF_INET6, &address, text, sizeof text) == nullptr) return false;
  }
  endpoint.address = text;
  endpoint.port = static_cast<unsigned short>(std::strtoul(field.c_str() + colon + 1, nullptr, 16));
  return true;
}

bool SameEndpoint(const cEndpoint& a, const cEndpoint& b) { return a.port == b.port && a.address == b.address; }

// The uid of the socket whose local end is `local` and remote end `remote`.
std::optional<std::uint32_t> FindInTable(const char* table, bool v6, const cEndpoint& local, const cEndpoint& remote) {
  std::ifstream in(table);
  std::string line;
  std::getline(in, line);  // the heading
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string slot, localField, remoteField, state, queues, timer, retransmits;
    std::uint32_t uid = 0;
    if (!(fields >> slot >> localField >> remoteField >> state >> queues >> timer >> retransmits >> uid)) continue;
    cEndpoint entryLocal, entryRemote;
    if (!ParseTableAddress(localField, v6, entryLocal) || !ParseTableAddress(remoteField, v6, entryRemote)) continue;
    if (SameEndpoint(entryLocal, local) && SameEndpoint(entryRemote, remote)) return uid;
  }
  return std::nullopt;
}

// Asks the kernel for the one socket whose local end is `peer` and remote end
// `ours` (the client's side of our connection): a single exact look-up, however
// many sockets the host has. Nothing when the kernel cannot answer.
std::optional<std::uint32_t> AskSocketDiagnostics(const sockaddr_storage& ours, const sockaddr_storage& peer) {
  const int nl = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (nl < 0) return std::nullopt;
  timeval wait{1, 0};
  ::setsockopt(nl, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST;
  inet_diag_req_v2& request = message.request;
  request.sdiag_family = static_cast<std::uint8_t>(peer.ss_family);
  request.sdiag_protocol = IPPROTO_TCP;
  request.idiag_states = ~0u;
  request.id.idiag_cookie[0] = request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  if (peer.ss_family == AF_INET) {
    const auto& from = reinterpret_cast<const sockaddr_in&>(peer);
    const auto& to = reinterpret_cast<const sockaddr_in&>(ours);
    request.id.idiag_sport = from.sin_port;
    request.id.idiag_dport = to.sin_port;
    std::memcpy(request.id.idiag_src, &from.sin_addr, sizeof from.sin_addr);
    std::memcpy(request.id.idiag_dst, &to.sin_addr, sizeof to.sin_addr);
  } else {
    const auto& from = reinterpret_cast<const sockaddr_in6&>(peer);
    const auto& to = reinterpret_cast<const sockaddr_in6&>(ours);
    request.id.idiag_sport = from.sin6_port;
    request.id.idiag_dport = to.sin6_port;
    std::memcpy(request.id.idiag_src, &from.sin6_addr, sizeof from.sin6_addr);
    std::memcpy(request.id.idiag_dst, &to.sin6_addr, sizeof to.sin6_addr);
  }
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  std::optional<std::uint32_t> user;
  alignas(nlmsghdr) char reply[8192];
  if (::sendto(nl, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) ==
      static_cast<ssize_t>(sizeof message)) {
    const ssize_t got = ::recv(nl, reply, sizeof reply, 0);
    const auto* header = reinterpret_cast<const nlmsghdr*>(reply);
    if (got >= static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg))) && NLMSG_OK(header, got) &&
        header->nlmsg_type == SOCK_DIAG_BY_FAMILY) {
      user = static_cast<const inet_diag_msg*>(NLMSG_DATA(header))->idiag_uid;
    }
  }
  ::close(nl);
  return user;
}

std::vector<std::uint32_t> CurrentGroups() {
  const int count = ::getgroups(0, nullptr);
  std::vector<gid_t> groups(count > 0 ? static_cast<std::size_t>(count) : 0);
  if (count > 0 && ::getgroups(count, groups.data()) != count) groups.clear();
  return {groups.begin(), groups.end()};
}

// The raw calls change the calling thread only; the C library's wrappers would
// change every thread of the process.
long SetThreadGroups(const std::vector<std::uint32_t>& groups) {
  std::vector<gid_t> list(groups.begin(), groups.end());
  return ::syscall(SYS_setgroups, list.size(), list.data());
}
std::uint32_t SetThreadFsUser(std::uint32_t user) { return static_cast<std::uint32_t>(::syscall(SYS_setfsuid, user)); }
std::uint32_t SetThreadFsGroup(std::uint32_t group) {
  return static_cast<std::uint32_t>(::syscall(SYS_setfsgid, group));
}
// setfsuid reports the previous value whether or not it succeeded; an invalid
// value changes nothing and tells the current one.
std::uint32_t CurrentFsUser() { return SetThreadFsUser(static_cast<std::uint32_t>(-1)); }
std::uint32_t CurrentFsGroup() { return SetThreadFsGroup(static_cast<std::uint32_t>(-1)); }

bool MayWithBits(const cUserAccount& account, const cFileStatus& status, std::uint32_t bit) {
  if (account.user == 0) return true;
  if (status.owner == account.user) return (status.mode & (bit << 6)) != 0;
  if (std::find(account.groups.begin(), account.groups.end(), status.group) != account.groups.end())
    return (status.mode & (bit << 3)) != 0;
  return (status.mode & bit) != 0;
}

}  // namespace

std::optional<std::uint32_t> gLoopbackPeerUser(tSocket socket) {
  sockaddr_storage ourAddress{}, peerAddress{};
  socklen_t ourSize = sizeof ourAddress, peerSize = sizeof peerAddress;
  const int fd = static_cast<int>(socket);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&ourAddress), &ourSize) == 0 &&
      ::getpeername(fd, reinterpret_cast<sockaddr*>(&peerAddress), &peerSize) == 0 &&
      (peerAddress.ss_family == AF_INET || peerAddress.ss_family == AF_INET6)) {
    if (auto user = AskSocketDiagnostics(ourAddress, peerAddress)) return user;
  }
  // Without socket diagnostics (an older or restricted kernel), the tables.
  const cEndpoint ours = gLocalEndpoint(socket);
  const cEndpoint theirs = gPeerEndpoint(socket);
  if (ours.address.empty() || theirs.address.empty()) return std::nullopt;
  // The peer's socket has our ends swapped.
  const bool v6 = theirs.address.find(':') != std::string::npos;
  return FindInTable(v6 ? "/proc/net/tcp6" : "/proc/net/tcp", v6, theirs, ours);
}

std::uint32_t gProcessUser() { return ::geteuid(); }

std::optional<cUserAccount> gLookUpUser(std::uint32_t user) {
  long bufferSize = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(bufferSize > 0 ? static_cast<std::size_t>(bufferSize) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE) buffer.resize(buffer.size() * 2);
  if (found == nullptr) return std::nullopt;
  cUserAccount account;
  account.user = user;
  account.group = entry.pw_gid;
  account.name = entry.pw_name;
  int count = 32;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  while (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<std::size_t>(count) + 1);
    count = static_cast<int>(groups.size());
  }
  account.groups.assign(groups.begin(), groups.begin() + count);
  return account;
}

bool gConnectionOwnersKnown() { return true; }

bool gRightsFollowModeBits() { return true; }

bool gCanSwitchFileUser() {
  if (::geteuid() == 0) return true;
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("CapEff:", 0) != 0) continue;
    const unsigned long long caps = std::strtoull(line.c_str() + 7, nullptr, 16);
    constexpr unsigned long long kSetGid = 1ull << 6;
    constexpr unsigned long long kSetUid = 1ull << 7;
    return (caps & (kSetGid | kSetUid)) == (kSetGid | kSetUid);
  }
  return false;
}

cFileUserScope::cFileUserScope(const cUserAccount& account) {
  savedUser_ = CurrentFsUser();
  savedGroup_ = CurrentFsGroup();
  savedGroups_ = CurrentGroups();
  if (SetThreadGroups(account.groups) != 0) return;
  SetThreadFsGroup(account.group);
  SetThreadFsUser(account.user);
  active_ = CurrentFsUser() == account.user && CurrentFsGroup() == account.group;
  if (!active_) {
    SetThreadFsUser(savedUser_);
    SetThreadFsGroup(savedGroup_);
    SetThreadGroups(savedGroups_);
  }
}

cFileUserScope::~cFileUserScope() {
  if (!active_) return;
  // The user first: changing the groups back needs the rights it had.
  SetThreadFsUser(savedUser_);
  SetThreadFsGroup(savedGroup_);
  SetThreadGroups(savedGroups_);
}

bool gUserMay(const cUserAccount& account, const cFileStatus& status, tAccess access) {
  return MayWithBits(account, status, access == tAccess::eRead ? 4u : 2u);
}

bool gUserMayReach(const cUserAccount& account, const std::string& path, tAccess access) {
  if (path.empty() || path.front() != '/') return false;
  // Search rights on every folder above the path.
  const auto last = path.find_last_of('/');
  const std::string folder = last == 0 ? "/" : path.substr(0, last);
  for (std::size_t end = 0; end != std::string::npos;) {
    end = folder.find('/', end + 1);
    const std::string part = end == std::string::npos ? folder : folder.substr(0, end == 0 ? 1 : end);
    const auto status = gFileStatus(part.empty() ? "/" : part);
    if (!status || !MayWithBits(account, *status, 1u)) return false;
  }
  const auto target = gFileStatus(path);
  if (access == tAccess::eRead) return target && gUserMay(account, *target, tAccess::eRead);
  // Writing replaces the entry in its folder.
  const auto parent = gFileStatus(folder);
  if (!parent || !MayWithBits(account, *parent, 2u)) return false;
  return !target || gUserMay(account, *target, tAccess::eWrite);
}

}  // namespace vantrel::platform
