# Makes the Windows zip from a built tree and checks what it holds:
#
#   cmake -DBUILD_DIR=... -DZIP=.../vantrel-<version>-win64.zip -DOBJDUMP=... -P PackageZip.cmake
#
# The build is installed into a folder named like the zip, the programs and the
# DLL are checked to import no compiler runtime DLL (they must run on a bare
# Windows), and the zip, once written, is listed back and checked for every part
# a user needs: programs, DLL, import library, public headers, CMake package,
# settings file, docs.
foreach(var BUILD_DIR ZIP OBJDUMP)
  if(NOT ${var})
    message(FATAL_ERROR "PackageZip: ${var} is not set")
  endif()
endforeach()

get_filename_component(zip_dir "${ZIP}" DIRECTORY)
get_filename_component(top "${ZIP}" NAME)
string(REGEX REPLACE "\\.zip$" "" top "${top}")
set(stage "${zip_dir}/stage")
file(REMOVE_RECURSE "${stage}" "${ZIP}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --strip --prefix "${stage}/${top}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "PackageZip: installing ${BUILD_DIR} failed")
endif()

# What each of the zip's Windows files imports, by name.
file(GLOB binaries "${stage}/${top}/bin/*.exe" "${stage}/${top}/bin/*.dll")
if(NOT binaries)
  message(FATAL_ERROR "PackageZip: no programs or DLL were installed")
endif()
foreach(binary ${binaries})
  execute_process(COMMAND ${OBJDUMP} -p "${binary}" OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "PackageZip: ${OBJDUMP} cannot read ${binary}")
  endif()
  string(REGEX MATCHALL "DLL Name: [^\n]+" imports "${dump}")
  foreach(import ${imports})
    if(import MATCHES "(libstdc\\+\\+|libgcc|libwinpthread)")
      message(FATAL_ERROR "PackageZip: ${binary} needs a compiler runtime DLL (${import}); link it statically")
    endif()
  endforeach()
endforeach()

execute_process(COMMAND ${CMAKE_COMMAND} -E tar cf "${ZIP}" --format=zip "${top}"
                WORKING_DIRECTORY "${stage}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "PackageZip: writing ${ZIP} failed")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -E tar tf "${ZIP}" OUTPUT_VARIABLE listing RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "PackageZip: ${ZIP} cannot be read back")
endif()
set(missing "")
foreach(part
    bin/vantrel.exe
    bin/vantrel-cli.exe
    bin/vantrel.dll
    lib/libvantrel.dll.a
    include/vantrel/client/vantrelclientobj.h
    include/vantrel/c/vantrel.h
    include/vantrel/version.h
    lib/cmake/vantrel/vantrelConfig.cmake
    lib/cmake/vantrel/vantrelTargets.cmake
    etc/vantrel/Vantrel.ini
    share/doc/vantrel/README.md
    share/doc/vantrel/windows.md)
  string(FIND "${listing}" "${top}/${part}\n" at)
  if(at EQUAL -1)
    list(APPEND missing "${part}")
  endif()
endforeach()
if(missing)
  message(FATAL_ERROR "PackageZip: ${ZIP} lacks ${missing}")
endif()
file(REMOVE_RECURSE "${stage}")
message(STATUS "PackageZip: ${ZIP}")
