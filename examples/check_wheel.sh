#!/usr/bin/env bash
# The wheel as a Python user installs it: `cmake --build BUILD --target
# python-wheel`, then, for the oldest and the newest CPython 3.8 or later
# found besides Debian's /usr/bin/python3 (pyenv's versions, python3 on
# PATH), a fresh venv, `pip install --no-index` of the wheel and nothing
# else, and the module run there with no XRPROCDETECTOR_LIBRARY: it must load
# the wheel's own copy of the library and answer; and with
# XRPROCDETECTOR_LIBRARY naming a missing file, it must try that alone and
# raise XrProcDetectorError, though its own copy is there. The wheel must hold the
# module, the library under its SONAME, the licence, and the tags that say
# Linux on x86-64, any Python 3. Skips (77) where no other Python is found or
# the building Python lacks setuptools or wheel.
#
#   examples/check_wheel.sh BUILD_DIR BUILD_PYTHON VERSION SONAME   (CTest: install.python_wheel)
set -euo pipefail
build=$1 build_python=$2 version=$3 soname=$4
fail() {
  echo "FAILED: $*"
  exit 1
}

# pyenv's root: its own answer, else where it installs itself by default.
pyenv_root=$(pyenv root 2>/dev/null) ||
  pyenv_root=${PYENV_ROOT:-$(getent passwd "$(id -u)" | cut -d: -f6)/.pyenv}
# Every CPython >= 3.8 but Debian's, as "VERSION REAL_PATH", oldest first.
interpreters() {
  local candidate
  for candidate in "$pyenv_root"/versions/*/bin/python3 $(type -ap python3); do
    [ -x "$candidate" ] || continue
    "$candidate" - 2>/dev/null <<'PY' || true
import os, platform, sys
import ensurepip, venv  # noqa: F401  a venv with pip, offline
if platform.python_implementation() == "CPython" and sys.version_info >= (3, 8) \
        and os.path.realpath(sys.executable) != os.path.realpath("/usr/bin/python3"):
    print("%d.%d.%d" % sys.version_info[:3], os.path.realpath(sys.executable))
PY
  done | sort -uV
}
mapfile -t found < <(interpreters)
if [ ${#found[@]} -eq 0 ]; then
  echo "skipped: no CPython 3.8 or later with venv besides Debian's /usr/bin/python3"
  echo "(looked in $pyenv_root/versions and at python3 on PATH)"
  exit 77
fi
if ! "$build_python" -c 'import setuptools, wheel' 2>/dev/null; then
  echo "skipped: $build_python has no setuptools or wheel (Debian: python3-setuptools, python3-wheel)"
  exit 77
fi
chosen=("${found[0]}")
[ ${#found[@]} -gt 1 ] && chosen+=("${found[-1]}")
echo "CPython found besides Debian's: $(printf '%s\n' "${found[@]}" | cut -d' ' -f1 | tr '\n' ' ')"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --build "$build" --target python-wheel >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; fail "cmake --build --target python-wheel"; }
wheel=$build/python-wheel/xrprocdetector-$version-py3-none-linux_x86_64.whl
[ -f "$wheel" ] || fail "no $(basename "$wheel"): $(ls "$build/python-wheel")"
echo "$(basename "$wheel"): $(stat -c %s "$wheel") bytes"

# What the wheel holds.
"$build_python" - "$wheel" "$version" "$soname" "$work/bundled.so" <<'PY'
import sys, zipfile
wheel, version, soname, extracted = sys.argv[1:]
info = "xrprocdetector-%s.dist-info/" % version
with zipfile.ZipFile(wheel) as z:
    for entry in z.infolist():
        print("  %9d  %s" % (entry.file_size, entry.filename))
    names = set(z.namelist())
    expected = {"xrprocdetector/__init__.py", "xrprocdetector/" + soname, info + "LICENSE",
                info + "METADATA", info + "WHEEL", info + "RECORD"}
    assert expected <= names, "missing from the wheel: %s" % (expected - names)
    tags = [l for l in z.read(info + "WHEEL").decode().splitlines() if l.startswith("Tag:")]
    assert tags == ["Tag: py3-none-linux_x86_64"], tags
    metadata = z.read(info + "METADATA").decode().splitlines()
    assert "Version: " + version in metadata and "Requires-Python: >=3.8" in metadata, metadata
    with open(extracted, "wb") as f:
        f.write(z.read("xrprocdetector/" + soname))
PY
readelf -d "$work/bundled.so" | grep -q "(SONAME).*\[$soname\]" ||
  fail "the wheel's library is not $soname"

for entry in "${chosen[@]}"; do
  read -r py_version python <<<"$entry"
  venv=$work/venv-$py_version
  "$python" -m venv "$venv" || fail "python $py_version -m venv"
  env -u PYTHONPATH "$venv/bin/python" -m pip install --no-index --disable-pip-version-check \
    -q "$wheel" || fail "pip install --no-index of the wheel into python $py_version's venv"
  (cd "$work" && env -u XRPROCDETECTOR_LIBRARY -u PYTHONPATH -u LD_LIBRARY_PATH \
    "$venv/bin/python" - "$venv" "$version" "$soname" <<'PY') || fail "the module in python $py_version's venv"
import os, sys
venv, version, soname = sys.argv[1:]
import xrprocdetector as x
here = os.path.dirname(x.__file__)
assert here.startswith(venv + "/"), "the module came from %s" % here
loaded = {line.split()[-1] for line in open("/proc/self/maps") if "libxrprocdetector" in line}
assert loaded == {os.path.join(here, soname)}, "the library came from %s" % loaded
assert x.__version__ == version, x.__version__
n = x.effective_processors()
t = x.topology()
affinity = os.sched_getaffinity(0)
assert t.usable == affinity, (t.usable, affinity)
assert 1 <= n <= len(affinity) and t.effective_processors == n, (n, t.effective_processors)
print("Python %s: effective_processors() = %d; topology(): online %s, usable %s, %d package(s), "
      "%d core(s); library %s" % (sys.version.split()[0], n, sorted(t.online), sorted(t.usable),
                                  len(t.packages), len(t.cores), sorted(loaded)[0]))
PY
  error=$(cd "$work" && env -u PYTHONPATH XRPROCDETECTOR_LIBRARY="$work/nowhere/$soname" \
    "$venv/bin/python" -c 'import xrprocdetector' 2>&1) &&
    fail "python $py_version loaded a library though XRPROCDETECTOR_LIBRARY names a missing file"
  tried=$(sed -n '/^xrprocdetector.XrProcDetectorError: /,$p' <<<"$error" | sed -n 's/^  \([^:]*\):.*/\1/p')
  [ "$tried" = "$work/nowhere/$soname" ] ||
    fail "python $py_version, XRPROCDETECTOR_LIBRARY naming a missing file: $error"
done
echo "the wheel installs offline and runs in ${#chosen[@]} fresh venv(s); a library named"
echo "by XRPROCDETECTOR_LIBRARY is the only one tried"
