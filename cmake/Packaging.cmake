# SPDX-License-Identifier: Apache-2.0
#
# Debian packages: `cpack -G DEB` (or `cpack`) in a build directory packs what
# `cmake --install` installs, one package per install component:
#
#   libxrprocdetector2     (runtime) the shared object, in a shared build
#   libxrprocdetector-dev  (dev)     headers, static library, the .so link,
#                                    CMake package and xrprocdetector.pc
#   xrprocdetect           (tool)    the tool, its manual page and completion
#
# Each also holds /usr/share/doc/<package>/copyright (machine-readable, from
# cmake/debian/copyright) and changelog.Debian.gz (cmake/debian/changelog);
# these are installed for packaging only, not by a plain `cmake --install`.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr to have the library in the
# multiarch directory (/usr/lib/x86_64-linux-gnu). A static build
# (BUILD_SHARED_LIBS=OFF) has no runtime package: its tool holds the library.

set(XRPROCDETECTOR_PACKAGE_MAINTAINER
    "xrprocdetector developers <maintainers@xrprocdetector.org>"
    CACHE STRING "Maintainer field of the Debian packages: name <address>")

set(XRPROCDETECTOR_RUNTIME_PACKAGE libxrprocdetector${PROJECT_VERSION_MAJOR})
set(XRPROCDETECTOR_DEV_PACKAGE libxrprocdetector-dev)
set(XRPROCDETECTOR_TOOL_PACKAGE xrprocdetect)
set(XRPROCDETECTOR_DEBIAN_DIR ${CMAKE_CURRENT_LIST_DIR}/debian)

# Values reach CPack as written here, without a second round of escaping.
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME xrprocdetector)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${XRPROCDETECTOR_PACKAGE_MAINTAINER})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
# Each package's summary is the first line of its own description below;
# a project-wide summary would be put in front of all three.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

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

# One package per component.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL dev)
if(BUILD_SHARED_LIBS)
  list(PREPEND CPACK_COMPONENTS_ALL runtime)
endif()
if(XRPROCDETECTOR_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
if(BUILD_SHARED_LIBS AND XRPROCDETECTOR_INSTALL_PYTHON)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()

set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${XRPROCDETECTOR_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SOURCE xrprocdetector)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # <package>_1.1.0-1_amd64.deb
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The library is for x86-64 only: its CPUID and VMware probes are x86-64 code.
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(XRPROCDETECTOR_ABOUT [[
xrprocdetector tells a host program how many processor packages, cores and
logical processors its machine has, whether hyper-threading is absent,
disabled or enabled, and whether it runs inside a VMware virtual machine. It
reads the operating system's processor counts, /proc/cpuinfo and CPUID, in
several detection generations whose results are kept exactly.]])

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${XRPROCDETECTOR_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "processor topology detection library for Linux on x86-64
${XRPROCDETECTOR_ABOUT}

This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${XRPROCDETECTOR_DEV_PACKAGE})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "cmake (>= 3.16), pkg-config")
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "processor topology detection library for Linux on x86-64 - development files
${XRPROCDETECTOR_ABOUT}

This package holds the headers, the static library, the CMake package
(find_package(XrProcDetector)) and the pkg-config file (xrprocdetector).")
# The development files of a shared build go with the runtime package of the
# very same version.
if(BUILD_SHARED_LIBS)
  set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
  set(CPACK_COMPONENT_DEV_DEPENDS runtime)
endif()

# The Python module: the same for every architecture, on the runtime
# package of the very same version, which it loads.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-xrprocdetector)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3:any, ${XRPROCDETECTOR_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}-1)")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
    "processor topology detection for Linux on x86-64 - Python 3 module
${XRPROCDETECTOR_ABOUT}

This package holds the Python 3 module xrprocdetector, on the library's C
interface: the processors a process may really use (its affinity, cpusets
and every cgroup quota counted), the topology as sets, a processor budget
kept current, and every detection generation.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${XRPROCDETECTOR_TOOL_PACKAGE})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "run and compare processor topology detection generations
xrprocdetect runs the detector generations of the xrprocdetector library
(5.3, 6.0, 6.1, 7.0 and the platform default) and says what each found:
processor packages, cores, logical processors, hyper-threading and virtual
machine, as text or JSON, on this machine or on a saved /proc/cpuinfo.")

# Each package's copyright and changelog.Debian.gz, installed with its
# component for packaging only (EXCLUDE_FROM_ALL: CPack installs component by
# component, a plain `cmake --install` installs neither).
find_program(XRPROCDETECTOR_GZIP gzip)
mark_as_advanced(XRPROCDETECTOR_GZIP)
if(XRPROCDETECTOR_GZIP)
  set(_xrprocdetector_changelog ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian.gz)
  add_custom_command(OUTPUT ${_xrprocdetector_changelog}
      COMMAND ${CMAKE_COMMAND} -E copy ${XRPROCDETECTOR_DEBIAN_DIR}/changelog
          debian/changelog.Debian
      COMMAND ${XRPROCDETECTOR_GZIP} -9nf debian/changelog.Debian
      DEPENDS ${XRPROCDETECTOR_DEBIAN_DIR}/changelog
      WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
      COMMENT "Compressing the Debian changelog"
      VERBATIM)
  add_custom_target(xrprocdetector_debian_changelog ALL DEPENDS ${_xrprocdetector_changelog})
  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} _xrprocdetector_upper)
    install(FILES ${XRPROCDETECTOR_DEBIAN_DIR}/copyright ${_xrprocdetector_changelog}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${_xrprocdetector_upper}_PACKAGE_NAME}
        COMPONENT ${component}
        EXCLUDE_FROM_ALL)
  endforeach()
else()
  message(WARNING "gzip not found: the Debian packages will lack changelog.Debian.gz")
endif()

# The changelog's latest entry must be this version.
file(STRINGS ${XRPROCDETECTOR_DEBIAN_DIR}/changelog _xrprocdetector_latest LIMIT_COUNT 1)
set(_xrprocdetector_deb_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
if(NOT _xrprocdetector_latest MATCHES "^xrprocdetector \\(${_xrprocdetector_deb_version}\\) ")
  message(WARNING "cmake/debian/changelog does not begin with an entry for "
                  "${_xrprocdetector_deb_version}: add one")
endif()

# The runtime package: a shlibs file (packages built against the library
# depend on this package at least at this version; the SONAME carries the
# major version, which is all that breaks compatibility), and a trigger that
# has ldconfig run once dpkg is done. CPack would instead call ldconfig from
# postinst and postrm scripts, which it writes for any package whose ELF files
# it inspects, so it inspects none of this package (no SHLIBDEPS, no
# GENERATE_SHLIBS): its Depends come from cmake/CPackProject.cmake.in.
#
# The shlibs file is written beside the built library, in a DEBIAN folder:
# there dpkg-shlibdeps, looking at the tool, finds that the library belongs to
# a package being built and which, so that xrprocdetect depends on it.
find_program(XRPROCDETECTOR_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(XRPROCDETECTOR_FILE file)
mark_as_advanced(XRPROCDETECTOR_DPKG_SHLIBDEPS XRPROCDETECTOR_FILE)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
if(BUILD_SHARED_LIBS)
  # A multi-configuration generator's packages are those of its Release build.
  get_property(_xrprocdetector_multi_config GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
  if(_xrprocdetector_multi_config)
    set(_xrprocdetector_packed_config $<CONFIG:Release>)
  else()
    set(_xrprocdetector_packed_config 1)
  endif()
  file(GENERATE OUTPUT $<TARGET_FILE_DIR:xrprocdetector>/DEBIAN/shlibs
      CONTENT "libxrprocdetector ${PROJECT_VERSION_MAJOR} ${XRPROCDETECTOR_RUNTIME_PACKAGE} (>= ${PROJECT_VERSION})\n"
      CONDITION ${_xrprocdetector_packed_config})
  # Read by cpack for each generator: the library's directory and its file.
  set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/CPackProject.cmake)
  file(GENERATE OUTPUT ${CPACK_PROJECT_CONFIG_FILE}
      INPUT ${CMAKE_CURRENT_LIST_DIR}/CPackProject.cmake.in
      CONDITION ${_xrprocdetector_packed_config})
  set(CPACK_XRPROCDETECTOR_DEBIAN_DIR ${XRPROCDETECTOR_DEBIAN_DIR})
  if(XRPROCDETECTOR_DPKG_SHLIBDEPS AND XRPROCDETECTOR_FILE)
    set(CPACK_XRPROCDETECTOR_DPKG_SHLIBDEPS ${XRPROCDETECTOR_DPKG_SHLIBDEPS})
  endif()
  set(CPACK_XRPROCDETECTOR_SHLIBDEPS_DIR ${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/xrprocdetector-shlibdeps)
  file(WRITE ${CPACK_XRPROCDETECTOR_SHLIBDEPS_DIR}/debian/control "")
endif()

# The tool's dependencies. dpkg-shlibdeps (in dpkg-dev, with `file`, which
# CPack uses to find the ELF files) derives them from its ELF file: libc6,
# libstdc++6 and libgcc-s1 at the lowest versions whose symbols it uses, and
# in a shared build the runtime package. That is what Debian's own packages
# do, and stays right whichever compiler and C++ runtime the build used.
# Where dpkg-shlibdeps is missing, the packages are named explicitly instead,
# at the versions installed here: stricter than needed, but never too weak.
if(XRPROCDETECTOR_DPKG_SHLIBDEPS AND XRPROCDETECTOR_FILE)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
else()
  set(_xrprocdetector_depends)
  foreach(package IN ITEMS libc6 libstdc++6 libgcc-s1)
    execute_process(COMMAND dpkg-query --showformat=\${Version} --show ${package}
        OUTPUT_VARIABLE version RESULT_VARIABLE result ERROR_QUIET)
    if(result EQUAL 0 AND version)
      list(APPEND _xrprocdetector_depends "${package} (>= ${version})")
    else()
      list(APPEND _xrprocdetector_depends ${package})
    endif()
  endforeach()
  list(JOIN _xrprocdetector_depends ", " CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS)
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS ${CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS})
  if(BUILD_SHARED_LIBS)
    string(PREPEND CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
        "${XRPROCDETECTOR_RUNTIME_PACKAGE} (>= ${PROJECT_VERSION}), ")
  endif()
  message(STATUS "dpkg-shlibdeps or file not found: the Debian packages depend on "
                 "${CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS}")
endif()

# `make package_source`: the tracked sources, not builds or local files.
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES
    "/\\.git/" "/build/" "/build-[^/]*/" "/out/" "\\.profraw$" "/fuzz/corpus-[^/]*/"
    "/CMakeUserPresets\\.json$")

include(CPack)
