#!/bin/sh
# The kernel row's virtual machine against lscpu --sysroot's "Hypervisor
# vendor" on small trees made here: guests whose flags lack "hypervisor" but
# whose proc/bus/pci/devices hold a hypervisor's virtual device (VirtualBox's
# graphics 80ee:beef, VMware's SVGA 15ad:0710, Xen's platform device
# 5853:0001), and a machine with an Intel device alone. Each row must be
# what the PCI vendor says, and must agree with lscpu wherever lscpu names a
# vendor. Skipped (77) without lscpu.
#
#   lscpu_hypervisor.sh TOOL
set -u
tool=$1 failed=0
command -v lscpu >/dev/null 2>&1 || { echo "lscpu is not installed: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# case_ NAME DEVICE ROW: a tree whose one PCI device is DEVICE (vendor and
# device, 4 hexadecimal digits each), and the row it must give.
case_() {
  dir=$work/$1
  mkdir -p "$dir/proc/bus/pci" "$dir/sys/devices/system/cpu"
  printf 'processor\t: 0\nflags\t\t: fpu vme de pse tsc msr pae sse sse2\n\n' >"$dir/proc/cpuinfo"
  printf '0010\t%s\t0\t        f0000000\n' "$2" >"$dir/proc/bus/pci/devices"
  for list in online possible present; do echo 0 >"$dir/sys/devices/system/cpu/$list"; done
  row=$("$tool" -a 5.3 --json-lines --snapshot "$dir" |
    sed -n 's/.*"kernel": {[^}]*"virtualMachine": \("[a-z]*"\|null\).*/\1/p' | tr -d '"')
  vendor=$(lscpu --sysroot "$dir" | sed -n 's/^Hypervisor vendor: *//p')
  case $vendor in "") said=none ;; VMware) said=vmware ;; *) said=other ;; esac
  echo "$1: $row (lscpu: ${vendor:-no hypervisor vendor})"
  [ "$row" = "$3" ] || { echo "  expected '$3'"; failed=1; }
  [ "$row" = "$said" ] || { echo "  lscpu disagrees"; failed=1; }
}
case_ virtualbox 80eebeef other
case_ vmware 15ad0710 vmware
case_ xen 58530001 other
case_ bare-metal 80860d57 none
exit $failed
