# SPDX-License-Identifier: Apache-2.0
"""What pyproject.toml leaves to setuptools' own words: the version, the
package with the library the wheel target puts in it, and the wheel's
platform.

The version is CMake's project version: from the file VERSION beside this one
where the wheel target wrote it, else from the checkout's CMakeLists.txt. A
wheel that carries the shared library is for Linux on x86-64 only; without it
the module is pure Python and its wheel is for any platform.
"""
import glob
import os
import re

from setuptools import setup

HERE = os.path.dirname(os.path.abspath(__file__))


def version() -> str:
    written = os.path.join(HERE, "VERSION")
    if os.path.exists(written):
        with open(written) as f:
            return f.read().strip()
    project = os.path.join(HERE, "..", "CMakeLists.txt")
    found = None
    if os.path.exists(project):
        with open(project) as f:
            found = re.search(r"project\(XrProcDetector VERSION ([0-9.]+)", f.read())
    if not found:
        raise SystemExit("xrprocdetector: no version; build from the checkout's python/ folder "
                         "(its ../CMakeLists.txt names it), or build the wheel with "
                         "cmake --build BUILD --target python-wheel")
    return found.group(1)


carries_library = glob.glob(os.path.join(HERE, "xrprocdetector", "libxrprocdetector.so.*"))
setup(version=version(), packages=["xrprocdetector"],
      package_data={"xrprocdetector": ["libxrprocdetector.so.*"]},
      options={"bdist_wheel": {"plat_name": "linux_x86_64"}} if carries_library else {})
