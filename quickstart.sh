#!/usr/bin/env bash
# Builds xrprocdetector and runs the tool or the whole test suite.
#
#   ./quickstart.sh run [xrprocdetect options]   build, then run xrprocdetect on this machine
#   ./quickstart.sh test                         build, then run every test with CTest
#
# Both use one build, build/release (the CMake preset `release`), configured
# the same way: `run` builds the library and the tool, `test` reuses them and
# builds the tests beside them. Each stage (configure, build, test) is named
# as it starts, with the compiler's progress, and timed; `run` writes all of
# that to standard error, so that standard output is the tool's alone.
#
# Missing build tools (cmake, make, g++, libgtest-dev, and for `test`
# python3-pytest, python3-setuptools, python3-wheel, python3-venv and
# pkg-config) are installed from Debian's packages with apt-get when running
# as root; nothing else is fetched. Set XRPROCDETECTOR_WERROR=ON to build
# with warnings as errors (CI does).
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
if [ "$mode" = run ]; then exec 3>&2; else exec 3>&1; fi

missing=()
command -v cmake >/dev/null || missing+=(cmake)
command -v make >/dev/null || missing+=(make)
command -v g++ >/dev/null || missing+=(g++)
# The tests are part of the one configuration, so both modes need GoogleTest.
[ -e /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
if [ "$mode" = test ]; then
  # The Python module's tests, the wheel and the C link lines: Debian's
  # python3 with pytest, setuptools, wheel and venv, and pkg-config.
  /usr/bin/python3 -c 'import pytest' 2>/dev/null || missing+=(python3-pytest)
  /usr/bin/python3 -c 'import setuptools' 2>/dev/null || missing+=(python3-setuptools)
  /usr/bin/python3 -c 'import wheel' 2>/dev/null || missing+=(python3-wheel)
  /usr/bin/python3 -c 'import ensurepip' 2>/dev/null || missing+=(python3-venv)
  command -v pkg-config >/dev/null || missing+=(pkg-config)
fi
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing: ${missing[*]}; install them (apt-get install ${missing[*]}) or run as root" >&2
    exit 1
  fi
  echo "installing missing Debian packages: ${missing[*]}" >&3
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi

jobs=$(nproc 2>/dev/null || echo 2)
werror=${XRPROCDETECTOR_WERROR:-OFF}
times=()
# stage NAME COMMAND...: runs the command as one named, timed stage.
stage() {
  local name=$1 started=$SECONDS
  shift
  printf '\n=== quickstart %s: %s\n' "$mode" "$name" >&3
  "$@" >&3 || {
    local status=$?
    printf '=== %s: FAILED after %d s\n' "$name" $((SECONDS - started)) >&3
    exit $status
  }
  times+=("${name%% (*} $((SECONDS - started)) s")
  printf '=== %s: done in %d s\n' "$name" $((SECONDS - started)) >&3
}
summary() {
  local text
  text=$(printf '%s, ' "${times[@]}")
  printf '\n=== quickstart %s, stage times: %s\n' "$mode" "${text%, }" >&3
}

stage "configure (build/release, Release, tests included)" \
  cmake --preset release -DXRPROCDETECTOR_WERROR="$werror" --log-level=WARNING
if [ "$mode" = run ]; then
  stage "build the library and xrprocdetect ($jobs jobs)" \
    cmake --build --preset release -j "$jobs" --target xrprocdetect
  summary
  printf '=== build/release/tools/xrprocdetect %s\n\n' "$*" >&3
  exec build/release/tools/xrprocdetect "$@"
fi
stage "build the library, the tool and the tests ($jobs jobs)" \
  cmake --build --preset release -j "$jobs"
stage "test (CTest, $jobs at a time)" ctest --preset release -j "$jobs"
summary
