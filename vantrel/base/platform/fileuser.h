#pragma once
// Whose rights a file operation uses. The service acts for local clients that
// may belong to other users than its own; these calls find out which user is
// behind a local connection and let one thread open files with that user's
// rights, or, where the process may not switch, tell whether the user could.
//
// Stateless apart from cFileUserScope, which belongs to the thread that made it.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vantrel/base/platform/file.h"
#include "vantrel/base/platform/socket.h"

namespace vantrel::platform {

// A user account as the file system sees it.
struct cUserAccount {
  std::uint32_t user = 0;
  std::uint32_t group = 0;            // primary group
  std::vector<std::uint32_t> groups;  // every group, the primary one included
  std::string name;
};

// The user that owns the other end of `socket`, a TCP connection whose peer is
// on this host (the client's socket of a loopback connection); nothing when no
// socket of this host matches. Reads the system's socket tables; does not block
// on the network.
std::optional<std::uint32_t> gLoopbackPeerUser(tSocket socket);

// The user this process runs as (its effective user).
std::uint32_t gProcessUser();
// The account of `user` with all its groups; nothing when the user is unknown.
std::optional<cUserAccount> gLookUpUser(std::uint32_t user);
// True when the system's connection tables name the process that owns each
// TCP connection. Where they do not (some compatibility layers leave it out),
// gLoopbackPeerUser finds nobody, so local clients' copies are refused.
bool gConnectionOwnersKnown();
// True when gUserMay and gUserMayReach judge by owner, group and mode bits.
// False where rights are access lists that these calls do not read: they then
// grant another user nothing.
bool gRightsFollowModeBits();

// True when this process may open files as another user from one thread
// (it is the superuser or holds the capabilities to change user and group).
bool gCanSwitchFileUser();

// While it lives, the constructing thread opens, creates and renames files with
// `account`'s rights; other threads keep the process's own. Restores the thread's
// identity when destroyed. Active is false when the switch failed (the thread
// then keeps its own identity, and the caller must not go on as that user).
class cFileUserScope {
 public:
  explicit cFileUserScope(const cUserAccount& account);
  ~cFileUserScope();
  cFileUserScope(const cFileUserScope&) = delete;
  cFileUserScope& operator=(const cFileUserScope&) = delete;
  bool Active() const { return active_; }

 private:
  bool active_ = false;
  std::uint32_t savedUser_ = 0;
  std::uint32_t savedGroup_ = 0;
  std::vector<std::uint32_t> savedGroups_;
};

enum class tAccess { eRead, eWrite };

// Whether `account` could read, or write, the file with `status` by its
// permission bits (owner, group, others; the superuser always may).
bool gUserMay(const cUserAccount& account, const cFileStatus& status, tAccess access);
// Whether `account` could reach `path` (an absolute path without links): search
// rights on every folder above it, and read or write rights on the path itself
// when it exists. For a path that does not exist, write rights on its folder.
bool gUserMayReach(const cUserAccount& account, const std::string& path, tAccess access);

}  // namespace vantrel::platform
