// Synthetic machines for the benchmarks: /proc/cpuinfo texts in the layout
// the kernel prints (tab-aligned keys, one blank line between blocks, a long
// flags line), and the sysfs topology files that other tools read instead.
#ifndef XRPROCDETECTOR_BENCH_SYNTHETIC_CPUINFO_H
#define XRPROCDETECTOR_BENCH_SYNTHETIC_CPUINFO_H

#include <string>
#include <vector>

namespace bench {

// A machine of `logical` processors (a multiple of 2): two threads per core,
// packages = the smallest power of two p with 16 * p * p >= logical (8 -> 1,
// 64 -> 2, 256 -> 4, 1024 -> 8) unless `packages` is given. Processors are
// numbered as Linux numbers them: first threads of every core of every
// package, then second threads. Each package is two NUMA nodes (one where
// it has an odd number of cores), each node half of its cores.
struct Machine {
  explicit Machine(int logical, int packages = 0);
  int logical;
  int packages;
  int coresPerPackage;
  int nodesPerPackage;

  int nodeOf(int cpu) const {
    return packageOf(cpu) * nodesPerPackage + coreOf(cpu) * nodesPerPackage / coresPerPackage;
  }

  int packageOf(int cpu) const { return (cpu % (logical / 2)) / coresPerPackage; }
  int coreOf(int cpu) const { return (cpu % (logical / 2)) % coresPerPackage; }
  // The sibling thread of the same core.
  int siblingOf(int cpu) const { return (cpu + logical / 2) % logical; }
};

// The /proc/cpuinfo text of `m`: about 1.5 KB per processor.
std::string cpuinfoText(const Machine& m);

// Writes `root`/proc/cpuinfo and `root`/sys/devices/system/cpu/ with
// possible, present, online and, per processor, topology/{thread_siblings,
// core_siblings,physical_package_id,core_id} and cache/index0-3 (L1 data
// and instruction and L2 per core, L3 per package); and
// `root`/sys/devices/system/node/ with online, possible and, per node,
// cpumap, cpulist, meminfo and distance. Returns false on a write error.
bool writeMachineTree(const Machine& m, const std::string& root);

// A cpumask as sysfs prints it: 32-bit words of 8 hexadecimal digits, most
// significant first, separated by commas; bits.size() bits wide.
std::string cpuMask(const std::vector<bool>& bits);

}  // namespace bench

#endif  // XRPROCDETECTOR_BENCH_SYNTHETIC_CPUINFO_H
