// Cores of several kinds (performance and efficiency cores): which core is
// of which kind, by the first of these that tells them apart:
//   the kernel's sys/devices/cpu_core/cpus and sys/devices/cpu_atom/cpus;
//   distinct cpufreq/base_frequency values of the cores' first processors;
//   distinct acpi_cppc/highest_perf values;
//   CPUID leaf 0x1A's core type (0x40 a performance core, 0x20 an
//   efficiency core) in a snapshot's dumps.
#include <map>

#include "kernel/kernel.h"
#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

namespace {

using Ranks = std::map<unsigned, long>;  // a rank by processor: lower is faster

bool byKernelLists(SystemRoot& root, Ranks* ranks) {
  std::vector<unsigned> cpus;
  bool any = false;
  const char* const kLists[] = {"sys/devices/cpu_core/cpus", "sys/devices/cpu_atom/cpus"};
  for (long rank = 0; rank < 2; ++rank) {
    if (root.list(kLists[rank], kKernelMaxProcessors, &cpus) != Read::kOk) continue;
    any = true;
    for (const unsigned c : cpus)
      (*ranks)[c] = rank;
  }
  return any;
}

bool byValue(SystemRoot& root, const std::vector<unsigned>& firsts, const char* file,
             Ranks* ranks) {
  for (const unsigned c : firsts) {
    long value = 0;
    const std::string path = "sys/devices/system/cpu/cpu" + std::to_string(c) + "/" + file;
    if (root.number(path, &value, 1) != Read::kOk) return false;  // a frequency or a rank
    (*ranks)[c] = -value;                                         // the highest value first
  }
  return !firsts.empty();
}

bool byCpuid(const std::map<unsigned, std::vector<XrCpuidLine>>* cpuid,
             const std::vector<unsigned>& firsts, Ranks* ranks) {
  if (cpuid == nullptr) return false;
  for (const unsigned c : firsts) {
    const auto dump = cpuid->find(c);
    if (dump == cpuid->end()) return false;
    const std::uint32_t type = dumpAnswer(dump->second, 0x1a, 0).eax >> 24;
    if (type == 0) return false;
    (*ranks)[c] = type == 0x40 ? 0 : type == 0x20 ? 1 : 2;
  }
  return !firsts.empty();
}

}  // namespace

std::vector<CoreKind> coreKinds(SystemRoot& root, const std::vector<std::vector<unsigned>>& cores,
                                const std::map<unsigned, std::vector<XrCpuidLine>>* cpuid) {
  std::vector<unsigned> firsts;
  for (const auto& threads : cores)
    firsts.push_back(threads.front());
  Ranks ranks;
  if (!byKernelLists(root, &ranks)) {
    const bool found = (ranks.clear(), byValue(root, firsts, "cpufreq/base_frequency", &ranks)) ||
                       (ranks.clear(), byValue(root, firsts, "acpi_cppc/highest_perf", &ranks)) ||
                       (ranks.clear(), byCpuid(cpuid, firsts, &ranks));
    if (!found) return {};
  }
  std::map<long, CoreKind> kinds;
  for (const auto& threads : cores) {
    const auto rank = ranks.find(threads.front());
    if (rank == ranks.end()) return {};  // a core that nothing tells of
    CoreKind& kind = kinds[rank->second];
    ++kind.cores;
    kind.logicalProcessors += static_cast<std::int32_t>(threads.size());
  }
  if (kinds.size() < 2) return {};
  std::vector<CoreKind> out;
  for (auto& [rank, kind] : kinds) {
    const std::size_t n = out.size();
    kind.kind = kinds.size() > 2 ? "kind " + std::to_string(n + 1)
                                 : (n == 0 ? "performance" : "efficiency");
    out.push_back(kind);
  }
  return out;
}

}  // namespace detail
}  // namespace xrprocdetector
