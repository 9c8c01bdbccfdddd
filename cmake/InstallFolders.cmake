# Where an installation goes: the usual folders, and lib32 for a 32-bit build, so that both libraries fit side by side.
#
# A multilib folder and not a multiarch one: Debian keeps the latter for packages of a foreign architecture, and the
# 32-bit library is to be had without one.
if(OBREG_ALONE AND CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
    set(CMAKE_INSTALL_LIBDIR lib32 CACHE PATH "Folder of libraries, below the prefix")
endif()
include(GNUInstallDirs)
