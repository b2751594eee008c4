/// \file
/// The machine as the kernel shows it, as processor sets: what is online,
/// what this process may use (affinity, cpusets, CPU quotas), which
/// processors share a package, a core, a cache or a NUMA node, the kinds of
/// core, the hypervisor and the container.
///
/// \code
/// #include <xrprocdetector/topology.h>
/// using namespace xrprocdetector;
/// std::printf("threads to start: %d\n", effectiveProcessors());
/// const Topology t = topology();  // this machine, as processor sets
/// std::printf("usable processors: %s\n", t.usable.toList().c_str());  // such as "0-3,8"
/// for (const CpuSet& core : t.cores) std::printf("a core: %s\n", core.toList().c_str());
/// \endcode
#ifndef XRPROCDETECTOR_TOPOLOGY_H
#define XRPROCDETECTOR_TOPOLOGY_H

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <xrprocdetector/c_api.h>
#include <xrprocdetector/cpuset.h>
#include <xrprocdetector/error.h>
#include <xrprocdetector/snapshot.h>

namespace xrprocdetector {

/// Simultaneous multithreading as the kernel states it.
enum class Smt { kOn, kOff, kNotSupported };
/// A virtual machine as the kernel's files show it.
enum class Hypervisor { kNone, kVmware, kOther };

/// One kind of core on a processor with cores of several kinds.
struct CoreKind {
  std::string kind;  ///< "performance" or "efficiency" (of two kinds), else "kind 1", "kind 2", ...
  std::int32_t cores = 0;
  std::int32_t logicalProcessors = 0;
};

/// Where one processor stands. Indices are the topology's own, from 0 in
/// the order of the processors' numbers; -1 where the kernel's files do not
/// tell (and for every offline processor).
struct Processor {
  unsigned cpu = 0;           ///< the processor's number
  std::int32_t package = -1;  ///< index into Topology::packages
  std::int32_t die = -1;      ///< the kernel's die_id within the package
  std::int32_t core = -1;     ///< index into Topology::cores
  std::int32_t thread = -1;   ///< its place among its core's processors
  std::int32_t kind = -1;     ///< index into Topology::coreKinds
  bool online = false;
  bool usable = false;
  std::int32_t numaNode = -1;        ///< index into Topology::numaNodes
  std::int32_t lastLevelCache = -1;  ///< index into Topology::caches
};

/// One NUMA node: the processors closest to one bank of memory.
struct NumaNode {
  std::int32_t node = -1;  ///< the kernel's number
  CpuSet processors;       ///< online processors only; empty for memory-only nodes
  std::optional<std::uint64_t> memoryBytes;
  /// The node's row of the distance table, in the order of
  /// Topology::numaNodes (10 is local); empty where the kernel does not tell.
  std::vector<std::int32_t> distances;
};

enum class CacheType { kData, kInstruction, kUnified };

/// One cache instance and the online processors that share it.
struct Cache {
  std::int32_t level = 0;
  CacheType type = CacheType::kUnified;
  std::uint64_t sizeBytes = 0;
  std::int32_t lineBytes = 0;  ///< 0 unknown
  std::int32_t ways = 0;       ///< 0 unknown, -1 fully associative
  CpuSet processors;
};

/// One kind of core, with its processors.
struct CoreKindSet {
  std::string kind;       ///< as CoreKind::kind names it
  std::int32_t rank = 0;  ///< 0 the fastest kind, then 1, ...
  std::int32_t cores = 0;
  CpuSet processors;
};

/// A set of Topology that the kernel's files may not tell.
enum class TopologySet : std::uint32_t {
  kOnline = XRPD_SET_ONLINE,
  kOffline = XRPD_SET_OFFLINE,
  kUsable = XRPD_SET_USABLE,
  kPresent = XRPD_SET_PRESENT
};

/// The machine as processor sets: what is online, what the process may use,
/// which processors share a package or a core, and which cores are fast.
struct Topology {
  CpuSet online;
  /// Present (or, without that list, possible) processors; empty where the
  /// kernel's files do not list them.
  CpuSet present;
  CpuSet offline;  ///< present but not online
  /// What the process may run on: the thread's affinity (live) or the saved
  /// one (snapshot), the online processors and the effective cpuset of its
  /// control groups, intersected.
  CpuSet usable;
  std::vector<Processor> processors;  ///< online and offline, by number
  std::vector<CpuSet> packages;       ///< empty where the files do not tell
  std::vector<CpuSet> cores;          ///< empty where the files do not tell
  /// Cores of different kinds, fastest first: only on evidence (the
  /// kernel's hybrid lists, CPUID's core type, base frequencies that differ
  /// within a package), never from boost rankings. Empty on one kind.
  std::vector<CoreKindSet> coreKinds;
  std::optional<Smt> smt;
  /// The NUMA nodes by number; one node holding every processor where the
  /// kernel lists none.
  std::vector<NumaNode> numaNodes;
  /// Every cache instance, by level, then type, then lowest processor.
  std::vector<Cache> caches;
  /// The tightest CPU bandwidth limit of the process's control group and of
  /// every ancestor visible, in processors; nothing when there is none.
  std::optional<double> cpuQuota;
  /// The usable processors, capped by the quota rounded up, at least 1.
  std::optional<std::int32_t> effectiveProcessors;
  std::optional<Hypervisor> hypervisor;  ///< as KernelTopology::hypervisor
  /// The hypervisor's vendor in lscpu's words ("KVM", "Xen", "Microsoft",
  /// "VMware", "Oracle", "QEMU", "Parallels", "bhyve", "ACRN"), "none" on
  /// evidence of bare metal, nothing where nothing tells.
  std::optional<std::string> hypervisorVendor;
  std::optional<std::string> virtualizationType;  ///< "full" or "para"
  /// The container, in systemd-detect-virt's words ("docker", "podman",
  /// "lxc", "systemd-nspawn", ...; "kubernetes" for a pod), "none" on
  /// evidence, nothing where nothing tells.
  std::optional<std::string> container;
  /// What the kernel's files lack, such as "no sys/devices/system/cpu/online".
  std::string missing;
  Error error;  ///< the first broken file, named; the fields it did not feed are kept
  /// What names the machine (since 2.2.0): proc/sys/kernel/hostname and
  /// osrelease, /proc/cpuinfo's first "model name" and "vendor_id";
  /// nothing where the machine does not tell.
  std::optional<std::string> hostname, kernelRelease, cpuModel, cpuVendor;
  /// The sets that the files do not tell, as TopologySet bits (no sys/, a
  /// saved /proc/cpuinfo alone): each is empty, which says nothing. Nothing
  /// is known of a topology not yet read.
  std::uint32_t unknownSets =
      XRPD_SET_ONLINE | XRPD_SET_OFFLINE | XRPD_SET_USABLE | XRPD_SET_PRESENT;
  /// Whether `set` is what the files tell, rather than empty for want of them.
  bool known(TopologySet set) const noexcept {
    return (unknownSets & static_cast<std::uint32_t>(set)) == 0;
  }
};

/// Reads the live machine (its /sys, /proc and CPUID, and the calling
/// thread's affinity), or the snapshot's tree. Changes nothing, except that
/// on a hybrid processor whose kernel does not list its kinds of core the
/// thread is pinned to each core in turn, to ask its CPUID core type, and
/// given back its affinity. A saved /proc/cpuinfo alone has no topology.
inline Topology topology(const Source& source = Source::live()) noexcept;

/// The kernel's own topology of the source's machine, from
/// sys/devices/system/cpu (and, for the virtual machine, the DMI strings,
/// the PCI devices and the flags of /proc/cpuinfo), and what the process
/// may really use of it. An empty field is one the files do not tell.
struct KernelTopology {
  std::optional<std::int32_t> packages;
  std::optional<std::int32_t> cores;
  std::optional<std::int32_t> logicalProcessors;  ///< online
  std::optional<std::int32_t> offlineProcessors;  ///< present (or possible) but not online
  std::optional<Smt> smt;
  std::optional<Hypervisor> hypervisor;
  /// The processors the process may run on: the thread's affinity (live) or
  /// the saved one (snapshot), the online processors and the effective
  /// cpuset of its control group, intersected.
  std::optional<std::int32_t> usableProcessors;
  /// The tightest CPU bandwidth limit of the process's control group and of
  /// every ancestor visible, in processors; nothing when there is none.
  std::optional<double> cpuQuota;
  /// What a host should size a pool of busy threads by: the usable
  /// processors, capped by the quota rounded up, and at least 1.
  std::optional<std::int32_t> effectiveProcessors;
  /// The cores grouped by kind, fastest first; empty on a processor whose
  /// cores are all of one kind.
  std::vector<CoreKind> coreKinds;
  std::string missing;  ///< what the counts lacked, such as "no sys/devices/system/cpu/online"
  Error error;          ///< a file that is there but broken, named; empty when none
};

/// The counts of a topology already read.
inline KernelTopology kernelTopology(const Topology& t) noexcept {
  KernelTopology k;
  const auto count = [](std::size_t n) { return static_cast<std::int32_t>(n); };
  if (!t.online.empty()) k.logicalProcessors = count(t.online.count());
  if (!t.packages.empty()) k.packages = count(t.packages.size());
  if (!t.cores.empty()) k.cores = count(t.cores.size());
  if (!t.present.empty()) k.offlineProcessors = count(t.offline.count());
  k.smt = t.smt;
  k.hypervisor = t.hypervisor;
  if (!t.online.empty()) k.usableProcessors = count(t.usable.count());
  k.cpuQuota = t.cpuQuota;
  k.effectiveProcessors = t.effectiveProcessors;
  for (const CoreKindSet& kind : t.coreKinds)
    k.coreKinds.push_back({kind.kind, kind.cores, count(kind.processors.count())});
  k.missing = t.missing;
  k.error = t.error;
  return k;
}

/// The counts of topology(), read as it reads. A saved /proc/cpuinfo alone
/// has no kernel topology: every field is empty.
inline KernelTopology kernelTopology(const Source& source = Source::live()) noexcept {
  return kernelTopology(topology(source));
}

/// What a host should size a pool of busy threads by, on this machine, in
/// one call: the usable processors capped by the CPU quota, at least 1.
/// Where the control groups cannot be read, the calling thread's affinity,
/// and failing that the online count.
inline std::int32_t effectiveProcessors() noexcept {
  return xrpd_effective_processors();
}

/// The places of OpenMP 5.1's OMP_PLACES abstract names: each processor
/// (`threads`), each core (`cores`), the cores that share a last-level
/// cache (`ll_caches`), each NUMA node (`numa_domains`), each package
/// (`sockets`).
enum class PlaceKind { kThreads, kCores, kLlCaches, kNumaDomains, kSockets };

/// The places of `kind` made of the usable processors alone, empty places
/// dropped, in order of their lowest processor. Where the topology does not
/// tell a kind's sets (no core lists, no caches, no packages), each usable
/// processor is a place of its own, as the processors are all that is
/// known; without NUMA folders the machine is one node.
inline std::vector<CpuSet> places(const Topology& t, PlaceKind kind) {
  std::vector<CpuSet> sets;
  if (kind == PlaceKind::kCores) sets = t.cores;
  if (kind == PlaceKind::kSockets) sets = t.packages;
  for (std::size_t i = 0; kind == PlaceKind::kNumaDomains && i < t.numaNodes.size(); ++i)
    sets.push_back(t.numaNodes[i].processors);
  for (std::size_t i = 0; kind == PlaceKind::kLlCaches && i < t.processors.size(); ++i) {
    const auto llc = static_cast<std::size_t>(t.processors[i].lastLevelCache);
    if (llc < t.caches.size()) sets.push_back(t.caches[llc].processors);
  }
  if (sets.empty())
    for (const unsigned cpu : t.usable)
      sets.push_back(CpuSet({cpu}));
  std::vector<CpuSet> out;
  for (const CpuSet& set : sets) {
    const CpuSet place = set & t.usable;
    if (!place.empty() && std::find(out.begin(), out.end(), place) == out.end())
      out.push_back(place);
  }
  std::sort(out.begin(), out.end(),
            [](const CpuSet& a, const CpuSet& b) { return *a.begin() < *b.begin(); });
  return out;
}

/// The explicit form of OMP_PLACES for `places`: "{0,1},{2,3}".
inline std::string ompPlaces(const std::vector<CpuSet>& places) {
  std::string out;
  for (const CpuSet& place : places) {
    std::string cpus;
    for (const unsigned cpu : place)
      cpus += (cpus.empty() ? "" : ",") + std::to_string(cpu);
    out += (out.empty() ? "{" : ",{") + cpus + "}";
  }
  return out;
}

/// Pins the calling thread to the processors of `set`. Empty on success;
/// else why not: the set is empty, or holds no processor this thread may
/// use (offline, outside its cpuset), or the system refused.
inline Error bindThread(const CpuSet& set) {
  if (xrpd_bind_thread(&set.c()) == 0) return {};
  const int why = errno;
  if (set.empty()) return {"", "", "cannot bind a thread to an empty set of processors"};
  return {"", "",
          why == EINVAL ? "no processor of " + set.toList() + " is one this thread may use"
                        : std::string("cannot bind the thread: ") + std::strerror(why)};
}

namespace bridge {

inline void placesOf(const xrpd_topology* h, Topology& t) {
  xrpd_numa_node n{};
  n.size = sizeof n;
  for (std::size_t i = 0; xrpd_topology_numa_node(h, i, &n) == 0; ++i) {
    NumaNode node{n.node, CpuSet::fromC(n.processors), std::nullopt,
                  std::vector<std::int32_t>(n.distances, n.distances + n.distance_count)};
    if (n.memory_bytes >= 0) node.memoryBytes = static_cast<std::uint64_t>(n.memory_bytes);
    t.numaNodes.push_back(std::move(node));
  }
  xrpd_cache c{};
  c.size = sizeof c;
  for (std::size_t i = 0; xrpd_topology_cache(h, i, &c) == 0; ++i)
    t.caches.push_back({c.level, static_cast<CacheType>(c.type), c.size_bytes, c.line_bytes, c.ways,
                        CpuSet::fromC(c.processors)});
}

template <class State>
std::optional<State> state(std::int32_t value) {
  if (value < 0) return std::nullopt;
  return static_cast<State>(value);
}

inline std::optional<std::string> text(const char* text) {
  if (text == nullptr) return std::nullopt;
  return std::string(text);
}

inline void processorsOf(const xrpd_topology* h, Topology& t) {
  xrpd_processor p{};
  p.size = sizeof p;
  for (std::size_t i = 0; xrpd_topology_processor(h, i, &p) == 0; ++i)
    t.processors.push_back({p.cpu, p.package, p.die, p.core, p.thread, p.kind, p.online != 0,
                            p.usable != 0, p.numa_node, p.last_level_cache});
}

inline void setsOf(const xrpd_topology* h, Topology& t) {
  xrpd_cpuset set;
  const char* name = nullptr;
  for (const auto& [kind, sets] : {std::pair{XRPD_PACKAGES, &t.packages}, {XRPD_CORES, &t.cores}})
    for (std::size_t i = 0; xrpd_topology_set(h, kind, i, &set, nullptr) == 0; ++i)
      sets->push_back(CpuSet::fromC(set));
  for (std::size_t i = 0; xrpd_topology_set(h, XRPD_CORE_KINDS, i, &set, &name) == 0; ++i) {
    CoreKindSet k{name, static_cast<std::int32_t>(i), 0, CpuSet::fromC(set)};
    for (const CpuSet& core : t.cores)
      k.cores += k.processors.contains(*core.begin()) ? 1 : 0;
    t.coreKinds.push_back(std::move(k));
  }
}

}  // namespace bridge

inline Topology topology(const Source& source) noexcept {
  Topology t;
  if (source.kind() == Source::Kind::kCpuinfo) return t;  // a saved text alone has none
  xrpd_topology* h = xrpd_topology_read(source.handle(), nullptr);
  xrpd_topology_info i{};
  i.size = sizeof i;
  if (h == nullptr || xrpd_topology_get(h, &i) != 0) {
    t.error.why = "out of memory";
    return t;
  }
  t.online = CpuSet::fromC(i.online);
  t.present = CpuSet::fromC(i.present);
  t.offline = CpuSet::fromC(i.offline);
  t.usable = CpuSet::fromC(i.usable);
  // Sets are 1 KiB: each vector of them is made once, at its size.
  t.cores.reserve(static_cast<std::size_t>(std::max(i.cores, 0)));
  t.caches.reserve(static_cast<std::size_t>(std::max(i.caches, 0)));
  bridge::processorsOf(h, t);
  bridge::setsOf(h, t);
  bridge::placesOf(h, t);
  t.smt = bridge::state<Smt>(i.smt);
  if (i.cpu_quota > 0) t.cpuQuota = i.cpu_quota;
  t.effectiveProcessors = bridge::state<std::int32_t>(i.effective_processors);
  t.hypervisor = bridge::state<Hypervisor>(i.hypervisor);
  t.hypervisorVendor = bridge::text(i.hypervisor_vendor);
  t.virtualizationType = bridge::text(i.virtualization_type);
  t.container = bridge::text(i.container);
  t.missing = bridge::text(i.missing).value_or("");
  t.error = bridge::errorOf(i.error);
  t.hostname = bridge::text(i.hostname);
  t.kernelRelease = bridge::text(i.kernel_release);
  t.cpuModel = bridge::text(i.cpu_model);
  t.cpuVendor = bridge::text(i.cpu_vendor);
  t.unknownSets = i.unknown_sets;
  xrpd_topology_close(h);
  return t;
}

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_TOPOLOGY_H
