#pragma once
// What a path names in the file system. Paths are UTF-8 text; symbolic links
// are followed. Stateless; any thread may call.
#include <string>

namespace vantrel::platform {

enum class tFileKind { eMissing, eRegular, eDirectory, eOther };

// eMissing also when the path cannot be examined (no permission on a folder).
tFileKind gFileKind(const std::string& path);

}  // namespace vantrel::platform
