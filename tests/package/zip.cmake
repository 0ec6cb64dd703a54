# Makes the zip for Windows, unpacks it, builds the client project against it, and runs its programs and the zip's
# own from the unpacked folder, with no other place to find a DLL in.
function(run)
  cmake_parse_arguments(arg "" "OUTPUT" "COMMAND" ${ARGN})
  execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=WINEPATH -- ${arg_COMMAND}
                  WORKING_DIRECTORY ${WORK} RESULT_VARIABLE result OUTPUT_VARIABLE out
                  ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${arg_COMMAND}\n${out}\n${err}")
  endif()
  set(${arg_OUTPUT} "${out}" PARENT_SCOPE)
endfunction()

function(says expected)
  run(COMMAND ${EMULATOR} ${ARGN} OUTPUT out)
  if(NOT out STREQUAL expected)
    message(FATAL_ERROR "${ARGN} printed '${out}', not '${expected}'")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
run(COMMAND ${CPACK} --config ${BUILD}/CPackConfig.cmake -B ${WORK}/made)
set(name kxmbasmem-${VERSION}-windows-x64)
run(COMMAND ${CMAKE_COMMAND} -E tar xf ${WORK}/made/${name}.zip)
file(REMOVE_RECURSE ${WORK}/made)
set(prefix ${WORK}/${name})
foreach(file README.md licences/GPL-3.txt licences/LGPL-2.1.txt licences/GCC-runtime.txt licences/mingw-w64.txt
             settings.md CHANGELOG.md)
  if(NOT EXISTS ${prefix}/share/doc/kxmbasmem/${file})
    message(FATAL_ERROR "The zip has no ${file}")
  endif()
endforeach()

run(COMMAND ${CMAKE_COMMAND} -S ${CLIENT} -B ${WORK}/build -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix}
            -DEXPECTED_VERSION=${VERSION} -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN}
            -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=BOTH)
run(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build)
foreach(program c_client cxx_client global_new_client fortran_client)
  file(COPY ${WORK}/build/${program}.exe DESTINATION ${prefix}/bin)
  says(42 ${prefix}/bin/${program}.exe)
endforeach()
foreach(tool kxmdiag memtrack memtrack-replay)
  says("${tool} ${VERSION}" ${prefix}/bin/${tool}.exe --version)
endforeach()
