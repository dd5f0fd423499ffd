# Installs the built project into a scratch prefix, then builds and runs a small
# application against the installed package twice: through find_package(vantrel)
# and through pkg-config.
#   -DBUILD_DIR=<project build> -DSOURCE_DIR=<this folder> -DWORK_DIR=<scratch>
#   -DSANITIZE=<flags or empty>
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(LAST_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G Ninja
    -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
if(NOT LAST_OUTPUT MATCHES "consumer ok")
  message(FATAL_ERROR "consumer printed: ${LAST_OUTPUT}")
endif()

find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pc_file ${prefix}/*/vantrel.pc)
if(NOT pc_file)
  message(FATAL_ERROR "vantrel.pc was not installed under ${prefix}")
endif()
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(${PKG_CONFIG} --variable=libdir vantrel)
string(STRIP "${LAST_OUTPUT}" pc_libdir)
run(${PKG_CONFIG} --cflags --libs vantrel)
string(STRIP "${LAST_OUTPUT}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run(c++ -std=c++20 ${flags} ${SOURCE_DIR}/main.cpp ${pc_flags} -Wl,-rpath,${pc_libdir} -o ${WORK_DIR}/consumer-pc)
run(${WORK_DIR}/consumer-pc)
if(NOT LAST_OUTPUT MATCHES "consumer ok")
  message(FATAL_ERROR "pkg-config consumer printed: ${LAST_OUTPUT}")
endif()
