// detect(): one detector of a generation's class, run on a source, with the
// calling thread given back as it was found.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include <xrprocdetector/xrprocdetector_legacy_53.h>
#include <xrprocdetector/xrprocdetector_legacy_6x.h>
#include <xrprocdetector/xrprocdetector_linux32_70.h>

#include "api/api.h"
#include "kernel/kernel.h"
#include "legacy/legacy.h"
#include "snapshot/snapshot.h"

namespace xrprocdetector {
namespace detail {

namespace {

const char* classOf(Generation g) {
  static const char* const kClasses[] = {"XrProcDetectorLegacy_53", "XrProcDetectorLegacy_6x",
                                         "XrProcDetectorLegacy_6x", "XrProcDetectorLinux32_70",
                                         "XrProcDetectorLinux32"};
  return kClasses[static_cast<int>(g)];
}

// A FILE that collects what is written to it in memory.
class Capture {
 public:
  Capture() : file_(open_memstream(&data_, &size_)) {}
  ~Capture() {
    if (file_ != nullptr) std::fclose(file_);
    std::free(data_);
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  FILE* file() const { return file_; }
  std::string text() {
    if (file_ == nullptr) return {};
    std::fflush(file_);
    return std::string(data_, size_);
  }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  FILE* file_;
};

template <class Detector>
std::unique_ptr<XrProcDetector> build(const DetectOptions& o, std::optional<std::int32_t> index,
                                      FILE* stream) {
  const auto level = static_cast<tz_debuglevel>(o.debugLevel);
  const unsigned echo = o.echo ? 1 : 0;
  if (index)
    return std::make_unique<Detector>(level, echo, static_cast<__tz_procInfoIndex>(*index), stream,
                                      nullptr);
  return std::make_unique<Detector>(level, echo, stream, nullptr);
}

std::unique_ptr<XrProcDetector> makeDetector(Generation g, const DetectOptions& o, FILE* stream) {
  switch (g) {
    case Generation::k53:
      return build<XrProcDetectorLegacy_53>(o, o.versionIndex, stream);
    case Generation::k60:
      // One class carries 6.0 and 6.1: index 1 selects 6.0.
      return build<XrProcDetectorLegacy_6x>(o, tzProcInfo60, stream);
    case Generation::k61:
      return build<XrProcDetectorLegacy_6x>(
          o, o.versionIndex && *o.versionIndex != tzProcInfo60 ? o.versionIndex : std::nullopt,
          stream);
    case Generation::k70:
      return build<XrProcDetectorLinux32_70>(o, o.versionIndex, stream);
    case Generation::kDefault:
      break;
  }
  return build<XrProcDetectorLinux32>(o, o.versionIndex, stream);
}

void takeFields(Detection& d, const XrProcDetector& detector) {
  d.versionIndex = detector.procInfoIndex;
  d.packages = detector.physicalCount;
  d.cores = detector.coreCount;
  d.logicalProcessors = detector.logicalCount;
  d.hyperThreading = static_cast<HyperThreading>(detector.hyperThreadState);
  d.vm = static_cast<VmState>(detector.vmState);
}

// The detection itself, on the calling thread's machine.
void run(Generation g, const SourceData& source, const DetectOptions& options, Detection& d) {
  Capture capture;
  const std::unique_ptr<XrProcDetector> detector =
      makeDetector(g, options, options.debugLevel > 0 ? capture.file() : nullptr);
  d.versionIndex = detector->procInfoIndex;
  if (g == Generation::kDefault && source.kind == Source::Kind::kCpuinfo) {
    // A saved text has no CPUID to go on to: only the first strategy, the
    // scan and then the verdict, as getProcData runs them first.
    d.counted = detector->getUnixProcData() >= 0;
    d.endedBy = d.counted ? Strategy::kCpuinfo : Strategy::kNone;
    if (!d.counted) d.note = "no physical id; a live run goes on to the CPUID estimate";
  } else if (g == Generation::kDefault) {
    d.result = runDefaultDetection(static_cast<XrProcDetectorLinux32&>(*detector), &d.endedBy);
    d.counted = true;
  } else {
    d.result = detector->getProcData();
    d.counted = true;
  }
  d.debug = capture.text();
  if (!d.counted) return;
  takeFields(d, *detector);
  if (g == Generation::kDefault && d.endedBy == Strategy::kCpuinfo) {
    d.reportedVerdict = d.hyperThreading;
  } else if (g != Generation::k53 && g != Generation::kDefault) {
    d.reportedVerdict = static_cast<HyperThreading>(
        hyperThreadingVerdict(d.logicalProcessors, d.packages, d.cores).state);
  }
  if (options.summary) {
    detector->printSummary();
    d.summary = capture.text().substr(d.debug.size());
  }
}

// A detection of d's generation, class and index that has found nothing.
Detection fresh(const Detection& d) {
  Detection out;
  out.generation = d.generation;
  out.className = d.className;
  out.versionIndex = d.versionIndex;
  return out;
}

// What a source lacks, in the words of a detection that cannot count.
void lacks(Generation g, const SourceData& source, const Missing& missing, Detection& d) {
  const Strategy reached = d.endedBy;
  d = fresh(d);
  const bool estimate = g == Generation::kDefault && reached == Strategy::kCpuid;
  if (source.kind == Source::Kind::kLive)
    d.error.why = missing.what + "; generation " + generationName(g) +
                  " would never return, so it is not run";
  else
    d.note = (estimate ? "no physical id; the CPUID estimate needs " : "needs ") + missing.what +
             ", which " + source.saved.holder + " does not hold";
}

// The calling thread's affinity on its machine, and for a detector that
// probes the VMware port its signal mask and SIGSEGV disposition under the
// probe lock, given back when the scope ends.
class ThreadState {
 public:
  explicit ThreadState(bool probes) {
    if (probes) signals_.emplace();
    try {
      haveAffinity_ = machine().affinity(&affinity_);
    } catch (const Missing&) {
      // a saved machine without an affinity: nothing to give back
    }
  }
  ~ThreadState() {
    if (haveAffinity_) machine().pin(affinity_);
  }
  ThreadState(const ThreadState&) = delete;
  ThreadState& operator=(const ThreadState&) = delete;

 private:
  std::optional<SignalState> signals_;
  CpuSet affinity_;
  bool haveAffinity_ = false;
};

// Runs `g` on the source's machine. What the machine lacks ends the run:
// the detection does not count, and says why. Lines echoed to standard
// output cannot be taken back, so with the echo on a saved source is first
// run silently to find whether it lacks anything.
void runOn(Generation g, const SourceData& source, const DetectOptions& options, Detection& d) {
  const std::unique_ptr<Machine> m = source.machine();
  const MachineScope scope(*m);
  const auto once = [&](const DetectOptions& o) {
    const ThreadState thread(g == Generation::kDefault);
    run(g, source, o, d);
  };
  try {
    if (options.echo && source.kind != Source::Kind::kLive) {
      DetectOptions quiet = options;
      quiet.echo = quiet.summary = false;
      quiet.debugLevel = 0;
      once(quiet);
      d = fresh(d);
    }
    once(options);
  } catch (const Missing& missing) {
    lacks(g, source, missing, d);
  }
}

}  // namespace

Detection detect(Generation generation, const SourceData& source, const DetectOptions& options) {
  Detection d;
  d.generation = generation;
  d.className = classOf(generation);
  // The index the detector is built with, as its constructor sets it.
  d.versionIndex = generation == Generation::k60 ? tzProcInfo60
                   : generation == Generation::k61 && options.versionIndex == tzProcInfo60
                       ? tzProcInfo71
                       : options.versionIndex.value_or(tzProcInfo71);
  if (!source.error.empty()) {
    d.error = source.error;
    return d;
  }
  runOn(generation, source, options, d);
  return d;
}

std::shared_ptr<const Topology> topologyOf(const SourceData& source) {
  if (source.kind == Source::Kind::kCpuinfo) return std::make_shared<Topology>();
  if (source.topology) return source.topology;
  const std::unique_ptr<Machine> m = source.machine();
  return std::make_shared<Topology>(readTopology(*m, source.skip));
}

namespace {

// Runs every reader the library has on a recording of this machine, so
// that the snapshot holds exactly what they read. The detector classes
// read the calling thread's machine: the recording, in scope.
void readEverything(RecordingMachine& recording) {
  const MachineScope scope(recording);
  for (const Generation g :
       {Generation::k53, Generation::k60, Generation::k61, Generation::k70, Generation::kDefault}) {
    try {
      const ThreadState thread(g == Generation::kDefault);
      Detection d;
      run(g, SourceData(), DetectOptions{}, d);
    } catch (const Missing&) {
    }
  }
  readTopology(recording);
  const SignalState signals;
  guardedVmwareProbe();
}

}  // namespace

bool save(const std::string& dir, Error* error) {
  Error why;
  bool saved = false;
  try {
    RecordingMachine recording(machine());
    readEverything(recording);
    // What makes a snapshot a machine: a broken one of these fails the
    // save; any other file that cannot be read is left out.
    for (const char* file : {"proc/cpuinfo", "sys/devices/system/cpu/possible",
                             "sys/devices/system/cpu/present", "sys/devices/system/cpu/online"}) {
      const auto failed = recording.failures().find(file);
      if (why.empty() && failed != recording.failures().end())
        fail(&why, "/" + failed->first, failed->second);
    }
    if (why.empty() && recording.files().count("proc/cpuinfo") == 0)
      fail(&why, "/proc/cpuinfo", "cannot open: No such file or directory");
    if (why.empty() && recording.dumpEveryProcessor(&why))
      saved = writeSnapshot(
          dir, recording, std::string(program_invocation_short_name) + " " + XRPROCDETECTOR_VERSION,
          &why);
  } catch (const std::bad_alloc&) {
    fail(&why, dir, "out of memory");
  }
  if (!saved) *error = why;
  return saved;
}

}  // namespace detail
}  // namespace xrprocdetector
