# vantrel/version.h states the version to applications; project(VERSION) states
# it to the build (library file names, SONAME, package version files). The
# configure step stops when the two disagree, so a release bumps both or neither.
function(vantrel_check_version_header header)
  file(STRINGS ${header} defines REGEX "^#define VANTREL_VERSION_(MAJOR|MINOR|PATCH|STRING) ")
  foreach(part MAJOR MINOR PATCH STRING)
    set(value "")
    foreach(line ${defines})
      if(line MATCHES "^#define VANTREL_VERSION_${part} \"?([0-9.]+)\"?$")
        set(value ${CMAKE_MATCH_1})
      endif()
    endforeach()
    set(header_${part} ${value})
  endforeach()
  set(in_header "${header_MAJOR}.${header_MINOR}.${header_PATCH}")
  if(NOT in_header STREQUAL PROJECT_VERSION OR NOT header_STRING STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "${header} says ${in_header} (\"${header_STRING}\"), "
                        "but project(VERSION) says ${PROJECT_VERSION}: make them agree")
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
endfunction()
