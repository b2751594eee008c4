// detect(): one detector of a generation's class, run on a source, with the
// calling thread given back as it was found.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <xrprocdetector/xrprocdetector_legacy_53.h>
#include <xrprocdetector/xrprocdetector_legacy_6x.h>
#include <xrprocdetector/xrprocdetector_linux32_70.h>

#include "api/source.h"
#include "core/verdict.h"
#include "generations/generations.h"

namespace xrprocdetector {

namespace {

struct GenerationInfo {
  const char* name;
  const char* className;
  bool readsCpuinfo;
};

const GenerationInfo& infoOf(Generation g) {
  static const GenerationInfo kInfo[] = {
      {"5.3", "XrProcDetectorLegacy_53", false},  {"6.0", "XrProcDetectorLegacy_6x", true},
      {"6.1", "XrProcDetectorLegacy_6x", true},   {"7.0", "XrProcDetectorLinux32_70", true},
      {"default", "XrProcDetectorLinux32", true},
  };
  return kInfo[static_cast<int>(g)];
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

// Why a live /proc/cpuinfo cannot be read, or nothing. A scan of a file
// that cannot be read never ends, so such a detection is not run.
std::optional<std::string> liveCpuinfoProblem() {
  const int fd = ::open("/proc/cpuinfo", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string(std::strerror(errno));
  char byte = 0;
  ssize_t n;
  do
    n = ::read(fd, &byte, 1);
  while (n < 0 && errno == EINTR);
  const int readError = errno;
  ::close(fd);
  if (n < 0) return std::string(std::strerror(readError));
  return std::nullopt;
}

// What the default detector's CPUID estimate needs and the snapshot lacks,
// or nothing.
std::string cpuidMissing(const XrMachineSnapshot& s) {
  if (!s.configured) return "the configured processor count";
  if (!s.affinity) return "the affinity";
  for (const unsigned p : *s.affinity) {
    if (s.cpuid.count(p) == 0) return "cpuid/pu" + std::to_string(p);
  }
  return "";
}

// Why `g` cannot count on `source`, or nothing: the source lacks a part it
// reads. *error is set instead when the source could not be read.
std::string missingPart(Generation g, const SourceData& source, std::string* error) {
  const bool reads = infoOf(g).readsCpuinfo;
  if (!source.error.empty()) {
    *error = source.error;
  } else if (source.kind == Source::Kind::kLive) {
    const auto problem = reads ? liveCpuinfoProblem() : std::nullopt;
    if (problem)
      *error = "cannot read /proc/cpuinfo (" + *problem + "); generation " + infoOf(g).name +
               " would never return, so it is not run";
  } else if (g == Generation::k53) {
    if (source.kind == Source::Kind::kCpuinfo)
      return "needs the system's processor count, which the file does not hold";
    if (!source.snapshot.configured)
      return "needs the configured processor count, which the snapshot does not hold";
  } else if (source.kind == Source::Kind::kSnapshot && !source.snapshot.cpuinfo) {
    return "needs /proc/cpuinfo, which the snapshot does not hold";
  }
  return "";
}

void takeFields(Detection& d, const XrProcDetector& detector) {
  d.versionIndex = detector.procInfoIndex;
  d.packages = detector.physicalCount;
  d.cores = detector.coreCount;
  d.logicalProcessors = detector.logicalCount;
  d.hyperThreading = static_cast<HyperThreading>(detector.hyperThreadState);
  d.vm = static_cast<VmState>(detector.vmState);
}

// The default detector on a source of its own: a saved text has no CPUID
// to go on to, and a snapshot may lack what the estimate needs.
bool runDefault(XrProcDetectorLinux32& detector, const SourceData& source, bool echo,
                Detection& d) {
  if (source.kind == Source::Kind::kCpuinfo) {
    // Only the first strategy reads /proc/cpuinfo: the scan, then the
    // verdict, as getProcData runs them before it would turn to CPUID.
    if (detector.getUnixProcData() < 0) {
      d.note = "no physical id; a live run goes on to the CPUID estimate";
      return false;
    }
    d.endedBy = Strategy::kCpuinfo;
    d.result = 0;  // what getProcData returns after a successful scan
    return true;
  }
  // A snapshot that lacks what the CPUID estimate needs counts only when
  // the scan ends detection. What the estimate would make of the gaps is
  // dropped unseen; with the echo on, a silent detector asks first.
  const std::string missing =
      source.kind == Source::Kind::kSnapshot ? cpuidMissing(source.snapshot) : "";
  XrProcDetectorLinux32 scout(tzDebugNone, 0, nullptr, nullptr);
  const bool scanFails = !missing.empty() && echo && scout.getUnixProcData() < 0;
  if (!scanFails) d.result = detail::runDefaultDetection(detector, &d.endedBy);
  if (missing.empty() || d.endedBy == Strategy::kCpuinfo) return true;
  d.note =
      "no physical id; the CPUID estimate needs " + missing + ", which the snapshot does not hold";
  d.endedBy = Strategy::kNone;
  return false;
}

// The detection itself, with the source in place for this thread.
void run(Generation g, const SourceData& source, const DetectOptions& options, Detection& d) {
  Capture capture;
  const std::unique_ptr<XrProcDetector> detector =
      makeDetector(g, options, options.debugLevel > 0 ? capture.file() : nullptr);
  d.versionIndex = detector->procInfoIndex;
  if (g == Generation::kDefault) {
    d.counted = runDefault(static_cast<XrProcDetectorLinux32&>(*detector), source, options.echo, d);
  } else {
    d.counted = true;
    d.result = detector->getProcData();
  }
  // A snapshot's row that does not count shows nothing of what ran.
  d.debug = d.counted || source.kind != Source::Kind::kSnapshot ? capture.text() : "";
  if (!d.counted) return;
  takeFields(d, *detector);
  if (g == Generation::kDefault && d.endedBy == Strategy::kCpuinfo) {
    d.reportedVerdict = d.hyperThreading;
  } else if (g != Generation::k53 && g != Generation::kDefault) {
    d.reportedVerdict = static_cast<HyperThreading>(
        detail::hyperThreadingVerdict(d.logicalProcessors, d.packages, d.cores).state);
  }
  if (options.summary) {
    detector->printSummary();
    d.summary = capture.text().substr(d.debug.size());
  }
}

// The calling thread's affinity, and for a detector that probes the VMware
// port its signal mask and SIGSEGV disposition under the probe lock, given
// back when the scope ends.
class ThreadState {
 public:
  explicit ThreadState(bool probes) {
    if (probes) signals_.emplace();
    haveAffinity_ = sched_getaffinity(0, sizeof affinity_, &affinity_) == 0;
  }
  ~ThreadState() {
    if (haveAffinity_) sched_setaffinity(0, sizeof affinity_, &affinity_);
  }
  ThreadState(const ThreadState&) = delete;
  ThreadState& operator=(const ThreadState&) = delete;

 private:
  std::optional<detail::SignalState> signals_;
  cpu_set_t affinity_;
  bool haveAffinity_;
};

void runOn(Generation g, const SourceData& source, const DetectOptions& options, Detection& d) {
  switch (source.kind) {
    case Source::Kind::kCpuinfo: {
      const XrCpuinfoRedirect redirect(&source.text);
      return run(g, source, options, d);
    }
    case Source::Kind::kSnapshot: {
      // The default detector's VMware probe sets the process's SIGSEGV
      // disposition, replayed or not: one at a time, and given back.
      std::optional<detail::SignalState> signals;
      if (g == Generation::kDefault) signals.emplace();
      const XrSnapshotReplay replay(source.snapshot);
      return run(g, source, options, d);
    }
    case Source::Kind::kLive:
      break;
  }
  const ThreadState thread(g == Generation::kDefault);
  run(g, source, options, d);
}

}  // namespace

const char* version() noexcept {
  return XRPROCDETECTOR_VERSION;
}

const char* generationName(Generation generation) noexcept {
  return infoOf(generation).name;
}

std::optional<Generation> findGeneration(const std::string& name) noexcept {
  for (const Generation g :
       {Generation::k53, Generation::k60, Generation::k61, Generation::k70, Generation::kDefault}) {
    if (name == infoOf(g).name) return g;
  }
  return std::nullopt;
}

Detection detect(Generation generation, const Source& source,
                 const DetectOptions& options) noexcept {
  Detection d;
  d.generation = generation;
  d.className = infoOf(generation).className;
  // The index the detector is built with, as its constructor sets it.
  d.versionIndex = generation == Generation::k60 ? tzProcInfo60
                   : generation == Generation::k61 && options.versionIndex == tzProcInfo60
                       ? tzProcInfo71
                       : options.versionIndex.value_or(tzProcInfo71);
  try {
    d.note = missingPart(generation, source.data(), &d.error);
    if (!d.note.empty() || !d.error.empty()) return d;
    runOn(generation, source.data(), options, d);
  } catch (const std::bad_alloc&) {
    d.counted = false;
    d.error = "out of memory";
  }
  return d;
}

bool saveSnapshot(const std::string& dir, std::string* error) noexcept {
  std::string why;
  const bool saved = xrSaveSnapshot(
      dir, std::string(program_invocation_short_name) + " " + XRPROCDETECTOR_VERSION, &why);
  if (!saved && error != nullptr) *error = why;
  return saved;
}

}  // namespace xrprocdetector
