# SPDX-License-Identifier: Apache-2.0
"""Builds the Python wheel that carries the shared library (the target
python-wheel runs it):

  python3 cmake/python_wheel.py LIBRARY VERSION SOURCE_DIR OUT_DIR [STRIP]

It stages python/ (pyproject.toml, setup.py, the package) with LIBRARY, the
built libxrprocdetector.so.N, copied beside __init__.py under its SONAME,
stripped with STRIP when given, the project's LICENSE and a VERSION file, and
builds the wheel there with setuptools' PEP 517 backend: OUT_DIR/
xrprocdetector-VERSION-py3-none-linux_x86_64.whl. Needs setuptools >= 61 and
wheel (Debian: python3-setuptools, python3-wheel).
"""
import glob
import importlib.util
import os
import shutil
import subprocess
import sys


def main(library, version, source, out, strip=""):
    # setuptools builds the wheel with the bdist_wheel command that wheel provides.
    missing = [name for name in ("setuptools", "wheel") if importlib.util.find_spec(name) is None]
    if missing:
        sys.exit("python-wheel: %s has no %s; install setuptools and wheel (Debian: apt-get "
                 "install python3-setuptools python3-wheel)" % (sys.executable, " or ".join(missing)))
    import setuptools
    if int(setuptools.__version__.split(".")[0]) < 61:
        sys.exit("python-wheel: setuptools %s is too old for pyproject.toml's [project]; "
                 "61 or later is needed" % setuptools.__version__)
    stage = os.path.join(out, "stage")
    shutil.rmtree(stage, ignore_errors=True)
    shutil.copytree(os.path.join(source, "xrprocdetector"), os.path.join(stage, "xrprocdetector"),
                    ignore=shutil.ignore_patterns("__pycache__", "*.so*"))
    for name in ("pyproject.toml", "setup.py"):
        shutil.copy(os.path.join(source, name), stage)
    shutil.copy(os.path.join(source, "..", "LICENSE"), stage)
    with open(os.path.join(stage, "VERSION"), "w") as f:
        f.write(version + "\n")
    bundled = os.path.join(stage, "xrprocdetector", os.path.basename(library))
    shutil.copy(library, bundled)  # the file itself, where LIBRARY is the SONAME's link
    if strip:
        subprocess.run([strip, "--strip-unneeded", bundled], check=True)
    for old in glob.glob(os.path.join(out, "xrprocdetector-*.whl")):
        os.remove(old)
    os.chdir(stage)
    from setuptools import build_meta
    name = build_meta.build_wheel(os.path.abspath(out))
    print("python-wheel: %s" % os.path.join(out, name))


if __name__ == "__main__":
    if len(sys.argv) not in (5, 6):
        sys.exit(__doc__)
    main(*sys.argv[1:])
