#!/usr/bin/env bash
# Checks the installed package and the Debian package, for the static library
# (the default) and for the shared one:
#
#   examples/check_installed.sh [BUILD_DIR_PARENT]
#
# For each library type it configures and builds the project (Release, no
# tests) in BUILD_DIR_PARENT/package-static or BUILD_DIR_PARENT/package-shared
# (BUILD_DIR_PARENT defaults to build/ in the repository), installs it with
# `cmake --install` into a temporary prefix and checks what was installed
# (library, public headers, CMake package, xrprocdetector.pc, xrprocdetect),
# builds examples/host.cpp against that prefix once with find_package() and
# once with pkg-config, runs both programs and the installed tool (each must
# exit 0), then builds the Debian package with `cpack -G DEB` and checks its
# control fields and that it holds the same files under /usr.
#
# XRPROCDETECTOR_WERROR=ON builds with warnings as errors (default OFF); the
# example is always built with -Wall -Wextra -Wpedantic -Werror. Missing tools
# (cmake, make, g++, pkg-config, dpkg-dev, file) are installed from Debian's
# packages with apt-get when running as root; nothing else is fetched. Exits
# non-zero, naming the failed check, on any failure; removes its temporary
# directories in every case.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
parent=${1:-$root/build}
mkdir -p "$parent"
parent=$(cd "$parent" && pwd)
werror=${XRPROCDETECTOR_WERROR:-OFF}
case "$werror" in
  ON | OFF) ;;
  *)
    echo "check_installed: XRPROCDETECTOR_WERROR must be ON or OFF, not '$werror'" >&2
    exit 2
    ;;
esac
started=$SECONDS

fail() {
  echo "check_installed: FAILED: $*" >&2
  exit 1
}
step() { printf '\n=== %s\n' "$*"; }
ok() { echo "ok: $*"; }

# --- tools -------------------------------------------------------------------
missing=()
command -v cmake >/dev/null || missing+=(cmake)
command -v make >/dev/null || missing+=(make)
command -v g++ >/dev/null || missing+=(g++)
command -v pkg-config >/dev/null || missing+=(pkg-config)
command -v dpkg-shlibdeps >/dev/null || missing+=(dpkg-dev)
command -v file >/dev/null || missing+=(file)
command -v readelf >/dev/null || missing+=(binutils)
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    fail "missing: ${missing[*]}; install them (apt-get install ${missing[*]}) or run as root"
  fi
  echo "installing missing Debian packages: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi
for tool in cmake cpack g++ pkg-config dpkg-deb dpkg-shlibdeps file readelf ldd; do
  command -v "$tool" >/dev/null || fail "$tool is not available"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/xrprocdetector-check.XXXXXX")
trap 'rm -rf "$work"' EXIT

version=$(sed -n 's/^project(XrProcDetector VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
[ -n "$version" ] || fail "no project version found in CMakeLists.txt"
soversion=${version%%.*}
arch=amd64
deb_name="xrprocdetector_${version}-1_${arch}.deb"

# The public headers: those beside the library's sources (internal/ holds the
# ones hosts never see).
headers=()
for h in "$root"/xrprocdetector/*.h; do headers+=("$(basename "$h")"); done
[ ${#headers[@]} -ge 5 ] || fail "expected at least 5 public headers, found ${#headers[@]}"

# The files the install must hold, relative to the prefix.
expected_files() {
  local kind=$1 h
  for h in "${headers[@]}"; do echo "include/xrprocdetector/$h"; done
  echo lib/cmake/XrProcDetector/XrProcDetectorConfig.cmake
  echo lib/cmake/XrProcDetector/XrProcDetectorConfigVersion.cmake
  echo lib/cmake/XrProcDetector/XrProcDetectorTargets.cmake
  echo lib/pkgconfig/xrprocdetector.pc
  echo bin/xrprocdetect
  if [ "$kind" = static ]; then
    echo lib/libxrprocdetector.a
  else
    echo "lib/libxrprocdetector.so.$version"
    echo "lib/libxrprocdetector.so.$soversion"
    echo lib/libxrprocdetector.so
  fi
}

# run_host NAME BINARY: runs an example program, which must exit 0 and print
# the counts.
run_host() {
  local name=$1 binary=$2 out
  out=$("$binary") || fail "$name exited with status $?"
  printf '%s\n' "$out"
  grep -Eq '^[0-9]+ packages, [0-9]+ cores, [0-9]+ logical processors$' <<<"$out" ||
    fail "$name did not print the counts"
  ok "$name ran and exited 0"
}

# check_linkage NAME BINARY KIND PREFIX: a static host does not need the
# shared library; a shared one needs it and finds it in PREFIX/lib.
check_linkage() {
  local name=$1 binary=$2 kind=$3 prefix=$4 needed resolved
  needed=$(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  if [ "$kind" = static ]; then
    if grep -q '^libxrprocdetector' <<<"$needed"; then fail "$name needs the shared library"; fi
    ok "$name has the library linked in"
  else
    grep -qx "libxrprocdetector.so.$soversion" <<<"$needed" ||
      fail "$name does not need libxrprocdetector.so.$soversion"
    resolved=$(ldd "$binary" | sed -n "s/^[[:space:]]*libxrprocdetector\.so\.$soversion => \([^ ]*\).*/\1/p")
    [ "$resolved" = "$prefix/lib/libxrprocdetector.so.$soversion" ] ||
      fail "$name loads libxrprocdetector.so.$soversion from '${resolved:-nowhere}', not $prefix/lib"
    ok "$name loads the installed libxrprocdetector.so.$soversion"
  fi
}

check() {
  local kind=$1 shared build prefix installed deb info contents pc_prefix
  [ "$kind" = shared ] && shared=ON || shared=OFF
  build=$parent/package-$kind
  prefix=$work/$kind/prefix

  step "$kind library: configure and build ($build)"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DXRPROCDETECTOR_BUILD_TESTS=OFF \
    -DXRPROCDETECTOR_BUILD_TOOLS=ON -DXRPROCDETECTOR_INSTALL=ON -DBUILD_SHARED_LIBS="$shared" \
    -DCMAKE_INSTALL_LIBDIR=lib -DXRPROCDETECTOR_WERROR="$werror" >/dev/null ||
    fail "configuring the $kind build"
  cmake --build "$build" -j2 >/dev/null || fail "building the $kind library and tool"
  ok "built"

  step "$kind library: cmake --install into a temporary prefix"
  cmake --install "$build" --prefix "$prefix" >/dev/null || fail "installing the $kind build"
  installed=$(cd "$prefix" && find . \( -type f -o -type l \) | sed 's|^\./||' | sort)
  printf '%s\n' "$installed"
  while read -r f; do
    [ -e "$prefix/$f" ] || fail "not installed: $f"
  done < <(expected_files "$kind")
  ok "every expected file is installed"
  if grep -q '^include/xrprocdetector/internal/' <<<"$installed"; then
    fail "internal headers were installed"
  fi
  if [ "$kind" = static ]; then
    if grep -q '^lib/libxrprocdetector\.so' <<<"$installed"; then
      fail "the static build installed a shared library"
    fi
  else
    [ "$(readlink "$prefix/lib/libxrprocdetector.so")" = "libxrprocdetector.so.$soversion" ] ||
      fail "libxrprocdetector.so does not point to libxrprocdetector.so.$soversion"
    readelf -d "$prefix/lib/libxrprocdetector.so.$version" |
      grep -q "(SONAME).*\[libxrprocdetector\.so\.$soversion\]" ||
      fail "the shared library's SONAME is not libxrprocdetector.so.$soversion"
    ok "shared library, symlinks and SONAME"
  fi
  [ -x "$prefix/bin/xrprocdetect" ] || fail "bin/xrprocdetect is not executable"
  for h in "${headers[@]}"; do
    g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" \
      -x c++ - <<<"#include <xrprocdetector/$h>" || fail "installed header $h does not compile alone"
  done
  ok "each installed header compiles on its own"
  LD_LIBRARY_PATH="$prefix/lib" "$prefix/bin/xrprocdetect" >/dev/null ||
    fail "the installed xrprocdetect exited with status $?"
  ok "the installed xrprocdetect ran and exited 0"

  step "$kind library: example with find_package(XrProcDetector)"
  cmake -S "$root/examples" -B "$work/$kind/host-cmake" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS=-Werror >/dev/null ||
    fail "configuring the example with find_package"
  local found
  found=$(sed -n 's/^XrProcDetector_DIR:PATH=//p' "$work/$kind/host-cmake/CMakeCache.txt")
  [ "$found" = "$prefix/lib/cmake/XrProcDetector" ] ||
    fail "find_package used '$found', not the installed package"
  cmake --build "$work/$kind/host-cmake" >/dev/null || fail "building the example with CMake"
  check_linkage "host (CMake)" "$work/$kind/host-cmake/host" "$kind" "$prefix"
  run_host "host (CMake)" "$work/$kind/host-cmake/host"

  step "$kind library: example with pkg-config"
  export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
  [ "$(pkg-config --modversion xrprocdetector)" = "$version" ] ||
    fail "pkg-config does not report version $version"
  pc_prefix=$(pkg-config --variable=prefix xrprocdetector)
  [ "$pc_prefix" = "$prefix" ] || fail "xrprocdetector.pc names prefix '$pc_prefix', not $prefix"
  local flags
  flags=$(pkg-config --cflags --libs xrprocdetector)
  echo "pkg-config --cflags --libs xrprocdetector: $flags"
  # A shared library outside the loader's directories: the program carries
  # the installed library directory as its run path.
  local rpath=()
  [ "$kind" = shared ] && rpath=("-Wl,-rpath,$(pkg-config --variable=libdir xrprocdetector)")
  # shellcheck disable=SC2086  # the flags are words
  g++ -std=c++17 -O2 -Wall -Wextra -Wpedantic -Werror "$root/examples/host.cpp" $flags \
    "${rpath[@]}" -o "$work/$kind/host-pc" || fail "building the example with pkg-config"
  unset PKG_CONFIG_PATH
  check_linkage "host (pkg-config)" "$work/$kind/host-pc" "$kind" "$prefix"
  run_host "host (pkg-config)" "$work/$kind/host-pc"

  step "$kind library: cpack -G DEB"
  rm -f "$build"/*.deb
  (cd "$build" && cpack -G DEB >/dev/null) || fail "cpack -G DEB in $build"
  deb=$build/$deb_name
  [ -f "$deb" ] || fail "cpack did not write $deb_name"
  info=$(dpkg-deb -I "$deb") || fail "dpkg-deb -I $deb_name"
  printf '%s\n' "$info"
  field() { dpkg-deb -f "$deb" "$1"; }
  [ "$(field Package)" = xrprocdetector ] || fail "Package is not xrprocdetector"
  [ "$(field Version)" = "$version-1" ] || fail "Version is not $version-1"
  [ "$(field Architecture)" = "$arch" ] || fail "Architecture is not $arch"
  [ -n "$(field Maintainer)" ] || fail "no Maintainer"
  [ -n "$(field Section)" ] || fail "no Section"
  [ -n "$(field Description)" ] || fail "no Description"
  local depends
  depends=$(field Depends)
  for dep in libc6 libstdc++6; do
    tr ',' '\n' <<<"$depends" | sed 's/^ *//; s/ .*//' | grep -qxF "$dep" || fail "Depends does not name $dep: '$depends'"
  done
  if grep -q xrprocdetector <<<"$depends"; then fail "the package depends on itself: '$depends'"; fi
  if [ "$kind" = shared ]; then
    dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs |
      grep -qx "libxrprocdetector $soversion xrprocdetector (>= $version-1)" ||
      fail "the shlibs file does not name libxrprocdetector $soversion"
    dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./postinst | grep -q ldconfig ||
      fail "postinst does not run ldconfig"
    ok "shlibs file and ldconfig call"
  fi
  ok "control fields"
  contents=$(dpkg-deb -c "$deb") || fail "dpkg-deb -c $deb_name"
  printf '%s\n' "$contents"
  local packed
  packed=$(awk '$1 !~ /^d/ {print $6}' <<<"$contents" | sed 's|^\./usr/||' | sort)
  local misplaced
  misplaced=$(awk '$1 !~ /^d/ && ($6 !~ /^\.\/usr\// || $6 ~ /^\.\/usr\/local\//) {print $6}' \
    <<<"$contents")
  [ -z "$misplaced" ] || fail "files outside /usr or under /usr/local: $(tr '\n' ' ' <<<"$misplaced")"
  while read -r f; do
    grep -qx "$f" <<<"$packed" || fail "not in the package: /usr/$f"
  done < <(expected_files "$kind")
  [ "$packed" = "$installed" ] ||
    fail "the package and the install differ: $(diff <(echo "$installed") <(echo "$packed") | grep '^[<>]' | tr '\n' ' ')"
  ok "the package holds every installed file under /usr, and nothing else"
  dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/pkgconfig/xrprocdetector.pc |
    grep -qx 'prefix=/usr' || fail "the packaged xrprocdetector.pc does not name prefix /usr"
  ok "the packaged xrprocdetector.pc names prefix /usr"
}

check static
check shared

step "all checks passed in $((SECONDS - started)) s"
