#pragma once
// VANTREL_API marks what the shared library exports; everything else is hidden.
#if defined(_WIN32)
// The DLL exports only what is marked; an application imports it.
#if defined(VANTREL_BUILDING)
#define VANTREL_API __declspec(dllexport)
#else
#define VANTREL_API __declspec(dllimport)
#endif
#elif defined(VANTREL_BUILDING)
#define VANTREL_API __attribute__((visibility("default")))
#else
#define VANTREL_API
#endif
