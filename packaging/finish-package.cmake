# Run by CPack before it packs: adds to each package what Debian asks of every package, and compresses what is to be.
file(GLOB folders LIST_DIRECTORIES true ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(folder ${folders})
    get_filename_component(component ${folder} NAME)
    string(TOUPPER ${component} component)
    set(package "${CPACK_DEBIAN_${component}_PACKAGE_NAME}")
    if(NOT IS_DIRECTORY ${folder} OR NOT package)
        continue()
    endif()

    set(doc ${folder}/usr/share/doc/${package})
    file(COPY ${CPACK_OBREG_DEBIAN_FILES}/copyright ${CPACK_OBREG_DEBIAN_FILES}/changelog DESTINATION ${doc}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(GLOB_RECURSE to_compress ${folder}/usr/share/man/*.[1-8] ${doc}/changelog)
    foreach(file ${to_compress})
        execute_process(COMMAND gzip -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
endforeach()
