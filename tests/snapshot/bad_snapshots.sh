#!/bin/sh
# Bad snapshots: each case copies a good one, breaks one thing and expects
# exit status 2 and one message naming the file and line; and --save refuses
# a directory that is not new or empty, or is a link.
#
#   bad_snapshots.sh TOOL SNAPSHOTS_DIR
set -u
tool=$1 good=$2/vmware-2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0

# bad NAME 'SHELL COMMAND RUN IN s/' 'EXPECTED STANDARD ERROR'
bad() {
  rm -rf s && cp -R "$good" s && (cd s && eval "$2")
  got=$("$tool" --all --snapshot s 2>&1 >/dev/null)
  status=$?
  if [ "$status" != 2 ] || [ "$got" != "xrprocdetect: cannot read the snapshot: $3" ]; then
    printf '%s: status %s, got\n  %s\nexpected\n  %s\n' "$1" "$status" "$got" "$3"
    failed=1
  fi
}
j='{"format": "xrprocdetect-snapshot", "version": 1, "configuredProcessors": 2,'
bad short-cpuid-line 'echo "1 1 0 0 0 => 0 0 0" >>cpuid/pu1' \
  's/cpuid/pu1 line 6: expected "mask eax ebx ecx edx => eax ebx ecx edx"'
bad not-hex 'echo "1 1 0 0 0 => 0 0 0 0x1" >>cpuid/pu0' \
  's/cpuid/pu0 line 6: a word is not a hexadecimal number of at most 8 digits'
bad nine-digits 'echo "1 1 0 0 0 => 0 0 0 123456789" >>cpuid/pu0' \
  's/cpuid/pu0 line 6: a word is not a hexadecimal number of at most 8 digits'
bad mask-bits 'echo "10 1 0 0 0 => 0 0 0 0" >>cpuid/pu0' \
  's/cpuid/pu0 line 6: mask 10 has bits beyond EAX to EDX'
bad two-answers 'echo "5 4 0 0 0 => 0 0 0 1" >>cpuid/pu0' \
  's/cpuid/pu0 line 6: a second, different answer to the query of line 4'
bad pu-beyond 'cp cpuid/pu0 cpuid/pu8192' 's/cpuid/pu8192: processor number above 8191'
bad cpuinfo-unreadable 'rm proc/cpuinfo && mkdir proc/cpuinfo' \
  's/proc/cpuinfo: a directory, not a regular file'
bad not-json 'echo "{" >xrprocdetect.json' 's/xrprocdetect.json line 2: expected a string'
bad wrong-format 'echo "{\"format\": \"other\"}" >xrprocdetect.json' \
  's/xrprocdetect.json line 1: "format" is not "xrprocdetect-snapshot"'
bad version-2 'printf "{\"format\": \"xrprocdetect-snapshot\",\n\"version\": 2}" >xrprocdetect.json' \
  's/xrprocdetect.json line 2: version 2 is not 1, the version this build reads'
bad missing-key "echo '$j \"onlineProcessors\": 2, \"affinity\": \"0-1\"}' >xrprocdetect.json" \
  's/xrprocdetect.json: the key "vmwareBackdoor" is missing'
bad key-twice "echo '$j \"configuredProcessors\": 3}' >xrprocdetect.json" \
  's/xrprocdetect.json line 1: the key "configuredProcessors" is given twice'
bad fraction "echo '{\"configuredProcessors\": 2.5}' >xrprocdetect.json" \
  's/xrprocdetect.json line 1: expected a whole number within 32 bits'
bad after-object "echo '{} []' >xrprocdetect.json" 's/xrprocdetect.json line 1: more after the object'
bad affinity-huge "printf '{\n\"affinity\": \"0-99999\"}' >xrprocdetect.json" \
  's/xrprocdetect.json line 2: "affinity": a processor number above 8191'
bad affinity-number "printf '{\n\"affinity\": 5}' >xrprocdetect.json" \
  's/xrprocdetect.json line 2: expected a string'
bad no-colon "echo '{\"configuredProcessors\" 2}' >xrprocdetect.json" \
  "s/xrprocdetect.json line 1: expected ':'"
# Without the metadata the lists count: malformed ones are named.
lists='rm xrprocdetect.json && mkdir -p sys/devices/system/cpu && cd sys/devices/system/cpu && echo 0-1 >online'
bad list-unordered "$lists && echo 0-3,2 >possible" \
  's/sys/devices/system/cpu/possible line 1: processor numbers are not in increasing order'
bad list-8192 "$lists && echo 0-8192 >possible" \
  's/sys/devices/system/cpu/possible line 1: a processor number above 8191'

# --save: never into a directory that holds something, nor through a link.
mkdir full && touch full/mine
got=$("$tool" --save full 2>&1)
[ $? = 2 ] && [ "$got" = "xrprocdetect: cannot save the snapshot: full: not empty; a snapshot goes into a new or empty directory" ] &&
  [ -z "$(ls -A full | grep -v mine)" ] || { echo "--save into a full directory: $got"; failed=1; }
# Named with a trailing slash, as a shell completes it, a link is still a
# link: the slash would have it followed.
mkdir empty && ln -s empty link
for name in link link/ link//; do
  got=$("$tool" --save $name 2>&1)
  [ $? = 2 ] && [ -z "$(ls -A empty)" ] && echo "$got" | grep -q "symbolic link" ||
    { echo "--save through a link named $name: $got"; failed=1; }
done
exit $failed
