// xrprocdetect: runs, compares and explains the detector generations, on
// this machine, on saved /proc/cpuinfo texts or on snapshots, beside the
// kernel's own topology. See `xrprocdetect --help`.
#include <xrprocdetector/detect.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "options.h"
#include "report.h"
#include "tally.h"

namespace {

using namespace xrprocdetect;

int usageError(const std::string& message) {
  std::fprintf(stderr, "xrprocdetect: %s (see xrprocdetect --help)\n", message.c_str());
  return 2;
}

// What is the same for every input.
struct Run {
  const Options* options = nullptr;
  std::vector<Generation> selected;
  DetectOptions settings;
  bool passDebugOn = false;
  bool lines = false;  // JSON Lines
};

// What the inputs called for, over all of them.
struct Outcome {
  bool failed = false;      // an input or a row could not be read (2)
  bool negative = false;    // a getProcData was negative (1)
  bool differs = false;     // a count differs from the kernel's (3)
  bool uncompared = false;  // a row's counts could not all be compared (4)
  std::string why;          // the first reason a row was not compared
};

// The source of one input, with its kernel row; nothing (said on standard
// error) when it cannot be read.
std::optional<Source> open(Source::Kind kind, const std::string& name, Input* input) {
  input->live = kind == Source::Kind::kLive;
  input->snapshot = kind == Source::Kind::kSnapshot;
  input->file = name;
  std::optional<Source> source;
  std::string error;
  if (kind == Source::Kind::kSnapshot) {
    source = Source::snapshot(name, &error);
    if (!source) error = "cannot read the snapshot: " + error;
  } else {
    source = kind == Source::Kind::kLive ? Source::live() : Source::cpuinfoFile(name);
    error = source->error();
    if (!error.empty()) source.reset();
  }
  if (source && kind != Source::Kind::kCpuinfo) {
    input->kernel = kernelTopology(*source);
    error = input->kernel->error;
    if (!error.empty()) source.reset();
  }
  if (!source) std::fprintf(stderr, "xrprocdetect: %s\n", error.c_str());
  return source;
}

// Whether --check may pass on `row`; otherwise *why says what was missing.
bool compared(const Detection& row, const Input& input, std::string* why) {
  if (!row.counted) {
    *why = std::string(generationName(row.generation)) + " did not count (" + row.note + ")";
  } else if (!input.kernel) {
    *why = "no kernel topology to compare with";
  } else if (!countsAgree(compare(row, *input.kernel)) &&
             !countsDiffer(compare(row, *input.kernel))) {
    const std::string& missing = input.kernel->missing;
    *why = "the kernel row lacks a count" + (missing.empty() ? "" : " (" + missing + ")");
  } else {
    return true;
  }
  return false;
}

// Runs the selected generations on one input and writes its report (or adds
// it to `tally`).
void runInput(const Run& run, Source::Kind kind, const std::string& name, Tally* tally,
              Outcome* outcome) {
  const Options& options = *run.options;
  Input input;
  const std::optional<Source> source = open(kind, name, &input);
  if (!source) {
    tally->failed();
    outcome->failed = true;
    return;
  }
  std::vector<Detection> rows;
  for (const Generation g : run.selected) {
    rows.push_back(detect(g, *source, run.settings));
    const Detection& row = rows.back();
    if (!row.error.empty()) {
      // A live /proc/cpuinfo that cannot be read: there are other ways in.
      const char* hint = input.live ? " (use --cpuinfo FILE, or --algorithm 5.3)" : "";
      std::fprintf(stderr, "xrprocdetect: %s%s\n", row.error.c_str(), hint);
      outcome->failed = true;
      return;
    }
    if (run.passDebugOn) {
      std::fputs(row.debug.c_str(), stderr);
      std::fputs(row.summary.c_str(), stderr);
    }
    if (row.counted && row.result < 0) outcome->negative = true;
    if (input.kernel && countsDiffer(compare(row, *input.kernel))) outcome->differs = true;
    std::string why;
    if (!compared(row, input, &why) && !outcome->uncompared) {
      outcome->uncompared = true;
      outcome->why = (input.live ? "this machine" : name) + ": " + why;
    }
  }
  if (options.tally) {
    if (input.kernel) tally->add(input.live ? "live" : name, rows, *input.kernel);
    return;
  }
  std::string out;
  if (options.json) {
    out = json(rows, input, options.all, options.summary, run.lines);
  } else {
    out = options.all ? table(rows, input) : humanReport(rows.front(), input);
    if (options.summary) out += summaries(rows);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

int save(const std::string& dir) {
  std::string error;
  if (!saveSnapshot(dir, &error)) {
    std::fprintf(stderr, "xrprocdetect: cannot save the snapshot: %s\n", error.c_str());
    return 2;
  }
  std::printf("Saved a snapshot of this machine in %s\n", dir.c_str());
  return 0;
}

Run settingsOf(const Options& options) {
  Run run;
  run.options = &options;
  if (options.all) {
    run.selected = {Generation::k53, Generation::k60, Generation::k61, Generation::k70,
                    Generation::kDefault};
  } else {
    run.selected = {*findGeneration(options.algorithm)};
  }
  // The detectors always write at level 1 or more (printSummary writes
  // nothing below it); their lines reach the user only where asked for, at
  // the level asked for. At a level of 0 or below nothing is passed on.
  const std::int32_t userLevel = options.debugLevel.value_or(1);
  run.settings.versionIndex = options.versionIndex;
  run.settings.debugLevel = std::max<std::int32_t>(userLevel, 1);
  run.settings.echo = options.echo && userLevel >= 1;
  run.settings.summary = options.summary;
  run.passDebugOn = options.debugLevel && !options.echo && userLevel >= 1;
  return run;
}

}  // namespace

int main(int argc, char** argv) {
  const Parsed parsed = parseOptions(argc, argv);
  if (!parsed.error.empty()) return usageError(parsed.error);
  const Options& options = parsed.options;
  if (options.help) return std::fputs(usageText().c_str(), stdout), 0;
  if (options.version) return std::printf("xrprocdetect %s\n", version()), 0;
  if (options.save) return save(*options.save);

  Run run = settingsOf(options);
  const std::vector<std::string>& names =
      options.snapshot.empty() ? options.cpuinfo : options.snapshot;
  run.lines = options.jsonLines || (options.json && names.size() > 1);
  const Source::Kind kind = names.empty()              ? Source::Kind::kLive
                            : options.snapshot.empty() ? Source::Kind::kCpuinfo
                                                       : Source::Kind::kSnapshot;
  Tally tally;
  Outcome outcome;
  for (std::size_t i = 0; i < std::max<std::size_t>(names.size(), 1); ++i) {
    // Several text reports are set apart by a blank line.
    if (i > 0 && !options.json && !options.tally) std::fputc('\n', stdout);
    runInput(run, kind, names.empty() ? "" : names[i], &tally, &outcome);
  }
  if (options.tally) std::fputs(tally.text().c_str(), stdout);
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "xrprocdetect: cannot write the report: %s\n", std::strerror(errno));
    return 2;
  }
  if (outcome.failed) return 2;
  if (options.check && outcome.differs) return 3;
  if (options.check && outcome.uncompared) {
    std::fprintf(stderr, "xrprocdetect: --check could not compare: %s\n", outcome.why.c_str());
    return 4;
  }
  return outcome.negative ? 1 : 0;
}
