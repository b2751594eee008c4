#include "xrprocdetector/xrprocdetector_legacy_6x.h"

#include "legacy/cpuinfo_walk.h"
#include "legacy/verdict.h"
#include "legacy/word_reader.h"

int XrProcDetectorLegacy_6x::getProcData() {
  return getCommonProcData();
}

int XrProcDetectorLegacy_6x::printSummary() {
  return XrProcDetector::printSummary();
}

int XrProcDetectorLegacy_6x::bosGetLogicalProcessorCount() {
  return XrProcDetector::bosGetLogicalProcessorCount();
}

int XrProcDetectorLegacy_6x::getCommonProcData() {
  // The version texts are fixed here, not looked up by index.
  const bool is60 = procInfoIndex == tzProcInfo60;
  tzPrint(tzDebugSteps, "\nProcessor Detection Algorithm %s\n=================================\n",
          is60 ? "6.0" : "6.1");
  if (is60) {
    LinuxProcInfo60();
  } else {
    LinuxProcInfo61();
  }
  // Zero counts become 1 whatever the level; negative ones stay.
  if (physicalCount == 0) physicalCount = 1;
  if (logicalCount == 0) logicalCount = 1;
  if (coreCount == 0) coreCount = 1;
  if (debugLevel <= 0) return 0;
  // The verdict line in two pieces: the text up to "Multi-processor: ",
  // then the word.
  const auto verdict =
      xrprocdetector::detail::hyperThreadingVerdict(logicalCount, physicalCount, coreCount);
  tzPrint(tzDebugSteps, "%s", verdict.text);
  tzPrint(tzDebugSteps, verdict.multiProcessor ? "Yes\n" : "No\n");
  xrprocdetector::detail::writeTotals(*this, physicalCount, logicalCount, coreCount);
  return 0;
}

void XrProcDetectorLegacy_6x::LinuxProcInfo60() {
  auto in = xrprocdetector::detail::openCpuinfo();
  xrprocdetector::detail::storeCounts(*this, xrprocdetector::detail::count60(in));
}

void XrProcDetectorLegacy_6x::LinuxProcInfo61() {
  auto in = xrprocdetector::detail::openCpuinfo();
  xrprocdetector::detail::storeCounts(*this, xrprocdetector::detail::countTable(in));
}
