# The target `docs`: reference pages of all public headers, made by Doxygen, which fails on any warning.
find_program(KXM_DOXYGEN doxygen)
if(NOT KXM_DOXYGEN OR NOT Python3_FOUND)
  return()
endif()
set(reference ${PROJECT_BINARY_DIR}/reference)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${reference}/Doxyfile @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/docs/reference.md.in ${reference}/main.md @ONLY)
file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/KXMBase/ProtectedInterfaces/*.h
     ${PROJECT_SOURCE_DIR}/bindings/*.h ${PROJECT_SOURCE_DIR}/KX0CORE/KX0CORE.h)
add_custom_command(OUTPUT ${reference}/html/index.html
  COMMAND ${CMAKE_COMMAND} -DDOXYGEN=${KXM_DOXYGEN} -DREFERENCE=${reference} "-DHEADERS=${headers}"
          -P ${PROJECT_SOURCE_DIR}/scripts/make_reference.cmake
  DEPENDS ${headers} ${reference}/Doxyfile ${reference}/main.md ${PROJECT_SOURCE_DIR}/scripts/header_page.py
          ${PROJECT_SOURCE_DIR}/scripts/make_reference.cmake
  COMMENT "Reference pages of the public headers" VERBATIM)
add_custom_target(docs DEPENDS ${reference}/html/index.html)
