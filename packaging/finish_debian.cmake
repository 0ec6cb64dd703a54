# Run by CPack when the packages are made. It gives whatever holds a library scripts that call ldconfig, beside the
# trigger that does; they are taken out again.
foreach(package ${CPACK_PACKAGE_FILES})
  get_filename_component(name ${package} NAME)
  if(name MATCHES "^(libkxmbasmem0|kxmbasmem-tools)_")
    set(folder ${CPACK_TOPLEVEL_DIRECTORY}/unpacked)
    file(REMOVE_RECURSE ${folder})
    execute_process(COMMAND dpkg-deb -R ${package} ${folder} COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
    execute_process(COMMAND dpkg-deb --root-owner-group -b ${folder} ${package}
                    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
