# The CMake package of libobreg: find_package(obreg) gives the target obreg::obreg, for C and C++.
#
# One file for both installations, 32-bit and 64-bit, which may stand side by side; the project's own word size says
# which library it gets.
math(EXPR obreg_bits "8 * ${CMAKE_SIZEOF_VOID_P}")
set(obreg_targets "${CMAKE_CURRENT_LIST_DIR}/obreg-targets-${obreg_bits}.cmake")
if(EXISTS "${obreg_targets}")
    include("${obreg_targets}")
else()
    set(obreg_FOUND FALSE)
    set(obreg_NOT_FOUND_MESSAGE "there is no ${obreg_bits}-bit libobreg beside ${CMAKE_CURRENT_LIST_FILE}")
endif()
unset(obreg_bits)
unset(obreg_targets)
