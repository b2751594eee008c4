// Each /proc/cpuinfo generation's counting over synthetic machines of 8, 64,
// 256 and 1024 logical processors, opening and reading the file included,
// beside a plain open() + read() of the same file, the stages of a table
// count, and the set-up of the per-call tables alone. After the run a summary
// gives each generation's time as a multiple of the plain read, how time
// grows from 256 to 1024 processors, where a table count's time goes, and
// the table set-up as a share of a whole count.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "synthetic_cpuinfo.h"
#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/word_reader.h"
#include "xrprocdetector/xrprocdetector.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

const int kSizes[] = {8, 64, 256, 1024};

struct MachineFile {
  int logical;
  std::string path;
  std::size_t bytes;
};

std::string gTempDir;
std::vector<MachineFile> gFiles;

bool writeMachines() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/xrprocdetector-bench-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return false;
  gTempDir = pattern;
  for (int n : kSizes) {
    const std::string text = bench::cpuinfoText(bench::Machine(n));
    const std::string path = gTempDir + "/cpuinfo-" + std::to_string(n);
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (std::fclose(f) != 0 || !ok) return false;
    gFiles.push_back({n, path, text.size()});
  }
  return true;
}

void removeMachines() {
  for (const auto& f : gFiles)
    std::remove(f.path.c_str());
  if (!gTempDir.empty()) ::rmdir(gTempDir.c_str());
}

// The floor that any counting of the file stands on: open, read it whole
// through a buffer of the size the word reader uses, close. (Of the sizes
// from 16 KB to 1 MB, this one reads a 256-processor file about the fastest
// here, so the floor is not raised by a buffer that is too small.)
void plainRead(benchmark::State& state, const MachineFile& file) {
  constexpr std::size_t kBufferSize = xrprocdetector::detail::WordReader::kDefaultBufferSize;
  std::unique_ptr<char[]> buffer(new char[kBufferSize]);
  for (auto _ : state) {
    const int fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      state.SkipWithError("cannot open the machine file");
      break;
    }
    std::size_t total = 0;
    for (;;) {
      const ssize_t n = ::read(fd, buffer.get(), kBufferSize);
      if (n <= 0) break;
      total += static_cast<std::size_t>(n);
    }
    ::close(fd);
    benchmark::DoNotOptimize(total);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.bytes));
}

// One generation's counting: `run` is handed a fresh detector each time.
template <class Detector>
void countWith(benchmark::State& state, const MachineFile& file, __tz_procInfoIndex index,
               const std::function<int(Detector&)>& run) {
  const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, file.path);
  for (auto _ : state) {
    Detector detector(tzDebugNone, 0, index, nullptr, nullptr);
    benchmark::DoNotOptimize(run(detector));
    benchmark::DoNotOptimize(detector.logicalCount);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.bytes));
}

// The tables as the scans set them up: allocated with `new T` (every member
// has an initializer, so nothing is cleared first), constructed, destroyed.
void tableSetUp(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<xrLogicalTable> table(new xrLogicalTable);
    benchmark::DoNotOptimize(table.get());
    benchmark::ClobberMemory();
  }
}

// The stages of a table count, each including the ones before it: finding
// the trigger words (readUntilTrigger to the end of the file), the whole
// walk with a recorder that keeps nothing, and the walk into the tables.
namespace stage {

struct Discard {
  std::size_t bytes = 0;
  void processor(std::string_view v) { bytes += v.size(); }
  void cpuCores(std::string_view v) { bytes += v.size(); }
  void coreId(std::string_view v) { bytes += v.size(); }
  void physicalId(std::string_view v) { bytes += v.size(); }
};

void findTriggers(benchmark::State& state, const MachineFile& file) {
  for (auto _ : state) {
    xrprocdetector::detail::WordReader in(file.path.c_str());
    int triggers = 0;
    do {
      in.readUntilTrigger();
      ++triggers;
    } while (!in.eof());
    benchmark::DoNotOptimize(triggers);
  }
}

void walk(benchmark::State& state, const MachineFile& file) {
  for (auto _ : state) {
    xrprocdetector::detail::WordReader in(file.path.c_str());
    Discard values;
    xrprocdetector::detail::walkCpuinfo(in, values);
    benchmark::DoNotOptimize(values.bytes);
  }
}

void tables(benchmark::State& state, const MachineFile& file) {
  for (auto _ : state) {
    xrprocdetector::detail::WordReader in(file.path.c_str());
    const auto table = xrprocdetector::detail::scanCpuinfoTable(in);
    benchmark::DoNotOptimize(table->logical);
  }
}

const char* const kNames[] = {"find_triggers", "walk", "tables"};

}  // namespace stage

// The names under which the summary finds the runs.
std::string readName(int n) {
  return "plain_read/" + std::to_string(n);
}
std::string countName(const char* generation, int n) {
  return std::string("count/") + generation + "/" + std::to_string(n);
}
std::string stageName(const char* stage, int n) {
  return std::string("stage/") + stage + "/" + std::to_string(n);
}
const char* const kGenerations[] = {"6.0", "6.1", "7.0", "default"};

// Every benchmark also reports the fastest of its repetitions: on a shared
// machine the slow ones mostly measure the neighbours.
benchmark::internal::Benchmark* withMinimum(benchmark::internal::Benchmark* b) {
  return b->ComputeStatistics(
      "min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
}

void registerAll() {
  for (const auto& file : gFiles) {
    const int n = file.logical;
    withMinimum(benchmark::RegisterBenchmark(readName(n).c_str(), plainRead, file));
    withMinimum(
        benchmark::RegisterBenchmark(countName("6.0", n).c_str(), [file](benchmark::State& s) {
          countWith<XrProcDetectorLegacy_6x>(
              s, file, tzProcInfo60, [](XrProcDetectorLegacy_6x& d) { return d.getProcData(); });
        }));
    withMinimum(
        benchmark::RegisterBenchmark(countName("6.1", n).c_str(), [file](benchmark::State& s) {
          countWith<XrProcDetectorLegacy_6x>(
              s, file, tzProcInfo61, [](XrProcDetectorLegacy_6x& d) { return d.getProcData(); });
        }));
    withMinimum(
        benchmark::RegisterBenchmark(countName("7.0", n).c_str(), [file](benchmark::State& s) {
          countWith<XrProcDetectorLinux32_70>(
              s, file, tzProcInfo70, [](XrProcDetectorLinux32_70& d) { return d.getProcData(); });
        }));
    // Only the default detector's /proc/cpuinfo scan: its getProcData() would
    // go on to CPUID when a file names no physical id.
    withMinimum(
        benchmark::RegisterBenchmark(countName("default", n).c_str(), [file](benchmark::State& s) {
          countWith<XrProcDetectorLinux32>(
              s, file, tzProcInfo71, [](XrProcDetectorLinux32& d) { return d.platformProcInfo(); });
        }));
  }
  for (const auto& file : gFiles) {
    void (*const stages[])(benchmark::State&, const MachineFile&) = {stage::findTriggers,
                                                                     stage::walk, stage::tables};
    for (std::size_t k = 0; k < 3; ++k) {
      withMinimum(benchmark::RegisterBenchmark(stageName(stage::kNames[k], file.logical).c_str(),
                                               stages[k], file));
    }
  }
  withMinimum(benchmark::RegisterBenchmark("table_set_up", tableSetUp));
}

// The console output, plus the time of each run kept for the summary (the
// median when repetitions are asked for, else the mean of the runs).
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string name = run.run_name.str();
      const double seconds =
          run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") median_[name] = seconds;
        if (run.aggregate_name == "min") minimum_[name] = seconds;
      } else {
        samples_[name].push_back(seconds);
      }
    }
  }

  // The fastest repetition of `name` in seconds per iteration, or a negative
  // value without repetitions.
  double fastest(const std::string& name) const {
    const auto m = minimum_.find(name);
    return m == minimum_.end() ? -1 : m->second;
  }

  // Seconds per iteration of the run `name`, or a negative value if it did
  // not run (filtered out or failed).
  double seconds(const std::string& name) const {
    const auto m = median_.find(name);
    if (m != median_.end()) return m->second;
    const auto s = samples_.find(name);
    if (s == samples_.end() || s->second.empty()) return -1;
    double sum = 0;
    for (double v : s->second)
      sum += v;
    return sum / static_cast<double>(s->second.size());
  }

 private:
  std::map<std::string, double> median_;
  std::map<std::string, double> minimum_;
  std::map<std::string, std::vector<double>> samples_;
};

// Each count as a multiple of the plain read, with times from `timeOf`.
template <class TimeOf>
void printRatios(const char* title, const TimeOf& timeOf) {
  std::printf("\nTime of each count as a multiple of the plain read of the same file (%s):\n",
              title);
  std::printf("%-10s %10s %12s", "logical", "bytes", "read (us)");
  for (const char* g : kGenerations)
    std::printf(" %9s", g);
  std::printf("\n");
  for (const auto& file : gFiles) {
    const double read = timeOf(readName(file.logical));
    if (read <= 0) continue;
    std::printf("%-10d %10zu %12.1f", file.logical, file.bytes, read * 1e6);
    for (const char* g : kGenerations) {
      const double t = timeOf(countName(g, file.logical));
      if (t > 0) {
        std::printf(" %8.2fx", t / read);
      } else {
        std::printf(" %9s", "-");
      }
    }
    std::printf("\n");
  }
}

void printSummary(const SummaryReporter& r) {
  printRatios("median or mean times", [&r](const std::string& n) { return r.seconds(n); });
  if (r.fastest(readName(gFiles.front().logical)) > 0)
    printRatios("fastest repetitions", [&r](const std::string& n) { return r.fastest(n); });

  if (gFiles.size() == 4 && r.seconds(readName(256)) > 0 && r.seconds(readName(1024)) > 0) {
    std::printf("\nGrowth from 256 to 1024 processors (time ratio; the file grows %.2fx):\n",
                static_cast<double>(gFiles[3].bytes) / static_cast<double>(gFiles[2].bytes));
    auto growth = [&](const char* label, const std::string& at256, const std::string& at1024) {
      const double a = r.seconds(at256);
      const double b = r.seconds(at1024);
      if (a > 0 && b > 0) std::printf("  %-8s %6.2fx\n", label, b / a);
    };
    growth("read", readName(256), readName(1024));
    for (const char* g : kGenerations)
      growth(g, countName(g, 256), countName(g, 1024));
  }

  std::printf(
      "\nWhere the time of a table count goes (us; each stage includes the ones before it):\n");
  std::printf("%-10s %10s", "logical", "read");
  for (const char* name : stage::kNames)
    std::printf(" %14s", name);
  std::printf("\n");
  for (const auto& file : gFiles) {
    const double read = r.seconds(readName(file.logical));
    if (read <= 0) continue;
    std::printf("%-10d %10.1f", file.logical, read * 1e6);
    for (const char* name : stage::kNames) {
      const double t = r.seconds(stageName(name, file.logical));
      if (t > 0) {
        std::printf(" %14.1f", t * 1e6);
      } else {
        std::printf(" %14s", "-");
      }
    }
    std::printf("\n");
  }

  const double setUp = r.seconds("table_set_up");
  if (setUp > 0) {
    std::printf("\nTable set-up: %.2f us, as a share of a whole count:\n", setUp * 1e6);
    for (const auto& file : gFiles) {
      std::string line;
      for (const char* g : {"6.1", "7.0", "default"}) {
        const double t = r.seconds(countName(g, file.logical));
        char part[48];
        if (t > 0) std::snprintf(part, sizeof part, "  %s %5.1f%%", g, 100.0 * setUp / t);
        if (t > 0) line += part;
      }
      if (!line.empty()) std::printf("  %-6d%s\n", file.logical, line.c_str());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (!writeMachines()) {
    std::fprintf(stderr, "cannot write the synthetic machines under %s\n", gTempDir.c_str());
    removeMachines();
    return 1;
  }
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    removeMachines();
    return 1;
  }
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printSummary(reporter);
  benchmark::Shutdown();
  removeMachines();
  return 0;
}
