"""How the module finds its library: the file XRPROCDETECTOR_LIBRARY names,
which alone is tried when set; else the copy beside __init__.py (a wheel's);
else the system's by its SONAME. When none loads, the import raises
XrProcDetectorError naming what it tried and how to fix it."""
import os
import shutil
import subprocess
import sys

import pytest

import xrprocdetector as xr

BUILT = os.environ["XRPROCDETECTOR_LIBRARY"]  # this build's library, as CTest names it
# What the child prints: the library files mapped into it once imported.
SHOW_MAPS = ("import xrprocdetector\n"
             "print(sorted({l.split()[-1] for l in open('/proc/self/maps') if 'libxrprocdetector' in l}))")


@pytest.fixture
def package(tmp_path):
    """A copy of the module with no library beside it; the folder to put on the path."""
    shutil.copytree(os.path.dirname(xr.__file__), str(tmp_path / "xrprocdetector"),
                    ignore=shutil.ignore_patterns("__pycache__"))
    return tmp_path


def import_in_child(package, code=SHOW_MAPS, **environment):
    """Runs code (by default, imports the copy) in a fresh interpreter with only
    the library variables given."""
    env = {k: v for k, v in os.environ.items()
           if k not in ("XRPROCDETECTOR_LIBRARY", "LD_LIBRARY_PATH")}
    env.update(environment, PYTHONPATH=str(package))
    return subprocess.run([sys.executable, "-c", code], env=env, cwd=str(package),
                          capture_output=True, text=True, check=False)


def test_the_soname_major_is_the_built_librarys():
    # libxrprocdetector.so.MAJOR.MINOR.PATCH, as CMake names the file it built.
    assert os.path.basename(BUILT).split(".so.")[1].split(".")[0] == str(xr._SONAME_MAJOR)


def test_the_copy_beside_the_module_is_loaded(package):
    bundled = package / "xrprocdetector" / xr._SONAME
    shutil.copy(BUILT, str(bundled))
    child = import_in_child(package)
    assert child.returncode == 0, child.stderr
    assert child.stdout.strip() == str([str(bundled)])


def test_a_named_library_is_the_only_one_tried(package):
    shutil.copy(BUILT, str(package / "xrprocdetector" / xr._SONAME))  # would load, if tried
    missing = str(package / "nowhere" / xr._SONAME)
    child = import_in_child(package, XRPROCDETECTOR_LIBRARY=missing)
    assert child.returncode != 0
    error = child.stderr[child.stderr.index("xrprocdetector.XrProcDetectorError"):]
    assert error.count("cannot open shared object file") == 1 and missing in error
    assert "set XRPROCDETECTOR_LIBRARY to the path of %s" % xr._SONAME in error


def test_nothing_to_load_names_what_was_tried_and_the_fixes(package):
    # Asked in a fresh process: this one has the built library, of that SONAME, loaded.
    if import_in_child(package, "import ctypes; ctypes.CDLL(%r)" % xr._SONAME).returncode == 0:
        pytest.skip("this system has %s installed" % xr._SONAME)
    child = import_in_child(package)
    assert child.returncode != 0 and "OSError" not in child.stderr
    error = child.stderr[child.stderr.index("xrprocdetector.XrProcDetectorError"):]
    tried = [line.strip() for line in error.splitlines() if line.startswith("  ")]
    assert [line.split(":")[0] for line in tried] == \
        [str(package / "xrprocdetector" / xr._SONAME), xr._SONAME]
    for fix in ("pip install xrprocdetector-", "libxrprocdetector%d" % xr._SONAME_MAJOR,
                "XRPROCDETECTOR_LIBRARY"):
        assert fix in error
