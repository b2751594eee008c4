// What the library's own entry points need of the generations beyond their
// public classes: the default detector's strategies and the one
// hyper-threading verdict rule.
#ifndef XRPROCDETECTOR_SRC_LEGACY_LEGACY_H
#define XRPROCDETECTOR_SRC_LEGACY_LEGACY_H

#include <xrprocdetector/detect.h>
#include <xrprocdetector/xrprocdetector_linux32.h>

#include "legacy/verdict.h"

namespace xrprocdetector {
namespace detail {

// The default detector's getProcData: the three strategies, each announced
// by its banner. *endedBy names the one that gave the counts.
int runDefaultDetection(XrProcDetectorLinux32& detector, Strategy* endedBy);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_LEGACY_LEGACY_H
