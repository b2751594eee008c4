/// \file
/// The generations of the detection algorithm, run on this machine or on a
/// saved one: how many packages, cores and logical processors, whether
/// hyper-threading is there, and whether the machine is a VMware virtual
/// machine, by any generation, beside the kernel's own topology.
///
/// \code
/// #include <xrprocdetector/generations.h>
/// using namespace xrprocdetector;
/// const Detection d = detect(Generation::kDefault);
/// if (d.counted && d.result >= 0) std::printf("%d cores\n", d.cores);
/// \endcode
///
/// detect() runs exactly the detector classes (xrprocdetector.h and the
/// generation headers), so the counts and the debug text are theirs, byte
/// for byte, and gives the calling thread back as it found it (its
/// affinity, its signal mask and the SIGSEGV disposition): it may be called
/// any number of times, on any thread, and from several threads at once.
#ifndef XRPROCDETECTOR_GENERATIONS_H
#define XRPROCDETECTOR_GENERATIONS_H

#include <cstdint>
#include <optional>
#include <string>

#include <xrprocdetector/c_api.h>
#include <xrprocdetector/error.h>
#include <xrprocdetector/snapshot.h>
#include <xrprocdetector/topology.h>

namespace xrprocdetector {

/// The library's version, such as "2.0.0".
inline const char* version() noexcept {
  return xrpd_version();
}

/// A generation of the detection algorithm, each carried by one detector
/// class: 5.3 (XrProcDetectorLegacy_53, the operating system's count alone),
/// 6.0 and 6.1 (XrProcDetectorLegacy_6x), 7.0 (XrProcDetectorLinux32_70) and
/// the platform default (XrProcDetectorLinux32, the factory's detector).
enum class Generation { k53, k60, k61, k70, kDefault };

/// The generation's name as the tool takes it: "5.3", "6.0", "6.1", "7.0" or
/// "default".
inline const char* generationName(Generation generation) noexcept {
  static const char* const kNames[] = {"5.3", "6.0", "6.1", "7.0", "default"};
  return kNames[static_cast<int>(generation)];
}
/// The generation named `name`, or nothing.
inline std::optional<Generation> findGeneration(const std::string& name) noexcept {
  for (int g = 0; g <= static_cast<int>(Generation::kDefault); ++g) {
    if (name == generationName(static_cast<Generation>(g))) return static_cast<Generation>(g);
  }
  return std::nullopt;
}

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
  Error error;          ///< why the source could not be read
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
inline Detection detect(Generation generation, const Source& source = Source::live(),
                        const DetectOptions& options = {}) noexcept {
  Detection d;
  d.generation = generation;
  const xrpd_detect_options o{sizeof o,
                              options.debugLevel,
                              options.versionIndex.value_or(0),
                              options.versionIndex.has_value(),
                              options.echo,
                              options.summary};
  xrpd_detection c{};
  c.size = sizeof c;
  const bool lost = source.kind() != Source::Kind::kLive && source.handle() == nullptr;
  if (lost ||
      xrpd_detect_with(static_cast<xrpd_generation>(generation), source.handle(), &o, &c) != 0) {
    d.error = lost ? source.error() : Error{"", "", "out of memory"};
    return d;
  }
  d.className = c.class_name;
  d.versionIndex = c.version_index;
  d.counted = c.counted != 0;
  d.result = c.result;
  d.packages = c.packages;
  d.cores = c.cores;
  d.logicalProcessors = c.logical_processors;
  d.hyperThreading = static_cast<HyperThreading>(c.hyper_threading);
  d.vm = static_cast<VmState>(c.vm);
  if (c.reported_verdict >= 0) d.reportedVerdict = static_cast<HyperThreading>(c.reported_verdict);
  d.endedBy = static_cast<Strategy>(c.ended_by);
  d.note = bridge::take(c.note);
  d.error = bridge::takeError(c.error);
  d.debug = bridge::take(c.debug);
  d.summary = bridge::take(c.summary);
  return d;
}

/// A detection's states in the kernel's terms; nothing where the detection
/// did not count or did not determine them.
inline std::optional<Smt> smtOf(const Detection& d) noexcept {
  if (!d.counted || d.hyperThreading == HyperThreading::kNotDetermined) return std::nullopt;
  if (d.hyperThreading == HyperThreading::kNotCapable) return Smt::kNotSupported;
  return d.hyperThreading == HyperThreading::kDisabled ? Smt::kOff : Smt::kOn;  // 2 and 3: on
}
inline std::optional<Hypervisor> hypervisorOf(const Detection& d) noexcept {
  if (!d.counted) return std::nullopt;
  if (d.vm == VmState::kNone) return Hypervisor::kNone;
  if (d.vm == VmState::kVmware) return Hypervisor::kVmware;
  // 15 names an unknown virtual machine only after the CPUID estimate;
  // elsewhere it is the detectors' "not determined".
  if (d.vm == VmState::kNotDetermined && d.endedBy == Strategy::kCpuid) return Hypervisor::kOther;
  return std::nullopt;
}

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

inline Agreement compare(const Detection& d, const KernelTopology& k) noexcept {
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

#endif  // XRPROCDETECTOR_GENERATIONS_H
