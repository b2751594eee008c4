# `cmake --build BUILD --target python-wheel`: the Python module as a wheel
# that carries this build's shared library, in BUILD/python-wheel/
# (xrprocdetector-VERSION-py3-none-linux_x86_64.whl), made by
# cmake/python_wheel.py with setuptools and wheel (Debian: python3-setuptools,
# python3-wheel). A shared build's only: a static build has no library to carry.
find_program(XRPROCDETECTOR_WHEEL_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH
    DOC "The Python that builds the wheel; it needs setuptools >= 61 and wheel")
if(BUILD_SHARED_LIBS AND XRPROCDETECTOR_WHEEL_PYTHON)
  set(XRPROCDETECTOR_WHEEL_DIR ${PROJECT_BINARY_DIR}/python-wheel)
  add_custom_target(python-wheel
      COMMAND ${XRPROCDETECTOR_WHEEL_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/python_wheel.py
          $<TARGET_SONAME_FILE:xrprocdetector> ${PROJECT_VERSION} ${PROJECT_SOURCE_DIR}/python
          ${XRPROCDETECTOR_WHEEL_DIR} "${CMAKE_STRIP}"
      COMMENT "The Python wheel, carrying $<TARGET_SONAME_FILE_NAME:xrprocdetector>"
      VERBATIM)
  add_dependencies(python-wheel xrprocdetector)
endif()
