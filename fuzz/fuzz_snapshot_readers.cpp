// The snapshot readers on arbitrary bytes: the CPUID dump parser (and a
// lookup in what it accepted), the processor-list parser (whose output must
// be sorted, bounded and survive a round trip through its formatter), and
// the CPU-mask parser and the metadata parser. None may crash, hang or accept what it then cannot
// hold.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

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

  // A list read back from what it was written as is the same set; the
  // set's count and iteration agree.
  xrprocdetector::CpuSet processors;
  if (dt::parseProcessorList(text, &processors, &error)) {
    xrprocdetector::CpuSet again;
    if (!dt::parseProcessorList(processors.toList(), &again, &error) || again != processors ||
        static_cast<std::size_t>(std::distance(processors.begin(), processors.end())) !=
            processors.count())
      std::abort();
  }
  dt::parseCpuMask(text, &processors, &error);

  dt::SavedMachine metadata;
  if (dt::parseMetadata(text, &metadata, &error)) {
    for (const unsigned p : *metadata.affinity) {
      if (p >= dt::kKernelMaxProcessors) std::abort();
    }
  }
  return 0;
}
