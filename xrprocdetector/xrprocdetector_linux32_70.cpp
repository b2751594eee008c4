#include "xrprocdetector/xrprocdetector_linux32_70.h"

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/word_reader.h"

int XrProcDetectorLinux32_70::getProcData() {
  tzPrint(tzDebugSteps, "\nProcessor Detection Algorithm 7.0\n=================================\n");
  return getUnixProcData();
}

int XrProcDetectorLinux32_70::platformProcInfo() {
  auto in = xrprocdetector::detail::openCpuinfo();
  // The trace names the default detector's class: the text is kept as it is.
  tzPrint(tzDebugTrace, "XrProcDetectorLinux32::enter\n");
  const auto table = xrprocdetector::detail::scanCpuinfoTable(in);
  logicalCount = table->logical;
  coreCount = 0;
  if (table->packageCount == 0) {
    // No physical id: one package and no cores, and still a success.
    physicalCount = 1;
    return 0;
  }
  physicalCount = table->packageCount;
  table->derivePackageCores();
  coreCount = table->totalCores();
  return 0;
}
