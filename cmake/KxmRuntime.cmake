# On Windows the compiler's shared runtime libraries lie beside our programs: exceptions and the
# new-handler must be one per process, so nothing links them statically. KXM_RUNTIME_DLLS lists them.

set(KXM_RUNTIME_DLLS "")
if(MINGW)
  foreach(dll libstdc++-6 libgcc_s_seh-1 libwinpthread-1 libgfortran-5 libquadmath-0)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}.dll
                    OUTPUT_VARIABLE found OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${found}")
      execute_process(COMMAND ${CMAKE_Fortran_COMPILER} -print-file-name=${dll}.dll
                      OUTPUT_VARIABLE found OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
    if(NOT IS_ABSOLUTE "${found}")
      message(FATAL_ERROR "The compiler's runtime library ${dll}.dll was not found.")
    endif()
    list(APPEND KXM_RUNTIME_DLLS ${found})
    file(COPY ${found} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} FOLLOW_SYMLINK_CHAIN)
  endforeach()
endif()
