# Installs the build into a fresh prefix, moves it, and builds and runs the client project against it.
function(run)
  cmake_parse_arguments(arg "" "OUTPUT" "COMMAND;ENVIRONMENT" ${ARGN})
  execute_process(COMMAND ${CMAKE_COMMAND} -E env ${arg_ENVIRONMENT} -- ${arg_COMMAND}
                  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${arg_COMMAND}\n${out}\n${err}")
  endif()
  if(arg_OUTPUT)
    string(STRIP "${out}" out)
    set(${arg_OUTPUT} "${out}" PARENT_SCOPE)
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
run(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/staged)
file(RENAME ${WORK}/staged ${WORK}/prefix) # a package can be moved

set(options -S ${CLIENT} -B ${WORK}/build -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${WORK}/prefix
            -DEXPECTED_VERSION=${VERSION})
set(suffix "")
if(TOOLCHAIN)
  set(suffix .exe)
  list(APPEND options -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=BOTH)
else()
  list(APPEND options -DCMAKE_CXX_COMPILER=${CXX})
endif()
run(COMMAND ${CMAKE_COMMAND} ${options})
run(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build)
foreach(program c_client cxx_client global_new_client fortran_client)
  if(TOOLCHAIN)
    run(COMMAND ${EMULATOR} ${WORK}/build/${program}${suffix} OUTPUT out
        ENVIRONMENT WINEPATH=${WORK}/prefix/bin)
  else()
    run(COMMAND ${WORK}/build/${program} OUTPUT out)
  endif()
  if(NOT out STREQUAL "42")
    message(FATAL_ERROR "${program} printed '${out}'")
  endif()
endforeach()

# The programs of the documents, as they are installed.
list(TRANSFORM options REPLACE "^${CLIENT}$" ${WORK}/prefix/share/doc/kxmbasmem/examples/adopting)
list(TRANSFORM options REPLACE "^${WORK}/build$" ${WORK}/adopting)
run(COMMAND ${CMAKE_COMMAND} ${options} --no-warn-unused-cli)
run(COMMAND ${CMAKE_COMMAND} --build ${WORK}/adopting)
run(COMMAND ${EMULATOR} ${WORK}/adopting/plate_pools${suffix} 20 OUTPUT out
    ENVIRONMENT WINEPATH=${WORK}/prefix/bin)
if(NOT out STREQUAL "0.0738")
  message(FATAL_ERROR "plate_pools printed '${out}'")
endif()

# A project of Fortran alone, which has no C++ compiler to link with.
set(options -S ${WORK}/prefix/share/doc/kxmbasmem/examples/fortran -B ${WORK}/fortran_only -G ${GENERATOR}
            -DCMAKE_PREFIX_PATH=${WORK}/prefix)
if(TOOLCHAIN)
  list(APPEND options -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=BOTH)
endif()
run(COMMAND ${CMAKE_COMMAND} ${options} ENVIRONMENT --unset=CXX)
run(COMMAND ${CMAKE_COMMAND} --build ${WORK}/fortran_only)
run(COMMAND ${EMULATOR} ${WORK}/fortran_only/heat${suffix} --cells 20 --limit 1 OUTPUT out
    ENVIRONMENT WINEPATH=${WORK}/prefix/bin KXQ_DLALLOCATOR=1)
if(NOT out MATCHES "snapshots +[1-9][0-9]*, [1-9][0-9]* refusals")
  message(FATAL_ERROR "heat printed '${out}'")
endif()

run(COMMAND ${EMULATOR} ${WORK}/prefix/bin/memtrack${suffix} --help OUTPUT out)
if(NOT out MATCHES "Usage: .*memtrack")
  message(FATAL_ERROR "memtrack printed '${out}'")
endif()

if(TOOLCHAIN)
  set(environment WINEPATH=${WORK}/prefix/bin)
endif()
run(COMMAND ${EMULATOR} ${WORK}/prefix/bin/kxmdiag${suffix} OUTPUT out ENVIRONMENT ${environment})
if(NOT out MATCHES "Versions.*Back end.*MEMORY USE SUMMARY" OR NOT out MATCHES "prefix[^\n]*(lib)?KXMBasMem[.]")
  message(FATAL_ERROR "kxmdiag printed '${out}'")
endif()
# Its helper finds the library that it replays with, and has nothing to read here.
execute_process(COMMAND ${EMULATOR} ${WORK}/prefix/bin/memtrack-replay${suffix} INPUT_FILE /dev/null
                OUTPUT_QUIET ERROR_VARIABLE err RESULT_VARIABLE result)
if(NOT err MATCHES "started by memtrack replay")
  message(FATAL_ERROR "memtrack-replay ended with ${result} and printed '${err}'")
endif()

find_program(PKG_CONFIG NAMES pkg-config pkgconf)
if(PKG_CONFIG AND NOT TOOLCHAIN)
  set(environment PKG_CONFIG_PATH=${WORK}/prefix/${LIBDIR}/pkgconfig)
  run(COMMAND ${PKG_CONFIG} --modversion kxmbasmem OUTPUT version ENVIRONMENT ${environment})
  if(NOT version STREQUAL VERSION)
    message(FATAL_ERROR "pkg-config says version ${version}")
  endif()
  run(COMMAND ${PKG_CONFIG} --cflags --libs kxmbasmem OUTPUT flags ENVIRONMENT ${environment})
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(COMMAND ${CXX} -std=c++20 ${CLIENT}/cxx_client.cpp -o ${WORK}/by_pkg_config ${flags}
              -Wl,-rpath,${WORK}/prefix/${LIBDIR})
  run(COMMAND ${WORK}/by_pkg_config OUTPUT out)
  if(NOT out STREQUAL "42")
    message(FATAL_ERROR "by_pkg_config printed '${out}'")
  endif()
  run(COMMAND ${PKG_CONFIG} --variable=global_new kxmbasmem OUTPUT object ENVIRONMENT ${environment})
  run(COMMAND ${CXX} -std=c++20 ${CLIENT}/global_new_client.cpp ${object} -o ${WORK}/by_pkg_config ${flags}
              -Wl,-rpath,${WORK}/prefix/${LIBDIR})
  run(COMMAND ${WORK}/by_pkg_config OUTPUT out)
  if(NOT out STREQUAL "42")
    message(FATAL_ERROR "global new by pkg-config printed '${out}'")
  endif()
  # By Fortran's compiler alone, which brings no C++ runtime.
  run(COMMAND ${PKG_CONFIG} --cflags --libs kxmbasmem-fortran OUTPUT flags ENVIRONMENT ${environment})
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(COMMAND ${FC} ${CLIENT}/fortran_client.f90 -o ${WORK}/fortran_by_pkg_config ${flags}
              -Wl,-rpath,${WORK}/prefix/${LIBDIR})
  run(COMMAND ${WORK}/fortran_by_pkg_config OUTPUT out)
  if(NOT out STREQUAL "42")
    message(FATAL_ERROR "fortran_by_pkg_config printed '${out}'")
  endif()
endif()
