// Cores of several kinds (performance and efficiency cores): which core is
// of which kind, by the first of these that tells them apart:
//   the kernel's sys/devices/cpu_core/cpus and sys/devices/cpu_atom/cpus;
//   cpufreq/base_frequency values that differ between the cores of one
//   package;
//   CPUID leaf 0x1A's core type (0x40 a performance core, 0x20 an
//   efficiency core), where leaf 7 says the processor is hybrid.
// Never by the maximum or boost frequencies, nor by acpi_cppc/highest_perf:
// processors that rank their cores for boosting (preferred or favoured
// cores) give every core of one kind a different value.
#include <map>

#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

using Ranks = std::map<unsigned, long>;  // a rank by processor: lower is faster

bool byKernelLists(SystemRoot& root, Ranks* ranks) {
  CpuSet cpus;
  bool any = false;
  const char* const kLists[] = {"sys/devices/cpu_core/cpus", "sys/devices/cpu_atom/cpus"};
  for (long rank = 0; rank < 2; ++rank) {
    if (root.list(kLists[rank], &cpus) != Read::kOk) continue;
    any = true;
    for (const unsigned c : cpus)
      (*ranks)[c] = rank;
  }
  return any;
}

// Base frequencies, the highest first, where two cores of one package
// differ: packages of different models are not kinds of core.
bool byBaseFrequency(SystemRoot& root, const Topology& t, Ranks* ranks) {
  std::map<std::int32_t, long> firstOfPackage;  // by package, its first core's
  bool differ = false;
  for (const Processor& p : t.processors) {
    if (p.core < 0 || p.thread != 0) continue;  // each core's first processor
    long value = 0;
    const std::string path =
        "sys/devices/system/cpu/cpu" + std::to_string(p.cpu) + "/cpufreq/base_frequency";
    if (root.number(path, &value, 1) != Read::kOk) return false;
    (*ranks)[p.cpu] = -value;
    differ = differ || firstOfPackage.emplace(p.package, value).first->second != value;
  }
  return differ;
}

bool byCpuid(SystemRoot& root, const Topology& t, Ranks* ranks) {
  const std::optional<CpuidRegisters> leaf0 = root.cpuid(0, 0);
  const std::optional<CpuidRegisters> leaf7 = root.cpuid(7, 0);
  if (!leaf0 || !leaf7 || leaf0->eax < 0x1a || (leaf7->edx >> 15 & 1) == 0) return false;
  for (const CpuSet& core : t.cores) {
    const unsigned c = *core.begin();
    const auto leaf = root.cpuidOn(c, 0x1a, 0);
    const std::uint32_t type = leaf ? leaf->eax >> 24 : 0;
    if (type == 0) return false;
    (*ranks)[c] = type == 0x40 ? 0 : type == 0x20 ? 1 : 2;
  }
  return !t.cores.empty();
}

}  // namespace

std::vector<CoreKindSet> coreKinds(SystemRoot& root, const Topology& t) {
  Ranks ranks;
  if (t.cores.empty()) return {};
  if (!byKernelLists(root, &ranks)) {
    const bool found = (ranks.clear(), byBaseFrequency(root, t, &ranks)) ||
                       (ranks.clear(), byCpuid(root, t, &ranks));
    if (!found) return {};
  }
  std::map<long, CoreKindSet> kinds;
  for (const CpuSet& core : t.cores) {
    const auto rank = ranks.find(*core.begin());
    if (rank == ranks.end()) return {};  // a core that nothing tells of
    CoreKindSet& kind = kinds[rank->second];
    ++kind.cores;
    for (const unsigned c : core)
      kind.processors.add(c);
  }
  if (kinds.size() < 2) return {};
  std::vector<CoreKindSet> out;
  for (auto& [rank, kind] : kinds) {
    const std::size_t n = out.size();
    kind.rank = static_cast<std::int32_t>(n);
    kind.kind = kinds.size() > 2 ? "kind " + std::to_string(n + 1)
                                 : (n == 0 ? "performance" : "efficiency");
    out.push_back(kind);
  }
  return out;
}

}  // namespace detail
}  // namespace xrprocdetector
