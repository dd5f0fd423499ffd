#pragma once
// The file side of every copy, local or between hosts: who asks for it and what
// that allows, how the source is opened, and how the destination is written so
// that it is never seen half done.
//
// A destination is written to a temporary file beside it (".<name>.vantrel-<random>",
// created exclusively) and renamed over it only when the copy is complete, so a
// failed copy leaves the destination as it was, and of two copies to one place
// each lands whole (the later rename wins). Only regular files are opened; a
// copy never removes anything but its own temporary file.
//
// Rights: a local client's copy opens files with its user's rights (the thread
// takes the user's file identity when the service may switch, and otherwise
// refuses what the user's permissions would not allow); its user must be known,
// and the service's own private keys are never read or replaced for it. A copy
// asked for by another host writes only inside the service's copy roots.
//
// cCopyPolicy and cCopyRequester are immutable values; cCopySource and
// cCopyTarget belong to the one thread that runs the copy.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vantrel/base/platform/file.h"
#include "vantrel/base/platform/fileuser.h"
#include "vantrel/message/vantrelevents.h"

// What the service's settings allow copies to touch.
struct cCopyPolicy {
  // Folders (resolved) that copies asked for by other hosts may write into;
  // empty: anywhere.
  std::vector<std::string> roots;
  // The service's own key folder (resolved); never read or written for a local client.
  std::string privateFolder;
  // The largest message a client takes: no copy result may be larger.
  std::uint32_t maxMessageSize = 4194304;

  // `roots` is the setting's text: folders separated by ';' or ','. Folders that
  // do not exist are logged and left out; if none is left, nothing is allowed.
  static std::shared_ptr<const cCopyPolicy> Make(const std::string& roots, const std::string& privateFolder,
                                                 std::uint32_t maxMessageSize);
  // True when `folder` (resolved) is one of the roots or inside one.
  bool WithinRoots(const std::string& folder) const;
  bool Private(const std::string& resolved) const;

 private:
  bool rootsGiven_ = false;
};

// Whose copy it is. A copy without a requester (the service itself) has no limits.
class cCopyRequester {
 public:
  cCopyRequester() = default;
  // A local client named `name` whose user is `user` (nothing: unknown).
  static cCopyRequester LocalClient(const std::string& name, std::optional<std::uint32_t> user,
                                    std::shared_ptr<const cCopyPolicy> policy);
  // Another host's service, named by its host text.
  static cCopyRequester Host(const std::string& hostText, std::shared_ptr<const cCopyPolicy> policy);

  // "client NAME" or "host TEXT", for log lines.
  const std::string& Who() const { return who_; }

 private:
  friend class cCopySource;
  friend class cCopyTarget;
  enum class tKind { eService, eLocalClient, eHost };
  // Runs `step` with the requester's file identity; false when that identity
  // cannot be taken (logged).
  template <class Step>
  bool AsRequester(const char* operation, const std::string& path, Step step) const;
  // The rights check for a local client whose identity is not taken; true when
  // `path` (resolved) may be reached.
  bool MayReach(const std::string& resolved, vantrel::platform::tAccess access) const;
  // The rules a file passes before it is opened for this requester: never the
  // service's private files for a local client, only inside the copy roots for
  // another host, only what the requester's user may reach. kCopyDone when it
  // passes, otherwise kCopyDenied (logged with `path`, as the requester wrote it).
  int Admit(const char* operation, const std::string& path, const std::string& resolved,
            vantrel::platform::tAccess access) const;
  bool Refuse(const char* operation, const char* what, const std::string& path) const;
  // Logs a failed open of `path` for "reading" or "writing"; the completion state.
  int OpenFailed(const char* operation, const char* purpose, const std::string& path, int error,
                 const std::string& why) const;

  tKind kind_ = tKind::eService;
  std::string who_ = "the service";
  std::shared_ptr<const cCopyPolicy> policy_;
  bool userKnown_ = true;
  bool switchUser_ = false;  // open as the user
  bool checkUser_ = false;   // open as the service, after checking the user's rights
  vantrel::platform::cUserAccount account_;
};

// A copy request of a local client on its way to a host link: the event with
// the rights of the client that sent it.
class cFileCopyRequest : public VantrelHostEvent {
 public:
  cFileCopyRequest(const char* buffer, long length, short type, short subtype, cCopyRequester requester)
      : VantrelHostEvent(buffer, length, type, subtype), requester_(std::move(requester)) {}
  const cCopyRequester& Requester() const { return requester_; }

 private:
  cCopyRequester requester_;
};

// The source of a copy, opened for reading.
class cCopySource {
 public:
  // A completion state: kCopyDone when open, else why not (logged).
  int Open(const cCopyRequester& requester, const std::string& path);
  vantrel::platform::cFile& File() { return file_; }
  // The file as it was when opened.
  const vantrel::platform::cFileStatus& Status() const { return status_; }
  const std::string& Resolved() const { return resolved_; }
  // True when the file's size or modification time differ from those at the open.
  bool Changed();

 private:
  vantrel::platform::cFile file_;
  vantrel::platform::cFileStatus status_;
  std::string resolved_;
};

// The destination of a copy, written to a temporary file until Commit.
class cCopyTarget {
 public:
  cCopyTarget() = default;
  // Removes the temporary file unless committed.
  ~cCopyTarget();
  cCopyTarget(const cCopyTarget&) = delete;
  cCopyTarget& operator=(const cCopyTarget&) = delete;

  // Checks the destination and creates the temporary file. With `source`
  // given, a destination that is that very file gives kCopySameFile and
  // nothing is created. A completion state: kCopyDone when ready (logged otherwise).
  int Open(const cCopyRequester& requester, const std::string& path, const cCopySource* source = nullptr);
  bool Write(const char* data, std::size_t size);
  // Closes the temporary file and renames it over the destination. A
  // completion state; on any failure the temporary file is removed.
  int Commit();
  // Removes the temporary file; the destination stays as it was.
  void Discard();
  // The destination as resolved (links followed).
  const std::string& Resolved() const { return resolved_; }

 private:
  const cCopyRequester* requester_ = nullptr;
  vantrel::platform::cFile file_;
  std::string resolved_;
  std::string temporary_;
};

// Splits "<path>\0<size>\0" (the data of a copy request between hosts) into the
// path and the announced size; a request of an older sender has no size.
struct cAnnouncedCopy {
  std::string path;
  std::optional<std::uint64_t> size;
  static cAnnouncedCopy Parse(const char* data, std::size_t length);
  // The request data for `path` and `size`.
  static std::string Build(const std::string& path, std::uint64_t size);
};
