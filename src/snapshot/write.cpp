// The texts of a snapshot's own files, as saving writes them: each
// processor's CPUID dump and the metadata file.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>

#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

namespace {

std::string hex(std::uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", v);
  return text;
}

std::string dumpLine(std::uint32_t mask, std::uint32_t leaf, std::uint32_t subleaf,
                     const CpuidRegisters& r) {
  return hex(mask) + " " + hex(leaf) + " 0 " + hex(subleaf) + " 0 => " + hex(r.eax) + " " +
         hex(r.ebx) + " " + hex(r.ecx) + " " + hex(r.edx) + "\n";
}

}  // namespace

// Every standard and extended leaf up to the highest the processor names,
// with the sub-leaves of 4, 0xb and 0x1f up to their terminators.
std::string dumpThisProcessor() {
  constexpr std::uint32_t kMaxLeaves = 0x100;
  constexpr std::uint32_t kMaxSubleaves = 64;
  std::string out = "# mask e[abcd]x => e[abcd]x\n";
  for (const std::uint32_t base : {0u, 0x80000000u}) {
    const std::uint32_t highest = cpuid(base, 0).eax;
    if (highest < base) continue;
    const std::uint32_t last = std::min(highest, base + kMaxLeaves - 1);
    for (std::uint32_t leaf = base; leaf <= last; ++leaf) {
      if (leaf != 4 && leaf != 0xb && leaf != 0x1f) {
        out += dumpLine(1, leaf, 0, cpuid(leaf, 0));
        continue;
      }
      for (std::uint32_t sub = 0; sub < kMaxSubleaves; ++sub) {
        const CpuidRegisters r = cpuid(leaf, sub);
        out += dumpLine(5, leaf, sub, r);
        const bool end = leaf == 4 ? (r.eax & 0x1F) == 0 : (r.ecx >> 8 & 0xFF) == 0;
        if (end) break;
      }
    }
  }
  return out;
}

std::string formatMetadata(const SnapshotMetadata& m, const std::string& savedBy) {
  char when[32];
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return "{\n  \"format\": \"xrprocdetect-snapshot\",\n  \"version\": 1,\n"
         "  \"configuredProcessors\": " +
         std::to_string(m.configured) + ",\n  \"onlineProcessors\": " + std::to_string(m.online) +
         ",\n  \"affinity\": \"" + formatProcessorList(m.affinity) +
         "\",\n  \"vmwareBackdoor\": " + (m.vmwareBackdoor ? "true" : "false") +
         ",\n  \"savedBy\": " + jsonQuoted(savedBy) + ",\n  \"savedAt\": \"" + when + "\"\n}\n";
}

}  // namespace detail
}  // namespace xrprocdetector
