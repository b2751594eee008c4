/// \file
/// xrprocdetector's answers for host programs: how many packages, cores and
/// logical processors a machine has, whether hyper-threading is there, and
/// whether the machine is a VMware virtual machine, by any generation of the
/// detection algorithm, on this machine or on a saved one, beside the
/// kernel's own topology.
///
/// \code
/// #include <xrprocdetector/detect.h>
///
/// using namespace xrprocdetector;
/// const Detection d = detect(Generation::kDefault);
/// if (d.counted && d.result >= 0) std::printf("%d cores\n", d.cores);
/// \endcode
///
/// Nothing here throws: every failure comes back as a value. detect() gives
/// the calling thread back as it found it (its affinity, its signal mask and
/// the SIGSEGV disposition), so it may be called any number of times, on any
/// thread, and from several threads at once.
///
/// The detector classes (xrprocdetector.h and the generation headers) stay
/// for hosts that want the detectors themselves: detect() runs exactly them,
/// so the counts and the debug text are theirs, byte for byte.
#ifndef XRPROCDETECTOR_DETECT_H
#define XRPROCDETECTOR_DETECT_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <xrprocdetector/export.h>

namespace xrprocdetector {

/// The library's version, such as "1.0.0".
XRPROCDETECTOR_API const char* version() noexcept;

/// A generation of the detection algorithm, each carried by one detector
/// class: 5.3 (XrProcDetectorLegacy_53, the operating system's count alone),
/// 6.0 and 6.1 (XrProcDetectorLegacy_6x), 7.0 (XrProcDetectorLinux32_70) and
/// the platform default (XrProcDetectorLinux32, the factory's detector).
enum class Generation { k53, k60, k61, k70, kDefault };

/// The generation's name as the tool takes it: "5.3", "6.0", "6.1", "7.0" or
/// "default".
XRPROCDETECTOR_API const char* generationName(Generation generation) noexcept;
/// The generation named `name`, or nothing.
XRPROCDETECTOR_API std::optional<Generation> findGeneration(const std::string& name) noexcept;

class SourceData;

/// A set of processor numbers, each below the kernel's limit of 8192, such
/// as a thread's affinity or the processors of one core: a bit a processor,
/// held in the value itself (1 KiB), so that sets are made, copied and
/// compared without allocating. Iterates in increasing order.
class XRPROCDETECTOR_API CpuSet {
 public:
  /// Processor numbers are below this, the largest NR_CPUS of the kernel.
  static constexpr unsigned kLimit = 8192;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = unsigned;
    using difference_type = std::ptrdiff_t;
    using pointer = const unsigned*;
    using reference = unsigned;
    const_iterator(const CpuSet* set, unsigned cpu) : set_(set), cpu_(cpu) {}
    unsigned operator*() const { return cpu_; }
    const_iterator& operator++() {
      cpu_ = set_->next(cpu_ + 1);
      return *this;
    }
    bool operator==(const const_iterator& other) const { return cpu_ == other.cpu_; }
    bool operator!=(const const_iterator& other) const { return cpu_ != other.cpu_; }

   private:
    const CpuSet* set_;
    unsigned cpu_;
  };

  CpuSet() = default;
  /// The processors of `cpus`, in any order; repeats count once, numbers at
  /// or above kLimit are left out.
  explicit CpuSet(std::vector<unsigned> cpus);
  /// The set of a list in the kernel's format ("0-3,8"; "" is the empty
  /// set; one line end may follow); nothing when `text` is not such a list
  /// or names a processor at or above kLimit.
  static std::optional<CpuSet> fromList(const std::string& text);
  /// The kernel's list format: "0-3,8", "" for the empty set.
  std::string toList() const;

  std::size_t count() const noexcept;
  bool empty() const noexcept;
  bool contains(unsigned cpu) const noexcept;
  /// Adds `cpu`; a number at or above kLimit is left out.
  void add(unsigned cpu) noexcept;
  /// The lowest processor of the set from `from` on; kLimit when none is.
  unsigned next(unsigned from) const noexcept;
  const_iterator begin() const noexcept { return {this, next(0)}; }
  const_iterator end() const noexcept { return {this, kLimit}; }
  /// The processors in both sets.
  CpuSet operator&(const CpuSet& other) const noexcept;
  bool operator==(const CpuSet& other) const noexcept;
  bool operator!=(const CpuSet& other) const noexcept;

 private:
  std::uint64_t words_[kLimit / 64] = {};
};

/// What detection reads: this machine, a saved /proc/cpuinfo text, or a
/// saved machine (a snapshot directory, or a system root such as
/// `lscpu --sysroot` reads). A Source is an immutable value: copies share
/// what was read, and any thread may use it, also while others do.
class XRPROCDETECTOR_API Source {
 public:
  enum class Kind { kLive, kCpuinfo, kSnapshot };

  /// This machine, read when each detection runs.
  static Source live();
  /// A /proc/cpuinfo text. The generations that need more than the text
  /// (5.3's processor count, the default detector's CPUID estimate) do not
  /// count on it.
  static Source cpuinfoText(std::string text);
  /// The file at `path`, read now, whole (at most 64 MiB), as a
  /// /proc/cpuinfo text. A file that cannot be read gives a Source whose
  /// error() says why; detection on it reports that error.
  static Source cpuinfoFile(std::string path);
  /// The snapshot or system root in `dir`, read now, its whole tree (at
  /// most 256 MiB): what the tree becomes afterwards changes nothing.
  /// Nothing when it cannot be read or is malformed, with *error naming the
  /// file to blame.
  static std::optional<Source> snapshot(const std::string& dir, std::string* error = nullptr);

  Kind kind() const noexcept;
  /// The file or directory read from; empty for the live machine.
  const std::string& name() const noexcept;
  /// Why the source could not be read; empty when it could.
  const std::string& error() const noexcept;

  /// Shared, immutable state; for the library's own use.
  const SourceData& data() const noexcept { return *data_; }

 private:
  explicit Source(std::shared_ptr<const SourceData> data);
  std::shared_ptr<const SourceData> data_;
};

/// hyperThreadState of the detector classes.
enum class HyperThreading : std::int32_t {
  kNotCapable = 0,
  kDisabled = 1,
  kEnabled = 2,
  kEnabledOverTwiceCores = 3,  ///< more logical processors than twice the cores
  kNotDetermined = 15,
};

/// vmState of the detector classes. The default detector's CPUID estimate
/// also uses 15 for a virtual machine it cannot name.
enum class VmState : std::uint8_t { kNone = 0, kVmware = 1, kNotDetermined = 15 };

/// Which of the default detector's strategies gave its counts.
enum class Strategy { kNone, kCpuinfo, kCpuid, kLogicalOnly };

struct DetectOptions {
  /// The detector's debug level: at 1 and above its lines are collected in
  /// Detection::debug; at 0 and below it writes nothing but level-0 lines.
  std::int32_t debugLevel = 0;
  /// The version index given to the detector's constructor; none takes the
  /// constructor without one (index 4). 6.0 always takes index 1.
  std::optional<std::int32_t> versionIndex;
  /// The detector's echo switch: its lines go to standard output too.
  bool echo = false;
  /// Call printSummary after detection and keep what it wrote.
  bool summary = false;
};

/// What one generation found.
struct Detection {
  Generation generation = Generation::kDefault;
  const char* className = "";  ///< the detector class, e.g. "XrProcDetectorLinux32"
  std::int32_t versionIndex = 0;
  /// False when the source lacks what the generation reads (`note` says
  /// what) or could not be read (`error` says why); the counts then mean
  /// nothing.
  bool counted = false;
  int result = 0;  ///< what getProcData returned; negative: not to be trusted
  std::int32_t packages = 0;
  std::int32_t cores = 0;
  std::int32_t logicalProcessors = 0;
  HyperThreading hyperThreading = HyperThreading::kNotDetermined;  ///< as stored
  VmState vm = VmState::kNotDetermined;
  /// The hyper-threading verdict that the generation's own report states
  /// (not capable, disabled or enabled), where it states one. 6.x states it
  /// but leaves hyperThreading not determined.
  std::optional<HyperThreading> reportedVerdict;
  Strategy endedBy = Strategy::kNone;  ///< the default detector only
  std::string note;
  std::string error;
  std::string debug;    ///< the debug lines written while detecting
  std::string summary;  ///< what printSummary wrote, with DetectOptions::summary
};

/// Runs `generation` on `source`: one detector of its class, getProcData,
/// its result fields. Live, it reads the processor counts and
/// /proc/cpuinfo, and the default detector may pin the calling thread to
/// each processor in turn and probe the VMware port (which faults outside
/// VMware, under a guard). The guard lasts one port access: for that span a
/// process-wide SIGSEGV handler is in place and SIGSEGV is unblocked on the
/// calling thread; a fault of another thread in that span is passed on to
/// the handler in place before (with its flags and mask), or takes the
/// default action when there was none. The thread's affinity, signal mask
/// and SIGSEGV disposition are given back before it returns. Runs of the
/// default detector, saveSnapshot() and every other VMware probe take one
/// process-wide lock, as the fault guard is process-wide.
/// A live /proc/cpuinfo that cannot be read is an error, never a wait. Costs
/// one scan of /proc/cpuinfo (a few milliseconds of the kernel's time on a
/// large machine) and, for the CPUID estimate, a pinning per processor.
XRPROCDETECTOR_API Detection detect(Generation generation, const Source& source = Source::live(),
                                    const DetectOptions& options = {}) noexcept;

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
  std::string
      missing;        ///< what the kernel's files lack, such as "no sys/devices/system/cpu/online"
  std::string error;  ///< the first broken file, named; the fields it did not feed are kept
};

/// Reads the live machine (its /sys, /proc and CPUID, and the calling
/// thread's affinity), or the snapshot's tree. Changes nothing, except that
/// on a hybrid processor whose kernel does not list its kinds of core the
/// thread is pinned to each core in turn, to ask its CPUID core type, and
/// given back its affinity. A saved /proc/cpuinfo alone has no topology.
XRPROCDETECTOR_API Topology topology(const Source& source = Source::live()) noexcept;

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
  std::string error;    ///< a file that is there but broken, named; empty when none
};

/// The counts of topology(), read as it reads. A saved /proc/cpuinfo alone
/// has no kernel topology: every field is empty.
XRPROCDETECTOR_API KernelTopology kernelTopology(const Source& source = Source::live()) noexcept;
/// The counts of a topology already read.
XRPROCDETECTOR_API KernelTopology kernelTopology(const Topology& topology) noexcept;

/// What this process may use now, as ProcessorBudget::read() finds it: by
/// the same rule as topology().
struct Budget {
  /// The calling thread's affinity, the online processors and the
  /// effective cpuset of the process's control groups, intersected.
  CpuSet usable;
  /// The tightest CPU bandwidth limit of the process's control group and of
  /// every ancestor visible, in processors; nothing when there is none.
  std::optional<double> cpuQuota;
  /// The usable processors, capped by the quota rounded up, at least 1.
  std::int32_t effectiveProcessors = 1;
  /// The first file that could not be read, named ("/sys/fs/cgroup/a/
  /// cpu.max: cannot read: No such device" once the cgroup is removed);
  /// empty when every file could be read. The other fields hold what could.
  std::string error;
};

/// Whether two budgets differ in any field.
XRPROCDETECTOR_API bool changed(const Budget& before, const Budget& after) noexcept;

/// The processors this process may use, kept current at the cost of a few
/// system calls: for long-running hosts that size their thread pools as
/// the machine changes under them (a container's CPU limit resized in
/// place, a cpuset narrowed, processors taken offline, the affinity
/// narrowed). Live only.
///
/// open() finds the process's control groups and the files that bound it
/// (the quota and period of every ancestor visible, the effective cpuset,
/// the online list) once, as topology() finds them, and keeps them open.
/// read() reads again only what can change, with pread on those
/// descriptors, and the calling thread's affinity; it allocates nothing
/// (but the message of a file that cannot be read). A change of a quota,
/// a cpuset, the online processors or the thread's affinity shows in the
/// next read(). A process moved to another control group is noticed by the
/// first read() at least 50 ms after the previous look at
/// /proc/self/cgroup (which costs about as much as the rest of a read), and
/// that read() finds the files anew. Copies share the descriptors; read()
/// may be called from several threads at once.
class XRPROCDETECTOR_API ProcessorBudget {
 public:
  /// Nothing, with *error saying why, when the files cannot be found or
  /// opened.
  static std::optional<ProcessorBudget> open(std::string* error = nullptr);
  Budget read() noexcept;

  class State;

 private:
  explicit ProcessorBudget(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

/// A detection's states in the kernel's terms; nothing where the detection
/// did not count or did not determine them.
XRPROCDETECTOR_API std::optional<Smt> smtOf(const Detection& detection) noexcept;
XRPROCDETECTOR_API std::optional<Hypervisor> hypervisorOf(const Detection& detection) noexcept;

/// Whether one field of a detection agrees with the kernel: kUnknown where
/// either side has no value.
enum class Same : std::uint8_t { kUnknown, kYes, kNo };

struct Agreement {
  Same packages = Same::kUnknown;
  Same cores = Same::kUnknown;
  Same logicalProcessors = Same::kUnknown;
  Same smt = Same::kUnknown;
  Same hypervisor = Same::kUnknown;
};

XRPROCDETECTOR_API Agreement compare(const Detection& detection,
                                     const KernelTopology& kernel) noexcept;

/// Saves this machine as a snapshot in `dir`, which must not exist or be an
/// empty directory (never a symbolic link): /proc/cpuinfo, the kernel's
/// processor files, each processor's CPUID answers and the counts no file
/// holds. Pins the calling thread to each processor of its affinity in turn
/// and probes the VMware port under the guard and the lock that detect()
/// describes (a SIGSEGV handler and SIGSEGV unblocked on the calling thread
/// for one port access; other threads' faults passed on to the handler in
/// place before), then gives back the affinity, signal mask and SIGSEGV
/// disposition. False with *error saying why when it fails; nothing it
/// wrote is left behind.
XRPROCDETECTOR_API bool saveSnapshot(const std::string& dir, std::string* error = nullptr) noexcept;

/// `text` as a JSON string literal, quotes included: `"` and `\` escaped,
/// newlines and tabs as `\n` and `\t`, other control characters as
/// `\u00XX`, and each byte that is not part of valid UTF-8 as `\u00XX` of
/// its own value; valid UTF-8 otherwise as it is. For hosts that log what
/// detection found as JSON.
XRPROCDETECTOR_API std::string jsonString(const std::string& text);

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_DETECT_H
