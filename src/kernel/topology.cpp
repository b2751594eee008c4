// The kernel's own topology of a machine, as processor sets, read from
// sys/devices/system/cpu (live, or under a snapshot's or a system root's
// directory).
#include <unistd.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

// A processor's file, relative to sys/devices/system/cpu: the short path
// that the kernel looks up in fewer steps.
std::string cpuFile(unsigned cpu, const char* file) {
  return "cpu" + std::to_string(cpu) + "/" + file;
}

// The kernel's files that list a processor's siblings: the masks that every
// kernel since 2.6 has and lscpu reads, the newer names, then the lists.
const char* const kCoreFiles[] = {"topology/thread_siblings", "topology/core_cpus",
                                  "topology/thread_siblings_list", "topology/core_cpus_list"};
const char* const kPackageFiles[] = {"topology/core_siblings", "topology/package_cpus",
                                     "topology/core_siblings_list", "topology/package_cpus_list"};

// The lowest processor sharing a core (or a package) with `cpu`, by the
// first of `files` that is there: what tells the core (or package) apart;
// *siblings the whole list.
Read lowestSibling(SystemRoot& cpus, unsigned cpu, const char* const (&files)[4], long* lowest,
                   CpuSet* siblings) {
  for (std::size_t i = 0; i < 4; ++i) {
    const Read r = cpus.list(cpuFile(cpu, files[i]), siblings, i < 2);
    if (r == Read::kAbsent) continue;
    if (r == Read::kOk) *lowest = siblings->empty() ? cpu : *siblings->begin();
    return r;
  }
  return Read::kAbsent;
}

// What tells packages and cores apart, each given an index in the order
// first met; -1 for a processor whose files do not tell.
using Key = std::tuple<int, long, long, long>;
int indexOf(std::map<Key, int>& seen, const Key& key) {
  return seen.emplace(key, static_cast<int>(seen.size())).first->second;
}

// What the files read so far placed. A sibling list places every processor
// it names: the kernel's lists are the same on each processor they name, so
// a later one's own list is not read, nor its die_id (a core's threads
// share a die).
struct Placed {
  std::map<Key, int> packages;
  std::map<Key, int> cores;
  std::vector<int> packageOf;           // by processor number: -1 not yet named
  std::vector<int> coreOf;              // likewise
  std::vector<std::int32_t> dieOfCore;  // by core index
  bool dies = true;                     // a kernel without die_id has none for any processor
};

// The index of `key`, given to each processor of `siblings` not yet named.
int named(std::map<Key, int>& seen, const Key& key, const CpuSet& siblings, std::vector<int>& of) {
  const int index = indexOf(seen, key);
  for (const unsigned s : siblings) {
    if (s < of.size() && of[s] < 0) of[s] = index;
  }
  return index;
}

// The package, die and core of the online processor `c`. A package is its
// package siblings, as lscpu counts distinct core_siblings masks, or its
// physical_package_id; a core is its core siblings, or its (package, die,
// core_id).
void place(SystemRoot& cpus, Processor& p, Placed& known) {
  long id = 0;
  long die = 0;
  CpuSet siblings;
  Read r = p.cpu < known.packageOf.size() && known.packageOf[p.cpu] >= 0
               ? (p.package = known.packageOf[p.cpu], Read::kOk)
               : lowestSibling(cpus, p.cpu, kPackageFiles, &id, &siblings);
  if (r == Read::kOk && p.package < 0)
    p.package = named(known.packages, {0, id, 0, 0}, siblings, known.packageOf);
  if (r == Read::kAbsent &&
      cpus.number(cpuFile(p.cpu, "topology/physical_package_id"), &id) == Read::kOk)
    p.package = indexOf(known.packages, {1, id, 0, 0});
  if (p.cpu < known.coreOf.size() && known.coreOf[p.cpu] >= 0) {
    p.core = known.coreOf[p.cpu];
    p.die = known.dieOfCore[static_cast<std::size_t>(p.core)];
    return;
  }
  r = known.dies ? cpus.number(cpuFile(p.cpu, "topology/die_id"), &die) : Read::kAbsent;
  if (r == Read::kOk) p.die = static_cast<std::int32_t>(die);
  known.dies = r != Read::kAbsent;
  r = lowestSibling(cpus, p.cpu, kCoreFiles, &id, &siblings);
  if (r == Read::kOk) p.core = named(known.cores, {0, id, 0, 0}, siblings, known.coreOf);
  if (r == Read::kAbsent && p.package >= 0 &&
      cpus.number(cpuFile(p.cpu, "topology/core_id"), &id) == Read::kOk)
    p.core = indexOf(known.cores, {1, p.package, std::max(p.die, 0), id});
  known.dieOfCore.resize(known.cores.size());
  if (p.core >= 0) known.dieOfCore[static_cast<std::size_t>(p.core)] = p.die;
}

// Packages and cores as sets, each processor's place in them; *maxThreads
// the most threads of one core.
void placeAll(SystemRoot& cpus, Topology& t, int* maxThreads) {
  Placed known;
  const bool each = cpus.machine().keepsAll() || t.processors.empty();
  const std::size_t numbers = each ? 0 : t.processors.back().cpu + 1;
  known.packageOf.assign(numbers, -1);
  known.coreOf.assign(numbers, -1);
  bool packagesKnown = true;
  bool coresKnown = true;
  std::vector<CpuSet> packages;
  std::vector<CpuSet> cores;
  cores.reserve(t.processors.size());  // 1 KiB each: grown, each would be copied
  for (Processor& p : t.processors) {
    if (!p.online) continue;
    place(cpus, p, known);
    packagesKnown = packagesKnown && p.package >= 0;
    coresKnown = coresKnown && p.core >= 0;
    packages.resize(known.packages.size());
    if (p.package >= 0) packages[static_cast<std::size_t>(p.package)].add(p.cpu);
    if (p.core < 0) continue;
    cores.resize(known.cores.size());
    CpuSet& threads = cores[static_cast<std::size_t>(p.core)];
    p.thread = static_cast<std::int32_t>(threads.count());
    threads.add(p.cpu);
    *maxThreads = std::max(*maxThreads, p.thread + 1);
  }
  if (packagesKnown) t.packages = std::move(packages);
  if (coresKnown) t.cores = std::move(cores);
  if (!packagesKnown) t.missing = "no physical_package_id";
  if (!coresKnown)
    t.missing += std::string(t.missing.empty() ? "" : ", ") + "no core sibling lists or core_id";
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
std::optional<Smt> smtState(SystemRoot& cpus, int maxThreads) {
  std::string control;
  std::string active;
  const bool haveControl = cpus.text("smt/control", &control) == Read::kOk;
  const bool haveActive = cpus.text("smt/active", &active) == Read::kOk;
  if (haveControl && (control == "off" || control == "forceoff")) return Smt::kOff;
  if (haveControl && control == "notsupported") return Smt::kNotSupported;
  if (haveActive && active == "1") return Smt::kOn;
  if (haveControl && haveActive && control == "on" && active == "0") return Smt::kOff;
  if (maxThreads >= 2) return Smt::kOn;
  return std::nullopt;
}

// What the process may use: affinity, online processors and cpuset, then
// the quota. Without an affinity (a tree recorded without one) every online
// processor counts.
void usable(SystemRoot& root, Topology& t) {
  const CgroupLimits limits = readCgroupLimits(root);
  CpuSet affinity;
  t.usable = usableOf(t.online, root.affinity(&affinity) ? &affinity : nullptr, limits);
  t.cpuQuota = limits.quota;
  t.effectiveProcessors = effectiveOf(t.usable, limits.quota);
}

// Every present (or, without that list, possible) processor, online or
// not; the offline ones.
void processors(SystemRoot& cpus, Topology& t) {
  CpuSet present;
  CpuSet possible;
  const Read r = cpus.list("present", &present);
  // The possible list too, which glibc counts as the configured processors.
  const Read alone = cpus.list("possible", &possible);
  if (r == Read::kOk) t.present = present;
  if (r == Read::kAbsent && alone == Read::kOk) t.present = possible;
  for (const unsigned c : t.present) {
    if (!t.online.contains(c)) t.offline.add(c);
  }
  CpuSet all = t.present;
  for (const unsigned c : t.online)
    all.add(c);
  for (const unsigned c : all) {
    Processor p;
    p.cpu = c;
    p.online = t.online.contains(c);
    t.processors.push_back(p);
  }
}

// What names the machine: its host name, kernel release, processor model
// and vendor (the first processor's, as lscpu shows them).
void identity(SystemRoot& root, const std::string& cpuinfo, Topology& t) {
  std::string text;
  if (root.text("proc/sys/kernel/hostname", &text) == Read::kOk) t.hostname = text;
  if (root.text("proc/sys/kernel/osrelease", &text) == Read::kOk) t.kernelRelease = text;
  if (!(text = firstValue(cpuinfo, "model name")).empty()) t.cpuModel = text;
  if (!(text = firstValue(cpuinfo, "vendor_id")).empty()) t.cpuVendor = text;
}

// The start of /proc/cpuinfo, where the first processor's lines are: a
// saved one as it is held, not copied; a live one's first 64 KiB (into
// *read); "" where there is none.
const std::string& cpuinfoStart(Machine& machine, std::string* read) {
  try {
    const CpuinfoStream s = machine.cpuinfo();
    if (s.text != nullptr) return *s.text;
    read->resize(s.fd < 0 ? 0 : 1 << 16);
    const ssize_t n = s.fd < 0 ? 0 : ::pread(s.fd, &(*read)[0], read->size(), 0);
    if (s.fd >= 0) ::close(s.fd);
    read->resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  } catch (const Missing&) {
  }
  return *read;
}

}  // namespace

Read onlineProcessors(SystemRoot& cpus, CpuSet* online) {
  const Read r = cpus.list("online", online);
  if (r != Read::kAbsent) return r;
  for (const unsigned n : cpus.processorFolders("")) {
    long state = 1;
    if (cpus.number(cpuFile(n, "online"), &state) == Read::kFailed) break;
    if (state != 0) online->add(n);
  }
  return online->empty() ? Read::kAbsent : Read::kOk;
}

Topology readTopology(Machine& machine, std::uint32_t skip) {
  Topology t;
  SystemRoot root(machine);
  // The processors' own files, relative to their folder.
  SystemRoot cpus(root, "sys/devices/system/cpu");
  CpuSet online;
  int maxThreads = 0;
  const Read r = onlineProcessors(cpus, &online);
  if (r == Read::kAbsent) t.missing = "no sys/devices/system/cpu/online";
  if (r == Read::kOk && online.empty()) t.missing = "sys/devices/system/cpu/online is empty";
  if (r == Read::kOk && !online.empty()) {
    t.online = online;
    processors(cpus, t);
    t.unknownSets = t.present.empty() ? XRPD_SET_PRESENT | XRPD_SET_OFFLINE : 0;
    placeAll(cpus, t, &maxThreads);
    usable(root, t);
    t.coreKinds = coreKinds(root, t);
    readNumaNodes(root, t);
    if ((skip & XRPD_SKIP_CACHES) == 0) readCaches(cpus, t);
    if ((skip & XRPD_SKIP_CACHES) != 0)
      t.missing += std::string(t.missing.empty() ? "" : ", ") + "caches left unread";
    for (Processor& p : t.processors) {
      p.usable = t.usable.contains(p.cpu);
      for (std::size_t k = 0; k < t.coreKinds.size(); ++k) {
        if (t.coreKinds[k].processors.contains(p.cpu)) p.kind = static_cast<std::int32_t>(k);
      }
    }
  }
  t.smt = smtState(cpus, maxThreads);
  std::string read;  // the hypervisor flag and the model, from the first processor's lines
  const std::string& cpuinfo = cpuinfoStart(machine, &read);
  readVirtualization(root, cpuinfo, t);
  identity(root, cpuinfo, t);
  // The first broken file of the processors' folder, else of the nodes',
  // else of any other.
  if (!cpus.error().empty() || t.error.empty())
    t.error = cpus.error().empty() ? root.error() : cpus.error();
  return t;
}

}  // namespace detail
}  // namespace xrprocdetector
