# Debian package: `cpack -G DEB` (or `cpack`) in a build directory packs what
# `cmake --install` installs (the library, its public headers, the CMake
# package, xrprocdetector.pc and, when built, xrprocdetect) under /usr.
#
# One package holds everything, static or shared library alike: the library is
# small and a host needs its headers and CMake or pkg-config files anyway, so
# it is not split into library, development and tool packages. Build the
# package from a tree configured with -DCMAKE_INSTALL_PREFIX=/usr to have the
# library in the multiarch directory (/usr/lib/x86_64-linux-gnu); from the
# default prefix it goes to /usr/lib, which the linker, ldconfig, pkg-config
# and find_package() search as well.

set(XRPROCDETECTOR_PACKAGE_MAINTAINER
    "xrprocdetector developers <xrprocdetector@maintainers.invalid>"
    CACHE STRING "Maintainer field of the Debian package: name <address>")

# Values reach CPack as written here, without a second round of escaping.
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME xrprocdetector)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${XRPROCDETECTOR_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
# The extended description, in lines short enough for dpkg's listings.
set(CPACK_PACKAGE_DESCRIPTION [[
A C++17 library that tells a host program how many processor packages,
cores and logical processors its machine has, whether hyper-threading is
absent, disabled or enabled, and whether it runs inside a VMware virtual
machine. It reads the operating system's processor counts, /proc/cpuinfo
and CPUID, in several detection generations whose results are kept exactly.

This package holds the library, its headers, the CMake package
(find_package(XrProcDetector)), the pkg-config file and the xrprocdetect
tool, which runs, compares and explains the generations.]])

# Everything goes under /usr (never /usr/local, which belongs to the local
# administrator). The staged install sees that prefix as CMAKE_INSTALL_PREFIX,
# as xrprocdetector.pc, written at install time, needs.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_PACKAGE_NAME ${CPACK_PACKAGE_NAME})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${XRPROCDETECTOR_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # xrprocdetector_1.0.0-1_amd64.deb
# Mostly library and headers for building hosts, with one tool beside them.
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The library is for x86-64 only: its CPUID and VMware probes are x86-64 code.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# A host builds against the package with one of these.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "cmake (>= 3.16), pkg-config")

# Dependencies. dpkg-shlibdeps (in dpkg-dev, with `file`, which CPack uses to
# find the ELF files) derives them from the ELF files the package holds (the
# tool and the shared library): libc6, libstdc++6 and libgcc-s1 at the lowest
# versions whose symbols they use. That is what Debian's own packages do, and
# stays right whichever compiler, library type and C++ runtime the build used.
# The static library itself needs nothing at run time; a host that links it
# brings its own C++ runtime. Where dpkg-shlibdeps is missing, the packages
# are named explicitly instead, at the versions installed here: stricter than
# needed, but never too weak.
find_program(XRPROCDETECTOR_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(XRPROCDETECTOR_FILE file)
mark_as_advanced(XRPROCDETECTOR_DPKG_SHLIBDEPS XRPROCDETECTOR_FILE)
if(XRPROCDETECTOR_DPKG_SHLIBDEPS AND XRPROCDETECTOR_FILE)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The tool of a shared build needs the library of this very package.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR}/xrprocdetector)
else()
  set(XRPROCDETECTOR_DEPENDS)
  foreach(package IN ITEMS libc6 libstdc++6 libgcc-s1)
    execute_process(COMMAND dpkg-query --showformat=\${Version} --show ${package}
        OUTPUT_VARIABLE version RESULT_VARIABLE result ERROR_QUIET)
    if(result EQUAL 0 AND version)
      list(APPEND XRPROCDETECTOR_DEPENDS "${package} (>= ${version})")
    else()
      list(APPEND XRPROCDETECTOR_DEPENDS ${package})
    endif()
  endforeach()
  list(JOIN XRPROCDETECTOR_DEPENDS ", " CPACK_DEBIAN_PACKAGE_DEPENDS)
  message(STATUS "dpkg-shlibdeps or file not found: the Debian package depends on "
                 "${CPACK_DEBIAN_PACKAGE_DEPENDS}")
endif()

# A shared build: a shlibs file, so that packages built against the library
# depend on this package at a version at least as new (the SONAME carries the
# major version, which is all that breaks compatibility), and ldconfig runs
# when it is installed and removed (CPack adds those scripts itself).
if(BUILD_SHARED_LIBS)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
endif()

# `make package_source`: the tracked sources, not builds or local files.
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES
    "/\\.git/" "/build/" "/build-[^/]*/" "/out/" "\\.profraw$" "/fuzz/corpus-[^/]*/"
    "/CMakeUserPresets\\.json$")

include(CPack)
