#!/usr/bin/env bash
# The module installed from a checkout, as docs/c-and-python.md says: a venv
# of Debian's python3 that sees its setuptools and wheel
# (--system-site-packages), then `pip install --no-build-isolation ./python`,
# offline. The installed module must be the venv's, of the project's version,
# a wheel for any platform (it carries no library), and must run on the
# library XRPROCDETECTOR_LIBRARY names. Without it, where the system has no
# SONAME to load either, the import must raise XrProcDetectorError naming
# the files it tried, in order (beside the module, then the SONAME), and the
# ways to get one. The checkout is copied first (python/ and the
# CMakeLists.txt that holds the version), so that pip's build leaves nothing
# in the source tree. Skips (77) where the Python lacks venv, setuptools or
# wheel.
#
#   examples/check_pip_checkout.sh SOURCE_DIR PYTHON VERSION LIBRARY SONAME
#                                                    (CTest: install.python_checkout)
set -euo pipefail
source=$1 python=$2 version=$3 library=$4 soname=$5
fail() {
  echo "FAILED: $*"
  exit 1
}
if ! "$python" -c 'import ensurepip, setuptools, wheel' 2>/dev/null; then
  echo "skipped: $python lacks venv, setuptools or wheel (Debian: python3-venv, python3-setuptools, python3-wheel)"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/checkout"
cp "$source/CMakeLists.txt" "$work/checkout/"
cp -r "$source/python" "$work/checkout/"
find "$work/checkout" -name __pycache__ -prune -exec rm -rf {} +

"$python" -m venv --system-site-packages "$work/venv" || fail "$python -m venv"
(cd "$work/checkout" && env -u PYTHONPATH "$work/venv/bin/python" -m pip install \
  --no-build-isolation --no-index --disable-pip-version-check -q ./python) ||
  fail "pip install --no-build-isolation ./python"
(cd "$work" && env -u PYTHONPATH XRPROCDETECTOR_LIBRARY="$library" \
  "$work/venv/bin/python" - "$work/venv" "$version" <<'PY') || fail "the module installed from the checkout"
import glob, os, sys
venv, version = sys.argv[1:]
import xrprocdetector as x
assert os.path.dirname(x.__file__).startswith(venv + "/"), x.__file__
infos = glob.glob(os.path.join(os.path.dirname(os.path.dirname(x.__file__)),
                               "xrprocdetector-%s.dist-info" % version))
assert len(infos) == 1, "no xrprocdetector-%s.dist-info beside the module" % version
with open(os.path.join(infos[0], "WHEEL")) as f:
    assert "Tag: py3-none-any" in f.read().splitlines(), "not a wheel for any platform"
assert x.effective_processors() >= 1
print("installed from the checkout: %s, version %s, effective_processors() = %d"
      % (x.__file__, version, x.effective_processors()))
PY

# Nothing to load: no copy beside the module, no library named.
if ! error=$(cd "$work" && env -u PYTHONPATH XRPROCDETECTOR_LIBRARY= LD_LIBRARY_PATH= \
  "$work/venv/bin/python" -c 'import xrprocdetector' 2>&1); then
  error=$(sed -n '/^xrprocdetector.XrProcDetectorError: /,$p' <<<"$error")  # past the traceback
  echo "$error"
  [ -n "$error" ] || fail "the import failed without XrProcDetectorError"
  site=$("$work/venv/bin/python" -c 'import sysconfig; print(sysconfig.get_path("purelib"))')
  tried=$(sed -n 's/^  \([^:]*\):.*/\1/p' <<<"$error" | tr '\n' ' ')
  [ "$tried" = "$site/xrprocdetector/$soname $soname " ] || fail "the import tried: $tried"
  for fix in "pip install xrprocdetector-" "Debian package libxrprocdetector${soname##*.}," \
    XRPROCDETECTOR_LIBRARY; do
    grep -qF "$fix" <<<"$error" || fail "the error does not say '$fix'"
  done
  echo "an import with nothing to load raises XrProcDetectorError, naming what it tried"
else
  echo "this system has $soname: the error of an import with nothing to load is not checked"
fi
