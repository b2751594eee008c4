// The machine as the Linux kernel shows it: its topology of processor sets,
// what the process may use, kinds of core, the hypervisor and the
// container, read from the machine each reader is given.
#ifndef XRPROCDETECTOR_SRC_KERNEL_KERNEL_H
#define XRPROCDETECTOR_SRC_KERNEL_KERNEL_H

#include <xrprocdetector/detect.h>

#include <optional>
#include <string>
#include <vector>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

// The topology of `machine`, but for the parts that `skip` (XRPD_SKIP_*
// bits) leaves unread.
Topology readTopology(Machine& machine, std::uint32_t skip = 0);

// A file of the process's control groups that bounds what it may use.
struct LimitFile {
  enum Kind { kCpuMax, kCfsQuota, kCpuset } kind;
  std::string path;    // under the root
  std::string period;  // for kCfsQuota: the cpu.cfs_period_us beside it
};

struct CgroupLimits {
  // The processors of the effective cpuset: every cpuset hierarchy's,
  // intersected. Nothing when no cpuset is visible.
  std::optional<CpuSet> cpuset;
  // The tightest CPU bandwidth limit of the process's cgroup and every
  // ancestor visible in the mount, in processors (1.5: one and a half
  // processors' time per period). Nothing when there is no limit.
  std::optional<double> quota;
};

// Finds the process's cgroups through proc/self/cgroup (or, where only that
// is recorded, the cpuset named by proc/self/cpuset) and
// proc/self/mountinfo (or proc/mounts), with each mount's own root taken
// into account:
//   cgroup v2      cpuset.cpus.effective, cpu.max ("max" or "QUOTA PERIOD");
//   cgroup v1      cpuset.effective_cpus, else cpuset.cpus (effective_cpus
//                  and cpus with the noprefix option); cpu.cfs_quota_us
//                  (-1: none) over cpu.cfs_period_us;
//   old cpuset fs  cpus, else cpuset.cpus.
// *files, where given, gets each limit file that was read, in the order read.
CgroupLimits readCgroupLimits(SystemRoot& root, std::vector<LimitFile>* files = nullptr);

// What one limit file says, added to *limits: its text, and for cgroup
// v1's quota its period's. A quota or period the kernel could not hold is
// no limit but a failure: the path of the file to blame (file.path, or
// file.period where the period is wrong), with *why ("line 1: ..."); null
// when the limit was taken. Allocates nothing but the message.
const std::string* addLimit(const LimitFile& file, std::string_view text, std::string_view period,
                            CgroupLimits* limits, std::string* why);

// What the process may use: its affinity (none: a tree saved without one),
// the online processors and the effective cpuset, intersected.
CpuSet usableOf(const CpuSet& online, const CpuSet* affinity, const CgroupLimits& limits);

// The online processors: the kernel's list, or on kernels without one, the
// cpuN folders, each online unless its own online file says 0. `cpus` is
// sys/devices/system/cpu.
Read onlineProcessors(SystemRoot& cpus, CpuSet* online);

// What a host should size a pool of busy threads by: the usable
// processors, capped by the quota rounded up, and at least 1.
std::int32_t effectiveOf(const CpuSet& usable, const std::optional<double>& quota);

// The cores by kind, fastest first; empty when all are of one kind or
// nothing tells.
std::vector<CoreKindSet> coreKinds(SystemRoot& root, const Topology& topology);

// The NUMA nodes, into t.numaNodes and each processor's numaNode: the
// kernel's nodes by number, or one node of every online processor and the
// machine's memory where it lists none or lists nodes that cannot be real
// (the reason added to t.missing). Needs t.online and t.processors. A
// node's file that cannot be read or parsed is t.error, where it is empty.
void readNumaNodes(SystemRoot& root, Topology& t);

// Every cache instance, into t.caches (by level, type, then lowest
// processor) and each processor's lastLevelCache. Needs t.online,
// t.processors and, for older AMD processors' CPUID, t.cores and
// t.packages. `cpus` is the folder sys/devices/system/cpu, whose first
// failure the caller reports.
void readCaches(SystemRoot& cpus, Topology& t);

// The hypervisor and the container, into `t`.
void readVirtualization(SystemRoot& root, const std::string& cpuinfo, Topology& t);
// The value of the first line of a /proc/cpuinfo text that starts with
// `key` ("flags", "model name"), without the blanks around it; "" where
// there is none.
std::string firstValue(const std::string& cpuinfo, const char* key);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_KERNEL_KERNEL_H
