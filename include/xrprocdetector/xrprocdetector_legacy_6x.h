// Generations 6.0 and 6.1: /proc/cpuinfo scans without CPUID. Version index 1
// runs the 6.0 scan (distinct processor, physical-id and core-id texts over
// the whole file); every other index runs the 6.1 scan (the processor table,
// cores summed per package). Zero counts are raised to 1 afterwards.
//
// Reads /proc/cpuinfo; if that file cannot be read, getProcData() never
// returns (the scans wait for an end of file that a failed stream never
// reports). A host that cannot rely on the file must not use this class.
#ifndef XRPROCDETECTOR_XRPROCDETECTOR_LEGACY_6X_H
#define XRPROCDETECTOR_XRPROCDETECTOR_LEGACY_6X_H

#include <xrprocdetector/xrprocdetector.h>

class XRPROCDETECTOR_API XrProcDetectorLegacy_6x : public XrProcDetector {
 public:
  using XrProcDetector::XrProcDetector;

  // Runs getCommonProcData(); always 0.
  int getProcData() override;
  // The base summary, on the counts as they stand; no clean-up.
  int printSummary() override;
  // The configured processor count, with the configured and online lines.
  int bosGetLogicalProcessorCount() override;

  // Banner "6.0" or "6.1", the scan, zero counts raised to 1, then (level 1
  // and above) the verdict and the totals; always 0.
  int getCommonProcData();
  // The 6.0 scan: counts of distinct processor, physical-id, core-id texts.
  void LinuxProcInfo60();
  // The 6.1 scan: distinct processors, distinct physical ids (at most 256),
  // and per package the cpu-cores value of its first processor, summed.
  void LinuxProcInfo61();
};

#endif  // XRPROCDETECTOR_XRPROCDETECTOR_LEGACY_6X_H
