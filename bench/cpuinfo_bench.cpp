// Each /proc/cpuinfo generation's counting over synthetic machines of 8, 64,
// 256 and 1024 logical processors (opening and reading the file included),
// beside the kernel's own cost of producing /proc/cpuinfo: a read of the live
// file, per byte. The library runs once per host process, right after the
// kernel has made the text it reads, so that cost is the floor that matters.
// After the run a summary gives each count as a share of the kernel's cost
// for the same number of bytes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/cpuinfo_machine.h"
#include "synthetic_cpuinfo.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"

namespace {

const int kSizes[] = {8, 64, 256, 1024, 4096};
const char* const kGenerations[] = {"6.0", "6.1", "7.0", "default"};

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

// Open, read whole and close `path`; the bytes read.
std::size_t readWhole(const char* path) {
  static char buffer[64 * 1024];
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  std::size_t total = 0;
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
    total += static_cast<std::size_t>(n);
  ::close(fd);
  return total;
}

// The kernel producing the live /proc/cpuinfo, which it formats anew on every
// read. On a machine of few processors this is a per-byte estimate of what a
// large machine's text costs.
void kernelRead(benchmark::State& state) {
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes = readWhole("/proc/cpuinfo");
    benchmark::DoNotOptimize(bytes);
  }
  if (bytes == 0) state.SkipWithError("cannot read /proc/cpuinfo");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
  state.counters["bytes"] = static_cast<double>(bytes);
}

// One generation's counting: `run` is handed a fresh detector each time.
template <class Detector>
void countWith(benchmark::State& state, const MachineFile& file, __tz_procInfoIndex index,
               const std::function<int(Detector&)>& run) {
  const testsupport::CpuinfoMachine redirect(testsupport::CpuinfoMachine::kFile, file.path);
  for (auto _ : state) {
    Detector detector(tzDebugNone, 0, index, nullptr, nullptr);
    benchmark::DoNotOptimize(run(detector));
    benchmark::DoNotOptimize(detector.logicalCount);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.bytes));
}

std::string countName(const std::string& generation, int n) {
  return "count/" + generation + "/" + std::to_string(n);
}

// Every benchmark also reports the fastest of its repetitions: on a shared
// machine the slow ones mostly measure the neighbours.
void withMinimum(benchmark::internal::Benchmark* b) {
  b->ComputeStatistics(
      "min", [](const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); });
}

void registerAll() {
  withMinimum(benchmark::RegisterBenchmark("kernel_read/proc_cpuinfo", kernelRead));
  for (const auto& file : gFiles) {
    const int n = file.logical;
    auto sixX = [file](__tz_procInfoIndex index) {
      return [file, index](benchmark::State& s) {
        countWith<XrProcDetectorLegacy_6x>(
            s, file, index, [](XrProcDetectorLegacy_6x& d) { return d.getProcData(); });
      };
    };
    withMinimum(benchmark::RegisterBenchmark(countName("6.0", n).c_str(), sixX(tzProcInfo60)));
    withMinimum(benchmark::RegisterBenchmark(countName("6.1", n).c_str(), sixX(tzProcInfo61)));
    withMinimum(benchmark::RegisterBenchmark(countName("7.0", n).c_str(), [file](auto& s) {
      countWith<XrProcDetectorLinux32_70>(
          s, file, tzProcInfo70, [](XrProcDetectorLinux32_70& d) { return d.getProcData(); });
    }));
    // Only the default detector's /proc/cpuinfo scan: its getProcData() would
    // go on to CPUID when a file names no physical id.
    withMinimum(benchmark::RegisterBenchmark(countName("default", n).c_str(), [file](auto& s) {
      countWith<XrProcDetectorLinux32>(
          s, file, tzProcInfo71, [](XrProcDetectorLinux32& d) { return d.platformProcInfo(); });
    }));
  }
}

// The console output, plus the median (or, without repetitions, the mean)
// and the fastest repetition of each run, for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string name = run.run_name.str();
      const double seconds =
          run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type != Run::RT_Aggregate) {
        if (!times_["median"].count(name)) times_["median"][name] = seconds;
      } else if (run.aggregate_name == "median" || run.aggregate_name == "min") {
        times_[run.aggregate_name][name] = seconds;
      }
      if (run.counters.count("bytes")) kernelBytes_ = run.counters.at("bytes");
    }
  }

  // Seconds per iteration of `name` by `statistic` ("median" or "min"), or
  // a negative value if it did not run.
  double seconds(const std::string& statistic, const std::string& name) const {
    const auto s = times_.find(statistic);
    if (s == times_.end()) return -1;
    const auto t = s->second.find(name);
    return t == s->second.end() ? -1 : t->second;
  }
  double kernelBytes() const { return kernelBytes_; }

 private:
  std::map<std::string, std::map<std::string, double>> times_;
  double kernelBytes_ = 0;
};

void printShares(const SummaryReporter& r, const char* statistic) {
  const double kernel = r.seconds(statistic, "kernel_read/proc_cpuinfo");
  if (kernel <= 0 || r.kernelBytes() <= 0) return;
  const double perByte = kernel / r.kernelBytes();
  std::printf("\n%s: the kernel makes /proc/cpuinfo at %.2f ns per byte (%.0f bytes here).\n",
              statistic, perByte * 1e9, r.kernelBytes());
  std::printf("Each count in us, and as a share of the kernel's cost for the same bytes:\n");
  std::printf("%-8s %9s %11s", "logical", "bytes", "kernel(us)");
  for (const char* g : kGenerations)
    std::printf(" %16s", g);
  std::printf("\n");
  for (const auto& file : gFiles) {
    const double floor = perByte * static_cast<double>(file.bytes);
    std::printf("%-8d %9zu %11.0f", file.logical, file.bytes, floor * 1e6);
    for (const char* g : kGenerations) {
      const double t = r.seconds(statistic, countName(g, file.logical));
      if (t > 0) {
        std::printf(" %8.1f (%4.1f%%)", t * 1e6, 100 * t / floor);
      } else {
        std::printf(" %16s", "-");
      }
    }
    std::printf("\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (!writeMachines()) {
    std::fprintf(stderr, "cannot write the synthetic machines\n");
    removeMachines();
    return 1;
  }
  registerAll();
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  printShares(reporter, "median");
  printShares(reporter, "min");
  removeMachines();
  benchmark::Shutdown();
  return 0;
}
