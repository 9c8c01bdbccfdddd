# The Debian packages: cpack -G DEB in a build folder makes those of that build; packaging/build-packages makes all.
#
# Each component is a package, but for the two that make the development files. The 32-bit build makes amd64 packages
# too: its library goes to /usr/lib32 and needs no foreign architecture.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # else each package begins with it
set(CPACK_PACKAGE_VENDOR "libobreg maintainers")
set(OBREG_MAINTAINER "libobreg maintainers <maintainers@libobreg.example>" CACHE STRING "Whom the packages name")
set(CPACK_PACKAGE_CONTACT ${OBREG_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP dev)
set(CPACK_COMPONENT_LINKING_GROUP dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/finish-package.cmake)
set(CPACK_OBREG_DEBIAN_FILES ${CMAKE_CURRENT_SOURCE_DIR}/debian)

# obreg_package(component package section [DEPENDS relations] [SCRIPTS file...] DESCRIPTION synopsis text...)
function(obreg_package component package section)
    cmake_parse_arguments(ARG "" "DEPENDS" "SCRIPTS;DESCRIPTION" ${ARGN})
    string(TOUPPER ${component} component)
    list(JOIN ARG_DESCRIPTION "\n" description)
    foreach(setting NAME=${package} SECTION=${section} "DEPENDS=${ARG_DEPENDS}" "CONTROL_EXTRA=${ARG_SCRIPTS}")
        string(REGEX MATCH "^([A-Z_]+)=(.*)$" setting "${setting}")
        set(CPACK_DEBIAN_${component}_PACKAGE_${CMAKE_MATCH_1} "${CMAKE_MATCH_2}" PARENT_SCOPE)
    endforeach()
    set(CPACK_COMPONENT_${component}_DESCRIPTION "${description}" PARENT_SCOPE)
endfunction()

set(debian ${CMAKE_CURRENT_SOURCE_DIR}/debian)
set(same_version "(= ${PROJECT_VERSION})")
set(about "The registry is a tree of keys that hold named, typed values, shared by the" "programs of a machine.")
set(ldconfig ${debian}/library/triggers)

if(bits EQUAL 32)
    set(CPACK_COMPONENTS_ALL library linking)
    obreg_package(library lib32obreg libs SCRIPTS ${ldconfig}
        DESCRIPTION "registry client library (32-bit)" ${about}
        "This is libobreg.so for 32-bit programs on a 64-bit system.")
    obreg_package(dev lib32obreg-dev libdevel DEPENDS "lib32obreg ${same_version}, libobreg-dev ${same_version}"
        DESCRIPTION "registry client library (32-bit development files)" ${about}
        "What is needed beside libobreg-dev to link 32-bit programs to libobreg.so,"
        "with pkg-config or with CMake.")
else()
    set(CPACK_COMPONENTS_ALL library linking development daemon tool)
    obreg_package(library libobreg libs SCRIPTS ${ldconfig}
        DESCRIPTION "registry client library" ${about}
        "This is libobreg.so: ten functions in plain C, and a program's way to the"
        "registry daemon.")
    obreg_package(dev libobreg-dev libdevel DEPENDS "libobreg ${same_version}"
        DESCRIPTION "registry client library (development files)" ${about}
        "The headers for C and C++, and what pkg-config and CMake need.")
    obreg_package(daemon obregd admin
        DEPENDS "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles"
        SCRIPTS ${debian}/obregd/postinst ${debian}/obregd/prerm ${debian}/obregd/postrm
        DESCRIPTION "registry daemon" ${about}
        "This is obregd, which keeps the registry in a file, answers the clients of"
        "a local socket, and decides who may change what.")
    if(TARGET obregd_etcd)
        list(APPEND CPACK_COMPONENTS_ALL etcd)
    endif()
    obreg_package(etcd obregd-etcd admin DEPENDS "obregd ${same_version}"
        DESCRIPTION "registry daemon (engine for trees that machines share)" ${about}
        "This is what obregd loads to share a part of it with other machines,"
        "through etcd.")
    obreg_package(tool obreg utils DEPENDS "libobreg ${same_version}"
        DESCRIPTION "registry command line" ${about}
        "This is obreg, which looks at the registry, changes it, exports and"
        "imports it, from a shell.")
endif()

include(CPack)
