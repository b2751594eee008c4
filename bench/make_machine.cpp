// make_machine N DIR [PACKAGES]: writes a synthetic machine of N logical
// processors as DIR/proc/cpuinfo, DIR/sys/devices/system/cpu/ (with each
// processor's caches) and DIR/sys/devices/system/node/, the same machines
// the benchmarks count (or with PACKAGES packages), so that other tools can
// be timed on them.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "synthetic_cpuinfo.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: %s LOGICAL_PROCESSORS DIR [PACKAGES]\n", argv[0]);
    return 2;
  }
  char* end = nullptr;
  const long n = std::strtol(argv[1], &end, 10);
  if (*end != '\0' || n < 2 || n > 65536 || n % 2 != 0) {
    std::fprintf(stderr, "%s: LOGICAL_PROCESSORS must be an even number from 2 to 65536\n",
                 argv[0]);
    return 2;
  }
  const long packages = argc == 4 ? std::strtol(argv[3], &end, 10) : 0;
  if (argc == 4 && (*end != '\0' || packages < 1 || n % (2 * packages) != 0)) {
    std::fprintf(stderr, "%s: PACKAGES must divide LOGICAL_PROCESSORS / 2\n", argv[0]);
    return 2;
  }
  const bench::Machine machine(static_cast<int>(n), static_cast<int>(packages));
  if (!bench::writeMachineTree(machine, argv[2])) {
    std::perror(argv[2]);
    return 1;
  }
  std::printf("%d logical processors, %d packages, %d cores and %d NUMA nodes each\n",
              machine.logical, machine.packages, machine.coresPerPackage, machine.nodesPerPackage);
  return 0;
}
