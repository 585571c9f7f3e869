# SPDX-License-Identifier: Apache-2.0
# Read by CPack before it makes the .deb, which depends on what the built programs load. A table
# rather than dpkg-shlibdeps, which knows the building machine's libraries, not a sysroot's. The
# version of the libc is the newest one whose symbols the programs take.
set(debian_packages
    "^(libc|libm|ld-linux.*)\\.so" "libc6 (>= GLIBC)"
    "^libgcc_s\\.so\\.1$"          "libgcc-s1"
    "^libstdc\\+\\+\\.so\\.6$"     "libstdc++6 (>= 5)"
    "^lib(ssl|crypto)\\.so\\.3$"   "libssl3 (>= 3.0.0)"
    "^libjson-c\\.so\\.5$"         "libjson-c5 (>= 0.15)"
    "^libpng16\\.so\\.16$"         "libpng16-16 (>= 1.6.2)")

execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C
                    ${CPACK_PLUGINMGR_READELF} -dV ${CPACK_PLUGINMGR_PROGRAMS}
                OUTPUT_VARIABLE tables COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "GLIBC_[0-9.]+" symbols "${tables}")
list(SORT symbols COMPARE NATURAL)
list(POP_BACK symbols newest)
string(REPLACE "GLIBC_" "" newest "${newest}")

string(REGEX MATCHALL "library: .[^]]+" libraries "${tables}")
list(TRANSFORM libraries REPLACE "library: ." "")
list(APPEND libraries libgcc_s.so.1)  # the libc loads it when a thread is cancelled
set(depends)
foreach(library IN LISTS libraries)
    set(rows ${debian_packages})
    set(package)
    while(rows AND NOT package)
        list(POP_FRONT rows name found)
        if(library MATCHES "${name}")
            string(REPLACE GLIBC "${newest}" package "${found}")
        endif()
    endwhile()
    if(NOT package)
        message(FATAL_ERROR "packaging/debian/depends.cmake: which package brings ${library}?")
    endif()
    list(APPEND depends "${package}")
endforeach()
list(SORT depends)
list(REMOVE_DUPLICATES depends)
list(JOIN depends ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
