// The caches of a machine, one Cache an instance, shared by online
// processors only: from the kernel's cpuN/cache/indexM folders, or where
// the kernel lists none, from CPUID.
//
// The folders: each instance is read once, from the first online processor
// that holds it. A processor's indexM is skipped when an instance read from
// another's indexM holds it (the kernel numbers a processor's caches in the
// order its CPUID lists them, the same on the processors that share one);
// an instance read twice, with the same level, type and sharers, counts
// once. Of an instance, its sharers and size are read: shared_cpu_map, the
// hardware's, else shared_cpu_list (kernels before 2.6.26 have only the
// mask); its level, type, line size and ways only where no folder of the
// same number and size was read before (kinds of core differ in size).
// `id` is never read: it tells instances of one kind of core apart, and
// collides between kinds. ways_of_associativity 0 is a fully associative
// cache, as the kernel's cacheinfo writes it (-1 here); without the file,
// 0: unknown.
//
// CPUID: leaf 4 (Intel), else 0x8000001D (AMD's topology extensions), each
// online processor's, sharing by APIC id; else 0x80000005 and 0x80000006
// (older AMD processors): L1 and L2 a core's, L3 a package's.
#include <algorithm>
#include <map>
#include <tuple>

#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

// "32K" as the kernel writes a size: a number with K, M or G, or without
// one, kilobytes, as the ABI has it.
Read sizeOf(SystemRoot& cpus, const std::string& path, std::uint64_t* bytes) {
  std::string text;
  const Read r = cpus.text(path, &text);
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::string unit = text.substr(digits);
  const int shift = unit.empty() || unit == "K" ? 10 : unit == "M" ? 20 : unit == "G" ? 30 : 0;
  long n = 0;
  if (r != Read::kOk) return r;
  if (shift > 0 && wholeNumber(std::string_view(text).substr(0, digits), 0, 1L << 32, &n)) {
    *bytes = static_cast<std::uint64_t>(n) << shift;
    return r;
  }
  return cpus.fail(path, "line 1: not a size such as 32K");
}

// What a cache folder says of its kind: level, type, line size and ways.
Read readKind(SystemRoot& cpus, const std::string& dir, Cache* c) {
  static const char* const kTypes[] = {"Data", "Instruction", "Unified"};
  long level = 0;
  long line = 0;
  long ways = 0;
  std::string type;
  if (cpus.number(dir + "level", &level, 1, 255) != Read::kOk ||
      cpus.text(dir + "type", &type) != Read::kOk)
    return Read::kFailed;
  const auto known = std::find(std::begin(kTypes), std::end(kTypes), type);
  if (known == std::end(kTypes)) return cpus.fail(dir + "type", "line 1: not a cache type");
  const Read w = cpus.number(dir + "ways_of_associativity", &ways, 0, INT32_MAX);
  if (w == Read::kFailed ||
      cpus.number(dir + "coherency_line_size", &line, 0, INT32_MAX) == Read::kFailed)
    return Read::kFailed;
  c->level = static_cast<std::int32_t>(level);
  c->type = static_cast<CacheType>(known - std::begin(kTypes));
  c->lineBytes = static_cast<std::int32_t>(line);
  c->ways = w == Read::kOk && ways == 0 ? -1 : static_cast<std::int32_t>(ways);
  return Read::kOk;
}

// The kinds read so far, by index number and size.
using Kinds = std::map<std::pair<std::size_t, std::uint64_t>, Cache>;

// Folder indexM's cache: its sharers and size, and its kind as read before
// from another folder M of that size, else from this one. kAbsent where
// neither sharing file is there.
Read readIndex(SystemRoot& cpus, const std::string& dir, std::size_t m, Kinds& kinds, Cache* c) {
  CpuSet sharers;
  std::uint64_t size = 0;
  Read r = cpus.list(dir + "shared_cpu_map", &sharers, true);
  if (r == Read::kAbsent) r = cpus.list(dir + "shared_cpu_list", &sharers);
  if (r != Read::kOk || sizeOf(cpus, dir + "size", &size) == Read::kFailed)
    return r == Read::kAbsent ? r : Read::kFailed;
  const auto kind = kinds.find({m, size});
  if (kind != kinds.end()) *c = kind->second;
  if (kind == kinds.end() && readKind(cpus, dir, c) != Read::kOk) return Read::kFailed;
  if (kind == kinds.end()) kinds.emplace(std::make_pair(m, size), *c);
  c->sizeBytes = size;
  c->processors = sharers;
  return Read::kOk;
}

// Every instance of the folders, into *caches.
void fromFolders(SystemRoot& cpus, const CpuSet& online, std::vector<Cache>* caches) {
  std::map<unsigned, std::vector<std::size_t>> holding;  // by processor, the instances holding it
  std::vector<std::size_t> from;                         // by instance, its folder's number
  std::vector<std::size_t> folders;                      // by instance, how many its processor has
  Kinds kinds;
  caches->reserve(4 * online.count());  // each a set of 1 KiB: moved no more than once
  for (const unsigned cpu : online) {
    const std::size_t before = caches->size();
    const std::vector<std::size_t>& held = holding[cpu];
    std::size_t m = 0;
    for (; m < 64; ++m) {
      if (std::any_of(held.begin(), held.end(), [&](std::size_t i) { return from[i] == m; }))
        continue;
      // The processor that read the first cache this one holds had m
      // folders: so has this one, which numbers the caches alike.
      if (!held.empty() && held.front() < before && folders[held.front()] == m) break;
      Cache c;
      const std::string dir =
          "cpu" + std::to_string(cpu) + "/cache/index" + std::to_string(m) + "/";
      const Read r = readIndex(cpus, dir, m, kinds, &c);
      if (r == Read::kAbsent) break;
      c.processors = c.processors & online;
      c.processors.add(cpu);
      // Read before from another processor's folder of another number.
      const auto same = [&](std::size_t i) {
        const Cache& o = (*caches)[i];
        return i < before && o.level == c.level && o.type == c.type && o.processors == c.processors;
      };
      if (r == Read::kFailed || std::any_of(held.begin(), held.end(), same)) continue;
      from.push_back(m);
      for (const unsigned s : c.processors)
        holding[s].push_back(caches->size());
      caches->push_back(c);
    }
    folders.resize(caches->size(), m);
  }
}

// A cache as leaf 4 and leaf 0x8000001D describe it, whose type (1 data, 2
// instruction, 3 unified) is one of the three.
Cache described(const CpuidRegisters& r) {
  Cache c;
  c.level = static_cast<std::int32_t>(r.eax >> 5 & 7);
  c.type = static_cast<CacheType>((r.eax & 0x1f) - 1);  // CacheType's order
  c.lineBytes = static_cast<std::int32_t>((r.ebx & 0xfff) + 1);
  const std::uint32_t ways = (r.ebx >> 22) + 1;
  c.sizeBytes = std::uint64_t{ways} * ((r.ebx >> 12 & 0x3ff) + 1) *
                static_cast<std::uint64_t>(c.lineBytes) * (std::uint64_t{r.ecx} + 1);
  c.ways = (r.eax >> 9 & 1) != 0 ? -1 : static_cast<std::int32_t>(ways);
  return c;
}

// The x2APIC id of leaf 0xB where it answers, else leaf 1's initial APIC id.
std::optional<std::uint32_t> apicId(SystemRoot& root, unsigned cpu, std::uint32_t maxLeaf) {
  const auto x2 = maxLeaf >= 0xb ? root.cpuidOn(cpu, 0xb, 0) : std::nullopt;
  if (x2 && (x2->ebx & 0xffff) != 0) return x2->edx;
  const auto leaf1 = root.cpuidOn(cpu, 1, 0);
  return leaf1 ? std::optional<std::uint32_t>(leaf1->ebx >> 24) : std::nullopt;
}

// Each online processor's caches by `leaf` (4 or 0x8000001D). Those that
// share one have the same APIC id but for its low ceil(log2(sharers)) bits.
void fromCacheLeaf(SystemRoot& root, const CpuSet& online, std::uint32_t leaf,
                   std::uint32_t maxLeaf, std::vector<Cache>* caches) {
  std::map<std::tuple<std::int32_t, CacheType, int, std::uint32_t>, std::size_t> instances;
  for (const unsigned cpu : online) {
    const std::optional<std::uint32_t> apic = apicId(root, cpu, maxLeaf);
    for (std::uint32_t sub = 0; apic && sub < 16; ++sub) {
      const std::optional<CpuidRegisters> r = root.cpuidOn(cpu, leaf, sub);
      if (!r || (r->eax & 0x1f) == 0 || (r->eax & 0x1f) > 3) break;
      int shift = 0;
      while ((1u << shift) < (r->eax >> 14 & 0xfff) + 1)
        ++shift;
      const Cache c = described(*r);
      const auto at = instances.emplace(std::make_tuple(c.level, c.type, shift, *apic >> shift),
                                        caches->size());
      if (at.second) caches->push_back(c);
      (*caches)[at.first->second].processors.add(cpu);
    }
  }
}

// The current processor's 0x80000005 (L1 data in ECX, instruction in EDX)
// and 0x80000006 (L2 in ECX, L3 in EDX): L1 and L2 each core's, L3 each
// package's; each processor alone, or all, where the cores or packages are
// not known.
void fromAmdLeaves(SystemRoot& root, const Topology& t, std::vector<Cache>* caches) {
  // The ways of L2's and L3's 4-bit field.
  static const std::int32_t kWays[16] = {0, 1, 2, 3, 4, 6, 8, 0, 16, 0, 32, 48, 64, 96, 128, -1};
  const std::optional<CpuidRegisters> l1 = root.cpuid(0x80000005, 0);
  const std::optional<CpuidRegisters> l2 = root.cpuid(0x80000006, 0);
  if (!l1 || !l2) return;
  const auto l1Ways = [](std::uint32_t r) {
    return (r >> 16 & 0xff) == 0xff ? -1 : static_cast<std::int32_t>(r >> 16 & 0xff);
  };
  const std::tuple<std::uint32_t, CacheType, std::uint64_t, std::int32_t> kinds[] = {
      {l1->ecx, CacheType::kData, std::uint64_t{l1->ecx >> 24} << 10, l1Ways(l1->ecx)},
      {l1->edx, CacheType::kInstruction, std::uint64_t{l1->edx >> 24} << 10, l1Ways(l1->edx)},
      {l2->ecx, CacheType::kUnified, std::uint64_t{l2->ecx >> 16} << 10,
       kWays[l2->ecx >> 12 & 0xf]},
      {l2->edx, CacheType::kUnified, std::uint64_t{l2->edx >> 18} << 19,
       kWays[l2->edx >> 12 & 0xf]}};
  std::vector<CpuSet> alone;
  for (const unsigned cpu : t.online)
    alone.push_back(CpuSet({cpu}));
  const std::vector<CpuSet> all{t.online};
  for (std::size_t k = 0; k < 4; ++k) {
    const auto& [reg, type, size, ways] = kinds[k];
    const std::vector<CpuSet>& groups =
        k < 3 ? (t.cores.empty() ? alone : t.cores) : (t.packages.empty() ? all : t.packages);
    for (const CpuSet& group : groups) {
      if (size > 0)
        caches->push_back({k < 2 ? 1 : static_cast<std::int32_t>(k), type, size,
                           static_cast<std::int32_t>(reg & 0xff), ways, group & t.online});
    }
  }
}

// The caches CPUID describes.
void fromCpuid(SystemRoot& root, const Topology& t, std::vector<Cache>* caches) {
  const std::optional<CpuidRegisters> leaf0 = root.cpuid(0, 0);
  const std::optional<CpuidRegisters> ext0 = root.cpuid(0x80000000, 0);
  if (!leaf0 || !ext0) return;
  const std::uint32_t extended = ext0->eax < 0x8000ffff ? ext0->eax : 0;
  const std::optional<CpuidRegisters> leaf4 = leaf0->eax >= 4 ? root.cpuid(4, 0) : std::nullopt;
  const std::optional<CpuidRegisters> ext1 =
      extended >= 0x8000001d ? root.cpuid(0x80000001, 0) : std::nullopt;
  if (leaf4 && (leaf4->eax & 0x1f) != 0)
    fromCacheLeaf(root, t.online, 4, leaf0->eax, caches);
  else if (ext1 && (ext1->ecx >> 22 & 1) != 0)
    fromCacheLeaf(root, t.online, 0x8000001d, leaf0->eax, caches);
  if (caches->empty() && extended >= 0x80000006) fromAmdLeaves(root, t, caches);
}

}  // namespace

void readCaches(SystemRoot& cpus, Topology& t) {
  fromFolders(cpus, t.online, &t.caches);
  if (t.caches.empty()) fromCpuid(cpus, t, &t.caches);
  // In order of level, type and lowest processor: their numbers are
  // sorted, then each cache moved once, along the cycles of that order (a
  // cache is 1 KiB; a merge sort moves each many times, through a buffer of
  // them all).
  std::vector<std::tuple<std::int32_t, CacheType, unsigned, std::size_t>> order;
  for (std::size_t i = 0; i < t.caches.size(); ++i) {
    const Cache& c = t.caches[i];
    order.emplace_back(c.level, c.type, *c.processors.begin(), i);
  }
  std::sort(order.begin(), order.end());
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (std::get<3>(order[i]) == i) continue;  // in place
    const Cache first = t.caches[i];
    std::size_t at = i;
    for (std::size_t from = std::get<3>(order[at]); from != i; from = std::get<3>(order[at])) {
      t.caches[at] = t.caches[from];
      std::get<3>(order[at]) = at;
      at = from;
    }
    t.caches[at] = first;
    std::get<3>(order[at]) = at;
  }
  // Each processor's last-level cache: the last in that order holding it.
  // The processors are in increasing order of number.
  for (std::size_t i = 0; i < t.caches.size(); ++i) {
    for (const unsigned cpu : t.caches[i].processors) {
      const auto p = std::lower_bound(t.processors.begin(), t.processors.end(), cpu,
                                      [](const Processor& q, unsigned n) { return q.cpu < n; });
      if (p != t.processors.end() && p->cpu == cpu && t.caches[i].type != CacheType::kInstruction)
        p->lastLevelCache = static_cast<std::int32_t>(i);
    }
  }
}

}  // namespace detail
}  // namespace xrprocdetector
