#!/usr/bin/env bash
# The C host of docs/c-and-python.md, built against an install of this build
# into a scratch prefix with the link lines the docs give:
#
#   cc -std=c99 host.c $(pkg-config --cflags --libs xrprocdetector)
#   cc -std=c99 -static host.c $(pkg-config --static --cflags --libs xrprocdetector)
#
# The first must need the shared library (where the build made one), the
# second nothing at all; both must run and print the same answers, and the
# threads to start must be between 1 and the processors this process may use.
# Skips (77) without cc or pkg-config.
#
#   examples/check_c_link_lines.sh BUILD_DIR SOURCE_DIR     (CTest: install.c_link_lines)
set -euo pipefail
build=$1 source=$2
for tool in cc pkg-config; do
  command -v "$tool" >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
fail() {
  echo "FAILED: $*"
  exit 1
}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" ||
  { cat "$work/install.log"; fail "cmake --install into a scratch prefix"; }
pc=$(find "$work/prefix" -name xrprocdetector.pc)
[ -n "$pc" ] || fail "no xrprocdetector.pc installed"
libdir=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH=$libdir/pkgconfig
echo "Libs:         $(pkg-config --libs xrprocdetector)"
echo "--static:     $(pkg-config --static --libs xrprocdetector)"

# The docs' first C program, as a reader would copy it.
awk '/^```c$/ { inside = 1; next } /^```$/ && inside { exit } inside' \
  "$source/docs/c-and-python.md" >"$work/host.c"
grep -q 'main(void)' "$work/host.c" || fail "no C program found in docs/c-and-python.md"
cd "$work"

# shellcheck disable=SC2046  # the flags are words
cc -std=c99 host.c $(pkg-config --cflags --libs xrprocdetector) -o host-shared ||
  fail "the shared link line"
# shellcheck disable=SC2046
cc -std=c99 -static host.c $(pkg-config --static --cflags --libs xrprocdetector) -o host-static ||
  fail "the static link line"

needed=$(readelf -d host-shared | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
if compgen -G "$libdir/libxrprocdetector.so.*" >/dev/null; then
  grep -q '^libxrprocdetector\.so\.[0-9]*$' <<<"$needed" ||
    fail "host-shared does not need the shared library: $needed"
fi
if readelf -d host-static | grep -q '(NEEDED)'; then
  fail "host-static needs shared objects: $(readelf -d host-static | grep '(NEEDED)')"
fi

shared_out=$(LD_LIBRARY_PATH=$libdir ./host-shared) || fail "host-shared exited with $?"
static_out=$(./host-static) || fail "host-static exited with $?"
printf 'host-shared (needs %s):\n%s\nhost-static:\n%s\n' "$(tr '\n' ' ' <<<"$needed")" \
  "$shared_out" "$static_out"
[ "$shared_out" = "$static_out" ] || fail "the two hosts answer differently"
threads=$(sed -n 's/^threads to start: \([0-9]*\)$/\1/p' <<<"$shared_out")
usable=$(nproc)  # the processors in this process's affinity
if [ -z "$threads" ] || [ "$threads" -lt 1 ] || [ "$threads" -gt "$usable" ]; then
  fail "threads to start '$threads' is not between 1 and $usable"
fi
echo "both link lines link and run"
