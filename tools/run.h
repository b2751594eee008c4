// Running the detector generations for xrprocdetect, live or over a saved
// /proc/cpuinfo, and what each run found.
#ifndef XRPROCDETECTOR_TOOLS_RUN_H
#define XRPROCDETECTOR_TOOLS_RUN_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xrprocdetect {

enum class GenerationId { k53, k60, k61, k70, kDefault };

struct Generation {
  GenerationId id;
  const char* name;       // as --algorithm takes it
  const char* className;  // the detector class that carries it
  bool readsCpuinfo;      // whether a live run reads /proc/cpuinfo
};

// Every generation in the order of --all: oldest first, the platform's
// default (the factory's detector) last.
const std::vector<Generation>& allGenerations();
// The generation named `name`, or null.
const Generation* findGeneration(std::string_view name);

struct RunSettings {
  std::optional<std::int32_t> versionIndex;  // for the constructors that take one
  // The level the detectors are built with. At least 1: what they write is
  // always captured (it tells which strategy ended the default detector),
  // and the caller passes it on only where the user asked for it.
  std::int32_t level = 1;
  bool echo = false;     // the detectors' echo switch
  bool summary = false;  // call printSummary after detection
};

// Which of the default detector's three strategies gave its counts.
enum class Strategy { kNone, kCpuinfo, kCpuid, kLogicalOnly };

struct Row {
  const Generation* generation = nullptr;
  std::int32_t procInfoIndex = 0;  // the index the detector was built with
  // False for a generation that has nothing to count in a saved
  // /proc/cpuinfo; `note` says why and the counts mean nothing.
  bool counted = true;
  int result = 0;  // getProcData's
  std::int32_t logicalCount = 0;
  std::int32_t physicalCount = 0;
  std::int32_t coreCount = 0;
  std::int32_t hyperThreadState = 0;
  std::uint8_t vmState = 0;
  // The hyper-threading verdict (0 not capable, 1 disabled, 2 enabled) that
  // the generation's own report states after detection, or -1 where it
  // states none (5.3, and the default detector after CPUID or the logical
  // count alone). 6.x states it without storing it in hyperThreadState.
  int reportedVerdict = -1;
  Strategy endedBy = Strategy::kNone;  // the default detector only
  std::string note;
  std::string debug;    // what the detector wrote to its stream while detecting
  std::string summary;  // what printSummary wrote, with RunSettings::summary
};

// What a run can see. Offline, the caller has redirected this thread's
// detectors to the saved text (XrCpuinfoRedirect) or snapshot
// (XrSnapshotReplay): generations that need a part the input lacks are not
// run and say so.
struct Inputs {
  bool live = true;
  bool snapshot = false;     // a snapshot rather than a saved /proc/cpuinfo
  bool cpuinfo = true;       // a /proc/cpuinfo text
  bool counts = true;        // the configured and online processor counts
  std::string cpuidMissing;  // what the CPUID estimate needs and lacks, if anything
};

Row runGeneration(const Generation& generation, const RunSettings& settings, const Inputs& inputs);

// Whether /proc/cpuinfo can be opened and read; otherwise the reason. A
// generation that reads it would never return if it cannot.
std::optional<std::string> liveCpuinfoProblem();

}  // namespace xrprocdetect

#endif  // XRPROCDETECTOR_TOOLS_RUN_H
