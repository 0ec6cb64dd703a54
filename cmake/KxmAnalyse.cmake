# KXM_ANALYSE: every source that is compiled goes through clang-tidy (.clang-tidy) and GCC's -fanalyzer as well,
# and a finding fails the build. ./test.sh analyse builds with it, for both systems.
#
# GCC 12's analyzer was made for C. Of C++ it knows neither that new never answers null, nor what a constructor
# or a returned object sets, nor what a destructor releases and how an array goes whose elements could not be
# made, and it walks through empty containers: in the tools, the example and the rooms of the library that work
# with such objects all that it tells of nulls, leaks, unset values and mismatched releases is of that kind, and
# those are turned off; clang's analyzer and the checked builds look for them. Double releases, uses after them,
# what signal handlers may not call and all the rest stay. In the library's other rooms everything stays, but where
# lists of chunks and blocks are walked whose ends it takes for null.
option(KXM_ANALYSE "Run clang-tidy-14 and GCC's -fanalyzer on what is compiled" OFF)
if(KXM_ANALYSE)
  set(CMAKE_CXX_CLANG_TIDY clang-tidy-14 --quiet --extra-arg=-Wno-unknown-warning-option
      --extra-arg=-Wno-unused-command-line-argument)
  if(WIN32) # clang reads the headers of mingw-w64 once told where they are
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name OUTPUT_VARIABLE libgcc
                    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    cmake_path(GET libgcc PARENT_PATH gcc_dir)
    list(APPEND CMAKE_CXX_CLANG_TIDY --extra-arg=--target=x86_64-w64-mingw32
         --extra-arg=-isystem${gcc_dir}/include/c++
         --extra-arg=-isystem${gcc_dir}/include/c++/x86_64-w64-mingw32)
    set(CMAKE_VISIBILITY_INLINES_HIDDEN OFF) # an option that clang does not know
  endif()
  # By a specs file, since clang-tidy gets the same options and would stop at -fanalyzer itself.
  set(KXM_ANALYZER_NULLS null-dereference null-argument)
  set(KXM_ANALYZER_OBJECTS possible-null-dereference possible-null-argument malloc-leak use-of-uninitialized-value
      mismatching-deallocation)
  add_compile_options($<$<COMPILE_LANGUAGE:C,CXX>:-specs=${CMAKE_CURRENT_LIST_DIR}/fanalyzer.specs>)
  foreach(warning IN LISTS KXM_ANALYZER_NULLS KXM_ANALYZER_OBJECTS)
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-analyzer-${warning}>)
  endforeach()
endif()

# Turns the warnings on again in those rooms of the library, given its sources.
function(kxm_analyse_rooms)
  if(NOT KXM_ANALYSE)
    return()
  endif()
  foreach(source IN LISTS ARGN)
    set(warnings)
    if(source MATCHES "/(platform|frame|objects|client|tracking|blocks|heap|tiny|cache)/[^/]*(/[^/]*)?$")
      list(APPEND warnings ${KXM_ANALYZER_OBJECTS})
    endif()
    if(source MATCHES "/(platform|frame|objects|client|tracking)/[^/]*(/[^/]*)?$")
      list(APPEND warnings ${KXM_ANALYZER_NULLS})
    endif()
    list(TRANSFORM warnings PREPEND -Wanalyzer-)
    set_property(SOURCE ${source} APPEND PROPERTY COMPILE_OPTIONS ${warnings})
  endforeach()
endfunction()
