// What a Source holds: read once, shared by its copies, never changed.
#ifndef XRPROCDETECTOR_SRC_API_SOURCE_H
#define XRPROCDETECTOR_SRC_API_SOURCE_H

#include <xrprocdetector/detect.h>

#include <memory>
#include <string>

#include "machine/machine.h"

namespace xrprocdetector {

class SourceData {
 public:
  Source::Kind kind = Source::Kind::kLive;
  std::string name;
  std::string error;
  detail::SavedMachine saved;  // a saved /proc/cpuinfo text, or a snapshot

  // The machine to read for one call: this one, strict about an unreadable
  // /proc/cpuinfo, or the saved one.
  std::unique_ptr<detail::Machine> machine() const;
};

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_API_SOURCE_H
