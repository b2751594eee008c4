// The limits a process's control groups put on the processors it may use:
// the effective cpuset and the CPU bandwidth quota, as the files under a
// system root show them (live, a snapshot, or a tree recorded for other
// topology tools).
#ifndef XRPROCDETECTOR_SRC_SYSROOT_CGROUP_H
#define XRPROCDETECTOR_SRC_SYSROOT_CGROUP_H

#include <optional>
#include <string>
#include <vector>

#include "sysroot/root.h"

namespace xrprocdetector {
namespace detail {

struct CgroupLimits {
  // The processors of the effective cpuset: every cpuset hierarchy's,
  // intersected. Nothing when no cpuset is visible.
  std::optional<std::vector<unsigned>> cpuset;
  // The tightest CPU bandwidth limit of the process's cgroup and every
  // ancestor visible in the mount, in processors (1.5: one and a half
  // processors' time per period). Nothing when there is no limit.
  std::optional<double> quota;
  // Every file looked at (whether or not it was there), relative to the
  // root: what a snapshot keeps to give the same answer.
  std::vector<std::string> files;
};

// Finds the process's cgroups through proc/self/cgroup and
// proc/self/mountinfo (or proc/mounts, or proc/self/cpuset for the old
// cpuset file system), with each mount's own root taken into account:
//   cgroup v2      cpuset.cpus.effective, cpu.max ("max" or "QUOTA PERIOD");
//   cgroup v1      cpuset.effective_cpus, else cpuset.cpus; cpu.cfs_quota_us
//                  (-1: none) over cpu.cfs_period_us;
//   old cpuset fs  cpus, else cpuset.cpus.
CgroupLimits readCgroupLimits(SystemRoot& root, unsigned limit);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_SYSROOT_CGROUP_H
