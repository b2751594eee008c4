# Install rules: the library, its public headers, an exported CMake package
# (find_package(XrProcDetector)), a pkg-config file (xrprocdetector.pc) and
# the tool with its manual page and bash completion.
#
# Every rule names the component, and so the Debian package, it belongs to:
#   runtime  the shared object (libxrprocdetector.so.2 and .so.2.0.0)
#   dev      headers, the static library, the libxrprocdetector.so link,
#            the CMake package and xrprocdetector.pc
#   tool     xrprocdetect, xrprocdetect(1), its bash completion and the
#            JSON Schema of its output
#   python   the Python module (a shared build's), where Debian's python3
#            finds modules: lib/python3/dist-packages under the prefix
include(CMakePackageConfigHelpers)

option(XRPROCDETECTOR_INSTALL_PYTHON "Install the Python module (with a shared library)" ON)
set(XRPROCDETECTOR_PYTHON_DIR lib/python3/dist-packages
    CACHE STRING "Where the Python module goes, under the prefix")
if(BUILD_SHARED_LIBS AND XRPROCDETECTOR_INSTALL_PYTHON)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/xrprocdetector
      DESTINATION ${XRPROCDETECTOR_PYTHON_DIR} COMPONENT python
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
      PATTERN __pycache__ EXCLUDE)
endif()

install(TARGETS xrprocdetector
    EXPORT XrProcDetectorTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
if(TARGET xrprocdetector_static)
  install(TARGETS xrprocdetector_static
      EXPORT XrProcDetectorTargets
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endif()
install(FILES ${XRPROCDETECTOR_PUBLIC_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/xrprocdetector
    COMPONENT dev)

set(XRPROCDETECTOR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/XrProcDetector)
install(EXPORT XrProcDetectorTargets
    NAMESPACE XrProcDetector::
    DESTINATION ${XRPROCDETECTOR_CMAKE_DIR}
    COMPONENT dev)
configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/XrProcDetectorConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/XrProcDetectorConfig.cmake
    INSTALL_DESTINATION ${XRPROCDETECTOR_CMAKE_DIR})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/XrProcDetectorConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/XrProcDetectorConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/XrProcDetectorConfigVersion.cmake
    DESTINATION ${XRPROCDETECTOR_CMAKE_DIR}
    COMPONENT dev)

# The .pc file must hold absolute paths whether CMAKE_INSTALL_LIBDIR is
# relative (the usual case) or absolute.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(XRPROCDETECTOR_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(XRPROCDETECTOR_PC_LIBDIR "\${exec_prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(XRPROCDETECTOR_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(XRPROCDETECTOR_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
# The library is C++: a C host linked against the static library needs the
# C++ runtime and the maths library as well. The shared library names them
# itself, so they are Libs.private (`pkg-config --static --libs`); where the
# static library is all there is (BUILD_SHARED_LIBS=OFF), Libs names them.
set(XRPROCDETECTOR_PC_CXX_RUNTIME "-lstdc++ -lm")
if(BUILD_SHARED_LIBS)
  set(XRPROCDETECTOR_PC_LIBS "")
  set(XRPROCDETECTOR_PC_LIBS_PRIVATE "${XRPROCDETECTOR_PC_CXX_RUNTIME}")
else()
  set(XRPROCDETECTOR_PC_LIBS " ${XRPROCDETECTOR_PC_CXX_RUNTIME}")
  set(XRPROCDETECTOR_PC_LIBS_PRIVATE "")
endif()
# Its prefix is the one the files are installed under, which is known only at
# install time (`cmake --install --prefix`, CPack's /usr): it is written then.
set(XRPROCDETECTOR_PC_FILE ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/xrprocdetector.pc)
install(CODE "
  set(PROJECT_DESCRIPTION [[${PROJECT_DESCRIPTION}]])
  set(PROJECT_VERSION [[${PROJECT_VERSION}]])
  set(XRPROCDETECTOR_PC_LIBDIR [[${XRPROCDETECTOR_PC_LIBDIR}]])
  set(XRPROCDETECTOR_PC_INCLUDEDIR [[${XRPROCDETECTOR_PC_INCLUDEDIR}]])
  set(XRPROCDETECTOR_PC_LIBS [[${XRPROCDETECTOR_PC_LIBS}]])
  set(XRPROCDETECTOR_PC_LIBS_PRIVATE [[${XRPROCDETECTOR_PC_LIBS_PRIVATE}]])
  configure_file([[${CMAKE_CURRENT_LIST_DIR}/xrprocdetector.pc.in]]
      [[${XRPROCDETECTOR_PC_FILE}]] @ONLY)"
    COMPONENT dev)
install(FILES ${XRPROCDETECTOR_PC_FILE} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)

if(XRPROCDETECTOR_BUILD_TOOLS)
  install(TARGETS xrprocdetect RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)

  # The manual page, compressed as Debian ships manual pages (gzip -9n: no
  # name or time stamp, so the same page gives the same bytes).
  find_program(XRPROCDETECTOR_GZIP gzip)
  mark_as_advanced(XRPROCDETECTOR_GZIP)
  set(XRPROCDETECTOR_MAN_PAGE ${PROJECT_SOURCE_DIR}/tools/xrprocdetect.1)
  if(XRPROCDETECTOR_GZIP)
    set(_xrprocdetector_man_gz ${CMAKE_CURRENT_BINARY_DIR}/man/xrprocdetect.1.gz)
    add_custom_command(OUTPUT ${_xrprocdetector_man_gz}
        COMMAND ${CMAKE_COMMAND} -E copy ${XRPROCDETECTOR_MAN_PAGE} man/xrprocdetect.1
        COMMAND ${XRPROCDETECTOR_GZIP} -9nf man/xrprocdetect.1
        DEPENDS ${XRPROCDETECTOR_MAN_PAGE}
        WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
        COMMENT "Compressing the manual page xrprocdetect.1"
        VERBATIM)
    add_custom_target(xrprocdetect_man_page ALL DEPENDS ${_xrprocdetector_man_gz})
    install(FILES ${_xrprocdetector_man_gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
  else()
    install(FILES ${XRPROCDETECTOR_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT tool)
  endif()

  # The bash completion goes where bash-completion loads it from on demand:
  # its pkg-config variable completionsdir, taken relative to this prefix so
  # that `cmake --install --prefix` and CPack's staging keep it inside.
  set(_xrprocdetector_completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    execute_process(
        COMMAND ${PKG_CONFIG_EXECUTABLE} --define-variable=prefix=${CMAKE_INSTALL_PREFIX}
            --define-variable=datadir=${CMAKE_INSTALL_FULL_DATADIR}
            --variable=completionsdir bash-completion
        OUTPUT_VARIABLE _xrprocdetector_found RESULT_VARIABLE _xrprocdetector_result
        OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(_xrprocdetector_result EQUAL 0 AND IS_ABSOLUTE "${_xrprocdetector_found}")
      file(RELATIVE_PATH _xrprocdetector_found ${CMAKE_INSTALL_PREFIX} ${_xrprocdetector_found})
      if(_xrprocdetector_found AND NOT _xrprocdetector_found MATCHES "^\\.\\./")
        set(_xrprocdetector_completions ${_xrprocdetector_found})
      endif()
    endif()
  endif()
  set(XRPROCDETECTOR_BASH_COMPLETION_DIR ${_xrprocdetector_completions} CACHE STRING
      "Where the bash completion of xrprocdetect is installed (relative to the prefix)")
  install(FILES ${PROJECT_SOURCE_DIR}/tools/bash-completion/xrprocdetect
      DESTINATION ${XRPROCDETECTOR_BASH_COMPLETION_DIR}
      COMPONENT tool)
  # The JSON Schema of xrprocdetect -J, for hosts that validate its rows:
  # data a program reads, so beside the data rather than the documentation.
  install(FILES ${PROJECT_SOURCE_DIR}/docs/xrprocdetect.schema.json
      DESTINATION ${CMAKE_INSTALL_DATADIR}/xrprocdetector COMPONENT tool)
endif()

# Packaging (cpack -G DEB) is set up in cmake/Packaging.cmake when present.
if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
  include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
endif()
