# The public headers of the library: the given roots and every project header
# they include, followed transitively. Only these are installed. A public header
# must compile with the standard library alone, so an include of a third-party
# library (the log's fmt and spdlog, OpenSSL) or of the log itself anywhere in
# the closure stops the configure step.
#   vantrel_public_headers(<out-var> <header relative to the project root>...)
function(vantrel_public_headers out)
  set(pending ${ARGN})
  set(found "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST found)
      continue()
    endif()
    if(NOT EXISTS ${PROJECT_SOURCE_DIR}/${header})
      message(FATAL_ERROR "public header ${header} does not exist")
    endif()
    list(APPEND found ${header})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
    foreach(line ${includes})
      if(line MATCHES "[<\"]((fmt|spdlog|openssl)/[^>\"]*|vantrel/base/log/[^>\"]*)[>\"]")
        message(FATAL_ERROR "public header ${header} includes ${CMAKE_MATCH_1}; "
                            "the installed headers must need nothing beyond the standard library")
      endif()
      if(line MATCHES "[<\"](vantrel/[^>\"]*)[>\"]")
        list(APPEND pending ${CMAKE_MATCH_1})
      endif()
    endforeach()
  endwhile()
  set(${out} ${found} PARENT_SCOPE)
endfunction()
