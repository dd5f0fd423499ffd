# Cross-compiles for 64-bit Windows with mingw-w64 (Debian's
# g++-mingw-w64-x86-64-posix: the posix thread model, which std::thread needs).
#
# The libraries the build links come from scripts/build-windows-deps, which
# installs them under ${VANTREL_WINDOWS_DEPS:-$HOME/.cache/vantrel/mingw64}/current.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(_vantrel_mingw x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${_vantrel_mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_vantrel_mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${_vantrel_mingw}-windres)

if(DEFINED ENV{VANTREL_WINDOWS_DEPS})
  set(_vantrel_deps_cache "$ENV{VANTREL_WINDOWS_DEPS}")
else()
  set(_vantrel_deps_cache "$ENV{HOME}/.cache/vantrel/mingw64")
endif()
set(VANTREL_WINDOWS_DEPS_PREFIX "${_vantrel_deps_cache}/current"
    CACHE PATH "Where scripts/build-windows-deps installed the Windows libraries")

set(CMAKE_FIND_ROOT_PATH /usr/${_vantrel_mingw} ${VANTREL_WINDOWS_DEPS_PREFIX})
set(CMAKE_PREFIX_PATH ${VANTREL_WINDOWS_DEPS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# OpenSSL is built without shared libraries; its static archives need the
# system's socket and certificate libraries.
set(OPENSSL_USE_STATIC_LIBS ON)
set(OPENSSL_ROOT_DIR ${VANTREL_WINDOWS_DEPS_PREFIX})

# The C++ runtime, libgcc and winpthread go into every program and the DLL, so
# that they run on a Windows without the compiler's DLLs next to them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
