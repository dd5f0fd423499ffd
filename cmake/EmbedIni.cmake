# Embeds dist/Vantrel.ini into the library as its built-in default settings, so
# that the shipped file stays the one source of the defaults. The bytes are
# written as an array (no escaping questions) into a generated header that
# vantrel/base/env/settings.cpp includes. Editing dist/Vantrel.ini re-runs this
# step on the next build.
set(VANTREL_DEFAULT_INI ${PROJECT_SOURCE_DIR}/dist/Vantrel.ini)
set(VANTREL_GENERATED_DIR ${PROJECT_BINARY_DIR}/generated)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${VANTREL_DEFAULT_INI})

file(READ ${VANTREL_DEFAULT_INI} _vantrel_ini_hex HEX)
# A line break after every 16 bytes keeps the generated file readable.
string(REGEX REPLACE "(................................)" "\\1\n" _vantrel_ini_hex "${_vantrel_ini_hex}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," _vantrel_ini_bytes "${_vantrel_ini_hex}")
file(CONFIGURE OUTPUT ${VANTREL_GENERATED_DIR}/vantrel/base/env/defaultini.inc
  CONTENT "// Generated from dist/Vantrel.ini by cmake/EmbedIni.cmake; do not edit.
// The trailing zero is not part of the text.
static const unsigned char kDefaultIniBytes[] = {
@_vantrel_ini_bytes@0x00};
" @ONLY)

target_include_directories(vantrel_objs PRIVATE ${VANTREL_GENERATED_DIR})
