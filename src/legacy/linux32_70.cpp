#include "xrprocdetector/xrprocdetector_linux32_70.h"

#include "legacy/cpuinfo_walk.h"
#include "legacy/word_reader.h"

int XrProcDetectorLinux32_70::getProcData() {
  tzPrint(tzDebugSteps, "\nProcessor Detection Algorithm 7.0\n=================================\n");
  return getUnixProcData();
}

int XrProcDetectorLinux32_70::platformProcInfo() {
  auto in = xrprocdetector::detail::openCpuinfo();
  // The trace names the default detector's class: the text is kept as it is.
  tzPrint(tzDebugTrace, "XrProcDetectorLinux32::enter\n");
  auto counts = xrprocdetector::detail::countTable(in);
  // No physical id: one package and no cores, and still a success.
  if (counts.physical == 0) counts.physical = 1;
  xrprocdetector::detail::storeCounts(*this, counts);
  return 0;
}
