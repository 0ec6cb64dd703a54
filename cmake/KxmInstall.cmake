# Installation: the libraries, the public headers, the Fortran module, what find_package and pkg-config need to
# find them, and the documents. By component: runtime, development, fortran, tools, documents.
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)

set(kxm_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KXMBasMem)
set(kxm_targets KXMBasMem KXMBasMemGlobalNew)
if(NOT KXM_KX0CORE_LIBRARY)
  list(APPEND kxm_targets KX0CORE)
endif()

install(TARGETS ${kxm_targets} EXPORT KXMBasMemTargets
        RUNTIME COMPONENT runtime
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
        OBJECTS DESTINATION ${CMAKE_INSTALL_LIBDIR}/kxmbasmem)
# In a set of its own, so that a package without it is whole.
install(TARGETS KXMBasMem_Fortran EXPORT KXMBasMemFortranTargets COMPONENT fortran)
install(EXPORT KXMBasMemFortranTargets NAMESPACE KXMBasMem:: DESTINATION ${kxm_cmake_dir}
        COMPONENT fortran)
set(kxm_tools memtrack memtrack-replay kxmdiag)
install(TARGETS ${kxm_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(EXPORT KXMBasMemTargets NAMESPACE KXMBasMem:: DESTINATION ${kxm_cmake_dir})
install(DIRECTORY KXMBase/ProtectedInterfaces/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(FILES KX0CORE/KX0CORE.h bindings/kxm_allocator.h bindings/kxm_cache_pool.h
              bindings/kxm_memory_resource.h bindings/kxm_utf8_names.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_BINARY_DIR}/modules/
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/fortran/modules COMPONENT fortran
        FILES_MATCHING PATTERN "*.mod")
# Module files are one compiler's own; another one makes them from the source.
install(FILES bindings/kxmbasmem.f90 bindings/kxm_arrays.F90 bindings/kxm_arrays_type.inc
              bindings/kxm_tracking.f90 bindings/kxm_checks.f90 bindings/kxm_fortran_binding.cpp
              bindings/kxm_unit7.f90 bindings/kxm_unit7_binding.cpp
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kxmbasmem COMPONENT fortran)
if(KXM_RUNTIME_DLLS)
  install(FILES ${KXM_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

configure_package_config_file(cmake/KXMBasMemConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KXMBasMemConfig.cmake INSTALL_DESTINATION ${kxm_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KXMBasMemConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KXMBasMemConfig.cmake
              ${PROJECT_BINARY_DIR}/KXMBasMemConfigVersion.cmake DESTINATION ${kxm_cmake_dir})

# The file tells its own prefix, so that an installed tree can be moved.
file(RELATIVE_PATH KXM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
set(kxm_component_of_kxmbasmem development)
set(kxm_component_of_kxmbasmem-fortran fortran)
foreach(name kxmbasmem kxmbasmem-fortran)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT ${kxm_component_of_${name}})
endforeach()

install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents
        FILES_MATCHING PATTERN "*.md" PATTERN "*.png" PATTERN "*.svg")
install(DIRECTORY examples/adopting DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT documents)
install(DIRECTORY ${PROJECT_BINARY_DIR}/reference/html/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/reference
        COMPONENT documents OPTIONAL) # when the target docs was built
install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)

# What is installed, and nothing else. The launcher is Linux's own.
if(TARGET kxmrun)
  list(APPEND kxm_tools kxmrun kxmrun_preload)
endif()
get_property(kxm_man_pages GLOBAL PROPERTY KXM_MAN_PAGE_FILES)
add_custom_target(kxm_installed DEPENDS ${kxm_man_pages})
add_dependencies(kxm_installed ${kxm_targets} KXMBasMem_Fortran ${kxm_tools})
