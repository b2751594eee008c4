// make_machine N DIR: writes a synthetic machine of N logical processors as
// DIR/proc/cpuinfo and DIR/sys/devices/system/cpu/, the same machines the
// benchmarks count, so that other tools can be timed on them.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "synthetic_cpuinfo.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s LOGICAL_PROCESSORS DIR\n", argv[0]);
    return 2;
  }
  char* end = nullptr;
  const long n = std::strtol(argv[1], &end, 10);
  if (*end != '\0' || n < 2 || n > 65536 || n % 2 != 0) {
    std::fprintf(stderr, "%s: LOGICAL_PROCESSORS must be an even number from 2 to 65536\n",
                 argv[0]);
    return 2;
  }
  const bench::Machine machine(static_cast<int>(n));
  if (!bench::writeMachineTree(machine, argv[2])) {
    std::perror(argv[2]);
    return 1;
  }
  std::printf("%d logical processors, %d packages, %d cores each\n", machine.logical,
              machine.packages, machine.coresPerPackage);
  return 0;
}
