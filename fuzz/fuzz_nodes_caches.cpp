// The NUMA node and cache readers on machines made from the input, held in
// memory: node and cache files of any content for processors 0-3 and nodes
// 0-2 (online), and each processor's CPUID answers to the leaves those
// readers ask.
// None may crash or hang, and what they give must hold together: every
// cache and node holds online processors only (a cache at least one), each
// processor's node and last level cache are indices of the lists.
//
// The input is a list of entries: a selector byte, a length byte, then that
// many bytes: a file's text, or for CPUID a sub-leaf byte and four 32-bit
// registers.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kernel/kernel.h"

namespace dt = xrprocdetector::detail;

namespace {

// clang-format off
const char* const kNodeFiles[] = {"cpulist", "cpumap", "meminfo", "distance"};
const char* const kCacheFiles[] = {"level", "type", "size", "coherency_line_size",
                                   "ways_of_associativity", "shared_cpu_map", "shared_cpu_list"};
const std::uint32_t kLeaves[] = {0, 1, 4, 0xb, 0x80000000, 0x80000001, 0x80000005, 0x80000006,
                                 0x8000001d};
// clang-format on

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  dt::SavedMachine saved;
  saved.affinity = xrprocdetector::CpuSet({0, 1, 2, 3});
  dt::ReplayMachine m(saved);  // which answers from `saved` as it is when asked
  saved.files["sys/devices/system/cpu/online"] = "0-3";
  saved.files["sys/devices/system/node/online"] = "0-2";
  for (std::size_t i = 0; i + 2 <= size;) {
    const unsigned s = data[i];
    const std::string text(reinterpret_cast<const char*>(data + i + 2),
                           std::min<std::size_t>(data[i + 1], size - i - 2));
    i += 2 + text.size();
    if (s >= 0xc0 && !text.empty()) {  // CPUID of processor s & 3, the leaf from the bits above
      std::uint32_t out[4] = {};
      std::memcpy(out, text.data() + 1, std::min<std::size_t>(text.size() - 1, sizeof out));
      saved.cpuid[s & 3].push_back(
          {5, {kLeaves[(s >> 2 & 0xf) % 9], 0, text[0] & 7u, 0}, {out[0], out[1], out[2], out[3]}});
    } else if (s >= 0x80) {
      saved.files["sys/devices/system/node/node" + std::to_string(s % 3) + "/" +
                  kNodeFiles[(s >> 2) % 4]] = text;
    } else {
      saved.files["sys/devices/system/cpu/cpu" + std::to_string(s & 3) + "/cache/index" +
                  std::to_string(s >> 2 & 3) + "/" + kCacheFiles[(s >> 4) % 7]] = text;
    }
  }
  const xrprocdetector::Topology t = dt::readTopology(m);
  bool wrong = false;
  for (const xrprocdetector::Cache& c : t.caches)
    wrong = wrong || c.processors.empty() || (c.processors & t.online) != c.processors;
  for (const xrprocdetector::NumaNode& n : t.numaNodes)
    wrong = wrong || (n.processors & t.online) != n.processors;
  for (const xrprocdetector::Processor& p : t.processors)
    wrong = wrong || p.numaNode >= static_cast<std::int32_t>(t.numaNodes.size()) ||
            p.lastLevelCache >= static_cast<std::int32_t>(t.caches.size());
  if (wrong) std::abort();
  return 0;
}
