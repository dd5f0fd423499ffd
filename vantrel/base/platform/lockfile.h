#pragma once
// Exclusive advisory locks on files, held for as long as the handle stays open
// (at the latest until the process ends). They mark a running instance: the
// kernel drops the lock of a process that dies, so a stale file never blocks.
#include <string>

// A handle (>= 0) that holds an exclusive lock on `path` (created when missing,
// readable by every user so that any user's process can lock it), or -1 when
// another process holds the lock or the file cannot be opened; then `error`
// (when given) says which, and `lockedElsewhere` (when given) tells the first
// case from the second. Never blocks. The handle is close-on-exec.
int RQPLockFileExclusive(const std::string& path, std::string* error, bool* lockedElsewhere = nullptr);
void RQPUnlockFile(int handle);

// Where per-instance files go: for names visible to every user a system-wide
// folder (/run/lock when writable, else /tmp); otherwise the user's runtime
// folder ($XDG_RUNTIME_DIR, else /tmp).
std::string RQPRuntimeFolder(bool systemWide);
