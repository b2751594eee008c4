#!/usr/bin/env bash
# The module installed from a checkout, as docs/c-and-python.md says: a venv
# of Debian's python3 that sees its setuptools and wheel
# (--system-site-packages), then `pip install --no-build-isolation ./python`,
# offline. The installed module must be the venv's, of the project's version,
# a wheel for any platform (it carries no library), and must run on the
# library XRPROCDETECTOR_LIBRARY names. The checkout is copied first (python/
# and the CMakeLists.txt that holds the version), so that pip's build leaves
# nothing in the source tree. Skips (77) where the Python lacks venv,
# setuptools or wheel.
#
#   python_checkout.sh SOURCE_DIR PYTHON VERSION LIBRARY
set -euo pipefail
source=$1 python=$2 version=$3 library=$4
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
