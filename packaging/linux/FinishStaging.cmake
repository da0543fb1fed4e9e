# Run by cpack on the installed tree of every component, before it is packed: what only packages need.

function(run)
    execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Debugging information of static libraries would tie the package to the compiler's exact version; a separate
# package for it exists only for programs.
function(strip_archives root)
    file(GLOB_RECURSE archives "${root}/*.a")
    foreach(archive IN LISTS archives)
        run("${CPACK_VELM_STRIP}" --strip-debug --enable-deterministic-archives "${archive}")
    endforeach()
endfunction()

function(compress_manual root)
    file(GLOB pages "${root}/${CPACK_VELM_MANDIR}/man*/*.[1-9]")
    foreach(page IN LISTS pages)
        run(gzip -9n "${page}")
    endforeach()
endfunction()

function(add_debian_files root package)
    set(doc "${root}/share/doc/${package}")
    set(debian "${CPACK_VELM_PACKAGING_DIR}/debian")
    file(COPY "${debian}/copyright" "${debian}/changelog" DESTINATION "${doc}"
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    run(gzip -9n "${doc}/changelog")
endfunction()

set(names agent velmmonitord dev velmmonitord-dev sim velmdaemon-sim)
while(names)
    list(POP_FRONT names component package)
    set(root "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}")
    if(NOT IS_DIRECTORY "${root}")
        message(FATAL_ERROR "The component ${component} installed nothing at ${root}")
    endif()
    strip_archives("${root}")
    compress_manual("${root}")
    if(CPACK_GENERATOR STREQUAL "DEB")
        add_debian_files("${root}" "${package}")
    endif()
endwhile()
