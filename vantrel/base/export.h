#pragma once
// VANTREL_API marks what the shared library exports; everything else is hidden.
#if defined(VANTREL_BUILDING)
#define VANTREL_API __attribute__((visibility("default")))
#else
#define VANTREL_API
#endif
