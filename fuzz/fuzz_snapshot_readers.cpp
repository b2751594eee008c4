// The snapshot readers on arbitrary bytes: the CPUID dump parser (and a
// lookup in what it accepted), the processor-list parser (whose output must
// be sorted, bounded and survive a round trip through its formatter), and
// the CPU-mask parser and the metadata parser. None may crash, hang or accept what it then cannot
// hold.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "snapshot/snapshot_io.h"

namespace dt = xrprocdetector::detail;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;

  dt::CpuidDump lines;
  if (dt::parseCpuidDump(text, &lines, &error)) {
    dt::dumpAnswer(lines, 0, 0);
    dt::dumpAnswer(lines, 0xb, 1);
  } else if (error.empty()) {
    std::abort();  // a refusal always says why
  }

  std::vector<unsigned> processors;
  if (dt::parseProcessorList(text, dt::kKernelMaxProcessors, &processors, &error)) {
    for (std::size_t i = 0; i < processors.size(); ++i) {
      if (processors[i] >= dt::kKernelMaxProcessors ||
          (i > 0 && processors[i] <= processors[i - 1]))
        std::abort();
    }
    std::vector<unsigned> again;
    if (!dt::parseProcessorList(dt::formatProcessorList(processors), dt::kKernelMaxProcessors,
                                &again, &error) ||
        again != processors)
      std::abort();
  }

  // A CPU mask's processors come out in order and within the limit.
  if (dt::parseCpuMask(text, dt::kKernelMaxProcessors, &processors, &error)) {
    for (std::size_t i = 0; i < processors.size(); ++i) {
      if (processors[i] >= dt::kKernelMaxProcessors ||
          (i > 0 && processors[i] <= processors[i - 1]))
        std::abort();
    }
  }

  dt::SavedMachine metadata;
  if (dt::parseMetadata(text, &metadata, &error)) {
    for (const unsigned p : *metadata.affinity) {
      if (p >= dt::kKernelMaxProcessors) std::abort();
    }
  }
  return 0;
}
