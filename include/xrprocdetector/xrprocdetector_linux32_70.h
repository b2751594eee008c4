// Generation 7.0: /proc/cpuinfo alone, never CPUID. Logical processors are
// the distinct processor numbers, packages the distinct physical ids (one
// when there are none), cores the per-package cpu-cores values summed.
//
// Reads /proc/cpuinfo; if that file cannot be read, getProcData() never
// returns.
#ifndef XRPROCDETECTOR_XRPROCDETECTOR_LINUX32_70_H
#define XRPROCDETECTOR_XRPROCDETECTOR_LINUX32_70_H

#include <xrprocdetector/xrprocdetector.h>

class XRPROCDETECTOR_API XrProcDetectorLinux32_70 : public XrProcDetector {
 public:
  using XrProcDetector::XrProcDetector;

  // The 7.0 banner, then getUnixProcData(); always 0.
  int getProcData() override;
  // The /proc/cpuinfo scan; always 0, always writes the three counts.
  int platformProcInfo() override;
};

#endif  // XRPROCDETECTOR_XRPROCDETECTOR_LINUX32_70_H
