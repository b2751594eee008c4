// Where to put the work: the processors one by one with their NUMA node and
// last-level cache, OMP_PLACES, the caches by kind, a picture of the
// machine.
#include <cstdio>
#include <map>
#include <tuple>

#include "report.h"

namespace xrprocdetect {

namespace {

std::string field(std::int32_t v) {
  return v < 0 ? std::string() : std::to_string(v);
}

// A size as lscpu writes one: "48K", "1.3M", "32M".
std::string sizeText(std::uint64_t bytes) {
  const char* const units[] = {"", "K", "M", "G", "T"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  for (; value >= 1024 && unit < 4; ++unit)
    value /= 1024;
  char text[32];
  std::snprintf(text, sizeof text, "%.3g%s", value, units[unit]);
  return text;
}

std::string cacheName(const Cache& c) {
  static const char* const kSuffixes[] = {"d", "i", ""};  // by CacheType
  return "L" + std::to_string(c.level) + (c.level == 1 ? kSuffixes[static_cast<int>(c.type)] : "");
}

// One level of the picture: a label and the processors under it.
struct Group {
  std::string label;
  CpuSet cpus;
};

void draw(const Topology& t, const std::vector<std::vector<Group>>& levels, std::size_t depth,
          const CpuSet& within, std::string* out) {
  for (const Group& g : levels[depth]) {
    const CpuSet here = g.cpus & within;
    if (here.empty()) continue;
    *out += std::string(2 * depth + 2, ' ') + g.label;
    if (depth + 1 < levels.size()) {
      *out += " (" + here.toList() + ")\n";
      draw(t, levels, depth + 1, here, out);
      continue;
    }
    for (const unsigned cpu : here)
      *out += " " + std::to_string(cpu) + (t.usable.contains(cpu) ? "*" : "");
    *out += "\n";
  }
}

}  // namespace

std::string cpuLines(const Topology& t) {
  std::string out = "# CPU,Package,Die,Core,Thread,Kind,Online,Usable,Node,L3\n";
  for (const Processor& p : t.processors) {
    const std::string kind = p.kind < 0 ? "" : t.coreKinds[static_cast<std::size_t>(p.kind)].kind;
    const auto node = static_cast<std::size_t>(p.numaNode);
    // The L3 column: the index of the processor's level-3 cache among them.
    std::int32_t l3 = -1;
    for (std::size_t i = 0, n = 0; i < t.caches.size(); ++i) {
      if (t.caches[i].level != 3) continue;
      if (t.caches[i].processors.contains(p.cpu)) l3 = static_cast<std::int32_t>(n);
      ++n;
    }
    out += std::to_string(p.cpu) + "," + field(p.package) + "," + field(p.die) + "," +
           field(p.core) + "," + field(p.thread) + "," + kind + "," + (p.online ? "Y" : "N") + "," +
           (p.usable ? "Y" : "N") + "," +
           (node < t.numaNodes.size() ? field(t.numaNodes[node].node) : "") + "," + field(l3) +
           "\n";
  }
  return out;
}

std::optional<PlaceKind> placeKind(const std::string& name) {
  static const std::pair<const char*, PlaceKind> kKinds[] = {
      {"threads", PlaceKind::kThreads},
      {"cores", PlaceKind::kCores},
      {"ll_caches", PlaceKind::kLlCaches},
      {"numa_domains", PlaceKind::kNumaDomains},
      {"sockets", PlaceKind::kSockets}};
  for (const auto& [word, kind] : kKinds)
    if (name == word) return kind;
  return std::nullopt;
}

std::string cacheLines(const Topology& t) {
  std::map<std::tuple<std::int32_t, CacheType>, std::vector<const Cache*>> kinds;
  for (const Cache& c : t.caches)
    kinds[{c.level, c.type}].push_back(&c);
  std::vector<std::vector<std::string>> cells = {
      {"NAME", "ONE-SIZE", "ALL-SIZE", "WAYS", "TYPE", "LEVEL", "INSTANCES", "LINE"}};
  for (const auto& [key, caches] : kinds) {
    const Cache& c = *caches.front();
    std::uint64_t all = 0;
    bool same = true;
    for (const Cache* one : caches) {
      all += one->sizeBytes;
      same = same && one->sizeBytes == c.sizeBytes;
    }
    static const char* const kTypes[] = {"Data", "Instruction", "Unified"};  // by CacheType
    cells.push_back({cacheName(c), same ? sizeText(c.sizeBytes) : "mixed", sizeText(all),
                     c.ways < 0 ? "full" : field(c.ways), kTypes[static_cast<int>(c.type)],
                     std::to_string(c.level), std::to_string(caches.size()), field(c.lineBytes)});
  }
  const bool right[] = {false, true, true, true, false, true, true, true};
  return kinds.empty() ? "" : aligned(cells, right);
}

std::string drawing(const Topology& t) {
  std::vector<std::vector<Group>> levels(4);
  for (std::size_t i = 0; i < t.packages.size(); ++i)
    levels[0].push_back({"Package " + std::to_string(i), t.packages[i]});
  for (const NumaNode& n : t.numaNodes)
    levels[1].push_back({"NUMA node " + std::to_string(n.node) +
                             (n.memoryBytes ? " " + sizeText(*n.memoryBytes) + "B" : std::string()),
                         n.processors});
  for (const Processor& p : t.processors) {
    const auto llc = static_cast<std::size_t>(p.lastLevelCache);
    const bool first = llc < t.caches.size() && *t.caches[llc].processors.begin() == p.cpu;
    if (first)
      levels[2].push_back({cacheName(t.caches[llc]) + " " + sizeText(t.caches[llc].sizeBytes),
                           t.caches[llc].processors});
  }
  for (std::size_t i = 0; i < t.cores.size(); ++i) {
    const Processor* p = nullptr;
    for (const Processor& q : t.processors)
      if (q.cpu == *t.cores[i].begin()) p = &q;
    const bool kinds = p != nullptr && p->kind >= 0;
    levels[3].push_back(
        {"Core " + std::to_string(i) +
             (kinds ? " " + t.coreKinds[static_cast<std::size_t>(p->kind)].kind : std::string()) +
             ":",
         t.cores[i]});
  }
  if (levels[3].empty())
    for (const unsigned cpu : t.online)
      levels[3].push_back({"Processor:", CpuSet({cpu})});
  for (std::size_t l = 3; l-- > 0;)
    if (levels[l].empty()) levels.erase(levels.begin() + static_cast<std::ptrdiff_t>(l));
  const std::string online =
      t.known(TopologySet::kOnline) ? t.online.toList() + " online" : "online processors not known";
  std::string out = "Machine (" + online + "; * marks what this process may use)\n";
  if (!t.online.empty()) draw(t, levels, 0, t.online, &out);
  if (!t.offline.empty()) out += "  Offline: " + t.offline.toList() + "\n";
  return out;
}

}  // namespace xrprocdetect
