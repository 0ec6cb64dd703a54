# The packages that cpack makes: for Debian five, by component, and one zip for Windows. packaging/README.md
# tells what is in them; ./package.sh makes them.
set(KXM_PACKAGE_MAINTAINER "KXMBasMem maintainers <maintainers@kxmbasmem.invalid>" CACHE STRING
    "Who answers for the packages: Name <address>")

set(licences ${PROJECT_SOURCE_DIR}/packaging/licences)
install(DIRECTORY ${licences}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences COMPONENT documents)
if(WIN32) # a first word, and what the compiler's DLLs ask to go with them
  file(WRITE ${PROJECT_BINARY_DIR}/packaging/README.txt
    "KXMBasMem ${PROJECT_VERSION} for Windows x64. Begin with ${CMAKE_INSTALL_DOCDIR}/README.md.\n")
  install(FILES ${PROJECT_BINARY_DIR}/packaging/README.txt DESTINATION . COMPONENT documents)
  foreach(name GPL-3 LGPL-2.1)
    install(FILES /usr/share/common-licenses/${name} RENAME ${name}.txt
            DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences COMPONENT documents)
  endforeach()
  install(FILES /usr/share/doc/mingw-w64-common/copyright RENAME mingw-w64.txt
          DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences COMPONENT documents)
endif()

set(CPACK_PACKAGE_NAME kxmbasmem)
set(CPACK_PACKAGE_VENDOR KXMBasMem)
set(CPACK_PACKAGE_CONTACT ${KXM_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL runtime development fortran tools documents)
set(CPACK_THREADS 0)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME kxmbasmem-${PROJECT_VERSION}-windows-x64)
  set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/stage_windows.cmake)
  set(CPACK_KXM_STRIP ${CMAKE_STRIP})
  include(CPack)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
foreach(component RUNTIME TOOLS) # what has programs or libraries; it looks at each file
  set(CPACK_DEBIAN_${component}_PACKAGE_SHLIBDEPS ON)
endforeach()
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/stage_debian.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/finish_debian.cmake)
set(CPACK_KXM_PACKAGING ${PROJECT_BINARY_DIR}/packaging)
set(CPACK_KXM_STRIP ${CMAKE_STRIP})
set(CPACK_BUILD_SOURCE_DIRS ${PROJECT_SOURCE_DIR})

# The description's lines have at most 80 characters there.
function(kxm_debian_package component name section description)
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_DESCRIPTION "${description}" PARENT_SCOPE)
endfunction()
set(what
"A C allocation interface for C++, C and Fortran over back ends that the
environment chooses: the C runtime, a guarded and an aligned one, and a heap
with a hard memory limit; with a recorder of allocations.
.
")
kxm_debian_package(runtime libkxmbasmem0 libs
  "${what}This package has the shared library.")
kxm_debian_package(development libkxmbasmem-dev libdevel
  "${what}This package has the headers, and the files of CMake and pkg-config.")
kxm_debian_package(fortran libkxmbasmem-fortran-dev libdevel
  "${what}This package has the Fortran modules.")
kxm_debian_package(tools kxmbasmem-tools devel
"The memtrack command reads what a run on the memory library recorded: peak,
leaks, phases, comparisons, replays. The kxmdiag command tells which library
and back end a solver would find, and what is wrong with its settings. The
kxmrun command runs a program, as it is, on the library.")
kxm_debian_package(documents kxmbasmem-doc doc
"How a solver moves onto the memory library, its settings, limits, recordings
and figures, and a reference of its interfaces.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_FORTRAN_DEPENDS development)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
# The form of GCC's module files since version 8.
set(CPACK_DEBIAN_FORTRAN_PACKAGE_DEPENDS "gfortran | gfortran-mod-15")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "libkxmbasmem-fortran-dev, kxmbasmem-doc, kxmbasmem-tools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS kxmbasmem-doc)
set(CPACK_DEBIAN_DOCUMENTS_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${PROJECT_SOURCE_DIR}/packaging/triggers;${CPACK_KXM_PACKAGING}/shlibs")
if(TARGET kxmrun) # with a library to preload
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
endif()
# What is linked against this library needs it at least as new.
file(WRITE ${CPACK_KXM_PACKAGING}/shlibs
  "libKXMBasMem ${PROJECT_VERSION_MAJOR} libkxmbasmem0 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

# Debian's form of a copyright file wants each text indented, with dots for its empty lines.
set(KXM_COPYRIGHT_PARTS "")
foreach(part "libbacktrace;libkxmbasmem0;2012-2022 Free Software Foundation, Inc.;BSD-3-clause-libbacktrace"
             "GCC-runtime;libkxmbasmem0;Free Software Foundation, Inc.;GPL-3+-with-GCC-runtime-exception"
             "CLI11;kxmbasmem-tools;2017-2021 University of Cincinnati;BSD-3-clause-CLI11"
             "uPlot;kxmbasmem-tools;2022 Leon Sorokin;Expat")
  list(GET part 0 file)
  list(GET part 1 where)
  list(GET part 2 holder)
  list(GET part 3 name)
  file(READ ${licences}/${file}.txt text)
  string(STRIP "${text}" text)
  string(REGEX REPLACE "\n" "\n " text "${text}")
  string(REGEX REPLACE "\n +\n" "\n .\n" text "${text}")
  string(APPEND KXM_COPYRIGHT_PARTS
    "Files: parts-of-${where}\nCopyright: ${holder}\nLicense: ${name}\n ${text}\n\n")
endforeach()
string(STRIP "${KXM_COPYRIGHT_PARTS}" KXM_COPYRIGHT_PARTS)
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in ${CPACK_KXM_PACKAGING}/copyright @ONLY)
file(WRITE ${CPACK_KXM_PACKAGING}/changelog
"kxmbasmem (${PROJECT_VERSION}) unstable; urgency=medium

  * Made by the project's own package.sh; what changed is in CHANGELOG.md of
    the package kxmbasmem-doc.

 -- ${KXM_PACKAGE_MAINTAINER}  ${KXM_SOURCE_TIME}
")
include(CPack)
