# How our own code is compiled: kxm_compile(target) sets warnings, debug information, sanitizers and
# the counting of coverage.

set(KXM_CXX_WARNINGS
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wundef
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align -Wformat=2)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  list(APPEND KXM_CXX_WARNINGS -Wno-restrict) # GCC 12 sees overlaps in plain string additions
endif()
set(KXM_FORTRAN_WARNINGS -Wall -Wextra -std=f2018)

# Release builds carry debug information, because call stacks print files and lines. The debug help of
# Wine reads DWARF 4 and no later, and valgrind 3.19 gives up on the version 5 that clang writes.
# The walk of a stack needs the tables that exceptions unwind by for every function, those of Fortran
# too; they are the compilers' default on both systems, and frame pointers are not needed.
set(KXM_DEBUG_FORMAT $<IF:$<OR:$<PLATFORM_ID:Windows>,$<CXX_COMPILER_ID:Clang>>,-gdwarf-4,-g>)

function(kxm_compile target)
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:${KXM_CXX_WARNINGS}>
    $<$<COMPILE_LANGUAGE:Fortran>:${KXM_FORTRAN_WARNINGS}>
    $<$<BOOL:${KXM_WERROR}>:-Werror>
    ${KXM_DEBUG_FORMAT} -fasynchronous-unwind-tables)
  if(KXM_SANITIZE)
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=${KXM_SANITIZE} -fno-sanitize-recover=all
      -fno-omit-frame-pointer>)
    target_link_options(${target} PRIVATE -fsanitize=${KXM_SANITIZE})
  endif()
  # Counters that can lie in the file itself, so that a process that is killed loses none; of several threads and
  # processes at once, so that a lost count does not pass for a branch that was taken.
  if(KXM_COVERAGE)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fprofile-instr-generate
      -fprofile-update=atomic
      -fcoverage-mapping -mllvm -runtime-counter-relocation>)
    target_link_options(${target} PRIVATE $<$<LINK_LANGUAGE:CXX>:-fprofile-instr-generate>)
  endif()
endfunction()
