#include "vantrel/base/platform/file.h"

#include <sys/stat.h>

namespace vantrel::platform {

tFileKind gFileKind(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return tFileKind::eMissing;
  if (S_ISREG(st.st_mode)) return tFileKind::eRegular;
  if (S_ISDIR(st.st_mode)) return tFileKind::eDirectory;
  return tFileKind::eOther;
}

}  // namespace vantrel::platform
