#include "vantrel/net/filecopy.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <random>

#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"

using namespace vantrel::wire;
namespace platform = vantrel::platform;

namespace {

bool Inside(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/');
}

std::string FolderOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string NameOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder == "/" ? "/" + name : folder + "/" + name;
}

// A name nobody else picks: creation is exclusive anyway, so this only has to
// make clashes rare.
std::string RandomSuffix() {
  static std::atomic<unsigned> counter{0};
  thread_local std::mt19937_64 generator{std::random_device{}() ^ (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull)};
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(generator()));
  return text;
}

}  // namespace

// ---- policy ---------------------------------------------------------------------

std::shared_ptr<const cCopyPolicy> cCopyPolicy::Make(const std::string& roots, const std::string& privateFolder,
                                                     std::uint32_t maxMessageSize) {
  auto policy = std::make_shared<cCopyPolicy>();
  policy->maxMessageSize = maxMessageSize;
  std::size_t start = 0;
  while (start <= roots.size()) {
    std::size_t end = roots.find_first_of(";,", start);
    if (end == std::string::npos) end = roots.size();
    std::string folder = roots.substr(start, end - start);
    const auto first = folder.find_first_not_of(" \t");
    const auto last = folder.find_last_not_of(" \t");
    folder = first == std::string::npos ? std::string() : folder.substr(first, last - first + 1);
    if (!folder.empty()) {
      policy->rootsGiven_ = true;
      if (auto resolved = platform::gResolvePath(folder);
          resolved && platform::gFileKind(*resolved) == platform::tFileKind::eDirectory) {
        policy->roots.push_back(*resolved);
      } else {
        VLOG_WARN("cCopyPolicy::Make - copy root %s is not a folder; copies from other hosts cannot use it", folder);
      }
    }
    start = end + 1;
  }
  if (!privateFolder.empty()) policy->privateFolder = platform::gResolvePath(privateFolder).value_or(privateFolder);
  return policy;
}

bool cCopyPolicy::WithinRoots(const std::string& folder) const {
  if (!rootsGiven_) return true;
  for (const auto& root : roots)
    if (Inside(folder, root)) return true;
  return false;
}

bool cCopyPolicy::Private(const std::string& resolved) const {
  return !privateFolder.empty() && Inside(resolved, privateFolder);
}

// ---- requester ------------------------------------------------------------------

cCopyRequester cCopyRequester::LocalClient(const std::string& name, std::optional<std::uint32_t> user,
                                           std::shared_ptr<const cCopyPolicy> policy) {
  cCopyRequester requester;
  requester.kind_ = tKind::eLocalClient;
  requester.who_ = "client " + name;
  requester.policy_ = std::move(policy);
  if (!user) {
    requester.userKnown_ = false;
    return requester;
  }
  if (*user == platform::gProcessUser()) return requester;  // the service's own rights are the user's
  auto account = platform::gLookUpUser(*user);
  if (!account) {
    requester.userKnown_ = false;
    requester.who_ += " (user " + std::to_string(*user) + ")";
    return requester;
  }
  requester.account_ = std::move(*account);
  requester.who_ += " (user " + requester.account_.name + ")";
  if (platform::gCanSwitchFileUser())
    requester.switchUser_ = true;
  else
    requester.checkUser_ = true;
  return requester;
}

cCopyRequester cCopyRequester::Host(const std::string& hostText, std::shared_ptr<const cCopyPolicy> policy) {
  cCopyRequester requester;
  requester.kind_ = tKind::eHost;
  requester.who_ = "host " + hostText;
  requester.policy_ = std::move(policy);
  return requester;
}

bool cCopyRequester::Refuse(const char* operation, const char* what, const std::string& path) const {
  VLOG_WARN("%s - copy for %s refused: %s %s", operation, vantrel::log::Escaped(who_), what,
            vantrel::log::Escaped(path));
  return false;
}

int cCopyRequester::OpenFailed(const char* operation, const char* purpose, const std::string& path, int error,
                               const std::string& why) const {
  // Under the client's own identity, the system's refusal is the user's.
  if (switchUser_ && platform::gIsAccessDenied(error)) {
    Refuse(operation, purpose[0] == 'r' ? "its user may not read" : "its user may not write", path);
    return kCopyDenied;
  }
  VLOG_ERROR("%s - cannot open %s for %s (copy for %s): %s", operation, vantrel::log::Escaped(path), purpose,
             vantrel::log::Escaped(who_), why);
  return kCopyOpenFailed;
}

template <class Step>
bool cCopyRequester::AsRequester(const char* operation, const std::string& path, Step step) const {
  if (!userKnown_) return Refuse(operation, "its user is unknown, cannot open", path);
  if (!switchUser_) {
    step();
    return true;
  }
  platform::cFileUserScope scope(account_);
  if (!scope.Active()) return Refuse(operation, "cannot take its user's rights to open", path);
  step();
  return true;
}

bool cCopyRequester::MayReach(const std::string& resolved, platform::tAccess access) const {
  if (!checkUser_) return true;
  return platform::gUserMayReach(account_, resolved, access);
}

int cCopyRequester::Admit(const char* operation, const std::string& path, const std::string& resolved,
                          platform::tAccess access) const {
  const bool reading = access == platform::tAccess::eRead;
  const cCopyPolicy* policy = policy_.get();
  const char* refusal = nullptr;
  if (kind_ == tKind::eLocalClient && policy != nullptr && policy->Private(resolved))
    refusal =
        reading ? "the service's private files are never copied:" : "the service's private files are never replaced:";
  else if (kind_ == tKind::eHost && policy != nullptr && !policy->WithinRoots(FolderOf(resolved)))
    refusal = "outside the copy roots:";
  else if (!MayReach(resolved, access))
    refusal = reading ? "its user may not read" : "its user may not write";
  if (refusal == nullptr) return kCopyDone;
  Refuse(operation, refusal, path);
  return kCopyDenied;
}

// ---- source ---------------------------------------------------------------------

int cCopySource::Open(const cCopyRequester& requester, const std::string& path) {
  int state = kCopyOpenFailed;
  const bool allowed = requester.AsRequester("cCopySource::Open", path, [&] {
    auto resolved = platform::gResolvePath(path);
    if (!resolved) {
      const int error = platform::gLastFileError();
      state = requester.OpenFailed("cCopySource::Open", "reading", path, error, platform::gFileErrorText(error));
      return;
    }
    resolved_ = *resolved;
    state = requester.Admit("cCopySource::Open", path, resolved_, platform::tAccess::eRead);
    if (state != kCopyDone) return;
    state = kCopyOpenFailed;
    file_ = platform::cFile::OpenRegularForReading(resolved_);
    if (!file_.IsOpen()) {
      state = requester.OpenFailed("cCopySource::Open", "reading", path, file_.Error(), file_.Why());
      return;
    }
    auto status = file_.Status();
    if (!status) {
      file_.Close();
      return;
    }
    status_ = *status;
    // Checked once more on what was opened: the path may have changed since.
    if (requester.checkUser_ && !platform::gUserMay(requester.account_, status_, platform::tAccess::eRead)) {
      requester.Refuse("cCopySource::Open", "its user may not read", path);
      file_.Close();
      state = kCopyDenied;
      return;
    }
    state = kCopyDone;
  });
  if (!allowed) return kCopyDenied;
  return state;
}

bool cCopySource::Changed() {
  const auto now = file_.Status();
  return !now || now->size != status_.size || now->modifiedNs != status_.modifiedNs;
}

// ---- target ---------------------------------------------------------------------

cCopyTarget::~cCopyTarget() { Discard(); }

int cCopyTarget::Open(const cCopyRequester& requester, const std::string& path, const cCopySource* source) {
  requester_ = &requester;
  int state = kCopyOpenFailed;
  const bool allowed = requester.AsRequester("cCopyTarget::Open", path, [&] {
    const std::string name = NameOf(path);
    if (name.empty() || name == "." || name == "..") {
      VLOG_ERROR("cCopyTarget::Open - cannot open %s for writing (copy for %s): no file name",
                 vantrel::log::Escaped(path), vantrel::log::Escaped(requester.Who()));
      return;
    }
    const auto existing = platform::gFileStatus(path);
    if (existing && existing->kind != platform::tFileKind::eRegular) {
      // A device, pipe or folder is never written or replaced.
      VLOG_ERROR("cCopyTarget::Open - cannot open %s for writing (copy for %s): not a regular file",
                 vantrel::log::Escaped(path), vantrel::log::Escaped(requester.Who()));
      return;
    }
    // An existing destination is written where its links lead; a new one in
    // the folder its path leads to.
    auto resolved = existing ? platform::gResolvePath(path) : platform::gResolvePath(FolderOf(path));
    if (!resolved) {
      const int error = platform::gLastFileError();
      state = requester.OpenFailed("cCopyTarget::Open", "writing", path, error, platform::gFileErrorText(error));
      return;
    }
    resolved_ = existing ? *resolved : Join(*resolved, name);
    if (source != nullptr &&
        ((existing && existing->SameFileAs(source->Status())) || resolved_ == source->Resolved())) {
      VLOG_WARN("cCopyTarget::Open - copy for %s refused: %s is its own source", vantrel::log::Escaped(requester.Who()),
                vantrel::log::Escaped(path));
      state = kCopySameFile;
      return;
    }
    state = requester.Admit("cCopyTarget::Open", path, resolved_, platform::tAccess::eWrite);
    if (state != kCopyDone) return;
    state = kCopyOpenFailed;
    const std::string folder = FolderOf(resolved_);
    for (int attempt = 0; attempt < 8 && !file_.IsOpen(); ++attempt) {
      temporary_ = Join(folder, "." + NameOf(resolved_) + ".vantrel-" + RandomSuffix());
      file_ = platform::cFile::CreateNew(temporary_);
    }
    if (!file_.IsOpen()) {
      state = requester.OpenFailed("cCopyTarget::Open", "writing", path, file_.Error(), file_.Why());
      temporary_.clear();
      return;
    }
    state = kCopyDone;
  });
  if (!allowed) return kCopyDenied;
  return state;
}

bool cCopyTarget::Write(const char* data, std::size_t size) { return file_.WriteAll(data, size); }

int cCopyTarget::Commit() {
  if (temporary_.empty()) return kCopyOpenFailed;
  if (!file_.Close()) {
    const int error = platform::gLastFileError();
    VLOG_ERROR("cCopyTarget::Commit - closing %s failed: %s", vantrel::log::Escaped(temporary_),
               platform::gFileErrorText(error));
    Discard();
    return kCopyCloseFailed;
  }
  bool renamed = false;
  int error = 0;
  requester_->AsRequester("cCopyTarget::Commit", resolved_, [&] {
    renamed = platform::gRenameFile(temporary_, resolved_);
    error = platform::gLastFileError();
  });
  if (!renamed) {
    VLOG_ERROR("cCopyTarget::Commit - cannot put %s in place: %s", vantrel::log::Escaped(resolved_),
               platform::gFileErrorText(error));
    Discard();
    return kCopyCloseFailed;
  }
  temporary_.clear();
  return kCopyDone;
}

void cCopyTarget::Discard() {
  file_.Close();
  if (temporary_.empty()) return;
  const std::string temporary = std::move(temporary_);
  temporary_.clear();
  bool removed = false;
  if (requester_ != nullptr)
    requester_->AsRequester("cCopyTarget::Discard", temporary, [&] { removed = platform::gRemoveFile(temporary); });
  if (!removed)
    VLOG_WARN("cCopyTarget::Discard - cannot remove the temporary file %s", vantrel::log::Escaped(temporary));
}

// ---- request data ---------------------------------------------------------------

cAnnouncedCopy cAnnouncedCopy::Parse(const char* data, std::size_t length) {
  cAnnouncedCopy parsed;
  if (data == nullptr) return parsed;
  const std::size_t pathLength = strnlen(data, length);
  parsed.path.assign(data, pathLength);
  const char* size = data + pathLength + 1;
  if (pathLength + 1 >= length) return parsed;
  const std::size_t digits = strnlen(size, length - pathLength - 1);
  if (digits == 0 || digits > 19) return parsed;
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (size[i] < '0' || size[i] > '9') return parsed;
    value = value * 10 + static_cast<std::uint64_t>(size[i] - '0');
  }
  parsed.size = value;
  return parsed;
}

std::string cAnnouncedCopy::Build(const std::string& path, std::uint64_t size) {
  std::string data = path;
  data.push_back('\0');
  data += std::to_string(size);
  data.push_back('\0');
  return data;
}
