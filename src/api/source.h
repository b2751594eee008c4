// What a Source holds: read once, shared by its copies, never changed.
#ifndef XRPROCDETECTOR_SRC_API_SOURCE_H
#define XRPROCDETECTOR_SRC_API_SOURCE_H

#include <xrprocdetector/detect.h>

#include <string>

#include "snapshot/snapshot.h"

namespace xrprocdetector {

class SourceData {
 public:
  Source::Kind kind = Source::Kind::kLive;
  std::string name;
  std::string error;
  std::string text;            // a saved /proc/cpuinfo
  XrMachineSnapshot snapshot;  // a snapshot
};

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_API_SOURCE_H
