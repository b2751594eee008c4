#!/usr/bin/env bash
# Builds xrprocdetector and runs the tool or the whole test suite.
#
#   ./quickstart.sh run [xrprocdetect options]   build, then run xrprocdetect on this machine
#   ./quickstart.sh test                         build, then run every test with CTest
#
# Missing build tools (cmake, make, g++, and for `test` libgtest-dev and
# python3-pytest) are
# installed from Debian's packages with apt-get when running as root; nothing
# else is fetched. Set XRPROCDETECTOR_WERROR=ON to build with warnings as
# errors (CI does).
set -euo pipefail
cd "$(dirname "$0")"

mode=${1:-}
case "$mode" in
  run | test) shift ;;
  *)
    echo "usage: $0 run [xrprocdetect options] | $0 test" >&2
    exit 2
    ;;
esac

missing=()
command -v cmake >/dev/null || missing+=(cmake)
command -v make >/dev/null || missing+=(make)
command -v g++ >/dev/null || missing+=(g++)
if [ "$mode" = test ] && [ ! -e /usr/include/gtest/gtest.h ]; then missing+=(libgtest-dev); fi
# The Python module's tests run with Debian's python3 and pytest.
if [ "$mode" = test ] && ! /usr/bin/python3 -c 'import pytest' 2>/dev/null; then
  missing+=(python3-pytest)
fi
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing: ${missing[*]}; install them (apt-get install ${missing[*]}) or run as root" >&2
    exit 1
  fi
  echo "installing missing Debian packages: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

jobs=$(nproc 2>/dev/null || echo 2)
werror=${XRPROCDETECTOR_WERROR:-OFF}
if [ "$mode" = run ]; then
  cmake -S . -B build/quickstart -DCMAKE_BUILD_TYPE=Release -DXRPROCDETECTOR_BUILD_TESTS=OFF \
    -DXRPROCDETECTOR_WERROR="$werror" >/dev/null
  cmake --build build/quickstart -j "$jobs" --target xrprocdetect >/dev/null
  exec build/quickstart/tools/xrprocdetect "$@"
fi
cmake --preset release -DXRPROCDETECTOR_WERROR="$werror" >/dev/null
cmake --build --preset release -j "$jobs"
ctest --preset release -j "$jobs"
