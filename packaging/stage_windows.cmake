# Run by CPack when the files of the zip lie in their folder. The tools' debug information, larger than all
# else together, stays behind; the library keeps its own, which call stacks read.
file(GLOB_RECURSE tools ${CPACK_TEMPORARY_DIRECTORY}/*.exe)
execute_process(COMMAND ${CPACK_KXM_STRIP} --strip-debug ${tools} COMMAND_ERROR_IS_FATAL ANY)
