// What it costs a long-running host to keep its processor budget current:
// ProcessorBudget::read() beside topology() and kernelTopology(), live, in
// this process's control groups. Each benchmark also counts the heap
// allocations of one call.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <set>
#include <string>

#include <xrprocdetector/detect.h>

namespace {

std::atomic<long> allocations{0};

template <class Call>
void measure(benchmark::State& state, Call call) {
  long before = 0;
  for (auto _ : state) {
    before = allocations;
    benchmark::DoNotOptimize(call());
  }
  state.counters["allocations"] = static_cast<double>(allocations - before);
}

void budgetRead(benchmark::State& state) {
  std::optional<xrprocdetector::ProcessorBudget> budget = xrprocdetector::ProcessorBudget::open();
  if (!budget) return state.SkipWithError("cannot open the budget");
  measure(state, [&budget] { return budget->read().effectiveProcessors; });
}

// The descriptors this process has open.
std::set<int> openDescriptors() {
  std::set<int> fds;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') fds.insert(std::atoi(entry->d_name));
    closedir(dir);
  }
  return fds;
}

// The system calls a read cannot do without, measured in the same run: one
// pread of each descriptor the budget keeps (those open() added) and one
// sched_getaffinity. budgetRead over this is what the budget adds.
void systemCalls(benchmark::State& state) {
  const std::set<int> before = openDescriptors();
  std::optional<xrprocdetector::ProcessorBudget> budget = xrprocdetector::ProcessorBudget::open();
  if (!budget) return state.SkipWithError("cannot open the budget");
  std::set<int> kept = openDescriptors();
  for (const int fd : before)
    kept.erase(fd);
  kept.erase(*kept.rbegin());  // the listing's own descriptor, closed by now
  static char buffer[65536];
  cpu_set_t affinity;
  for (auto _ : state) {
    for (const int fd : kept)
      benchmark::DoNotOptimize(pread(fd, buffer, sizeof buffer, 0));
    benchmark::DoNotOptimize(sched_getaffinity(0, sizeof affinity, &affinity));
  }
  state.counters["descriptors"] = static_cast<double>(kept.size());
}

void topology(benchmark::State& state) {
  measure(state, [] { return xrprocdetector::topology().effectiveProcessors; });
}

void kernelTopology(benchmark::State& state) {
  measure(state, [] { return xrprocdetector::kernelTopology().effectiveProcessors; });
}

BENCHMARK(budgetRead);
BENCHMARK(systemCalls);
BENCHMARK(topology);
BENCHMARK(kernelTopology);

}  // namespace

// Counting replacements of the global allocation functions; GCC takes the
// frees below for frees of what new returned, which is what they are.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
  std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

BENCHMARK_MAIN();
