// xrprocdetect: runs, compares and explains the detector generations, on
// this machine, on saved /proc/cpuinfo texts or on snapshots, beside the
// kernel's own topology. See `xrprocdetect --help`.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <xrprocdetector/xrprocdetector_snapshot.h>
#include <xrprocdetector/xrprocdetector_source.h>

#include "kernel.h"
#include "options.h"
#include "report.h"
#include "run.h"
#include "tally.h"

namespace {

using namespace xrprocdetect;

int usageError(const std::string& message) {
  std::fprintf(stderr, "xrprocdetect: %s (see xrprocdetect --help)\n", message.c_str());
  return 2;
}

// The largest saved /proc/cpuinfo read. That of a machine of 8,192 logical
// processors is about 16 MiB; an input past this one is no such text (a
// device such as /dev/zero, or the wrong file) and is refused rather than
// read until memory runs out.
constexpr std::size_t kMaxInputBytes = 64 * 1024 * 1024;

// Reads the whole of `name` ("-": standard input) into *text, or says why
// it cannot.
std::optional<std::string> readInput(const std::string& name, std::string* text) {
  const bool standardInput = name == "-";
  const std::string shown = standardInput ? "standard input" : "'" + name + "'";
  const int fd = standardInput ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "cannot open " + shown + ": " + std::strerror(errno);
  std::optional<std::string> problem;
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0 && text->size() + static_cast<std::size_t>(n) > kMaxInputBytes) {
      problem = shown + " is larger than " + std::to_string(kMaxInputBytes >> 20) +
                " MiB, more than any /proc/cpuinfo";
      break;
    }
    if (n > 0) {
      text->append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      problem = "cannot read " + shown + ": " + std::strerror(errno);
      break;
    }
  }
  if (!standardInput) ::close(fd);
  return problem;
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

enum class Kind { kLive, kCpuinfo, kSnapshot };

// What is the same for every input.
struct Run {
  const Options* options = nullptr;
  std::vector<const Generation*> selected;
  RunSettings settings;
  bool passDebugOn = false;
  bool lines = false;  // JSON Lines
};

// Runs the selected generations on one input and writes its report (or adds
// it to `tally`). Returns the exit status it calls for: 2 when the input
// cannot be read (said on standard error), 1 when a getProcData is
// negative, else 0; sets *differs when a count differs from the kernel's.
int runInput(const Run& run, Kind kind, const std::string& name, Tally* tally, bool* differs) {
  const Options& options = *run.options;
  Source source;
  Inputs inputs;
  std::string text;
  XrMachineSnapshot snapshot;
  if (kind == Kind::kSnapshot) {
    source.live = inputs.live = false;
    source.snapshot = inputs.snapshot = true;
    source.file = name;
    std::string error;
    if (!xrLoadSnapshot(name, &snapshot, &error)) {
      std::fprintf(stderr, "xrprocdetect: cannot read the snapshot: %s\n", error.c_str());
      return 2;
    }
    inputs.cpuinfo = snapshot.cpuinfo.has_value();
    inputs.counts = snapshot.configured.has_value();
    inputs.cpuidMissing = cpuidMissing(snapshot);
    source.kernel = readKernelTopology(name, snapshot.cpuinfo ? &*snapshot.cpuinfo : nullptr);
  } else if (kind == Kind::kCpuinfo) {
    inputs.live = false;
    inputs.counts = false;
    source.live = false;
    source.file = name;
    if (auto problem = readInput(name, &text)) {
      std::fprintf(stderr, "xrprocdetect: %s\n", problem->c_str());
      return 2;
    }
  } else {
    std::string cpuinfo;
    const bool haveCpuinfo = !readInput("/proc/cpuinfo", &cpuinfo);
    source.kernel = readKernelTopology("/", haveCpuinfo ? &cpuinfo : nullptr);
  }

  std::optional<XrCpuinfoRedirect> redirect;
  std::optional<XrSnapshotReplay> replay;
  if (kind == Kind::kSnapshot) {
    replay.emplace(snapshot);
  } else if (kind == Kind::kCpuinfo) {
    redirect.emplace(XrCpuinfoRedirect::kText, std::move(text));
  }

  std::vector<Row> rows;
  int status = 0;
  for (const Generation* g : run.selected) {
    rows.push_back(runGeneration(*g, run.settings, inputs));
    const Row& row = rows.back();
    if (run.passDebugOn) {
      std::fputs(row.debug.c_str(), stderr);
      std::fputs(row.summary.c_str(), stderr);
    }
    if (row.counted && row.result < 0) status = 1;
    if (source.kernel && compareWithKernel(row, *source.kernel).countsDiffer()) *differs = true;
  }

  if (options.tally) {
    if (source.kernel) tally->add(source.live ? "live" : name, rows, *source.kernel);
    return status;
  }
  std::string out;
  if (options.json) {
    out = json(rows, source, options.all, options.summary, run.lines);
  } else {
    out = options.all ? table(rows, source) : humanReport(rows.front(), source);
    if (options.summary) out += summaries(rows);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const Parsed parsed = parseOptions(argc, argv);
  if (!parsed.error.empty()) return usageError(parsed.error);
  const Options& options = parsed.options;
  if (options.help) {
    std::fputs(usageText().c_str(), stdout);
    return 0;
  }
  if (options.version) {
    std::printf("xrprocdetect %s\n", XRPROCDETECTOR_VERSION);
    return 0;
  }

  if (options.save) {
    std::string error;
    if (!xrSaveSnapshot(*options.save, "xrprocdetect " XRPROCDETECTOR_VERSION, &error)) {
      std::fprintf(stderr, "xrprocdetect: cannot save the snapshot: %s\n", error.c_str());
      return 2;
    }
    std::printf("Saved a snapshot of this machine in %s\n", options.save->c_str());
    return 0;
  }

  std::vector<const Generation*> selected;
  if (options.all) {
    for (const Generation& g : allGenerations())
      selected.push_back(&g);
  } else {
    selected.push_back(findGeneration(options.algorithm));
  }

  if (options.cpuinfo.empty() && options.snapshot.empty()) {
    // A generation that reads /proc/cpuinfo waits forever for the end of a
    // file it cannot read, so such a run is refused before it starts.
    for (const Generation* g : selected) {
      if (!g->readsCpuinfo) continue;
      if (auto problem = liveCpuinfoProblem()) {
        std::fprintf(stderr,
                     "xrprocdetect: cannot read /proc/cpuinfo (%s); generation %s would never "
                     "return, so it is not run (use --cpuinfo FILE, or --algorithm 5.3)\n",
                     problem->c_str(), g->name);
        return 2;
      }
      break;
    }
  }

  // The detectors always write at level 1 or more into a capture; their
  // lines reach the user only where asked for, at the level asked for. At a
  // level of 0 or below a detector writes nothing, so nothing is passed on.
  const std::int32_t userLevel = options.debugLevel.value_or(1);
  Run run;
  run.selected = selected;
  run.settings.versionIndex = options.versionIndex;
  run.settings.level = std::max<std::int32_t>(userLevel, 1);
  run.settings.echo = options.echo && userLevel >= 1;
  run.settings.summary = options.summary;
  run.passDebugOn = options.debugLevel && !options.echo && userLevel >= 1;
  run.options = &options;

  const std::vector<std::string>& names =
      options.snapshot.empty() ? options.cpuinfo : options.snapshot;
  run.lines = options.jsonLines || (options.json && names.size() > 1);
  Tally tally;
  int status = 0;
  bool failed = false;
  bool differs = false;
  if (names.empty()) {
    status = runInput(run, Kind::kLive, "", &tally, &differs);
  } else {
    for (std::size_t i = 0; i < names.size(); ++i) {
      // Several text reports are set apart by a blank line.
      if (i > 0 && !options.json && !options.tally) std::fputc('\n', stdout);
      const int one = runInput(run, options.snapshot.empty() ? Kind::kCpuinfo : Kind::kSnapshot,
                               names[i], &tally, &differs);
      if (one == 2) {
        tally.failed();
        failed = true;
      } else if (one != 0) {
        status = one;
      }
    }
  }
  if (options.tally) std::fputs(tally.text().c_str(), stdout);
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "xrprocdetect: cannot write the report: %s\n", std::strerror(errno));
    return 2;
  }
  if (failed || status == 2) return 2;
  if (options.check && differs) return 3;
  return status;
}
