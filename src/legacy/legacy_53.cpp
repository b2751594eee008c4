#include "xrprocdetector/xrprocdetector_legacy_53.h"

#include "legacy/verdict.h"

int XrProcDetectorLegacy_53::getProcData() {
  return getCommonProcData();
}

int XrProcDetectorLegacy_53::printSummary() {
  return 0;
}

int XrProcDetectorLegacy_53::bosGetLogicalProcessorCount() {
  return xrprocdetector::detail::narrow32(
      xrprocdetector::detail::readProcessorCounts(*this, "\tNumber of configured processors: %d\n",
                                                  "\tNumber of online processors: %d\n")
          .configured);
}

int XrProcDetectorLegacy_53::getCommonProcData() {
  tzPrint(tzDebugSteps, "\nProcessor Detection Algorithm 5.3\n=================================\n");
  const int n = bosGetLogicalProcessorCount();
  // No blank before the newline of the first line; one in the other two.
  tzPrint(tzDebugSteps, "\t%d Physical CPU(s) detected\n", n);
  tzPrint(tzDebugSteps, "\t%d Physical Core(s) detected \n", 0);
  tzPrint(tzDebugSteps, "\t%d Logical Processor(s) detected \n", n);
  physicalCount = n;
  coreCount = 0;
  logicalCount = n;
  return 0;
}
