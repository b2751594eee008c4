// The topology of a system root, read by this library and by hwloc from the
// same tree:
//   snapshotTopology  Source::snapshot(DIR), then topology() (processors,
//                     packages, cores, NUMA nodes and caches)
//   topology          topology() again on a Source already made
//   hwlocLoad         hwloc_topology_init() and hwloc_topology_load() with
//                     hwloc's Linux component reading DIR as its file-system
//                     root (HWLOC_FSROOT=DIR, HWLOC_COMPONENTS=linux,stop,
//                     I/O objects filtered out, as lstopo -i DIR --if fsroot)
// each with the cost per processor as a counter. Before timing, both must
// see the same processors, packages, NUMA nodes and cache levels in DIR.
//
//   xrprocdetector_topology_bench [BENCHMARK_FLAGS] DIR...
//   xrprocdetector_topology_bench --once=xrprocdetector|hwloc|none DIR
//
// DIR is a system root, such as xrprocdetector_make_machine writes. --once
// reads DIR once the one way (none: not at all), for strace -c to count.
#include <benchmark/benchmark.h>
#include <hwloc.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <string>

#include <xrprocdetector/detect.h>

namespace {

// What both readers must agree on.
struct Shape {
  int processors = 0;
  int packages = 0;
  int nodes = 0;
  int cacheLevels = 0;
  int cores = 0;
  bool operator==(const Shape& o) const {
    return processors == o.processors && packages == o.packages && nodes == o.nodes &&
           cacheLevels == o.cacheLevels && cores == o.cores;
  }
};

std::optional<xrprocdetector::Topology> readTopology(const std::string& dir) {
  std::optional<xrprocdetector::Source> source = xrprocdetector::Source::snapshot(dir);
  if (!source) return std::nullopt;
  return xrprocdetector::topology(*source);
}

// hwloc's topology of `dir`, or nullptr; hwloc_topology_destroy() frees it.
hwloc_topology_t loadHwloc(const std::string& dir) {
  setenv("HWLOC_FSROOT", dir.c_str(), 1);
  hwloc_topology_t topology = nullptr;
  if (hwloc_topology_init(&topology) != 0) return nullptr;
  hwloc_topology_set_io_types_filter(topology, HWLOC_TYPE_FILTER_KEEP_NONE);
  if (hwloc_topology_load(topology) != 0) {
    hwloc_topology_destroy(topology);
    return nullptr;
  }
  return topology;
}

Shape shapeOf(const xrprocdetector::Topology& t) {
  std::set<int> levels;
  for (const xrprocdetector::Cache& c : t.caches)
    levels.insert(c.level);
  return {static_cast<int>(t.online.count()), static_cast<int>(t.packages.size()),
          static_cast<int>(t.numaNodes.size()), static_cast<int>(levels.size()),
          static_cast<int>(t.cores.size())};
}

Shape shapeOf(hwloc_topology_t t) {
  const auto count = [t](hwloc_obj_type_t type) { return hwloc_get_nbobjs_by_type(t, type); };
  int levels = 0;
  for (const hwloc_obj_type_t level : {HWLOC_OBJ_L1CACHE, HWLOC_OBJ_L2CACHE, HWLOC_OBJ_L3CACHE,
                                       HWLOC_OBJ_L4CACHE, HWLOC_OBJ_L5CACHE})
    levels += count(level) > 0 ? 1 : 0;
  return {count(HWLOC_OBJ_PU), count(HWLOC_OBJ_PACKAGE), count(HWLOC_OBJ_NUMANODE), levels,
          count(HWLOC_OBJ_CORE)};
}

// The minor page faults of this process so far: fresh memory touched, one
// 4 KiB page each, which costs far more than its copy in a virtual machine.
long faults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

// `processors`, the CPU time per processor, and the page faults per call
// since `faultsBefore`.
void perProcessor(benchmark::State& state, int processors, long faultsBefore) {
  state.counters["faults"] = benchmark::Counter(static_cast<double>(faults() - faultsBefore),
                                                benchmark::Counter::kAvgIterations);
  state.counters["processors"] = processors;
  state.counters["per_processor"] = benchmark::Counter(
      processors, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void snapshotTopology(benchmark::State& state, const std::string& dir, int processors) {
  const long before = faults();
  for (auto _ : state) {
    std::optional<xrprocdetector::Topology> t = readTopology(dir);
    if (!t) return state.SkipWithError("cannot read the tree");
    benchmark::DoNotOptimize(t->caches.data());
  }
  perProcessor(state, processors, before);
}

void topologyOnly(benchmark::State& state, const std::string& dir, int processors) {
  const std::optional<xrprocdetector::Source> source = xrprocdetector::Source::snapshot(dir);
  if (!source) return state.SkipWithError("cannot read the tree");
  const long before = faults();
  for (auto _ : state) {
    const xrprocdetector::Topology t = xrprocdetector::topology(*source);
    benchmark::DoNotOptimize(t.caches.data());
  }
  perProcessor(state, processors, before);
}

void hwlocLoad(benchmark::State& state, const std::string& dir, int processors) {
  const long before = faults();
  for (auto _ : state) {
    hwloc_topology_t t = loadHwloc(dir);
    if (t == nullptr) return state.SkipWithError("hwloc cannot load the tree");
    hwloc_topology_destroy(t);
  }
  perProcessor(state, processors, before);
}

void print(const char* who, const Shape& s) {
  std::fprintf(stderr, "%s: %d processors, %d packages, %d cores, %d NUMA nodes, %d cache levels\n",
               who, s.processors, s.packages, s.cores, s.nodes, s.cacheLevels);
}

// Registers the three benchmarks on `dir` once both readers agree on it.
bool registerTree(const std::string& dir) {
  const std::optional<xrprocdetector::Topology> ours = readTopology(dir);
  hwloc_topology_t theirs = loadHwloc(dir);
  if (!ours || theirs == nullptr) {
    std::fprintf(stderr, "%s: cannot be read (%s)\n", dir.c_str(), ours ? "hwloc" : "ours");
    if (theirs != nullptr) hwloc_topology_destroy(theirs);
    return false;
  }
  const Shape a = shapeOf(*ours);
  const Shape b = shapeOf(theirs);
  hwloc_topology_destroy(theirs);
  if (!(a == b) || a.processors == 0) {
    std::fprintf(stderr, "%s: the readers disagree\n", dir.c_str());
    print("xrprocdetector", a);
    print("hwloc", b);
    return false;
  }
  const std::string n = std::to_string(a.processors);
  benchmark::RegisterBenchmark(("snapshotTopology/" + n).c_str(), snapshotTopology, dir,
                               a.processors);
  benchmark::RegisterBenchmark(("topology/" + n).c_str(), topologyOnly, dir, a.processors);
  benchmark::RegisterBenchmark(("hwlocLoad/" + n).c_str(), hwlocLoad, dir, a.processors);
  return true;
}

// One read for strace -c: its system calls, without the benchmark's.
int once(const std::string& how, const std::string& dir) {
  if (how == "xrprocdetector") {
    const std::optional<xrprocdetector::Topology> t = readTopology(dir);
    if (!t) return 1;
    print("xrprocdetector", shapeOf(*t));
  } else if (how == "hwloc") {
    hwloc_topology_t t = loadHwloc(dir);
    if (t == nullptr) return 1;
    print("hwloc", shapeOf(t));
    hwloc_topology_destroy(t);
  } else if (how != "none") {
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("HWLOC_COMPONENTS", "linux,stop", 1);
  if (argc == 3 && std::strncmp(argv[1], "--once=", 7) == 0) return once(argv[1] + 7, argv[2]);
  benchmark::Initialize(&argc, argv);
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s [BENCHMARK_FLAGS] DIR...\n       %s --once=HOW DIR\n", argv[0],
                 argv[0]);
    return 2;
  }
  for (int i = 1; i < argc; ++i) {
    if (!registerTree(argv[i])) return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
