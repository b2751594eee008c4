#include "run.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <xrprocdetector/xrprocdetector.h>
#include <xrprocdetector/xrprocdetector_legacy_53.h>
#include <xrprocdetector/xrprocdetector_legacy_6x.h>
#include <xrprocdetector/xrprocdetector_linux32.h>
#include <xrprocdetector/xrprocdetector_linux32_70.h>

namespace xrprocdetect {

namespace {

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
  // Everything written so far.
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
std::unique_ptr<XrProcDetector> build(const RunSettings& s, std::optional<std::int32_t> index,
                                      FILE* stream) {
  const auto level = static_cast<tz_debuglevel>(s.level);
  const unsigned echo = s.echo ? 1 : 0;
  if (index)
    return std::make_unique<Detector>(level, echo, static_cast<__tz_procInfoIndex>(*index), stream,
                                      nullptr);
  return std::make_unique<Detector>(level, echo, stream, nullptr);
}

std::unique_ptr<XrProcDetector> makeDetector(const Generation& g, const RunSettings& s,
                                             FILE* stream) {
  switch (g.id) {
    case GenerationId::k53:
      return build<XrProcDetectorLegacy_53>(s, s.versionIndex, stream);
    case GenerationId::k60:
      // One class carries 6.0 and 6.1: index 1 selects 6.0.
      return build<XrProcDetectorLegacy_6x>(s, tzProcInfo60, stream);
    case GenerationId::k61:
      return build<XrProcDetectorLegacy_6x>(
          s, s.versionIndex && *s.versionIndex != tzProcInfo60 ? s.versionIndex : std::nullopt,
          stream);
    case GenerationId::k70:
      return build<XrProcDetectorLinux32_70>(s, s.versionIndex, stream);
    case GenerationId::kDefault:
      break;
  }
  return build<XrProcDetectorLinux32>(s, s.versionIndex, stream);
}

// The verdict that the summary report states for these counts, by the
// library's own rule: a bare detector's platformHyperThreading stores it.
int verdictOf(std::int32_t logical, std::int32_t physical, std::int32_t cores) {
  XrProcDetector scratch(tzDebugNone, 0, nullptr, nullptr);
  scratch.logicalCount = logical;
  scratch.physicalCount = physical;
  scratch.coreCount = cores;
  scratch.platformHyperThreading();
  return scratch.hyperThreadState;
}

// The default detector announces each strategy it tries with a banner; the
// last one it wrote names the strategy that ended it.
Strategy strategyOf(const std::string& debug) {
  if (debug.find(" logical only\n=====") != std::string::npos) return Strategy::kLogicalOnly;
  if (debug.find(" cpuid\n=====") != std::string::npos) return Strategy::kCpuid;
  return Strategy::kCpuinfo;
}

void takeFields(Row& row, const XrProcDetector& d) {
  row.procInfoIndex = d.procInfoIndex;
  row.logicalCount = d.logicalCount;
  row.physicalCount = d.physicalCount;
  row.coreCount = d.coreCount;
  row.hyperThreadState = d.hyperThreadState;
  row.vmState = d.vmState;
}

}  // namespace

const std::vector<Generation>& allGenerations() {
  static const std::vector<Generation> generations = {
      {GenerationId::k53, "5.3", "XrProcDetectorLegacy_53", false},
      {GenerationId::k60, "6.0", "XrProcDetectorLegacy_6x", true},
      {GenerationId::k61, "6.1", "XrProcDetectorLegacy_6x", true},
      {GenerationId::k70, "7.0", "XrProcDetectorLinux32_70", true},
      {GenerationId::kDefault, "default", "XrProcDetectorLinux32", true},
  };
  return generations;
}

const Generation* findGeneration(std::string_view name) {
  for (const Generation& g : allGenerations()) {
    if (name == g.name) return &g;
  }
  return nullptr;
}

Row runGeneration(const Generation& g, const RunSettings& settings, const Inputs& inputs) {
  Row row;
  row.generation = &g;
  Capture capture;
  const std::unique_ptr<XrProcDetector> detector = makeDetector(g, settings, capture.file());
  row.procInfoIndex = detector->procInfoIndex;
  const bool offline = !inputs.live;

  if (!inputs.counts && g.id == GenerationId::k53) {
    row.counted = false;
    row.note = inputs.snapshot
                   ? "needs the configured processor count, which the snapshot does not hold"
                   : "needs the system's processor count, which the file does not hold";
    return row;
  }
  if (!inputs.cpuinfo && g.readsCpuinfo) {
    row.counted = false;
    row.note = "needs /proc/cpuinfo, which the snapshot does not hold";
    return row;
  }
  if (inputs.snapshot && g.id == GenerationId::kDefault && !inputs.cpuidMissing.empty()) {
    // Whether the scan ends it, asked of a silent detector first.
    XrProcDetectorLinux32 scout(tzDebugNone, 0, nullptr, nullptr);
    if (scout.getUnixProcData() < 0) {
      row.counted = false;
      row.note = "no physical id; the CPUID estimate needs " + inputs.cpuidMissing +
                 ", which the snapshot does not hold";
      return row;
    }
  }
  if (offline && !inputs.snapshot && g.id == GenerationId::kDefault) {
    // Only the first strategy reads /proc/cpuinfo: the scan, then the
    // verdict, as getProcData runs them before it would turn to CPUID.
    if (detector->getUnixProcData() < 0) {
      row.counted = false;
      row.note = "no physical id; a live run goes on to the CPUID estimate";
      row.debug = capture.text();
      return row;
    }
    row.result = 0;  // what getProcData returns after a successful scan
    row.endedBy = Strategy::kCpuinfo;
  } else {
    row.result = detector->getProcData();
  }
  row.debug = capture.text();
  takeFields(row, *detector);

  switch (g.id) {
    case GenerationId::k53:
      break;
    case GenerationId::kDefault:
      if (inputs.live || inputs.snapshot) row.endedBy = strategyOf(row.debug);
      if (row.endedBy == Strategy::kCpuinfo) row.reportedVerdict = row.hyperThreadState;
      break;
    default:
      row.reportedVerdict = verdictOf(row.logicalCount, row.physicalCount, row.coreCount);
      break;
  }

  if (settings.summary) {
    detector->printSummary();
    row.summary = capture.text().substr(row.debug.size());
  }
  return row;
}

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

}  // namespace xrprocdetect
