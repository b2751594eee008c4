// The kernel's own topology of a machine, read from sys/devices/system/cpu
// (live, or under a snapshot's or a system root's directory), and how a
// detection compares with it.
#include <fcntl.h>

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "api/source.h"
#include "kernel/kernel.h"
#include "sysroot/cgroup.h"
#include "sysroot/root.h"

namespace xrprocdetector {

namespace {

using detail::kKernelMaxProcessors;
using detail::Read;
using detail::SystemRoot;

// A processor's file, relative to sys/devices/system/cpu: the short path
// that the kernel looks up in fewer steps.
std::string cpuFile(unsigned cpu, const char* file) {
  return "cpu" + std::to_string(cpu) + "/" + file;
}

// The online processors: the kernel's list, or on kernels without one, the
// cpuN folders, each online unless its own online file says 0.
Read onlineProcessors(SystemRoot& root, std::vector<unsigned>* online) {
  const Read r = root.list("online", kKernelMaxProcessors, online);
  if (r != Read::kAbsent) return r;
  for (const unsigned n : root.processorFolders("")) {
    long state = 1;
    if (root.number(cpuFile(n, "online"), &state) == Read::kFailed) break;
    if (state != 0) online->push_back(n);
  }
  return online->empty() ? Read::kAbsent : Read::kOk;
}

// The kernel's files that list a processor's siblings: lists, then the
// masks of older kernels.
const char* const kCoreFiles[] = {"topology/core_cpus_list", "topology/thread_siblings_list",
                                  "topology/core_cpus", "topology/thread_siblings"};
const char* const kPackageFiles[] = {"topology/package_cpus_list", "topology/core_siblings_list",
                                     "topology/package_cpus", "topology/core_siblings"};

// The processors sharing a core (or a package) with `cpu`, itself included,
// by the first of `files` that is there. *first is where to start looking:
// the kind that the previous processor had, as a machine's processors all
// have the same files.
bool siblings(SystemRoot& root, unsigned cpu, const char* const (&files)[4], std::size_t* first,
              std::vector<unsigned>* out) {
  for (std::size_t i = 0; i < 4; ++i) {
    const std::size_t kind = (*first + i) % 4;
    const Read r = root.list(cpuFile(cpu, files[kind]), kKernelMaxProcessors, out, kind >= 2);
    if (r == Read::kAbsent) continue;
    *first = kind;
    return r == Read::kOk;
  }
  return false;
}

constexpr long kNoPackage = -1;

struct Cores {
  std::vector<int> coreOf;      // by processor: its core, or -1
  std::vector<int> threads;     // by core: its online threads
  std::vector<long> packageOf;  // by processor: its package, once known
  std::map<std::tuple<long, long, long>, int> byIds;
  bool known = true;
};

// The core of `c` when no sibling file tells: (package, die, core_id).
void coreByIds(SystemRoot& root, unsigned c, long package, Cores& cores) {
  long die = 0;
  long coreId = 0;
  if (root.number(cpuFile(c, "topology/die_id"), &die) != Read::kOk) die = 0;
  if (root.number(cpuFile(c, "topology/core_id"), &coreId) != Read::kOk) {
    cores.known = false;
    return;
  }
  auto found = cores.byIds.find(std::make_tuple(package, die, coreId));
  if (found == cores.byIds.end()) {
    found =
        cores.byIds
            .emplace(std::make_tuple(package, die, coreId), static_cast<int>(cores.threads.size()))
            .first;
    cores.threads.push_back(0);
  }
  cores.coreOf[c] = found->second;
  ++cores.threads[static_cast<std::size_t>(found->second)];
}

// The package of `c`, read once a package: its siblings in the package
// files share it. *kind is as for siblings().
void readPackage(SystemRoot& root, unsigned c, std::size_t* kind, std::set<long>* packages,
                 Cores& cores) {
  long package = 0;
  if (root.number(cpuFile(c, "topology/physical_package_id"), &package) != Read::kOk) return;
  packages->insert(package);
  cores.packageOf[c] = package;
  std::vector<unsigned> others;
  if (!siblings(root, c, kPackageFiles, kind, &others)) return;
  for (const unsigned s : others) {
    if (s < cores.packageOf.size()) cores.packageOf[s] = package;
  }
}

// Packages, cores and the most threads of one core, over `online`; each
// core's processors into *threadsOf.
void countTopology(SystemRoot& root, const std::vector<unsigned>& online, KernelTopology* k,
                   int* maxThreads, std::vector<std::vector<unsigned>>* threadsOf) {
  std::set<long> packages;
  std::vector<bool> isOnline(online.back() + 1, false);
  for (const unsigned c : online)
    isOnline[c] = true;
  Cores cores;
  cores.coreOf.assign(isOnline.size(), -1);
  cores.packageOf.assign(isOnline.size(), kNoPackage);
  bool packagesKnown = true;
  std::vector<unsigned> threads;
  std::size_t coreKind = 0;
  std::size_t packageKind = 0;
  for (const unsigned c : online) {
    if (cores.packageOf[c] == kNoPackage) readPackage(root, c, &packageKind, &packages, cores);
    const long package = cores.packageOf[c];
    packagesKnown = packagesKnown && package != kNoPackage;
    // A sibling of a core already counted shares its package too.
    if (cores.coreOf[c] >= 0 || !cores.known) continue;
    if (!siblings(root, c, kCoreFiles, &coreKind, &threads)) {
      if (package != kNoPackage) coreByIds(root, c, package, cores);
      cores.known = cores.known && package != kNoPackage;
      continue;
    }
    // Each sibling that is online belongs to this core; their own files
    // need not be read.
    const int core = static_cast<int>(cores.threads.size());
    cores.coreOf[c] = core;
    int count = 1;
    for (const unsigned s : threads) {
      if (s == c || s >= isOnline.size() || !isOnline[s] || cores.coreOf[s] >= 0) continue;
      cores.coreOf[s] = core;
      ++count;
    }
    cores.threads.push_back(count);
  }
  if (packagesKnown) k->packages = static_cast<std::int32_t>(packages.size());
  if (!packagesKnown) k->missing = "no physical_package_id";
  if (!cores.known)
    return void(k->missing +=
                std::string(k->missing.empty() ? "" : ", ") + "no core sibling lists or core_id");
  k->cores = static_cast<std::int32_t>(cores.threads.size());
  for (const int t : cores.threads)
    *maxThreads = std::max(*maxThreads, t);
  threadsOf->resize(cores.threads.size());
  for (const unsigned c : online)
    (*threadsOf)[static_cast<std::size_t>(cores.coreOf[c])].push_back(c);
}

// Simultaneous multithreading, from smt/control and smt/active where the
// kernel has them (since 4.19), else from the sibling counts:
//   control "off" or "forceoff"         -> off: capable, switched off;
//   control "notsupported"              -> notsupported: the kernel found
//                                          the processors without it;
//   active 1                            -> on: some core runs two threads;
//   control "on" and active 0           -> off: allowed, but no core runs
//                                          two threads now;
//   otherwise ("notimplemented", or no smt files): on where some core has
//   two or more online threads; else not known, because one thread a core
//   cannot tell processors without SMT from SMT turned off in firmware.
std::optional<Smt> smtState(SystemRoot& root, int maxThreads) {
  std::string control;
  std::string active;
  const bool haveControl = root.text("smt/control", &control) == Read::kOk;
  const bool haveActive = root.text("smt/active", &active) == Read::kOk;
  if (haveControl && (control == "off" || control == "forceoff")) return Smt::kOff;
  if (haveControl && control == "notsupported") return Smt::kNotSupported;
  if (haveActive && active == "1") return Smt::kOn;
  if (haveControl && haveActive && control == "on" && active == "0") return Smt::kOff;
  if (maxThreads >= 2) return Smt::kOn;
  return std::nullopt;
}

// The processors of `a` that are also in `b`; both in increasing order.
std::vector<unsigned> both(const std::vector<unsigned>& a, const std::vector<unsigned>& b) {
  std::vector<unsigned> out;
  std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
  return out;
}

// What the process may use: affinity, online processors and cpuset, then
// the quota. Without an affinity (a tree recorded without one) every online
// processor counts.
void usable(SystemRoot& root, const std::vector<unsigned>& online,
            const std::optional<std::vector<unsigned>>& affinity, KernelTopology* k) {
  const detail::CgroupLimits limits = detail::readCgroupLimits(root, kKernelMaxProcessors);
  std::vector<unsigned> cpus = affinity ? both(*affinity, online) : online;
  if (limits.cpuset) cpus = both(cpus, *limits.cpuset);
  k->usableProcessors = static_cast<std::int32_t>(cpus.size());
  k->cpuQuota = limits.quota;
  // A quota of more processors than may be used leaves them as they are.
  std::int32_t effective = *k->usableProcessors;
  if (limits.quota && *limits.quota < effective)
    effective = static_cast<std::int32_t>(std::ceil(*limits.quota));
  k->effectiveProcessors = std::max(effective, 1);
}

// Processors present (or, without that list, possible) but not online.
void offline(SystemRoot& root, const std::vector<unsigned>& online, KernelTopology* k) {
  std::vector<unsigned> present;
  Read r = root.list("present", kKernelMaxProcessors, &present);
  if (r == Read::kAbsent) r = root.list("possible", kKernelMaxProcessors, &present);
  if (r == Read::kOk)
    k->offlineProcessors = static_cast<std::int32_t>(present.size() - both(present, online).size());
}

KernelTopology readTopology(const std::string& dir, const std::string* cpuinfo,
                            const std::optional<std::vector<unsigned>>& affinity,
                            const std::map<unsigned, std::vector<XrCpuidLine>>* cpuid) {
  KernelTopology k;
  SystemRoot root(dir);
  if (!root.isOpen()) {
    k.missing = root.openError();
    return k;
  }
  // The processors' own files, relative to their folder.
  SystemRoot cpus(root, "sys/devices/system/cpu");
  std::vector<unsigned> online;
  std::vector<std::vector<unsigned>> threadsOf;
  int maxThreads = 0;
  const Read r = onlineProcessors(cpus, &online);
  if (r == Read::kAbsent) k.missing = "no sys/devices/system/cpu/online";
  if (r == Read::kOk && online.empty()) k.missing = "sys/devices/system/cpu/online is empty";
  if (r == Read::kOk && !online.empty()) {
    k.logicalProcessors = static_cast<std::int32_t>(online.size());
    countTopology(cpus, online, &k, &maxThreads, &threadsOf);
    offline(cpus, online, &k);
    usable(root, online, affinity, &k);
    if (!threadsOf.empty()) k.coreKinds = detail::coreKinds(root, threadsOf, cpuid);
  }
  k.smt = smtState(cpus, maxThreads);
  k.hypervisor = detail::hypervisorState(root, cpuinfo);
  const std::string error = !cpus.error().empty() ? cpus.error() : root.error();
  if (!error.empty()) {
    // A broken file: no field is taken from a tree that holds one.
    k = KernelTopology();
    k.missing = "a broken file";
    k.error = error;
  }
  return k;
}

// The calling thread's affinity.
std::optional<std::vector<unsigned>> threadAffinity() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return std::nullopt;
  std::vector<unsigned> cpus;
  for (unsigned c = 0; c < CPU_SETSIZE; ++c) {
    if (CPU_ISSET(c, &set)) cpus.push_back(c);
  }
  return cpus;
}

}  // namespace

KernelTopology kernelTopology(const Source& source) noexcept {
  try {
    const SourceData& data = source.data();
    if (data.kind == Source::Kind::kSnapshot) {
      const XrMachineSnapshot& snapshot = data.snapshot;
      return readTopology(data.name, snapshot.cpuinfo ? &*snapshot.cpuinfo : nullptr,
                          snapshot.hasMetadata ? snapshot.affinity : std::nullopt, &snapshot.cpuid);
    }
    if (data.kind == Source::Kind::kCpuinfo) return {};
    std::string cpuinfo;
    std::string why;
    const bool have = detail::readWholeFile(AT_FDCWD, "/proc/cpuinfo", detail::kCpuinfoCap,
                                            &cpuinfo, &why) == Read::kOk;
    return readTopology("/", have ? &cpuinfo : nullptr, threadAffinity(), nullptr);
  } catch (const std::bad_alloc&) {
    KernelTopology k;
    k.error = "out of memory";
    return k;
  }
}

std::optional<Smt> smtOf(const Detection& d) noexcept {
  if (!d.counted || d.hyperThreading == HyperThreading::kNotDetermined) return std::nullopt;
  if (d.hyperThreading == HyperThreading::kNotCapable) return Smt::kNotSupported;
  return d.hyperThreading == HyperThreading::kDisabled ? Smt::kOff : Smt::kOn;  // 2 and 3: on
}

std::optional<Hypervisor> hypervisorOf(const Detection& d) noexcept {
  if (!d.counted) return std::nullopt;
  if (d.vm == VmState::kNone) return Hypervisor::kNone;
  if (d.vm == VmState::kVmware) return Hypervisor::kVmware;
  // 15 names an unknown virtual machine only after the CPUID estimate;
  // elsewhere it is the detectors' "not determined".
  if (d.vm == VmState::kNotDetermined && d.endedBy == Strategy::kCpuid) return Hypervisor::kOther;
  return std::nullopt;
}

Agreement compare(const Detection& d, const KernelTopology& k) noexcept {
  Agreement a;
  if (!d.counted) return a;
  auto same = [](auto mine, auto theirs) {
    if (!mine || !theirs) return Same::kUnknown;
    return *mine == *theirs ? Same::kYes : Same::kNo;
  };
  a.packages = same(std::optional<std::int32_t>(d.packages), k.packages);
  a.cores = same(std::optional<std::int32_t>(d.cores), k.cores);
  a.logicalProcessors = same(std::optional<std::int32_t>(d.logicalProcessors), k.logicalProcessors);
  a.smt = same(smtOf(d), k.smt);
  a.hypervisor = same(hypervisorOf(d), k.hypervisor);
  return a;
}

}  // namespace xrprocdetector
