#!/bin/sh
# xrprocdetect --check on the sysroot fixtures: exit status 3 exactly when a
# selected generation's packages, cores or logical processors differ from
# the kernel's (see rows.txt), 4 when they could not all be compared, 2 when
# an input cannot be read, whatever the others say.
#
#   check.sh TOOL SYSROOTS_DIR
set -u
tool=$1
cd "$2" || exit 1
failed=0
while read -r status args; do
  case $status in '#'* | '') continue ;; esac
  # shellcheck disable=SC2086
  "$tool" --check $args >/dev/null 2>&1
  got=$?
  if [ "$got" != "$status" ]; then
    echo "xrprocdetect --check $args: exit status $got, expected $status"
    failed=1
  fi
done <<'CASES'
# status  arguments
0 --snapshot two-package-smt-8
3 --all --snapshot two-package-smt-8
0 -a 6.1 --snapshot two-package-smt-off-8
3 -a 6.0 --snapshot two-package-smt-off-8
3 -a 6.1 --snapshot understated-cores-4
# SMT differs from the kernel's, but --check asks only about the counts.
0 -a 7.0 --snapshot offline-7
# Only the logical processors are known: a check cannot pass on them alone.
4 --snapshot no-topology-4
# The default detector does not count here: nothing to compare.
4 --snapshot vmware-no-physical-id-4
3 --snapshot vmware-no-physical-id-4 understated-cores-4
2 --snapshot nowhere two-package-smt-8
2 --snapshot understated-cores-4 nowhere
CASES
exit $failed
