// The library's entry points behind the C interface: sources, detection,
// topology, the processor budget and saving, each on the machine a source
// holds. c_api.cpp turns them into the C interface, over which the public
// C++ headers are an inline layer.
#ifndef XRPROCDETECTOR_SRC_API_API_H
#define XRPROCDETECTOR_SRC_API_API_H

#include <xrprocdetector/detect.h>

#include <memory>
#include <optional>
#include <string>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

// What a source holds: read once, shared by its copies, never changed.
struct SourceData {
  Source::Kind kind = Source::Kind::kLive;
  std::string name;
  Error error;
  SavedMachine saved;                        // a saved /proc/cpuinfo text, or a snapshot
  std::shared_ptr<const Topology> topology;  // a snapshot's, read when it was made
  std::uint32_t skip = 0;                    // the XRPD_SKIP_* bits of what it leaves unread

  // The machine to read for one call: this one, strict about an unreadable
  // /proc/cpuinfo, or the saved one.
  std::unique_ptr<Machine> machine() const;
};

// This machine.
const SourceData& liveSource();
// A /proc/cpuinfo text; with `file` the file of that name ("-" standard
// input), read now: a file that cannot be read still makes a source, whose
// error says why.
std::shared_ptr<SourceData> cpuinfoSource(std::string text, const char* file);
// The snapshot or system root in `dir`; nothing, and *error, when it cannot
// be read.
std::shared_ptr<SourceData> snapshotSource(const std::string& dir, Error* error,
                                           std::uint32_t skip = 0);

// One generation's detector run on the source (detect.cpp).
Detection detect(Generation generation, const SourceData& source, const DetectOptions& options);
// The source's topology (none for a saved text alone).
std::shared_ptr<const Topology> topologyOf(const SourceData& source);
// Saves this machine into `dir`; false and *error when it cannot.
bool save(const std::string& dir, Error* error);

// A processor budget kept on a source (budget.cpp).
class BudgetState;
std::shared_ptr<BudgetState> openBudget(std::shared_ptr<const SourceData> source, Error* error);
void readBudget(BudgetState& state, Budget* budget);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_API_API_H
