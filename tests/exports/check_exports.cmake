# libvantrel exports only classes and functions of the public headers, and what
# applications need is there (type information and virtual tables included).
#   cmake -DLIBRARY=<libvantrel.so> -DNM=<nm> -P check_exports.cmake
cmake_minimum_required(VERSION 3.25)
set(public "^(cVantrelClientObject|cVantrelMessage|RWCollectable|cTypedMessageObject|QXErrorException|\
CAssociativeArrayException|CIllegalAssoSyntaxException|CAssoKeyDoesNotExistException|CAssociativeArray|\
CVantrelClass|VantrelServiceConfig)(::|$)|^(VantrelClientTerminate|NVSTmo2Ttm|NVSDeleteMsg|RunVantrel|\
IsVantrelProcessRunning|IsVantrlServiceRunning|TerminateVantrel|VantrelVersion)\\(|^vantrel_[a-z_]+$")
set(missing
    "cVantrelClientObject::NETInitZ641(char const*, unsigned short)"
    "vtable for cVantrelClientObject"
    "cVantrelMessage::cVantrelMessage(char const*, unsigned int, short, short)"
    "NVSTmo2Ttm(cTypedMessageObject const*)"
    "CAssociativeArray::FromString(char const*, long)"
    "typeinfo for CAssoKeyDoesNotExistException"
    "vtable for CVantrelClass"
    "RunVantrel(bool)"
    "VantrelVersion()"
    "vantrel_client_new"
    "vantrel_client_wait")

execute_process(COMMAND ${NM} -D --defined-only --demangle ${LIBRARY} OUTPUT_VARIABLE table)
# One list element per symbol: brackets and semicolons in C++ names would upset
# CMake's list splitting.
string(REGEX REPLACE "[][;]" "_" table "${table}")
string(REPLACE "\n" ";" lines "${table}")
set(foreign "")
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-fA-F]* [A-Za-z] (.+)$")
    set(name "${CMAKE_MATCH_1}")
    list(REMOVE_ITEM missing "${name}")
    string(REGEX REPLACE "^((typeinfo|typeinfo name|vtable|VTT) for |(non-)?virtual thunk to )" "" owner "${name}")
    if(NOT owner MATCHES "${public}")
      list(APPEND foreign "${name}")
    endif()
  endif()
endforeach()
if(foreign OR missing)
  list(JOIN foreign "\n  " foreign)
  list(JOIN missing "\n  " missing)
  message(FATAL_ERROR "${LIBRARY} does not export the public API.\n"
                      "Exported but not public:\n  ${foreign}\nPublic but not exported:\n  ${missing}")
endif()
