// The hyper-threading verdict: one rule for every report that states it.
#ifndef XRPROCDETECTOR_INTERNAL_REPORT_H
#define XRPROCDETECTOR_INTERNAL_REPORT_H

#include <cstdint>

#include "xrprocdetector/xrprocdetector.h"

namespace xrprocdetector {
namespace detail {

struct Verdict {
  int state;            // 0 not capable, 1 disabled, 2 enabled
  bool multiCore;       // more cores than packages
  bool multiProcessor;  // more than one package
  // The verdict and multi-core lines, up to and including "Multi-processor: ".
  const char* text;
};

// From the logical (L), package (P) and core (C) counts. Logical processors
// per core are L / C truncated when C > 1, else L itself; a ratio of 1 is
// "not capable", otherwise C >= L is "Disabled", otherwise "Enabled".
Verdict hyperThreadingVerdict(std::int32_t logical, std::int32_t physical, std::int32_t cores);

// Writes the three totals lines at level 1: packages, logical processors,
// cores.
void writeTotals(XrProcObject& out, std::int32_t physical, std::int32_t logical,
                 std::int32_t cores);

// Writes the summary at level 1: the verdict line in one piece, then the
// totals. Returns the verdict.
Verdict writeSummary(XrProcObject& out, std::int32_t logical, std::int32_t physical,
                     std::int32_t cores);

// The operating system's configured and online processor counts, each read
// once, configured first; each is written with its format at level 1.
struct ProcessorCounts {
  long configured;
  long online;
};
ProcessorCounts readProcessorCounts(XrProcObject& out, const char* configuredFormat,
                                    const char* onlineFormat);

// 32-bit two's complement narrowing of a system or strtol value.
inline std::int32_t narrow32(long value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<unsigned long>(value)));
}

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_REPORT_H
