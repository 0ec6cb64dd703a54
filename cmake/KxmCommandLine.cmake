# kxm_command_line: the command-line library of the tools. It is headers alone, and the same for every system:
# they are linked to from a folder of our own, since a cross compiler must not see the other headers beside them.
include_guard(GLOBAL)
set(KXM_CLI11_HEADERS /usr/include/CLI CACHE PATH "The folder CLI of the library CLI11's headers")
if(NOT EXISTS ${KXM_CLI11_HEADERS}/CLI.hpp)
  message(FATAL_ERROR "No CLI11 in ${KXM_CLI11_HEADERS} (Debian package libcli11-dev)")
endif()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/command_line)
file(CREATE_LINK ${KXM_CLI11_HEADERS} ${PROJECT_BINARY_DIR}/command_line/CLI SYMBOLIC)
add_library(kxm_command_line INTERFACE)
target_include_directories(kxm_command_line SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/command_line)
