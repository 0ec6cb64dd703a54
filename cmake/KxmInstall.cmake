# Installation: the libraries, the public headers, the Fortran module, and what find_package and
# pkg-config need to find them.
include(CMakePackageConfigHelpers)

set(kxm_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KXMBasMem)
set(kxm_targets KXMBasMem KXMBasMem_Fortran KXMBasMemGlobalNew)
if(NOT KXM_KX0CORE_LIBRARY)
  list(APPEND kxm_targets KX0CORE)
endif()

install(TARGETS ${kxm_targets} EXPORT KXMBasMemTargets
        OBJECTS DESTINATION ${CMAKE_INSTALL_LIBDIR}/kxmbasmem)
install(TARGETS memtrack memtrack-replay kxmdiag RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT KXMBasMemTargets NAMESPACE KXMBasMem:: DESTINATION ${kxm_cmake_dir})
install(DIRECTORY KXMBase/ProtectedInterfaces/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(FILES KX0CORE/KX0CORE.h bindings/kxm_allocator.h bindings/kxm_cache_pool.h
              bindings/kxm_memory_resource.h bindings/kxm_utf8_names.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_BINARY_DIR}/modules/
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/fortran/modules FILES_MATCHING PATTERN "*.mod")
# Module files are one compiler's own; another one makes them from the source.
install(FILES bindings/kxmbasmem.f90 bindings/kxm_arrays.F90 bindings/kxm_arrays_type.inc
              bindings/kxm_tracking.f90 bindings/kxm_checks.f90 bindings/kxm_fortran_binding.cpp
              bindings/kxm_unit7.f90 bindings/kxm_unit7_binding.cpp
        DESTINATION ${CMAKE_INSTALL_DATADIR}/kxmbasmem)
if(KXM_RUNTIME_DLLS)
  install(FILES ${KXM_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

configure_package_config_file(cmake/KXMBasMemConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KXMBasMemConfig.cmake INSTALL_DESTINATION ${kxm_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KXMBasMemConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KXMBasMemConfig.cmake
              ${PROJECT_BINARY_DIR}/KXMBasMemConfigVersion.cmake DESTINATION ${kxm_cmake_dir})

# The file tells its own prefix, so that an installed tree can be moved.
file(RELATIVE_PATH KXM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name kxmbasmem kxmbasmem-fortran)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
