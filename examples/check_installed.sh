#!/usr/bin/env bash
# Checks the installed package and the Debian packages, for the static library
# (the default) and for the shared one:
#
#   examples/check_installed.sh [BUILD_DIR_PARENT]
#
# For each library type it configures and builds the project (Release, no
# tests) in BUILD_DIR_PARENT/package-static or BUILD_DIR_PARENT/package-shared
# (BUILD_DIR_PARENT defaults to build/ in the repository), configured as the
# README's Debian recipe is (prefix /usr, so the library goes to the multiarch
# directory). It installs the build with `cmake --install` into a temporary
# prefix and checks what was installed
# (library, public headers, CMake package, xrprocdetector.pc, xrprocdetect,
# its manual page and bash completion), builds examples/host.cpp against that
# prefix once with find_package() and once with pkg-config, and runs both
# programs and the installed tool (each must exit 0).
#
# Then it builds the Debian packages with `cpack -G DEB`: libxrprocdetector-dev
# and xrprocdetect, and from the shared build libxrprocdetector2 and
# python3-xrprocdetector as well. It
# checks their control fields, that each holds its share of the installed
# files and nothing else but its copyright and changelog.Debian.gz, and runs
# lintian on them: no error, and no warning but the ones the README lists.
# Last, the shared build's four packages are installed with dpkg into a
# scratch root (a dpkg database of its own; nothing goes to this system), and
# the example is built against them with find_package() (shared and static
# library) and with pkg-config, and run, and the Python module is loaded.
#
# XRPROCDETECTOR_WERROR=ON builds with warnings as errors (default OFF); the
# example is always built with -Wall -Wextra -Wpedantic -Werror. Missing tools
# (cmake, make, g++, pkg-config, dpkg-dev, file, binutils, lintian) are
# installed from Debian's packages with apt-get when running as root; nothing
# else is fetched. Exits non-zero, naming the failed check, on any failure;
# removes its temporary directories in every case.
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
command -v lintian >/dev/null || missing+=(lintian)
command -v man >/dev/null || missing+=(man-db)
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    fail "missing: ${missing[*]}; install them (apt-get install ${missing[*]}) or run as root"
  fi
  echo "installing missing Debian packages: ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
fi
for tool in cmake cpack g++ pkg-config dpkg dpkg-deb dpkg-shlibdeps file readelf ldd lintian; do
  command -v "$tool" >/dev/null || fail "$tool is not available"
done

work=$(mktemp -d "${TMPDIR:-/tmp}/xrprocdetector-check.XXXXXX")
trap 'rm -rf "$work"' EXIT

version=$(sed -n 's/^project(XrProcDetector VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
[ -n "$version" ] || fail "no project version found in CMakeLists.txt"
soversion=${version%%.*}
arch=amd64
runtime_pkg=libxrprocdetector$soversion
dev_pkg=libxrprocdetector-dev
tool_pkg=xrprocdetect
python_pkg=python3-xrprocdetector
python_dir=lib/python3/dist-packages
# The lintian warnings the README lists, with their reasons; any other
# warning, and any error, fails the check.
lintian_known_warnings=initial-upload-closes-no-bugs

# The public headers: those of include/xrprocdetector (src/ holds the ones
# hosts never see).
headers=()
for h in "$root"/include/xrprocdetector/*.h; do headers+=("$(basename "$h")"); done
[ ${#headers[@]} -ge 7 ] || fail "expected at least 7 public headers, found ${#headers[@]}"

# expected_files KIND LIBDIR: the files the install must hold, relative to
# the prefix.
expected_files() {
  local kind=$1 libdir=$2 h
  for h in "${headers[@]}"; do echo "include/xrprocdetector/$h"; done
  echo "$libdir/cmake/XrProcDetector/XrProcDetectorConfig.cmake"
  echo "$libdir/cmake/XrProcDetector/XrProcDetectorConfigVersion.cmake"
  echo "$libdir/cmake/XrProcDetector/XrProcDetectorTargets.cmake"
  echo "$libdir/pkgconfig/xrprocdetector.pc"
  echo "$libdir/libxrprocdetector.a"
  echo bin/xrprocdetect
  echo share/man/man1/xrprocdetect.1.gz
  echo share/bash-completion/completions/xrprocdetect
  echo share/xrprocdetector/xrprocdetect.schema.json
  if [ "$kind" = shared ]; then
    echo "$libdir/libxrprocdetector.so.$version"
    echo "$libdir/libxrprocdetector.so.$soversion"
    echo "$libdir/libxrprocdetector.so"
    echo "$python_dir/xrprocdetector/__init__.py"
  fi
}

# arch_of PACKAGE: its architecture; the Python module's is all.
arch_of() {
  [ "$1" = "$python_pkg" ] && echo all || echo "$arch"
}

# package_of FILE LIBDIR: the Debian package an installed file belongs to.
package_of() {
  case $1 in
    bin/* | share/man/* | share/bash-completion/* | share/xrprocdetector/*) echo "$tool_pkg" ;;
    "$2"/libxrprocdetector.so.*) echo "$runtime_pkg" ;;
    "$python_dir"/*) echo "$python_pkg" ;;
    *) echo "$dev_pkg" ;;
  esac
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

# check_linkage NAME BINARY KIND LIBDIR: a static host does not need the
# shared library; a shared one needs it and finds it in LIBDIR.
check_linkage() {
  local name=$1 binary=$2 kind=$3 libdir=$4 needed resolved
  needed=$(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  if [ "$kind" = static ]; then
    if grep -q '^libxrprocdetector' <<<"$needed"; then fail "$name needs the shared library"; fi
    ok "$name has the library linked in"
  else
    grep -qx "libxrprocdetector.so.$soversion" <<<"$needed" ||
      fail "$name does not need libxrprocdetector.so.$soversion"
    resolved=$(ldd "$binary" | sed -n "s/^[[:space:]]*libxrprocdetector\.so\.$soversion => \([^ ]*\).*/\1/p")
    [ "$resolved" = "$libdir/libxrprocdetector.so.$soversion" ] ||
      fail "$name loads libxrprocdetector.so.$soversion from '${resolved:-nowhere}', not $libdir"
    ok "$name loads libxrprocdetector.so.$soversion from $libdir"
  fi
}

# build_host_cmake NAME KIND PREFIX LIBDIR [CMAKE ARGS...]: the example with
# find_package(XrProcDetector) from PREFIX, which must find the package there.
build_host_cmake() {
  local name=$1 kind=$2 prefix=$3 libdir=$4 found
  shift 4
  cmake -S "$root/examples" -B "$work/$name" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS=-Werror "$@" >/dev/null ||
    fail "configuring $name with find_package"
  found=$(sed -n 's/^XrProcDetector_DIR:PATH=//p' "$work/$name/CMakeCache.txt")
  [ "$found" = "$libdir/cmake/XrProcDetector" ] ||
    fail "find_package used '$found', not $libdir/cmake/XrProcDetector"
  cmake --build "$work/$name" >/dev/null || fail "building $name with CMake"
  for program in host detect_host; do
    check_linkage "$name $program (CMake)" "$work/$name/$program" "$kind" "$libdir"
    run_host "$name $program (CMake)" "$work/$name/$program"
  done
}

# build_host_pkg_config NAME KIND LIBDIR: the example with the flags
# pkg-config gives (PKG_CONFIG_PATH and the like set by the caller). A shared
# library outside the loader's directories: the program carries LIBDIR as its
# run path.
build_host_pkg_config() {
  local name=$1 kind=$2 libdir=$3 flags rpath=()
  [ "$(pkg-config --modversion xrprocdetector)" = "$version" ] ||
    fail "pkg-config does not report version $version"
  flags=$(pkg-config --cflags --libs xrprocdetector)
  echo "pkg-config --cflags --libs xrprocdetector: $flags"
  [ "$kind" = shared ] && rpath=("-Wl,-rpath,$libdir")
  # shellcheck disable=SC2086  # the flags are words
  g++ -std=c++17 -O2 -Wall -Wextra -Wpedantic -Werror "$root/examples/host.cpp" $flags \
    "${rpath[@]}" -o "$work/$name" || fail "building $name with pkg-config"
  check_linkage "$name (pkg-config)" "$work/$name" "$kind" "$libdir"
  run_host "$name (pkg-config)" "$work/$name"
}

# check_package KIND DEB PACKAGE SECTION LIBDIR INSTALLED: the control fields
# and files of one Debian package, against the files the install tree holds.
check_package() {
  local kind=$1 deb=$2 pkg=$3 section=$4 libdir=$5 installed=$6 depends controls
  local contents packed expected f
  [ -f "$deb" ] || fail "cpack did not write $(basename "$deb")"
  field() { dpkg-deb -f "$deb" "$1"; }
  [ "$(field Package)" = "$pkg" ] || fail "$pkg: Package is '$(field Package)'"
  [ "$(field Version)" = "$version-1" ] || fail "$pkg: Version is not $version-1"
  [ "$(field Architecture)" = "$(arch_of "$pkg")" ] || fail "$pkg: Architecture is not $(arch_of "$pkg")"
  [ "$(field Section)" = "$section" ] || fail "$pkg: Section is not $section"
  [ "$(field Priority)" = optional ] || fail "$pkg: Priority is not optional"
  [ "$(field Source)" = xrprocdetector ] || fail "$pkg: Source is not xrprocdetector"
  grep -Eq '^[^<>]+ <[^@<> ]+@[^@<> ]+>$' <<<"$(field Maintainer)" ||
    fail "$pkg: Maintainer '$(field Maintainer)' is not 'name <address>'"
  [ -z "$(field Homepage)" ] || fail "$pkg: a Homepage field"
  [ "$(field Description | wc -l)" -ge 3 ] || fail "$pkg: no long description"
  depends=$(field Depends | tr ',' '\n' | sed 's/^ *//')
  controls=$(dpkg-deb --ctrl-tarfile "$deb" | tar -t | sed 's|^\./||')
  if grep -Eqx 'preinst|postinst|prerm|postrm' <<<"$controls"; then
    fail "$pkg has maintainer scripts: $(tr '\n' ' ' <<<"$controls")"
  fi
  case $pkg in
    "$runtime_pkg")
      for dep in libc6 libstdc++6; do
        grep -q "^$dep\( \|$\)" <<<"$depends" || fail "$pkg: Depends does not name $dep"
      done
      dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs |
        grep -qx "libxrprocdetector $soversion $runtime_pkg (>= $version)" ||
        fail "$pkg: the shlibs file does not name libxrprocdetector $soversion"
      dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./triggers | grep -qx 'activate-noawait ldconfig' ||
        fail "$pkg: no ldconfig trigger"
      # The symbols file lists exactly what the packaged library exports.
      rm -rf "$work/runtime" && dpkg-deb -x "$deb" "$work/runtime"
      diff <(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./symbols | sed -n 's/^ \([^ ]*\) .*/\1/p' |
        sort) <(nm -D --defined-only "$(find "$work/runtime" -name "libxrprocdetector.so.$version")" |
        awk '{ sub(/@@/, "@", $NF); print $NF }' | sed 's/^\(XRPROCDETECTOR_[0-9]*\)$/\1@\1/' |
        sort) ||
        fail "$pkg: the symbols file does not list what the library exports"
      ;;
    "$dev_pkg")
      if [ "$kind" = shared ]; then
        grep -qxF "$runtime_pkg (= $version-1)" <<<"$depends" ||
          fail "$pkg: Depends does not name $runtime_pkg (= $version-1): $depends"
      elif grep -q "^$runtime_pkg" <<<"$depends"; then
        fail "$pkg of a static build depends on $runtime_pkg"
      fi
      ;;
    "$python_pkg")
      grep -qxF "python3:any" <<<"$depends" && grep -qxF "$runtime_pkg (= $version-1)" <<<"$depends" ||
        fail "$pkg: Depends does not name python3:any and $runtime_pkg (= $version-1): $depends"
      ;;
    "$tool_pkg")
      grep -q '^libc6 ' <<<"$depends" || fail "$pkg: Depends does not name libc6"
      if [ "$kind" = shared ]; then
        grep -qxF "$runtime_pkg (>= $version)" <<<"$depends" ||
          fail "$pkg: Depends does not name $runtime_pkg (>= $version): $depends"
      elif grep -q "^$runtime_pkg" <<<"$depends"; then
        fail "$pkg of a static build depends on $runtime_pkg"
      fi
      ;;
  esac

  contents=$(dpkg-deb -c "$deb") || fail "dpkg-deb -c $(basename "$deb")"
  packed=$(awk '$1 !~ /^d/ {print $6}' <<<"$contents" | sed 's|^\./usr/||' | sort)
  if awk '$1 !~ /^d/ {print $6}' <<<"$contents" | grep -v '^\./usr/' | grep -q . ||
    grep -q '^local/' <<<"$packed"; then
    fail "$pkg: files outside /usr or under /usr/local"
  fi
  expected=$( (
    while read -r f; do
      [ "$(package_of "$f" "$libdir")" = "$pkg" ] && echo "$f"
    done <<<"$installed"
    echo "share/doc/$pkg/copyright"
    echo "share/doc/$pkg/changelog.Debian.gz"
  ) | sort)
  [ "$packed" = "$expected" ] ||
    fail "$pkg holds other files than expected: $(diff <(echo "$expected") <(echo "$packed") | grep '^[<>]' | tr '\n' ' ')"
  dpkg-deb --fsys-tarfile "$deb" | tar -xO "./usr/share/doc/$pkg/copyright" >"$work/copyright"
  head -n 1 "$work/copyright" |
    grep -qx 'Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ||
    fail "$pkg: the copyright file is not machine-readable (DEP-5)"
  grep -qx 'License: Apache-2.0' "$work/copyright" || fail "$pkg: the copyright file names no licence"
  dpkg-deb --fsys-tarfile "$deb" | tar -xO "./usr/share/doc/$pkg/changelog.Debian.gz" |
    gzip -dc | head -n 1 | grep -q "^xrprocdetector ($version-1) " ||
    fail "$pkg: changelog.Debian.gz does not begin with version $version-1"
  ok "$pkg: control fields, dependencies and files"
}

check() {
  local kind=$1 shared build prefix installed libdir pc_prefix packages debs=()
  [ "$kind" = shared ] && shared=ON || shared=OFF
  build=$parent/package-$kind
  prefix=$work/$kind/prefix

  step "$kind library: configure and build ($build)"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DXRPROCDETECTOR_BUILD_TESTS=OFF -DXRPROCDETECTOR_BUILD_TOOLS=ON -DXRPROCDETECTOR_INSTALL=ON \
    -DBUILD_SHARED_LIBS="$shared" -DXRPROCDETECTOR_WERROR="$werror" >/dev/null ||
    fail "configuring the $kind build"
  cmake --build "$build" -j2 >/dev/null || fail "building the $kind library and tool"
  libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
  ok "built; library directory $libdir"

  step "$kind library: cmake --install into a temporary prefix"
  cmake --install "$build" --prefix "$prefix" >/dev/null || fail "installing the $kind build"
  installed=$(cd "$prefix" && find . \( -type f -o -type l \) | sed 's|^\./||' | sort)
  printf '%s\n' "$installed"
  while read -r f; do
    [ -e "$prefix/$f" ] || fail "not installed: $f"
  done < <(expected_files "$kind" "$libdir")
  ok "every expected file is installed"
  if [ "$(grep -c '^include/xrprocdetector/' <<<"$installed")" != ${#headers[@]} ]; then
    fail "other headers than the public ones were installed"
  fi
  if grep -q '^share/doc/' <<<"$installed"; then
    fail "a plain install installed the Debian packages' documentation"
  fi
  if [ "$kind" = static ]; then
    if grep -q "^$libdir/libxrprocdetector\.so" <<<"$installed"; then
      fail "the static build installed a shared library"
    fi
  else
    [ "$(readlink "$prefix/$libdir/libxrprocdetector.so")" = "libxrprocdetector.so.$soversion" ] ||
      fail "libxrprocdetector.so does not point to libxrprocdetector.so.$soversion"
    readelf -d "$prefix/$libdir/libxrprocdetector.so.$version" |
      grep -q "(SONAME).*\[libxrprocdetector\.so\.$soversion\]" ||
      fail "the shared library's SONAME is not libxrprocdetector.so.$soversion"
    if readelf -d "$prefix/bin/xrprocdetect" | grep -Eq '\((RPATH|RUNPATH)\)'; then
      fail "the installed xrprocdetect has a run path"
    fi
    ok "shared library, symlinks and SONAME; the tool has no run path"
  fi
  [ -x "$prefix/bin/xrprocdetect" ] || fail "bin/xrprocdetect is not executable"
  gzip -dc "$prefix/share/man/man1/xrprocdetect.1.gz" |
    grep -q "^\.TH XRPROCDETECT 1 .*\"xrprocdetector $version\"" ||
    fail "the manual page does not name version $version"
  for h in "${headers[@]}"; do
    g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" \
      -x c++ - <<<"#include <xrprocdetector/$h>" || fail "installed header $h does not compile alone"
  done
  gcc -std=c99 -Wall -Wextra -pedantic -Werror -fsyntax-only -I"$prefix/include" \
    -x c - <<<"#include <xrprocdetector/c_api.h>" || fail "c_api.h does not compile as C99"
  ok "each installed header compiles on its own, and c_api.h as C99"
  LD_LIBRARY_PATH="$prefix/$libdir" "$prefix/bin/xrprocdetect" >/dev/null ||
    fail "the installed xrprocdetect exited with status $?"
  ok "the installed xrprocdetect ran and exited 0"

  step "$kind library: the example against the install tree"
  build_host_cmake "host-$kind" "$kind" "$prefix" "$prefix/$libdir"
  export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
  pc_prefix=$(pkg-config --variable=prefix xrprocdetector)
  [ "$pc_prefix" = "$prefix" ] || fail "xrprocdetector.pc names prefix '$pc_prefix', not $prefix"
  build_host_pkg_config "host-$kind-pc" "$kind" "$prefix/$libdir"
  unset PKG_CONFIG_PATH

  step "$kind library: cpack -G DEB"
  rm -f "$build"/*.deb
  (cd "$build" && cpack -G DEB >/dev/null) || fail "cpack -G DEB in $build"
  packages=("$dev_pkg" "$tool_pkg")
  [ "$kind" = shared ] && packages=("$runtime_pkg" "${packages[@]}" "$python_pkg")
  [ "$(find "$build" -maxdepth 1 -name '*.deb' | wc -l)" = ${#packages[@]} ] ||
    fail "cpack wrote $(find "$build" -maxdepth 1 -name '*.deb' | wc -l) packages, not ${#packages[@]}"
  local pkg section deb
  for pkg in "${packages[@]}"; do
    case $pkg in
      "$runtime_pkg") section=libs ;;
      "$dev_pkg") section=libdevel ;;
      "$python_pkg") section=python ;;
      *) section=utils ;;
    esac
    deb=$build/${pkg}_${version}-1_$(arch_of "$pkg").deb
    debs+=("$deb")
    dpkg-deb -I "$deb" | sed -n '/^ Package:/,$p'
    check_package "$kind" "$deb" "$pkg" "$section" "$libdir" "$installed"
  done
  dpkg-deb --fsys-tarfile "$build/${dev_pkg}_${version}-1_${arch}.deb" |
    tar -xO "./usr/$libdir/pkgconfig/xrprocdetector.pc" >"$work/packaged.pc"
  grep -qx 'prefix=/usr' "$work/packaged.pc" || fail "the packaged xrprocdetector.pc does not name prefix /usr"
  grep -qx 'License: Apache-2.0' "$work/packaged.pc" || fail "the packaged xrprocdetector.pc names no licence"
  ok "the packaged xrprocdetector.pc names prefix /usr and the licence"

  step "$kind library: lintian"
  lintian --fail-on error,warning --suppress-tags "$lintian_known_warnings" "${debs[@]}" \
    2> >(grep -v 'running with root privileges' >&2) ||
    fail "lintian found errors or warnings the README does not list (above)"
  ok "lintian: no errors, no warnings but $lintian_known_warnings"

  [ "$kind" = shared ] || return 0
  step "$kind library: the packages installed with dpkg into a scratch root"
  local sysroot=$work/root multiarch_libdir
  mkdir -p "$sysroot/var/lib/dpkg/info" "$sysroot/var/lib/dpkg/updates" "$sysroot/var/log"
  : >"$sysroot/var/lib/dpkg/status"
  # The scratch root's database knows no libc6 and libstdc++6: their
  # dependencies are left unmet on purpose, the files are this system's.
  dpkg --root="$sysroot" --force-not-root --force-depends -i "${debs[@]}" >"$work/dpkg.log" 2>&1 ||
    { cat "$work/dpkg.log" && fail "dpkg -i into the scratch root"; }
  for pkg in "${packages[@]}"; do
    [ "$(dpkg-query --root="$sysroot" -W -f='${Status}' "$pkg")" = "install ok installed" ] ||
      fail "$pkg is not installed in the scratch root"
  done
  ok "dpkg installed ${packages[*]}"
  multiarch_libdir=$sysroot/usr/$libdir
  build_host_cmake "host-deb" shared "$sysroot/usr" "$multiarch_libdir"
  build_host_cmake "host-deb-static" static "$sysroot/usr" "$multiarch_libdir" -DHOST_LINK_STATIC=ON
  export PKG_CONFIG_PATH="$multiarch_libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="$sysroot"
  build_host_pkg_config "host-deb-pc" shared "$multiarch_libdir"
  unset PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR
  LD_LIBRARY_PATH="$multiarch_libdir" "$sysroot/usr/bin/xrprocdetect" --all >/dev/null ||
    fail "the packaged xrprocdetect exited with status $?"
  ok "the packaged xrprocdetect ran and exited 0"
  LD_LIBRARY_PATH="$multiarch_libdir" PYTHONPATH="$sysroot/usr/$python_dir" /usr/bin/python3 -c \
    "import xrprocdetector as x; assert x.__version__ == '$version' and x.effective_processors() >= 1" ||
    fail "the packaged Python module did not load the packaged library"
  ok "the packaged Python module loaded the packaged library"
}

check static
check shared

step "the manual page"
warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -l "$root/tools/xrprocdetect.1" 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "man --warnings on tools/xrprocdetect.1: $warnings"
ok "man --warnings -l tools/xrprocdetect.1 prints no warning"

step "all checks passed in $((SECONDS - started)) s"
