// xrprocdetect: runs, compares and explains the detector generations, on
// this machine, on saved /proc/cpuinfo texts or on snapshots, beside the
// kernel's own topology. See `xrprocdetect --help`.
#include <malloc.h>

#include <xrprocdetector/detect.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
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
  bool lines = false;    // JSON Lines (schema 1)
  bool several = false;  // more than one input
};

// What the inputs called for, over all of them.
struct Outcome {
  bool failed = false;      // an input or a row could not be read (2)
  bool negative = false;    // a getProcData was negative (1)
  bool differs = false;     // a count differs from the kernel's (3)
  bool uncompared = false;  // a row's counts could not all be compared (4)
  std::string why;          // the first reason a row was not compared
};

// The source of one input, with its kernel row (its parts in `skip` left
// unread); nothing (*error says why) when it cannot be read.
std::optional<Source> open(Source::Kind kind, const std::string& name, std::uint32_t skip,
                           Input* input, std::string* why) {
  input->live = kind == Source::Kind::kLive;
  input->snapshot = kind == Source::Kind::kSnapshot;
  input->file = name;
  std::optional<Source> source;
  std::string error;
  if (kind == Source::Kind::kSnapshot) {
    Error e;
    source = Source::snapshot(name, e, skip);
    if (!source) error = "cannot read the snapshot: " + e.message();
  } else {
    source = kind == Source::Kind::kLive ? Source::live() : Source::cpuinfoFile(name);
    error = source->error().message();
    if (!error.empty()) source.reset();
  }
  if (source) input->savedAt = source->savedAt(), input->savedBy = source->savedBy();
  if (source && kind != Source::Kind::kCpuinfo) {
    input->topology = topology(*source);
    input->kernel = kernelTopology(*input->topology);
    error = input->kernel->error.message();
    if (!error.empty()) source.reset();
  }
  if (!source) *why = "xrprocdetect: " + escaped(error) + "\n";
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

// One input's report, made without writing anything, so that inputs can be
// worked on at once and still be written in their order.
struct Report {
  Input input;
  std::vector<Detection> rows;
  std::string out;
  std::string err;
  bool failed = false;
};

// Runs the selected generations on one input.
Report report(const Run& run, Source::Kind kind, const std::string& name) {
  const Options& options = *run.options;
  Report r;
  // A tally compares counts alone: the caches, most of a machine's files,
  // are left unread.
  const std::uint32_t skip = options.tally ? XRPD_SKIP_CACHES : 0;
  const std::optional<Source> source = open(kind, name, skip, &r.input, &r.err);
  r.failed = !source;
  for (auto g = run.selected.begin(); source && !options.view() && g != run.selected.end(); ++g) {
    r.rows.push_back(detect(*g, *source, run.settings));
    const Detection& row = r.rows.back();
    // A live /proc/cpuinfo that cannot be read: there are other ways in.
    const char* hint = r.input.live ? " (use --cpuinfo FILE, or --algorithm 5.3)" : "";
    if (!row.error.empty()) r.err += "xrprocdetect: " + escaped(row.error.message()) + hint + "\n";
    if (!row.error.empty()) return r.failed = true, r;
    if (run.passDebugOn) r.err += row.debug + row.summary;
  }
  if (r.failed || options.tally) return r;
  if (options.view() && options.json) {
    r.out = viewJson(r.input, options);
  } else if (options.view()) {
    const Topology& t = *r.input.topology;
    r.out = escaped(options.cpus     ? cpuLines(t)
                    : options.caches ? cacheLines(t)
                    : options.draw   ? drawing(t)
                                     : ompPlaces(places(t, *placeKind(*options.places))) + "\n");
    // With several inputs each one's lines are named.
    if (run.several) r.out = "# " + escaped(r.input.live ? "live" : name) + "\n" + r.out;
  } else if (options.json) {
    r.out = json(r.rows, r.input, options.all, options.summary, run.lines, options.jsonSchema);
  } else {
    // Words from the machine and file names never move the terminal's cursor.
    r.out = escaped(options.all ? table(r.rows, r.input) : humanReport(r.rows.front(), r.input));
    if (options.summary) r.out += summaries(r.rows);
  }
  return r;
}

// Writes one input's report (or adds it to `tally`), and what it calls for
// into *outcome.
void emit(const Report& r, const std::string& name, bool tallying, Tally* tally, Outcome* outcome) {
  std::fputs(r.err.c_str(), stderr);
  if (r.failed) {
    tally->failed();
    outcome->failed = true;
    return;
  }
  for (const Detection& row : r.rows) {
    if (row.counted && row.result < 0) outcome->negative = true;
    if (r.input.kernel && countsDiffer(compare(row, *r.input.kernel))) outcome->differs = true;
    std::string why;
    if (!compared(row, r.input, &why) && !outcome->uncompared) {
      outcome->uncompared = true;
      outcome->why = escaped((r.input.live ? "this machine" : name) + ": " + why);
    }
  }
  if (tallying && r.input.kernel) tally->add(r.input.live ? "live" : name, r.rows, *r.input.kernel);
  std::fwrite(r.out.data(), 1, r.out.size(), stdout);
  std::fflush(stdout);
}

// Every input, several at once where there are processors to spare (but
// with the echo, which writes straight to standard output), written in
// their order.
void runAll(const Run& run, Source::Kind kind, const std::vector<std::string>& names, Tally* tally,
            Outcome* outcome) {
  const bool text = !run.options->json && !run.options->tally && !run.options->view();
  const std::size_t workers =
      run.settings.echo
          ? 1
          : std::min<std::size_t>(names.size(),
                                  std::max(1u, std::min(4u, std::thread::hardware_concurrency())));
  std::vector<std::optional<Report>> reports(names.size());
  std::mutex lock;
  std::condition_variable done;
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t i; (i = next++) < names.size();) {
      Report r = report(run, kind, names[i]);
      const std::lock_guard<std::mutex> hold(lock);
      reports[i] = std::move(r);
      done.notify_one();
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t w = 0; w < workers && workers > 1; ++w)
    threads.emplace_back(work);
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::unique_lock<std::mutex> hold(lock);
    if (workers <= 1) reports[i] = report(run, kind, names[i]);  // one after another
    done.wait(hold, [&] { return reports[i].has_value(); });
    const Report r = std::move(*reports[i]);
    reports[i].reset();
    hold.unlock();
    // Several text reports are set apart by a blank line.
    if (i > 0 && text) std::fputc('\n', stdout);
    emit(r, names[i], run.options->tally, tally, outcome);
  }
  for (std::thread& t : threads)
    t.join();
}

// The budget once, then again each time it changes, until interrupted.
int watch(double seconds, bool json, int schema) {
  std::string error;
  std::optional<ProcessorBudget> budget = ProcessorBudget::open(&error);
  if (!budget) {
    std::fprintf(stderr, "xrprocdetect: cannot watch the budget: %s\n", escaped(error).c_str());
    return 2;
  }
  Input live;  // what names this machine, on each line of schema 2
  const Input* in = json && schema == 2 ? (live.topology = topology(), &live) : nullptr;
  Budget last = budget->read();
  std::fputs(budgetLine(last, json, in).c_str(), stdout);
  while (std::fflush(stdout) == 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    Budget now = budget->read();
    if (changed(last, now)) std::fputs(budgetLine(now, json, in).c_str(), stdout);
    last = std::move(now);
  }
  return 2;
}

int save(const std::string& dir) {
  std::string error;
  if (!saveSnapshot(dir, &error)) {
    std::fprintf(stderr, "xrprocdetect: cannot save the snapshot: %s\n", escaped(error).c_str());
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
  if (options.watch) return watch(*options.watch, options.json, options.jsonSchema);

  // Input after input, each takes the memory the one before gave back:
  // kept here rather than given back to the system, it is not touched
  // afresh, a page fault a page (about 20 µs in a virtual machine).
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 256 << 20);
  Run run = settingsOf(options);
  const std::vector<std::string>& names =
      options.snapshot.empty() ? options.cpuinfo : options.snapshot;
  run.lines = options.jsonLines || (options.json && names.size() > 1);
  run.several = names.size() > 1;
  const Source::Kind kind = names.empty()              ? Source::Kind::kLive
                            : options.snapshot.empty() ? Source::Kind::kCpuinfo
                                                       : Source::Kind::kSnapshot;
  Tally tally;
  Outcome outcome;
  runAll(run, kind, names.empty() ? std::vector<std::string>{""} : names, &tally, &outcome);
  if (options.tally)
    std::fputs((options.json ? tally.json() : escaped(tally.text())).c_str(), stdout);
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
