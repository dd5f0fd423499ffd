#pragma once
// The version of the Vantrel library.
//
// The macros give the version an application was compiled against;
// VantrelVersion() gives the version of the library it runs with, which is newer
// when the shared library was updated under an application built earlier.
// Releases with the same major version keep the library's interface.
// The build refuses to configure when these numbers differ from the project's.
#include "vantrel/base/export.h"

#define VANTREL_VERSION_MAJOR 0
#define VANTREL_VERSION_MINOR 1
#define VANTREL_VERSION_PATCH 0
#define VANTREL_VERSION_STRING "0.1.0"
// One number for comparisons in #if: major * 10000 + minor * 100 + patch.
#define VANTREL_VERSION (VANTREL_VERSION_MAJOR * 10000 + VANTREL_VERSION_MINOR * 100 + VANTREL_VERSION_PATCH)

// The running library's version as "major.minor.patch". The text is static:
// never null, never freed, the same on every call; any thread may call it.
VANTREL_API const char* VantrelVersion();
