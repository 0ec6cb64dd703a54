# kxm_man_page(tool text): the man page of a tool, from its own --help and a text beside its sources, which is
# built and installed with it. A cross compiler's tool cannot be asked, and a system without man pages wants none.
include_guard(GLOBAL)
find_package(Python3 COMPONENTS Interpreter QUIET)
set(KXM_MAN_PAGES AUTO CACHE STRING "Build the man pages: AUTO (if there is a Python 3), ON (or fail), OFF")
set_property(CACHE KXM_MAN_PAGES PROPERTY STRINGS AUTO ON OFF)
if(KXM_MAN_PAGES STREQUAL "ON" AND NOT Python3_FOUND)
  message(FATAL_ERROR "The man pages need a Python 3 (Debian package python3)")
endif()

# Their date is that of the sources, where those tell it.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND git log -1 --format=%ct WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                  OUTPUT_VARIABLE epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(epoch)
    set(ENV{SOURCE_DATE_EPOCH} ${epoch})
  endif()
endif()
string(TIMESTAMP KXM_SOURCE_DATE "%Y-%m-%d" UTC)
string(TIMESTAMP KXM_SOURCE_TIME "%a, %d %b %Y %H:%M:%S +0000" UTC)

function(kxm_man_page tool text)
  if(CMAKE_CROSSCOMPILING OR WIN32 OR KXM_SANITIZE OR NOT KXM_MAN_PAGES OR NOT Python3_FOUND)
    return()
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/${tool}.1)
  set(script ${PROJECT_SOURCE_DIR}/scripts/man_page.py)
  cmake_path(ABSOLUTE_PATH text)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
  add_custom_command(OUTPUT ${page}
    COMMAND Python3::Interpreter ${script} $<TARGET_FILE:${tool}> ${text} ${PROJECT_VERSION}
            ${KXM_SOURCE_DATE} ${page}
    DEPENDS ${tool} ${text} ${script} COMMENT "Man page ${tool}(1)" VERBATIM)
  add_custom_target(${tool}_man ALL DEPENDS ${page})
  set_property(GLOBAL APPEND PROPERTY KXM_MAN_PAGE_FILES ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
