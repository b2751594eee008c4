// xrprocdetect: runs, compares and explains the detector generations, on
// this machine or on a saved /proc/cpuinfo. See `xrprocdetect --help`.
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

#include "options.h"
#include "report.h"
#include "run.h"

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

  Source source;
  Inputs inputs;
  std::string text;
  XrMachineSnapshot snapshot;
  if (options.snapshot) {
    source.live = inputs.live = false;
    source.snapshot = inputs.snapshot = true;
    source.file = *options.snapshot;
    std::string error;
    if (!xrLoadSnapshot(*options.snapshot, &snapshot, &error)) {
      std::fprintf(stderr, "xrprocdetect: cannot read the snapshot: %s\n", error.c_str());
      return 2;
    }
    inputs.cpuinfo = snapshot.cpuinfo.has_value();
    inputs.counts = snapshot.configured.has_value();
    inputs.cpuidMissing = cpuidMissing(snapshot);
  } else if (options.cpuinfo) {
    inputs.live = false;
    inputs.counts = false;
    source.live = false;
    source.file = *options.cpuinfo;
    if (auto problem = readInput(*options.cpuinfo, &text)) {
      std::fprintf(stderr, "xrprocdetect: %s\n", problem->c_str());
      return 2;
    }
  } else {
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
  RunSettings settings;
  settings.versionIndex = options.versionIndex;
  settings.level = std::max<std::int32_t>(userLevel, 1);
  settings.echo = options.echo && userLevel >= 1;
  settings.summary = options.summary;
  const bool passDebugOn = options.debugLevel && !options.echo && userLevel >= 1;

  std::optional<XrCpuinfoRedirect> redirect;
  std::optional<XrSnapshotReplay> replay;
  if (options.snapshot) {
    replay.emplace(snapshot);
  } else if (!source.live) {
    redirect.emplace(XrCpuinfoRedirect::kText, std::move(text));
  }

  std::vector<Row> rows;
  int status = 0;
  for (const Generation* g : selected) {
    rows.push_back(runGeneration(*g, settings, inputs));
    const Row& row = rows.back();
    if (passDebugOn) {
      std::fputs(row.debug.c_str(), stderr);
      std::fputs(row.summary.c_str(), stderr);
    }
    if (row.counted && row.result < 0) status = 1;
  }

  std::string out;
  if (options.json) {
    out = json(rows, source, options.all, options.summary);
  } else {
    out = options.all ? table(rows, source) : humanReport(rows.front(), source);
    if (options.summary) out += summaries(rows);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "xrprocdetect: cannot write the report: %s\n", std::strerror(errno));
    return 2;
  }
  return status;
}
