#!/usr/bin/env bash
# The shared library's interface against what the repository keeps of it:
#   - cmake/debian/symbols, the runtime package's symbols file, must list
#     exactly the symbols the library exports;
#   - cmake/abi/libxrprocdetector.abi.gz, the ABI of the last release
#     (written by abidw from a build with debug information, GCC's, as the
#     packages are built), compared with abidiff:
#     an incompatible change fails, unless the SONAME changed with it. The
#     one change allowed beside added interfaces is a struct of the C
#     interface (xrpd_*) that grew at its end: each carries its size first
#     and the library fills no more than the caller's size.
#
#   cmake/abi/check_abi.sh BUILD_DIR            check (BUILD_DIR: a shared build)
#   cmake/abi/check_abi.sh BUILD_DIR --update   write both from the build
#
# Needs abigail-tools (abidw, abidiff) and binutils (nm, readelf).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
[[ $# -ge 1 ]] || { echo "usage: $0 BUILD_DIR [--update]" >&2; exit 2; }
lib=$(readlink -f "$1/src/libxrprocdetector.so")
[[ -f $lib ]] || { echo "check_abi: no shared library under $1/src" >&2; exit 2; }
symbols=$root/cmake/debian/symbols
baseline=$root/cmake/abi/libxrprocdetector.abi.gz
version=$(sed -n 's/^project(XrProcDetector VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')

# The exported symbols as the symbols file names them: NAME@NODE, one a line.
exported() {
  nm -D --defined-only "$lib" | awk '{ sub(/@@/, "@", $NF); print $NF }' |
    sed 's/^\(XRPROCDETECTOR_[0-9]*\)$/\1@\1/' | sort -u
}
listed() { sed -n 's/^ \([^ ]*\) .*/\1/p' "$symbols" | sort -u; }
current_abi() {
  abidw --headers-dir "$root/include/xrprocdetector" --no-corpus-path --no-show-locs "$lib"
}

if [[ ${2:-} == --update ]]; then
  {
    echo "$soname libxrprocdetector${soname##*.so.} #MINVER#"
    # A symbol keeps the version that first had it; a new one takes this one.
    exported | awk -v version="$version" 'NR == FNR { if ($2) since[$1] = $2; next }
      { print " " $1 " " ($1 in since ? since[$1] : version) }' <(sed 1d "$symbols") -
  } >"$symbols.new"
  mv "$symbols.new" "$symbols"
  current_abi | gzip -9n >"$baseline"
  echo "check_abi: wrote $symbols and $baseline"
  exit 0
fi

# Every line abidiff may write for added functions and for xrpd_ structs
# that grew at their end, and for nothing else.
grown="^$|changes summary: 0 Removed|Functions changes summary: 0 Removed, 0 Changed|^[0-9]+ (Added )?functions?[: ]|^  \\[A\\] |has (some indirect )?sub-type changes:\
|^ +in pointed to type '(const )?(typedef |struct )?xrpd_[a-z_]+( const)?\\*?':\
|^ +underlying type 'struct xrpd_[a-z_]+' changed:|^ +type size changed from|^ +[0-9]+ data member insertions?:\
|^ +'[^']*', at offset [0-9]+ \\(in bits\\)\$"

status=0
if ! diff <(listed) <(exported) >/dev/null; then
  echo "check_abi: cmake/debian/symbols does not list what the library exports:"
  diff <(listed) <(exported) | sed -n 's/^< /  listed, not exported: /p; s/^> /  exported, not listed: /p'
  status=1
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
gzip -dc "$baseline" >"$work/baseline.abi"
baseline_soname=$(sed -n "s/.*soname=[\"']\([^\"']*\)[\"'].*/\1/p" "$work/baseline.abi" | head -n 1)
current_abi >"$work/current.abi"
set +e
abidiff --no-show-locs --suppressions "$root/cmake/abi/suppressions.ini" "$work/baseline.abi" \
  "$work/current.abi" >"$work/abidiff.txt"
abi=$?
set -e
if [[ $baseline_soname != "$soname" ]]; then
  echo "check_abi: the SONAME is now $soname (was $baseline_soname): a new ABI; run with --update"
elif ((abi & 8)) || { ((abi & 4)) && grep -Evq "$grown" "$work/abidiff.txt"; }; then
  # abidiff flags a removed interface as incompatible, and a changed type
  # as a change to review: for hosts built against the old headers both
  # break, so both fail here, but for the lines of a struct grown at its
  # end (no member moved: a moved one is a "data member change").
  echo "check_abi: an incompatible ABI change without a new SONAME:"
  cat "$work/abidiff.txt"
  status=1
elif ((abi & 4)); then
  echo "check_abi: a compatible ABI change (added interfaces); the baseline stays until a release"
  cat "$work/abidiff.txt"
elif ((abi != 0)); then
  echo "check_abi: abidiff failed ($abi)"
  status=1
fi
[[ $status -ne 0 ]] || echo "check_abi: $(exported | wc -l) symbols as listed; the ABI is compatible with the baseline"
exit $status
