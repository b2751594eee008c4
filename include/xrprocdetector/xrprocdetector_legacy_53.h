// Generation 5.3: the operating system's configured processor count alone.
// Every configured processor counts as a package and as a logical processor;
// no core count, hyper-threading or virtual-machine estimate is made.
#ifndef XRPROCDETECTOR_XRPROCDETECTOR_LEGACY_53_H
#define XRPROCDETECTOR_XRPROCDETECTOR_LEGACY_53_H

#include <xrprocdetector/xrprocdetector.h>

class XRPROCDETECTOR_API XrProcDetectorLegacy_53 : public XrProcDetector {
 public:
  using XrProcDetector::XrProcDetector;

  // Runs getCommonProcData(); always 0.
  int getProcData() override;
  // Writes nothing; returns 0.
  int printSummary() override;
  // The configured count, with tab-indented configured and online lines.
  int bosGetLogicalProcessorCount() override;

  // The whole 5.3 sequence: banner, the count, three "detected" lines; sets
  // physicalCount and logicalCount to the configured count, coreCount to 0.
  int getCommonProcData();
};

#endif  // XRPROCDETECTOR_XRPROCDETECTOR_LEGACY_53_H
